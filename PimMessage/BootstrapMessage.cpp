#include "PimMessage/BootstrapMessage.h"

#include <algorithm>
#include <new>

#include "PimMessage/EncodedAddress.h"
#include "knet/Cursor.h"
#include "loom/Exception.h"

namespace Routing::Pim::Packet {
namespace {

// ---- Decoder texts ----
constexpr const char* kHeaderParse = "Invalid Pim Bootstrap - Header - Parse Error";
constexpr const char* kParse = "Invalid Pim Bootstrap - Parse Error";
constexpr const char* kBsrParse = "Invalid Pim Bootstrap - BSR Address - Parse Error";
constexpr const char* kBsrFamily = "Invalid Pim Bootstrap - BSR Address - Invalid Family - Family: ";
constexpr const char* kBsrInvalid = "Invalid Pim Bootstrap - BSR Address - Invalid Address - ";
constexpr const char* kMallocFailure = "BootstrapOptionsData - Malloc Failure";
constexpr const char* kGroupParse = "Invalid Pim Bootstrap - Group Address - Parse Error";
constexpr const char* kGroupFamily = "Invalid Pim Bootstrap - Group Address - Invalid Family - Family: ";
constexpr const char* kGroupInvalid = "Invalid Pim Bootstrap - Group Address - Invalid Prefix: ";
constexpr const char* kGroupDuplicate = "Invalid Pim Bootstrap - Group Address - Duplicate group - Group Address: ";
constexpr const char* kZoneNotFirst = "Invalid Pim Bootstrap - Zone bit set on group other than first Group Address: ";
constexpr const char* kRpCounts = "Invalid Pim Bootstrap data - RP count ";
constexpr const char* kLessThanFrag = " is less than fragRp count ";
constexpr const char* kRpParse = "Invalid Pim Bootstrap - RP Address - Parse Error";
constexpr const char* kRpInvalid = "Invalid Pim Bootstrap - RP Address - Invalid Address - ";
constexpr const char* kRpDuplicate = "Invalid Pim Bootstrap - RP Address - Duplicate - RP Address: ";
constexpr const char* kRpMissing = "Invalid Pim Bootstrap - Parse Error - RP count remaining ";
constexpr const char* kEndOfMessage = "Invalid Pim Bootstrap - End of Message - Remaining: ";

// ---- Encoder texts ----
constexpr const char* kHeaderSpace = "Invalid Pim Bootstrap - Header - Unavailable Space - Remaining: ";
constexpr const char* kFixedSpace = "Invalid Pim Bootstrap - Fixed Fields - Unavailable Space - Remaining: ";
constexpr const char* kWriteFamily = "Invalid Pim Bootstrap - Invalid Family - Family: ";
constexpr const char* kBsrWrite = "Invalid Pim Bootstrap - BSR Address - Write Error";
constexpr const char* kWriteDuplicate = "Invalid Pim Bootstrap - Duplicate Group present Group Address: ";
constexpr const char* kGroupWrite = "Invalid Pim Bootstrap - Group Address - Write Error";
constexpr const char* kPassedCounts = "Invalid Pim Bootstrap data passed - RP count ";
constexpr const char* kPassedMismatch = "Invalid Pim Bootstrap data passed - RP count in BSM";
constexpr const char* kRecordsCount = " does not match RP records count ";
constexpr const char* kCountsSpace = "Invalid Pim Bootstrap - RP Counts - Unavailable Space - Remaining: ";
constexpr const char* kRpWrite = "Invalid Pim Bootstrap - RP Address - Write Error";
constexpr const char* kRpTailSpace = "Invalid Pim Bootstrap - RP Holdtime - Unavailable Space - Remaining: ";
constexpr const char* kHeaderWrite = "Invalid Pim Bootstrap - Header - Write Error";

// A U8 written as one raw character, as the count texts show them.
char raw(U8 v) { return static_cast<char>(v); }

}  // namespace

// ======================================================================== records

Loom::Ptr<BootstrapRpData> bootstrapRpDataFactory(const Knet::IpGenAddr& address) { return new BootstrapRpData(address); }

BootstrapRpData* BootstrapRpList::find(const Knet::IpGenAddr& address) const {
  for (const auto& rp : rps_) {
    if (rp->address() == address) return rp.ptr();
  }
  return nullptr;
}

BootstrapRpData& BootstrapRpList::findOrAdd(const Knet::IpGenAddr& address) {
  if (BootstrapRpData* rp = find(address)) return *rp;
  return *rps_.emplace_back(new BootstrapRpData(address));
}

bool BootstrapRpList::erase(const Knet::IpGenAddr& address) {
  return std::erase_if(rps_, [&](const Loom::Ptr<BootstrapRpData>& rp) { return rp->address() == address; }) != 0;
}

Loom::Ptr<BootstrapGroupData> bootstrapGroupDataFactory(const Knet::IpGenPrefix& prefix) {
  return new BootstrapGroupData(prefix);
}

Loom::Ptr<BootstrapOptionalData> BootstrapOptionalData::BootstrapOptionalDataIs() { return new BootstrapOptionalData; }

Loom::Ptr<BootstrapOptionalData> bootstrapOptionalDataFactory() { return BootstrapOptionalData::BootstrapOptionalDataIs(); }

BootstrapGroupData* BootstrapOptionalData::groupData(U32 index) const {
  auto it = groupData_.find(index);
  return it == groupData_.end() ? nullptr : it->second.ptr();
}

U32 BootstrapOptionalData::groupDataEnq(const Loom::Ptr<BootstrapGroupData>& group) {
  const U32 index = metadata_.tail;
  groupData_[index] = group;
  metadataUpdate();
  return index;
}

Loom::Ptr<BootstrapGroupData> BootstrapOptionalData::groupDataDeq() {
  if (groupData_.empty()) return nullptr;
  Loom::Ptr<BootstrapGroupData> head = groupData_.begin()->second;
  groupData_.erase(groupData_.begin()->first);
  metadataUpdate();
  return head;
}

void BootstrapOptionalData::groupDataIs(U32 index, const Loom::Ptr<BootstrapGroupData>& group) {
  groupData_[index] = group;
  metadataUpdate();
}

void BootstrapOptionalData::groupDataDel(U32 index) {
  groupData_.erase(index);
  metadataUpdate();
}

void BootstrapOptionalData::groupDataDelAll() {
  groupData_.clear();
  metadataUpdate();
}

// The tail only grows, so that a position is never given twice while the queue lives.
void BootstrapOptionalData::metadataUpdate() {
  metadata_.count = static_cast<U32>(groupData_.size());
  if (groupData_.empty()) {
    metadata_.head = metadata_.tail;
    return;
  }
  metadata_.head = groupData_.begin()->first;
  metadata_.tail = std::max(metadata_.tail, std::prev(groupData_.end())->first + 1);
}

BootstrapRpFragment* BootstrapRpFragments::fragments(const BootstrapRpFragmentKey& key) const {
  auto it = fragments_.find(key);
  return it == fragments_.end() ? nullptr : it->second.ptr();
}

BootstrapRpFragment& BootstrapRpFragments::fragmentsIs(const BootstrapRpFragmentKey& key) {
  Loom::Ptr<BootstrapRpFragment>& f = fragments_[key];
  if (!f) f = new BootstrapRpFragment(key);
  return *f;
}

// ======================================================================== message

BootstrapMessage::BootstrapMessage() : Message(Knet::pimBootstrap()) {}

Loom::Ptr<BootstrapMessage> bootstrapMessageFactory() { return new BootstrapMessage; }

void BootstrapMessage::hashMaskLenIs(U8 v) {
  hashMaskLen_ = v;
  if (v > maxHashMaskLen) throw Loom::RangeException("BootstrapMessage::hashMaskLen < 0 or > 128 not allowed");
}

U32 BootstrapMessage::readBootstrapMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  groupRpData_ = nullptr;
  if (readHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kHeaderParse);
    return 0;
  }
  S64 remaining = S64(pkt->size()) - S64(offset) - 4;
  if (remaining <= 3) {
    PIM_TRACE(traceError, kParse);
    return 0;
  }
  Knet::PktReader r(pkt, offset + 4);
  fragmentTagIs(r.readU16Be());
  hashMaskLenIs(r.readU8());
  bsrPriorityIs(r.readU8());

  EncodedUnicastAddress bsr;
  const U32 bsrLen = bsr.readUnicastAddress(pkt, offset + 8);
  if (bsrLen == 0) {
    PIM_TRACE(traceError, kBsrParse);
    return 0;
  }
  const Knet::AddressFamily family = af();
  if (bsr.address().af() != family) {
    PIM_TRACE(traceError, kBsrFamily << family << "BSR Address: " << bsr.address());
    return 0;
  }
  if (!bsr.valid()) {
    PIM_TRACE(traceError, kBsrInvalid << bsr.address());
    return 0;
  }
  bsrAddressIs(bsr.address());

  Loom::Ptr<BootstrapOptionalData> data;
  try {
    data = bootstrapOptionalDataFactory();
  } catch (const std::bad_alloc&) {
    PIM_TRACE(traceError, kMallocFailure);
    return 0;
  }
  remaining -= 4 + bsrLen;
  const U32 end = readGroups(pkt, offset + 8 + bsrLen, remaining, *data);
  prefixList_.clear();
  if (end == 0) {
    data->groupDataDelAll();
    return 0;
  }
  if (remaining != 0) {
    PIM_TRACE(traceError, kEndOfMessage << remaining);
    return 0;
  }
  if (!data->groupData().empty()) groupRpDataIs(data);
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return end - offset;
}

// The group ranges from pos on: the position behind the last one read, or 0 after a failure.
U32 BootstrapMessage::readGroups(const Loom::Ptr<Knet::Pkt>& pkt, U32 pos, S64& remaining,
                                 BootstrapOptionalData& data) {
  const Knet::AddressFamily family = af();
  EncodedGroupAddress encGroup;
  EncodedUnicastAddress encRp;
  bool first = true;
  while (remaining > 0) {
    const U32 groupLen = encGroup.readGroupAddress(pkt, pos);
    if (groupLen == 0) {
      PIM_TRACE(traceError, kGroupParse);
      return 0;
    }
    const Knet::IpGenPrefix prefix = encGroup.prefix();
    if (prefix.af() != family) {
      PIM_TRACE(traceError, kGroupFamily << family << "Group Address: " << prefix);
      return 0;
    }
    if (!encGroup.valid()) {
      PIM_TRACE(traceError, kGroupInvalid << prefix);
      return 0;
    }
    if (prefixList_.contains(prefix)) {
      PIM_TRACE(traceError, kGroupDuplicate << prefix);
      return 0;
    }
    if (!first && encGroup.flags().zone()) {
      PIM_TRACE(traceError, kZoneNotFirst << prefix);
      return 0;
    }
    first = false;
    Loom::Ptr<BootstrapGroupData> group = bootstrapGroupDataFactory(prefix);
    data.groupDataEnq(group);
    group->groupFlagsIs(encGroup.flags().value());
    pos += groupLen;
    remaining -= groupLen;
    // A range that ends the message without counts or RPs is taken as it is.
    if (remaining == 0) return pos;
    if (remaining <= 3) {
      PIM_TRACE(traceError, kParse);
      return 0;
    }
    Knet::PktReader r(pkt, pos);
    group->rpCountIs(r.readU8());
    group->fragRpCountIs(r.readU8());
    group->reservedIs(r.readU16Be());
    pos += 4;
    remaining -= 4;
    if (group->fragRpCount() > group->rpCount()) {
      PIM_TRACE(traceError, kRpCounts << raw(group->rpCount()) << kLessThanFrag << raw(group->fragRpCount()));
      return 0;
    }
    // The RP count of the whole range bounds the list, not the count of this fragment.
    group->rpListReserve(group->rpCount());
    for (U32 i = 0; i < group->rpCount(); ++i) {
      const U32 rpLen = encRp.readUnicastAddress(pkt, pos);
      if (rpLen == 0) {
        PIM_TRACE(traceError, kRpParse);
        group->rpListDelAll();
        return 0;
      }
      if (!encRp.valid()) {
        PIM_TRACE(traceError, kRpInvalid << encRp.address());
        group->rpListDelAll();
        return 0;
      }
      if (group->rpList(encRp.address())) {
        PIM_TRACE(traceError, kRpDuplicate << encRp.address());
        group->rpListDelAll();
        return 0;
      }
      BootstrapRpData& rp = group->rpListIs(encRp.address());
      pos += rpLen;
      remaining -= rpLen;
      if (remaining < 4) {
        PIM_TRACE(traceError, kParse);
        group->rpListDelAll();
        return 0;
      }
      Knet::PktReader tail(pkt, pos);
      rp.holdtimeIs(tail.readU16Be());
      rp.priorityIs(tail.readU8());
      rp.reservedIs(tail.readU8());
      pos += 4;
      remaining -= 4;
      const U32 left = group->rpCount() - i - 1;
      if (left > 0 && remaining == 0) {
        PIM_TRACE(traceError, kRpMissing << raw(static_cast<U8>(left)) << " but no more data.");
        group->rpListDelAll();
        return 0;
      }
    }
    prefixList_.insert(prefix);
  }
  return pos;
}

U32 BootstrapMessage::writeBootstrapMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const S64 remaining = S64(pkt->size()) - S64(offset);
  if (remaining <= 3) {
    PIM_TRACE(traceError, kHeaderSpace << remaining);
    return 0;
  }
  if (remaining < 8) {
    PIM_TRACE(traceError, kFixedSpace << remaining - 4 << " Expected: " << 4);
    return 0;
  }
  Knet::PktWriter w(pkt, offset + 4);
  w.writeU16Be(fragmentTag_);
  w.writeU8(hashMaskLen_);
  w.writeU8(bsrPriority_);
  if (bsrAddress_.af() != af()) {
    PIM_TRACE(traceError, kWriteFamily << bsrAddress_.af() << " BSR Address: " << bsrAddress_);
    return 0;
  }
  EncodedUnicastAddress bsr;
  bsr.addressIs(bsrAddress_);
  const U32 bsrLen = bsr.writeUnicastAddress(pkt, offset + 8);
  if (bsrLen == 0) {
    PIM_TRACE(traceError, kBsrWrite);
    return 0;
  }
  const U32 end = writeGroups(pkt, offset + 8 + bsrLen);
  prefixList_.clear();
  if (end == 0) return 0;
  lengthIs(end - offset);
  if (writeHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kHeaderWrite);
    return 0;
  }
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return length();
}

// The group ranges from pos on: the position behind the last one written, or 0 after a failure.
U32 BootstrapMessage::writeGroups(const Loom::Ptr<Knet::Pkt>& pkt, U32 pos) {
  if (!groupRpData_) return pos;
  const Knet::AddressFamily family = af();
  EncodedGroupAddress encGroup;
  EncodedUnicastAddress encRp;
  bool first = true;
  for (const auto& [index, group] : groupRpData_->groupData()) {
    const Knet::IpGenPrefix& prefix = group->prefix();
    if (prefix.af() != family) {
      PIM_TRACE(traceError, kWriteFamily << prefix.af() << " Group Address: " << prefix);
      return 0;
    }
    if (!first && group->zone()) {
      PIM_TRACE(traceError, kZoneNotFirst << prefix);
      return 0;
    }
    first = false;
    if (prefixList_.contains(prefix)) {
      PIM_TRACE(traceError, kWriteDuplicate << prefix);
      return 0;
    }
    encGroup.prefixIs(prefix);
    encGroup.flagsIs(GroupFlags(group->groupFlags()));
    const U32 groupLen = encGroup.writeGroupAddress(pkt, pos);
    if (groupLen == 0) {
      PIM_TRACE(traceError, kGroupWrite);
      return 0;
    }
    pos += groupLen;
    if (group->rpCount() < group->fragRpCount()) {
      PIM_TRACE(traceError, kPassedCounts << raw(group->rpCount()) << kLessThanFrag << raw(group->fragRpCount()));
      return 0;
    }
    if (group->fragRpCount() != group->rpList().size()) {
      PIM_TRACE(traceError, kPassedMismatch << raw(group->fragRpCount()) << kRecordsCount << group->rpList().size());
      return 0;
    }
    Knet::PktWriter counts(pkt, pos);
    if (!counts.fits(4)) {
      PIM_TRACE(traceError, kCountsSpace << counts.remaining() << " Expected: " << 4);
      return 0;
    }
    counts.writeU8(group->rpCount());
    counts.writeU8(group->fragRpCount());
    counts.writeU16Be(group->reserved());
    pos += 4;
    for (const Loom::Ptr<BootstrapRpData>& rp : group->rpList()) {
      if (rp->address().af() != family) {
        PIM_TRACE(traceError, kWriteFamily << rp->address().af() << " RP Address: " << rp->address());
        return 0;
      }
      encRp.addressIs(rp->address());
      const U32 rpLen = encRp.writeUnicastAddress(pkt, pos);
      if (rpLen == 0) {
        PIM_TRACE(traceError, kRpWrite);
        return 0;
      }
      pos += rpLen;
      Knet::PktWriter tail(pkt, pos);
      if (!tail.fits(4)) {
        PIM_TRACE(traceError, kRpTailSpace << tail.remaining() << " Expected: " << 4);
        return 0;
      }
      tail.writeU16Be(rp->holdtime());
      tail.writeU8(rp->priority());
      tail.writeU8(rp->reserved());
      pos += 4;
    }
    prefixList_.insert(prefix);
  }
  return pos;
}

}  // namespace Routing::Pim::Packet
