#include "PimMessage/CrpAdvMessage.h"

#include <array>
#include <new>

#include "PimMessage/EncodedAddress.h"

namespace Routing::Pim::Packet {
namespace {

using T = CrpAdvText;

constexpr std::array<TextRow<CrpAdvText>, 21> texts{{
    // ---- Decoder ----
    {T::headerParse, "Invalid Pim CrpAdv - Header - Parse Error"},
    {T::parse, "Invalid Pim CrpAdv - Parse Error"},
    {T::rpParse, "Invalid Pim CrpAdv - RP Address - Parse Error"},
    {T::rpFamily, "Invalid Pim CrpAdv - RP Address - Invalid Family - Family: "},
    {T::rpInvalid, "Invalid Pim CrpAdv - RP Address - Invalid Address - "},
    {T::mallocFailure, "CrpGroupData - Malloc Failure"},
    {T::groupParse, "Invalid Pim CrpAdv - Group Address - Parse Error"},
    {T::groupFamily, "Invalid Pim CrpAdv - Group Address - Invalid Family - Family: "},
    {T::groupInvalid, "Invalid Pim CrpAdv - Group Address - Invalid Prefix: "},
    {T::groupDuplicate, "Invalid Pim CrpAdv - Group Address - Duplicate group - Group Address: "},
    {T::countMismatch, "Invalid Pim CrpAdv - Group Address count mismatch -  prefixCount: "},
    {T::cleaningUp, "Invalid Pim CrpAdv. Cleaning Up"},
    // ---- Encoder ----
    {T::headerSpace, "Invalid Pim CrpAdv - Header - Unavailable Space - Remaining: "},
    {T::fixedSpace, "Invalid Pim CrpAdv - Fixed Fields - Unavailable Space - Remaining: "},
    {T::prefixCount, "Invalid Pim CrpAdv - Prefix Count "},
    {T::prefixCountMismatch, "Invalid Pim CrpAdv - Prefix Count Mismatch"},
    {T::writeFamily, "Invalid Pim CrpAdv - Invalid Family - Family: "},
    {T::rpWrite, "Invalid Pim CrpAdv - RP Address - Write Error"},
    {T::invalidScope, "Invalid Pim CrpAdv - Invalid Scope:  Group Scope: "},
    {T::groupWrite, "Invalid Pim CrpAdv - Group Address - Write Error"},
    // The advertisement shares the Bootstrap's text for a header that cannot be written.
    {T::headerWrite, "Invalid Pim Bootstrap - Header - Write Error"},
}};
static_assert(rowsInOrder(texts));

// An admin-scoped range is unusual but valid: not a failure, only traced and logged.
constexpr const char* kZoneSet = "Valid Pim CrpAdv - Group Address has Zone flag set - Group: ";

const char* scopeOf(bool zone) { return zone ? "Admin" : "global"; }

}  // namespace

std::string_view textOf(CrpAdvText row) { return texts[static_cast<size_t>(row)].text; }

CrpAdvMessage::CrpAdvMessage() : Message(Knet::pimCandidateRpAdvertisement()) {}

Loom::Ptr<CrpAdvMessage> crpAdvMessageFactory() { return new CrpAdvMessage; }

U32 CrpAdvMessage::readCrpAdvMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  if (readHeader(pkt, offset) == 0) return PIM_FAIL(T::headerParse);
  Knet::PktReader r(pkt, offset + 4);
  if (!r.fits(4)) return PIM_FAIL(T::parse);
  prefixCountIs(r.readU8());
  priorityIs(r.readU8());
  holdtimeIs(r.readU16Be());

  EncodedUnicastAddress rp;
  if (rp.read(r) == 0) {
    failureIs(rp.failure());
    return PIM_FAIL(T::rpParse);
  }
  const Knet::AddressFamily family = af();
  if (rp.address().af() != family) return PIM_FAIL(T::rpFamily, family, "RP Address: ", rp.address());
  if (!rp.valid()) {
    failureIs(rp.failure());
    return PIM_FAIL(T::rpInvalid, rp.address());
  }
  rpAddressIs(rp.address());

  Loom::Ptr<CrpGroupData> data;
  try {
    data = crpGroupDataFactory();
  } catch (const std::bad_alloc&) {
    return PIM_FAIL(T::mallocFailure);
  }
  if (!readRanges(r, *data)) return PIM_FAIL(T::cleaningUp);
  groupDataIs(data);
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return r.offset() - offset;
}

// The ranges up to the end of the packet; false after a failure.
bool CrpAdvMessage::readRanges(Knet::PktReader& r, CrpGroupData& data) {
  const Knet::AddressFamily family = af();
  EncodedGroupAddress group;
  U32 ranges = 0;
  while (!r.atEnd()) {
    if (group.read(r) == 0) {
      failureIs(group.failure());
      return PIM_FAIL(T::groupParse);
    }
    const Knet::IpGenPrefix prefix = group.prefix();
    if (prefix.af() != family) return PIM_FAIL(T::groupFamily, family, "Group Address: ", prefix);
    if (!group.valid()) {
      failureIs(group.failure());
      return PIM_FAIL(T::groupInvalid, prefix);
    }
    if (data.groupInfo(prefix)) return PIM_FAIL(T::groupDuplicate, prefix);
    data.groupInfoIs(prefix).groupFlagsIs(group.flags().value());
    ++ranges;
    if (group.flags().zone()) {
      PIM_TRACE(traceError, kZoneSet << prefix << " RP: " << rpAddress_);
      PIMBSR_CRPADV_ZONE_SET.raise({rpAddress_.str()});
    }
  }
  if (ranges != prefixCount_) {
    return PIM_FAIL(T::countMismatch, unsigned(prefixCount_), " numGroups: ", ranges);
  }
  return true;
}

U32 CrpAdvMessage::writeCrpAdvMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  failureClear();
  Knet::PktWriter w(pkt, offset);
  if (!w.fits(4)) return PIM_FAIL(T::headerSpace, w.remaining());
  w.skip(4);  // the header, written last
  if (!w.fits(4)) return PIM_FAIL(T::fixedSpace, w.remaining(), " Expected: ", 4);
  w.writeU8(prefixCount_);
  w.writeU8(priority_);
  w.writeU16Be(holdtime_);
  const size_t ranges = groupData_ ? groupData_->groupInfo().size() : 0;
  if (prefixCount_ == 0) return PIM_FAIL(T::prefixCount);
  if (prefixCount_ != ranges) return PIM_FAIL(T::prefixCountMismatch);
  const Knet::AddressFamily family = af();
  if (rpAddress_.af() != family) return PIM_FAIL(T::writeFamily, rpAddress_.af(), " RP Address: ", rpAddress_);
  EncodedUnicastAddress rp;
  rp.addressIs(rpAddress_);
  if (rp.write(w) == 0) {
    failureIs(rp.failure());
    return PIM_FAIL(T::rpWrite);
  }
  // All ranges must have the scope of the first.
  const bool allowedZone = groupData_->groupInfo().front()->zone();
  EncodedGroupAddress group;
  for (const Loom::Ptr<CrpGroupInfo>& g : groupData_->groupInfo()) {
    if (g->prefix().af() != family) {
      return PIM_FAIL(T::writeFamily, g->prefix().af(), " Group Address: ", g->prefix());
    }
    if (g->zone() != allowedZone) {
      return PIM_FAIL(T::invalidScope, scopeOf(g->zone()), " Allowed Scope: ", scopeOf(allowedZone),
                      " Group Address: ", g->prefix());
    }
    group.prefixIs(g->prefix());
    group.flagsIs(GroupFlags(g->groupFlags()));
    if (group.write(w) == 0) {
      failureIs(group.failure());
      return PIM_FAIL(T::groupWrite);
    }
  }
  lengthIs(w.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return PIM_FAIL(T::headerWrite);
  PIM_TRACE(9, "TX: <PIM " << this << ">");
  return length();
}

}  // namespace Routing::Pim::Packet
