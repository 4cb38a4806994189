#pragma once
// The Bootstrap message (PIM type 4, RFC 5059): the BSR's fragment tag, hash mask length,
// priority and address, then group ranges, each with the candidate RPs for it. The decoder reads
// one message (or one fragment of a larger one) into a queue of group-range records and refuses
// a repeated group range, a repeated RP, a zone flag on any range but the first, inconsistent RP
// counts and trailing bytes; the encoder makes the same checks on what the agent passes.
//
// The codec does not reassemble fragments: BootstrapRpFragmentKey, BootstrapRpFragment and
// BootstrapRpFragments are the records with which the agent does.
#include <compare>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "PimData/PimFlags.h"
#include "PimMessage/Message.h"
#include "loom/FlatMap.h"
#include "loom/Pool.h"

namespace Routing::Pim::Packet {

// One candidate RP of a group range. A Bootstrap carries up to a few hundred of them, made and
// freed per packet, so their storage is recycled.
class BootstrapRpData : public Loom::Entity, public Loom::Pooled<BootstrapRpData> {
 public:
  explicit BootstrapRpData(const Knet::IpGenAddr& address) : address_(address) {}
  const Knet::IpGenAddr& address() const { return address_; }
  U16 holdtime() const { return holdtime_; }
  void holdtimeIs(U16 v) { holdtime_ = v; }
  U8 priority() const { return priority_; }
  void priorityIs(U8 v) { priority_ = v; }
  U8 reserved() const { return reserved_; }
  void reservedIs(U8 v) { reserved_ = v; }

 private:
  Knet::IpGenAddr address_;
  U16 holdtime_ = 0;
  U8 priority_ = 0;
  U8 reserved_ = 0;
};
Loom::Ptr<BootstrapRpData> bootstrapRpDataFactory(const Knet::IpGenAddr& address);

// The RPs of a group range or fragment by address, kept in the order they were added (the wire
// order of a received message, so that it is written back as it came).
class BootstrapRpList {
 public:
  using const_iterator = std::vector<Loom::Ptr<BootstrapRpData>>::const_iterator;
  const_iterator begin() const { return rps_.begin(); }
  const_iterator end() const { return rps_.end(); }
  size_t size() const { return rps_.size(); }
  bool empty() const { return rps_.empty(); }

  // The RP of the address, or null.
  BootstrapRpData* find(const Knet::IpGenAddr& address) const;
  // The RP of the address, made if it is new.
  BootstrapRpData& findOrAdd(const Knet::IpGenAddr& address);
  bool erase(const Knet::IpGenAddr& address);
  void clear() { rps_.clear(); }
  void reserve(size_t n) { rps_.reserve(n); }

 private:
  std::vector<Loom::Ptr<BootstrapRpData>> rps_;
};

// One group range with its RPs; its storage is recycled as the RPs' is.
class BootstrapGroupData : public Loom::Entity, public Loom::Pooled<BootstrapGroupData> {
 public:
  explicit BootstrapGroupData(const Knet::IpGenPrefix& prefix) : prefix_(prefix) {}
  const Knet::IpGenPrefix& prefix() const { return prefix_; }
  // The encoded group's flags byte: bit 0 (0x01) is the admin-scope zone (Z) flag, bit 7 the
  // bidirectional flag.
  U8 groupFlags() const { return groupFlags_; }
  void groupFlagsIs(U8 v) { groupFlags_ = v; }
  bool zone() const { return groupFlags_ & 0x01; }
  // The RPs of the whole range, over all fragments.
  U8 rpCount() const { return rpCount_; }
  void rpCountIs(U8 v) { rpCount_ = v; }
  // The RPs that this message carries for the range.
  U8 fragRpCount() const { return fragRpCount_; }
  void fragRpCountIs(U8 v) { fragRpCount_ = v; }
  U16 reserved() const { return reserved_; }
  void reservedIs(U16 v) { reserved_ = v; }

  const BootstrapRpList& rpList() const { return rpList_; }
  BootstrapRpData* rpList(const Knet::IpGenAddr& address) const { return rpList_.find(address); }
  BootstrapRpData& rpListIs(const Knet::IpGenAddr& address) { return rpList_.findOrAdd(address); }
  void rpListDel(const Knet::IpGenAddr& address) { rpList_.erase(address); }
  void rpListDelAll() { rpList_.clear(); }
  void rpListReserve(size_t n) { rpList_.reserve(n); }

 private:
  Knet::IpGenPrefix prefix_;
  U8 groupFlags_ = 0;
  U8 rpCount_ = 0;
  U8 fragRpCount_ = 0;
  U16 reserved_ = 0;
  BootstrapRpList rpList_;
};
Loom::Ptr<BootstrapGroupData> bootstrapGroupDataFactory(const Knet::IpGenPrefix& prefix);

// The group ranges of a message, in wire order, in a queue whose entries keep their position.
class BootstrapOptionalData : public Loom::Entity {
 public:
  // The queue's bookkeeping: the position of the first entry, the position the next entry takes,
  // and the number of entries.
  struct GroupDataMetadata {
    U32 head = 0;
    U32 tail = 0;
    U32 count = 0;
    friend bool operator==(const GroupDataMetadata&, const GroupDataMetadata&) = default;
  };
  using GroupDataQueue = Loom::FlatMap<U32, Loom::Ptr<BootstrapGroupData>>;

  static Loom::Ptr<BootstrapOptionalData> BootstrapOptionalDataIs();

  const GroupDataQueue& groupData() const { return groupData_; }
  BootstrapGroupData* groupData(U32 index) const;
  const GroupDataMetadata& groupDataMetadata() const { return metadata_; }
  // Appends at the tail; returns the entry's position.
  U32 groupDataEnq(const Loom::Ptr<BootstrapGroupData>& group);
  // Takes the head entry off the queue (null when it is empty).
  Loom::Ptr<BootstrapGroupData> groupDataDeq();
  // Puts a group at a position, replacing what was there.
  void groupDataIs(U32 index, const Loom::Ptr<BootstrapGroupData>& group);
  void groupDataDel(U32 index);
  void groupDataDelAll();

 private:
  void metadataUpdate();
  GroupDataQueue groupData_;
  GroupDataMetadata metadata_;
};
Loom::Ptr<BootstrapOptionalData> bootstrapOptionalDataFactory();

class BootstrapMessage : public Message {
 public:
  static constexpr U8 maxHashMaskLen = 128;
  static constexpr U8 noForwardBit = 0x80;

  BootstrapMessage();
  static const char* fwkType() { return "Routing::Pim::Packet::BootstrapMessage"; }

  U16 fragmentTag() const { return fragmentTag_; }
  void fragmentTagIs(U16 v) { fragmentTag_ = v; }
  U8 hashMaskLen() const { return hashMaskLen_; }
  // Stores the value, then raises Loom::RangeException when it is above 128.
  void hashMaskLenIs(U8 v);
  U8 bsrPriority() const { return bsrPriority_; }
  void bsrPriorityIs(U8 v) { bsrPriority_ = v; }
  const Knet::IpGenAddr& bsrAddress() const { return bsrAddress_; }
  void bsrAddressIs(const Knet::IpGenAddr& v) { bsrAddress_ = v; }
  // The group ranges; null when the message carries none.
  const Loom::Ptr<BootstrapOptionalData>& groupRpData() const { return groupRpData_; }
  void groupRpDataIs(const Loom::Ptr<BootstrapOptionalData>& v) { groupRpData_ = v; }
  // The ranges seen so far while a read or a write runs; empty between operations.
  const Loom::FlatSet<Knet::IpGenPrefix>& prefixList() const { return prefixList_; }

  // The No-Forward bit, bit 7 of the header's reserved byte. Setting it clears the other bits.
  bool noForward() const { return reserved() & noForwardBit; }
  void noForwardIs(bool v) { reservedIs(v ? noForwardBit : 0); }
  bool forward() const { return !noForward(); }
  void forwardIs(bool v) { noForwardIs(!v); }

  // Reads the message at offset: the bytes read, header included, or 0. A hash mask length above
  // 128 raises Loom::RangeException.
  U32 readBootstrapMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  // Writes the message at offset: the bytes written, header included, or 0.
  U32 writeBootstrapMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);

  void print(std::ostream& os) const override;

 private:
  U32 readGroups(const Loom::Ptr<Knet::Pkt>& pkt, U32 pos, S64& remaining, BootstrapOptionalData& data);
  U32 writeGroups(const Loom::Ptr<Knet::Pkt>& pkt, U32 pos);

  U16 fragmentTag_ = 0;
  U8 hashMaskLen_ = 0;
  U8 bsrPriority_ = 0;
  Knet::IpGenAddr bsrAddress_;
  Loom::Ptr<BootstrapOptionalData> groupRpData_;
  Loom::FlatSet<Knet::IpGenPrefix> prefixList_;
};
Loom::Ptr<BootstrapMessage> bootstrapMessageFactory();

// What tells the fragments of one group range of one Bootstrap message apart.
struct BootstrapRpFragmentKey {
  Knet::IpGenPrefix prefix;
  Knet::IpGenAddr bsrAddress;
  U8 groupFlags = 0;
  bool noForward = false;
  U16 fragmentTag = 0;
  U8 hashMaskLen = 0;
  U8 bsrPriority = 0;
  U8 rpCount = 0;
  U32 hash = 0;

  // True for the empty key (every field at its default).
  bool operator!() const { return *this == BootstrapRpFragmentKey(); }
  friend bool operator==(const BootstrapRpFragmentKey&, const BootstrapRpFragmentKey&) = default;
  // Field by field, in declaration order.
  friend std::strong_ordering operator<=>(const BootstrapRpFragmentKey&, const BootstrapRpFragmentKey&) = default;
};
// "Value('Routing::Pim::Packet::BootstrapRpFragmentKey', ** {'prefix': 224.0.0.0/4, ...})".
std::ostream& operator<<(std::ostream& os, const BootstrapRpFragmentKey& k);
std::string valueToStrep(const BootstrapRpFragmentKey& k);
// The key from its text form; nullopt when the text is not one.
std::optional<BootstrapRpFragmentKey> bootstrapRpFragmentKeyFromStrep(std::string_view text);

// The RPs of one group range gathered from the fragments of one message.
class BootstrapRpFragment : public Loom::Entity {
 public:
  explicit BootstrapRpFragment(const BootstrapRpFragmentKey& key) : key_(key) {}
  const BootstrapRpFragmentKey& key() const { return key_; }
  U8 fragRpCount() const { return fragRpCount_; }
  void fragRpCountIs(U8 v) { fragRpCount_ = v; }
  // Adds n, modulo 256.
  void fragRpCountInc(U8 n) { fragRpCount_ = static_cast<U8>(fragRpCount_ + n); }

  const BootstrapRpList& rpList() const { return rpList_; }
  BootstrapRpData* rpList(const Knet::IpGenAddr& address) const { return rpList_.find(address); }
  BootstrapRpData& rpListIs(const Knet::IpGenAddr& address) { return rpList_.findOrAdd(address); }
  void rpListDel(const Knet::IpGenAddr& address) { rpList_.erase(address); }
  void rpListDelAll() { rpList_.clear(); }

 private:
  BootstrapRpFragmentKey key_;
  U8 fragRpCount_ = 0;
  BootstrapRpList rpList_;
};

class BootstrapRpFragments : public Loom::Entity {
 public:
  using Fragments = std::map<BootstrapRpFragmentKey, Loom::Ptr<BootstrapRpFragment>>;
  const Fragments& fragments() const { return fragments_; }
  BootstrapRpFragment* fragments(const BootstrapRpFragmentKey& key) const;
  // The fragment of the key, made if it is new.
  BootstrapRpFragment& fragmentsIs(const BootstrapRpFragmentKey& key);
  void fragmentsDel(const BootstrapRpFragmentKey& key) { fragments_.erase(key); }
  void fragmentsDelAll() { fragments_.clear(); }

 private:
  Fragments fragments_;
};

std::ostream& operator<<(std::ostream& os, const BootstrapMessage* m);
std::ostream& operator<<(std::ostream& os, const BootstrapOptionalData* d);
std::ostream& operator<<(std::ostream& os, const BootstrapGroupData* g);
std::ostream& operator<<(std::ostream& os, const BootstrapRpData* r);

}  // namespace Routing::Pim::Packet
