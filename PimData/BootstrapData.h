#pragma once
// The group ranges of one Bootstrap message (or fragment), each with its candidate RPs. The
// decoder fills them from a received message; the agent fills them for the encoder, and gathers
// the fragments of a message with the same RP list.
#include <algorithm>

#include "knet/Address.h"
#include "loom/Entity.h"
#include "loom/FlatMap.h"
#include "loom/Pool.h"
#include "loom/SmallVector.h"

namespace Routing::Pim {

// One candidate RP of a group range: a value, kept inside its range's list.
class BootstrapRpData {
 public:
  constexpr explicit BootstrapRpData(const Knet::IpGenAddr& address) : address_(address) {}
  const Knet::IpGenAddr& address() const { return address_; }
  U16 holdtime() const { return holdtime_; }
  void holdtimeIs(U16 v) { holdtime_ = v; }
  U8 priority() const { return priority_; }
  void priorityIs(U8 v) { priority_ = v; }
  U8 reserved() const { return reserved_; }
  void reservedIs(U8 v) { reserved_ = v; }

 private:
  friend class BootstrapRpList;
  Knet::IpGenAddr address_;
  U16 holdtime_ = 0;
  U8 priority_ = 0;
  U8 reserved_ = 0;
};

// The RPs of a group range or fragment by address, kept in the order they were added (the wire
// order of a received message, so that it is written back as it came). A range rarely has more
// than a handful of candidate RPs: the first few live inside the list. A reference to an RP holds
// until the list changes.
class BootstrapRpList {
  using Storage = Loom::SmallVector<BootstrapRpData, 4>;

 public:
  using const_iterator = Storage::const_iterator;
  const_iterator begin() const { return rps_.begin(); }
  const_iterator end() const { return rps_.end(); }
  size_t size() const { return rps_.size(); }
  bool empty() const { return rps_.empty(); }

  // The RP of the address, or null.
  const BootstrapRpData* find(const Knet::IpGenAddr& address) const {
    for (const BootstrapRpData& rp : rps_) {
      if (rp.address() == address) return &rp;
    }
    return nullptr;
  }
  BootstrapRpData* find(const Knet::IpGenAddr& address) {
    return const_cast<BootstrapRpData*>(static_cast<const BootstrapRpList*>(this)->find(address));
  }
  // The RP of the address, made if it is new.
  BootstrapRpData& findOrAdd(const Knet::IpGenAddr& address) {
    if (BootstrapRpData* rp = find(address)) return *rp;
    return add(address);
  }
  // Appends an RP that the caller knows is new.
  BootstrapRpData& add(const Knet::IpGenAddr& address) {
    // The list grows by a copy of a blank record that then takes the address: a record made on
    // the stack and copied in at once would be read back, in wide loads, from stores still in
    // flight, which stalls the decoder on every RP.
    static constexpr BootstrapRpData blank{Knet::IpGenAddr()};
    rps_.push_back(blank);
    BootstrapRpData& rp = rps_[rps_.size() - 1];
    rp.address_ = address;
    return rp;
  }
  bool erase(const Knet::IpGenAddr& address);
  void clear() { rps_.clear(); }
  void reserve(size_t n) { rps_.reserve(n); }

 private:
  Storage rps_;
};

// One group range with its RPs. Made and freed by the score per packet, so its storage is
// recycled.
class BootstrapGroupData : public Loom::Entity, public Loom::Pooled<BootstrapGroupData> {
 public:
  explicit BootstrapGroupData(const Knet::IpGenPrefix& prefix) : prefix_(prefix) {}
  // The range of the address and prefix length; a length beyond the family's width raises
  // Loom::RangeException.
  BootstrapGroupData(const Knet::IpGenAddr& address, U8 length) : prefix_(address, length) {}
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
  const BootstrapRpData* rpList(const Knet::IpGenAddr& address) const { return rpList_.find(address); }
  BootstrapRpData& rpListIs(const Knet::IpGenAddr& address) { return rpList_.findOrAdd(address); }
  // Appends an RP that the caller knows is new (the decoder, which has looked it up).
  BootstrapRpData& rpListAdd(const Knet::IpGenAddr& address) { return rpList_.add(address); }
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
  U32 groupDataEnq(const Loom::Ptr<BootstrapGroupData>& group) {
    // The tail is beyond every entry, so the queue only appends (metadataUpdate() in short).
    const U32 index = metadata_.tail;
    groupData_[index] = group;
    metadata_.tail = std::max(metadata_.tail, index + 1);
    metadata_.head = groupData_.begin()->first;
    metadata_.count = static_cast<U32>(groupData_.size());
    return index;
  }
  // Takes the head entry off the queue (null when it is empty).
  Loom::Ptr<BootstrapGroupData> groupDataDeq();
  // Puts a group at a position, replacing what was there.
  void groupDataIs(U32 index, const Loom::Ptr<BootstrapGroupData>& group);
  void groupDataDel(U32 index);
  void groupDataDelAll();
  void groupDataReserve(size_t n) { groupData_.reserve(n); }

 private:
  void metadataUpdate();
  GroupDataQueue groupData_;
  GroupDataMetadata metadata_;
};
Loom::Ptr<BootstrapOptionalData> bootstrapOptionalDataFactory();

}  // namespace Routing::Pim
