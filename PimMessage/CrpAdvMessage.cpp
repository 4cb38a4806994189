#include "PimMessage/CrpAdvMessage.h"

#include <algorithm>
#include <new>
#include <sstream>

#include "PimMessage/EncodedAddress.h"
#include "knet/Cursor.h"

namespace Routing::Pim::Packet {
namespace {

// ---- Decoder texts ----
constexpr const char* kHeaderParse = "Invalid Pim CrpAdv - Header - Parse Error";
constexpr const char* kParse = "Invalid Pim CrpAdv - Parse Error";
constexpr const char* kRpParse = "Invalid Pim CrpAdv - RP Address - Parse Error";
constexpr const char* kRpFamily = "Invalid Pim CrpAdv - RP Address - Invalid Family - Family: ";
constexpr const char* kRpInvalid = "Invalid Pim CrpAdv - RP Address - Invalid Address - ";
constexpr const char* kMallocFailure = "CrpGroupData - Malloc Failure";
constexpr const char* kGroupParse = "Invalid Pim CrpAdv - Group Address - Parse Error";
constexpr const char* kGroupFamily = "Invalid Pim CrpAdv - Group Address - Invalid Family - Family: ";
constexpr const char* kGroupInvalid = "Invalid Pim CrpAdv - Group Address - Invalid Prefix: ";
constexpr const char* kGroupDuplicate = "Invalid Pim CrpAdv - Group Address - Duplicate group - Group Address: ";
constexpr const char* kZoneSet = "Valid Pim CrpAdv - Group Address has Zone flag set - Group: ";
constexpr const char* kCountMismatch = "Invalid Pim CrpAdv - Group Address count mismatch -  prefixCount: ";
constexpr const char* kCleaningUp = "Invalid Pim CrpAdv. Cleaning Up";

// ---- Encoder texts ----
constexpr const char* kHeaderSpace = "Invalid Pim CrpAdv - Header - Unavailable Space - Remaining: ";
constexpr const char* kFixedSpace = "Invalid Pim CrpAdv - Fixed Fields - Unavailable Space - Remaining: ";
constexpr const char* kPrefixCount = "Invalid Pim CrpAdv - Prefix Count ";
constexpr const char* kPrefixCountMismatch = "Invalid Pim CrpAdv - Prefix Count Mismatch";
constexpr const char* kWriteFamily = "Invalid Pim CrpAdv - Invalid Family - Family: ";
constexpr const char* kRpWrite = "Invalid Pim CrpAdv - RP Address - Write Error";
constexpr const char* kInvalidScope = "Invalid Pim CrpAdv - Invalid Scope:  Group Scope: ";
constexpr const char* kGroupWrite = "Invalid Pim CrpAdv - Group Address - Write Error";
// The advertisement shares the Bootstrap's text for a header that cannot be written.
constexpr const char* kHeaderWrite = "Invalid Pim Bootstrap - Header - Write Error";

const char* scopeOf(bool zone) { return zone ? "Admin" : "global"; }

}  // namespace

Loom::Ptr<CrpGroupData> CrpGroupData::CrpGroupDataIs() { return new CrpGroupData; }

Loom::Ptr<CrpGroupData> crpGroupDataFactory() { return CrpGroupData::CrpGroupDataIs(); }

CrpGroupInfo* CrpGroupData::groupInfo(const Knet::IpGenPrefix& prefix) const {
  for (const auto& g : groupInfo_) {
    if (g->prefix() == prefix) return g.ptr();
  }
  return nullptr;
}

CrpGroupInfo& CrpGroupData::groupInfoIs(const Knet::IpGenPrefix& prefix) {
  if (CrpGroupInfo* g = groupInfo(prefix)) return *g;
  return *groupInfo_.emplace_back(new CrpGroupInfo(prefix));
}

void CrpGroupData::groupInfoDel(const Knet::IpGenPrefix& prefix) {
  std::erase_if(groupInfo_, [&](const Loom::Ptr<CrpGroupInfo>& g) { return g->prefix() == prefix; });
}

CrpAdvMessage::CrpAdvMessage() : Message(Knet::pimCandidateRpAdvertisement()) {}

Loom::Ptr<CrpAdvMessage> crpAdvMessageFactory() { return new CrpAdvMessage; }

U32 CrpAdvMessage::readCrpAdvMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  if (readHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kHeaderParse);
    return 0;
  }
  const S64 remaining = S64(pkt->size()) - S64(offset) - 4;
  if (remaining <= 3) {
    PIM_TRACE(traceError, kParse);
    return 0;
  }
  Knet::PktReader r(pkt, offset + 4);
  prefixCountIs(r.readU8());
  priorityIs(r.readU8());
  holdtimeIs(r.readU16Be());

  EncodedUnicastAddress rp;
  const U32 rpLen = rp.readUnicastAddress(pkt, offset + 8);
  if (rpLen == 0) {
    PIM_TRACE(traceError, kRpParse);
    return 0;
  }
  const Knet::AddressFamily family = af();
  if (rp.address().af() != family) {
    PIM_TRACE(traceError, kRpFamily << family << "RP Address: " << rp.address());
    return 0;
  }
  if (!rp.valid()) {
    PIM_TRACE(traceError, kRpInvalid << rp.address());
    return 0;
  }
  rpAddressIs(rp.address());

  Loom::Ptr<CrpGroupData> data;
  try {
    data = crpGroupDataFactory();
  } catch (const std::bad_alloc&) {
    PIM_TRACE(traceError, kMallocFailure);
    return 0;
  }
  const U32 end = readRanges(pkt, offset + 8 + rpLen, *data);
  if (end == 0) {
    PIM_TRACE(traceError, kCleaningUp);
    data->groupInfoDelAll();
    return 0;
  }
  groupDataIs(data);
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return end - offset;
}

// The ranges from pos to the end of the packet: the end, or 0 after a failure.
U32 CrpAdvMessage::readRanges(const Loom::Ptr<Knet::Pkt>& pkt, U32 pos, CrpGroupData& data) {
  const Knet::AddressFamily family = af();
  EncodedGroupAddress group;
  U32 ranges = 0;
  while (pos < pkt->size()) {
    const U32 groupLen = group.readGroupAddress(pkt, pos);
    if (groupLen == 0) {
      PIM_TRACE(traceError, kGroupParse);
      return 0;
    }
    const Knet::IpGenPrefix prefix = group.prefix();
    if (prefix.af() != family) {
      PIM_TRACE(traceError, kGroupFamily << family << "Group Address: " << prefix);
      return 0;
    }
    if (!group.valid()) {
      PIM_TRACE(traceError, kGroupInvalid << prefix);
      return 0;
    }
    if (data.groupInfo(prefix)) {
      PIM_TRACE(traceError, kGroupDuplicate << prefix);
      return 0;
    }
    data.groupInfoIs(prefix).groupFlagsIs(group.flags().value());
    ++ranges;
    pos += groupLen;
    if (group.flags().zone()) {
      // An admin-scoped range is unusual but valid: kept, traced and logged.
      PIM_TRACE(traceError, kZoneSet << prefix << " RP: " << rpAddress_);
      PIMBSR_CRPADV_ZONE_SET.raise({rpAddress_.str()});
    }
  }
  if (ranges != prefixCount_) {
    PIM_TRACE(traceError, kCountMismatch << unsigned(prefixCount_) << " numGroups: " << ranges);
    return 0;
  }
  return pos;
}

U32 CrpAdvMessage::writeCrpAdvMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
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
  w.writeU8(prefixCount_);
  w.writeU8(priority_);
  w.writeU16Be(holdtime_);
  const size_t ranges = groupData_ ? groupData_->groupInfo().size() : 0;
  if (prefixCount_ == 0) {
    PIM_TRACE(traceError, kPrefixCount);
    return 0;
  }
  if (prefixCount_ != ranges) {
    PIM_TRACE(traceError, kPrefixCountMismatch);
    return 0;
  }
  const Knet::AddressFamily family = af();
  if (rpAddress_.af() != family) {
    PIM_TRACE(traceError, kWriteFamily << rpAddress_.af() << " RP Address: " << rpAddress_);
    return 0;
  }
  EncodedUnicastAddress rp;
  rp.addressIs(rpAddress_);
  const U32 rpLen = rp.writeUnicastAddress(pkt, offset + 8);
  if (rpLen == 0) {
    PIM_TRACE(traceError, kRpWrite);
    return 0;
  }
  U32 pos = offset + 8 + rpLen;
  // All ranges must have the scope of the first.
  const bool allowedZone = groupData_->groupInfo().front()->zone();
  EncodedGroupAddress group;
  for (const Loom::Ptr<CrpGroupInfo>& g : groupData_->groupInfo()) {
    if (g->prefix().af() != family) {
      PIM_TRACE(traceError, kWriteFamily << g->prefix().af() << " Group Address: " << g->prefix());
      return 0;
    }
    if (g->zone() != allowedZone) {
      PIM_TRACE(traceError, kInvalidScope << scopeOf(g->zone()) << " Allowed Scope: " << scopeOf(allowedZone)
                                          << " Group Address: " << g->prefix());
      return 0;
    }
    group.prefixIs(g->prefix());
    group.flagsIs(GroupFlags(g->groupFlags()));
    const U32 groupLen = group.writeGroupAddress(pkt, pos);
    if (groupLen == 0) {
      PIM_TRACE(traceError, kGroupWrite);
      return 0;
    }
    pos += groupLen;
  }
  lengthIs(pos - offset);
  if (writeHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kHeaderWrite);
    return 0;
  }
  PIM_TRACE(9, "TX: <PIM " << this << ">");
  return length();
}

}  // namespace Routing::Pim::Packet
