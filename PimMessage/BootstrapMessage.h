#pragma once
// The Bootstrap message (PIM type 4, RFC 5059): the BSR's fragment tag, hash mask length,
// priority and address, then group ranges, each with the candidate RPs for it. The decoder reads
// one message (or one fragment of a larger one) into a queue of group-range records
// (PimData/BootstrapData.h) and refuses a repeated group range, a repeated RP, a zone flag on
// any range but the first, inconsistent RP counts and trailing bytes; the encoder makes the same
// checks on what the agent passes.
//
// The codec does not reassemble fragments: BootstrapRpFragmentKey, BootstrapRpFragment and
// BootstrapRpFragments are the records with which the agent does.
#include <compare>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "PimData/BootstrapData.h"
#include "PimData/PimFlags.h"
#include "PimMessage/Message.h"
#include "knet/Cursor.h"

namespace Routing::Pim::Packet {

using Routing::Pim::BootstrapGroupData;
using Routing::Pim::BootstrapOptionalData;
using Routing::Pim::BootstrapRpData;
using Routing::Pim::BootstrapRpList;
using Routing::Pim::bootstrapGroupDataFactory;
using Routing::Pim::bootstrapOptionalDataFactory;

// The rows of the Bootstrap text table: the failures of a read or write.
enum class BootstrapText : U8 {
  headerParse,
  parse,
  bsrParse,
  bsrFamily,
  bsrInvalid,
  mallocFailure,
  groupParse,
  groupFamily,
  groupInvalid,
  groupDuplicate,
  zoneNotFirst,
  rpCounts,
  rpParse,
  rpInvalid,
  rpDuplicate,
  rpMissing,
  endOfMessage,
  headerSpace,
  fixedSpace,
  writeFamily,
  bsrWrite,
  writeDuplicate,
  groupWrite,
  passedCounts,
  passedMismatch,
  countsSpace,
  rpWrite,
  rpTailSpace,
  headerWrite,
};
template <>
inline constexpr TextTable textTableOf<BootstrapText> = TextTable::bootstrap;
std::string_view textOf(BootstrapText row);

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
  bool readGroups(Knet::PktReader& r, BootstrapOptionalData& data);
  bool writeGroups(Knet::PktWriter& w);

  U16 fragmentTag_ = 0;
  U8 hashMaskLen_ = 0;
  U8 bsrPriority_ = 0;
  Knet::IpGenAddr bsrAddress_;
  Loom::Ptr<BootstrapOptionalData> groupRpData_;
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
  const BootstrapRpData* rpList(const Knet::IpGenAddr& address) const { return rpList_.find(address); }
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
