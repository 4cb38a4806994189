#include "PimMessage/BootstrapMessage.h"

#include <algorithm>
#include <array>
#include <new>

#include "PimMessage/EncodedAddress.h"
#include "loom/Exception.h"
#include "loom/FlatMap.h"
#include "loom/SmallVector.h"

namespace Routing::Pim::Packet {
namespace {

using T = BootstrapText;

constexpr std::array<TextRow<BootstrapText>, 29> texts{{
    // ---- Decoder ----
    {T::headerParse, "Invalid Pim Bootstrap - Header - Parse Error"},
    {T::parse, "Invalid Pim Bootstrap - Parse Error"},
    {T::bsrParse, "Invalid Pim Bootstrap - BSR Address - Parse Error"},
    {T::bsrFamily, "Invalid Pim Bootstrap - BSR Address - Invalid Family - Family: "},
    {T::bsrInvalid, "Invalid Pim Bootstrap - BSR Address - Invalid Address - "},
    {T::mallocFailure, "BootstrapOptionsData - Malloc Failure"},
    {T::groupParse, "Invalid Pim Bootstrap - Group Address - Parse Error"},
    {T::groupFamily, "Invalid Pim Bootstrap - Group Address - Invalid Family - Family: "},
    {T::groupInvalid, "Invalid Pim Bootstrap - Group Address - Invalid Prefix: "},
    {T::groupDuplicate, "Invalid Pim Bootstrap - Group Address - Duplicate group - Group Address: "},
    {T::zoneNotFirst, "Invalid Pim Bootstrap - Zone bit set on group other than first Group Address: "},
    {T::rpCounts, "Invalid Pim Bootstrap data - RP count "},
    {T::rpParse, "Invalid Pim Bootstrap - RP Address - Parse Error"},
    {T::rpInvalid, "Invalid Pim Bootstrap - RP Address - Invalid Address - "},
    {T::rpDuplicate, "Invalid Pim Bootstrap - RP Address - Duplicate - RP Address: "},
    {T::rpMissing, "Invalid Pim Bootstrap - Parse Error - RP count remaining "},
    {T::endOfMessage, "Invalid Pim Bootstrap - End of Message - Remaining: "},
    // ---- Encoder ----
    {T::headerSpace, "Invalid Pim Bootstrap - Header - Unavailable Space - Remaining: "},
    {T::fixedSpace, "Invalid Pim Bootstrap - Fixed Fields - Unavailable Space - Remaining: "},
    {T::writeFamily, "Invalid Pim Bootstrap - Invalid Family - Family: "},
    {T::bsrWrite, "Invalid Pim Bootstrap - BSR Address - Write Error"},
    {T::writeDuplicate, "Invalid Pim Bootstrap - Duplicate Group present Group Address: "},
    {T::groupWrite, "Invalid Pim Bootstrap - Group Address - Write Error"},
    {T::passedCounts, "Invalid Pim Bootstrap data passed - RP count "},
    {T::passedMismatch, "Invalid Pim Bootstrap data passed - RP count in BSM"},
    {T::countsSpace, "Invalid Pim Bootstrap - RP Counts - Unavailable Space - Remaining: "},
    {T::rpWrite, "Invalid Pim Bootstrap - RP Address - Write Error"},
    {T::rpTailSpace, "Invalid Pim Bootstrap - RP Holdtime - Unavailable Space - Remaining: "},
    {T::headerWrite, "Invalid Pim Bootstrap - Header - Write Error"},
}};
static_assert(rowsInOrder(texts));

// The middles of the count texts.
constexpr const char* kLessThanFrag = " is less than fragRp count ";
constexpr const char* kRecordsCount = " does not match RP records count ";

// A U8 written as one raw character, as the count texts show them.
char raw(U8 v) { return static_cast<char>(v); }

// The ranges of one message seen so far, for the duplicate check: a message rarely carries more
// than a few dozen, which then cost no allocation.
using PrefixSet = Loom::FlatSet<Knet::IpGenPrefix, 32>;

// The ranges read so far, in prefix order, as the records that the message's queue holds.
class RangeIndex {
 public:
  // Adds the range unless one of its prefix is there already.
  bool insert(const BootstrapGroupData* group) {
    const Knet::IpGenPrefix& prefix = group->prefix();
    const BootstrapGroupData* const* at = ranges_.end();
    // Ranges mostly come in order: a range beyond the last is added without a search.
    if (!ranges_.empty() && !(ranges_.back()->prefix() < prefix)) {
      at = std::lower_bound(ranges_.begin(), ranges_.end(), prefix,
                            [](const BootstrapGroupData* g, const Knet::IpGenPrefix& p) { return g->prefix() < p; });
      if ((*at)->prefix() == prefix) return false;
    }
    ranges_.insert(at, group);
    return true;
  }

 private:
  Loom::SmallVector<const BootstrapGroupData*, 32> ranges_;
};

}  // namespace

std::string_view textOf(BootstrapText row) { return texts[static_cast<size_t>(row)].text; }

// ======================================================================== fragments

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
  if (readHeader(pkt, offset) == 0) return PIM_FAIL(T::headerParse);
  Knet::PktReader r(pkt, offset + 4);
  if (!r.fits(4)) return PIM_FAIL(T::parse);
  fragmentTagIs(r.readU16Be());
  hashMaskLenIs(r.readU8());
  bsrPriorityIs(r.readU8());

  const Knet::AddressFamily family = af();
  Knet::IpGenAddr bsrAddress;
  if (EncodedUnicastAddress::readValidUnicast(r, family, bsrAddress) == 0) {
    EncodedUnicastAddress bsr;
    if (bsr.read(r) == 0) {
      failureIs(bsr.failure());
      return PIM_FAIL(T::bsrParse);
    }
    if (bsr.address().af() != family) return PIM_FAIL(T::bsrFamily, family, "BSR Address: ", bsr.address());
    if (!bsr.valid()) {
      failureIs(bsr.failure());
      return PIM_FAIL(T::bsrInvalid, bsr.address());
    }
    bsrAddress = bsr.address();
  }
  bsrAddressIs(bsrAddress);

  Loom::Ptr<BootstrapOptionalData> data;
  try {
    data = bootstrapOptionalDataFactory();
  } catch (const std::bad_alloc&) {
    return PIM_FAIL(T::mallocFailure);
  }
  if (!readGroups(r, *data)) return 0;
  if (!r.atEnd()) return PIM_FAIL(T::endOfMessage, r.remaining());
  if (!data->groupData().empty()) groupRpDataIs(data);
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return r.offset() - offset;
}

// The group ranges up to the end of the message; false after a failure.
bool BootstrapMessage::readGroups(Knet::PktReader& r, BootstrapOptionalData& data) {
  const Knet::AddressFamily family = af();
  RangeIndex seen;
  const Knet::PktOffset start = r.offset();
  bool first = true;
  while (!r.atEnd()) {
    Knet::IpGenAddr address;
    U8 length = 0;
    U8 flags = 0;
    if (EncodedGroupAddress::readValidRange(r, family, address, length, flags) == 0) {
      EncodedGroupAddress enc;
      if (enc.read(r) == 0) {
        failureIs(enc.failure());
        return PIM_FAIL(T::groupParse);
      }
      const Knet::IpGenPrefix& prefix = enc.prefix();
      if (prefix.af() != family) return PIM_FAIL(T::groupFamily, family, "Group Address: ", prefix);
      if (!enc.valid()) {
        failureIs(enc.failure());
        return PIM_FAIL(T::groupInvalid, prefix);
      }
      address = prefix.address();
      length = prefix.length();
      flags = enc.flags().value();
    }
    // The record is made from the address and length, not copied from a prefix made just before:
    // see BootstrapRpList::add.
    Loom::Ptr<BootstrapGroupData> group = new BootstrapGroupData(address, length);
    const Knet::IpGenPrefix& prefix = group->prefix();
    if (!seen.insert(group.ptr())) return PIM_FAIL(T::groupDuplicate, prefix);
    if (!first && GroupFlags(flags).zone()) return PIM_FAIL(T::zoneNotFirst, prefix);
    first = false;
    group->groupFlagsIs(flags);
    data.groupDataEnq(group);
    // A range that ends the message without counts or RPs is taken as it is.
    if (r.atEnd()) return true;
    if (!r.fits(4)) return PIM_FAIL(T::parse);
    const U8 rpCount = r.readU8();
    const U8 fragRpCount = r.readU8();
    group->rpCountIs(rpCount);
    group->fragRpCountIs(fragRpCount);
    group->reservedIs(r.readU16Be());
    if (fragRpCount > rpCount) return PIM_FAIL(T::rpCounts, raw(rpCount), kLessThanFrag, raw(fragRpCount));
    // The RP count of the whole range bounds the list, not the count of this fragment.
    group->rpListReserve(rpCount);
    for (U32 i = 0; i < rpCount; ++i) {
      Knet::IpGenAddr address;
      if (EncodedUnicastAddress::readValidUnicast(r, family, address) == 0) {
        EncodedUnicastAddress enc;
        if (enc.read(r) == 0) {
          failureIs(enc.failure());
          return PIM_FAIL(T::rpParse);
        }
        if (!enc.valid()) {
          failureIs(enc.failure());
          return PIM_FAIL(T::rpInvalid, enc.address());
        }
        address = enc.address();
      }
      if (group->rpList(address)) return PIM_FAIL(T::rpDuplicate, address);
      BootstrapRpData& rp = group->rpListAdd(address);
      if (!r.fits(4)) return PIM_FAIL(T::parse);
      rp.holdtimeIs(r.readU16Be());
      rp.priorityIs(r.readU8());
      rp.reservedIs(r.readU8());
      const U32 left = rpCount - i - 1;
      if (left > 0 && r.atEnd()) return PIM_FAIL(T::rpMissing, raw(static_cast<U8>(left)), " but no more data.");
    }
    // The ranges of a message are mostly alike: the first tells how many more the queue may
    // take, so that it grows once (at most by an entry per 12 bytes, the least a range takes).
    if (data.groupData().size() == 1) data.groupDataReserve(1 + r.remaining() / (r.offset() - start));
  }
  return true;
}

U32 BootstrapMessage::writeBootstrapMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  failureClear();
  Knet::PktWriter w(pkt, offset);
  if (!w.fits(4)) return PIM_FAIL(T::headerSpace, w.remaining());
  w.skip(4);  // the header, written last
  if (!w.fits(4)) return PIM_FAIL(T::fixedSpace, w.remaining(), " Expected: ", 4);
  w.writeU16Be(fragmentTag_);
  w.writeU8(hashMaskLen_);
  w.writeU8(bsrPriority_);
  if (bsrAddress_.af() != af()) return PIM_FAIL(T::writeFamily, bsrAddress_.af(), " BSR Address: ", bsrAddress_);
  EncodedUnicastAddress bsr;
  bsr.addressIs(bsrAddress_);
  if (bsr.write(w) == 0) {
    failureIs(bsr.failure());
    return PIM_FAIL(T::bsrWrite);
  }
  if (!writeGroups(w)) return 0;
  lengthIs(w.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return PIM_FAIL(T::headerWrite);
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return length();
}

// The group ranges; false after a failure.
bool BootstrapMessage::writeGroups(Knet::PktWriter& w) {
  if (!groupRpData_) return true;
  const Knet::AddressFamily family = af();
  PrefixSet written;
  bool first = true;
  for (const auto& [index, group] : groupRpData_->groupData()) {
    const Knet::IpGenPrefix& prefix = group->prefix();
    if (prefix.af() != family) return PIM_FAIL(T::writeFamily, prefix.af(), " Group Address: ", prefix);
    if (!first && group->zone()) return PIM_FAIL(T::zoneNotFirst, prefix);
    first = false;
    if (!written.insert(prefix)) return PIM_FAIL(T::writeDuplicate, prefix);
    EncodedGroupAddress enc;
    enc.prefixIs(prefix);
    enc.flagsIs(GroupFlags(group->groupFlags()));
    if (enc.write(w) == 0) {
      failureIs(enc.failure());
      return PIM_FAIL(T::groupWrite);
    }
    const U8 rpCount = group->rpCount();
    const U8 fragRpCount = group->fragRpCount();
    if (rpCount < fragRpCount) return PIM_FAIL(T::passedCounts, raw(rpCount), kLessThanFrag, raw(fragRpCount));
    if (fragRpCount != group->rpList().size()) {
      return PIM_FAIL(T::passedMismatch, raw(fragRpCount), kRecordsCount, group->rpList().size());
    }
    if (!w.fits(4)) return PIM_FAIL(T::countsSpace, w.remaining(), " Expected: ", 4);
    w.writeU8(rpCount);
    w.writeU8(fragRpCount);
    w.writeU16Be(group->reserved());
    for (const BootstrapRpData& rp : group->rpList()) {
      if (rp.address().af() != family) {
        return PIM_FAIL(T::writeFamily, rp.address().af(), " RP Address: ", rp.address());
      }
      EncodedUnicastAddress encRp;
      encRp.addressIs(rp.address());
      if (encRp.write(w) == 0) {
        failureIs(encRp.failure());
        return PIM_FAIL(T::rpWrite);
      }
      if (!w.fits(4)) return PIM_FAIL(T::rpTailSpace, w.remaining(), " Expected: ", 4);
      w.writeU16Be(rp.holdtime());
      w.writeU8(rp.priority());
      w.writeU8(rp.reserved());
    }
  }
  return true;
}

}  // namespace Routing::Pim::Packet
