#include "PimMessage/EncodedAddress.h"

#include <array>

#include "PimMessage/Message.h"
#include "loom/Assert.h"
#include "loom/Exception.h"

namespace Routing::Pim::Packet {
namespace {

using T = EncodedAddressText;

constexpr std::array<TextRow<T>, 24> texts{{
    {T::unicastFamilyLength, "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: "},
    {T::unicastInvalidEncoding, "Invalid Encoded Unicast Address - Invalid Encoding - Value: "},
    {T::unicastIpLength, "Invalid Encoded Unicast Address - Ip Address Length - Remaining: "},
    {T::unicastIp6Length, "Invalid Encoded Unicast Address - Ip6 Address Length - Remaining: "},
    {T::unicastReadFamily, "Invalid Unicast Address - Invalid Family - Value: "},
    {T::unicastWriteFamily, "Invalid Encoded Unicast Address - Invalid Family - Value: "},
    {T::unicastNotUnicast, "Invalid Encoded Unicast Address - Not Unicast - Address: "},
    {T::unicastUnsupportedFamily, "Invalid Encoded Unicast Address - Unsupported Address Family - Address Family: "},
    {T::groupFamilyLength, "Invalid Encoded Group Address - Family and Encoding Length - Remaining: "},
    {T::groupInvalidEncoding, "Invalid Encoded Group Address - Invalid Encoding - Value: "},
    {T::groupIpLength, "Invalid Encoded Group Address - Ip Address Length - Remaining: "},
    {T::groupPrefixRange, "Invalid Encoded Group Address - Incorrect Prefix Range - "},
    {T::groupInvalidFamily, "Invalid Encoded Group Address - Invalid Family - Value: "},
    {T::groupNotMulticast, "Invalid Encoded Group Address - Not Multicast - Address: "},
    {T::groupUnsupportedFamily, "Invalid Encoded Group Address - Unsupported Address Family - Address Family: "},
    {T::groupAddressFamily, "Unsupported address family "},
    {T::sourceFamilyLength, "Invalid Encoded Source Address - Family and Encoding Length - Remaining: "},
    {T::sourceInvalidEncoding, "Invalid Encoded Source Address - Invalid Encoding - Value: "},
    {T::sourceIpLength, "Invalid Encoded Source Address - Ip Address Length - Remaining: "},
    {T::sourcePrefixRange, "Invalid Encoded Source Address - Incorrect Prefix Range - "},
    {T::sourceInvalidFamily, "Invalid Encoded Source Address - Invalid Family - Value: "},
    {T::sourceNotUnicast, "Invalid Encoded Source Address - Not Unicast - Address: "},
    {T::sourceAllZeros, "Invalid Encoded Source Address - All Zeros - Address: "},
    {T::sourceNotHostPrefix, "Invalid Encoded Source Address - Not Host Prefix - Prefix: "},
}};
static_assert(rowsInOrder(texts));

// The encoded group and source addresses fail with the same sentences, each with its kind's name.
// Family and encoding values, and the mask length of the range text, are quoted as the raw byte.
struct PrefixRows {
  T familyLength;
  T invalidEncoding;
  T ipLength;
  T prefixRange;
  T invalidFamily;
  T wrongKind;  // a group that is not multicast, a source that is
};
constexpr PrefixRows groupRows{T::groupFamilyLength, T::groupInvalidEncoding, T::groupIpLength,
                               T::groupPrefixRange,  T::groupInvalidFamily,   T::groupNotMulticast};
constexpr PrefixRows sourceRows{T::sourceFamilyLength, T::sourceInvalidEncoding, T::sourceIpLength,
                                T::sourcePrefixRange,  T::sourceInvalidFamily,   T::sourceNotUnicast};

constexpr Knet::AddressFamily familyOf(U8 wire) {
  return wire == 1 ? Knet::AddressFamily::ipv4 : wire == 2 ? Knet::AddressFamily::ipv6 : Knet::AddressFamily::ipUnknown;
}

constexpr U32 addressBytes(Knet::AddressFamily af) {
  return af == Knet::AddressFamily::ipv4 ? 4 : af == Knet::AddressFamily::ipv6 ? 16 : 0;
}

Knet::IpGenPrefix zeroPrefix(Knet::AddressFamily af) {
  U8 zero[16] = {};
  return Knet::IpGenPrefix(Knet::IpGenAddr::fromBytes(af, zero), 0);
}

// Reads family, encoding, flags, mask length and address of an encoded group or source from a
// copy of the cursor, which moves only when the read succeeds.
U32 readPrefixAddress(const FailureRecord& rec, const PrefixRows& t, Knet::PktReader& cursor, Knet::IpGenPrefix& prefix,
                      U8& flags) {
  rec.failureClear();
  Knet::PktReader r = cursor;
  const S64 remaining = r.remaining();
  if (remaining < 4) return rec.PIM_FAIL(t.familyLength, remaining, " Expected: ", 4);
  const U8 family = r.readU8();
  const U8 encoding = r.readU8();
  if (encoding != defaultEncoding) return rec.PIM_FAIL(t.invalidEncoding, static_cast<char>(encoding));
  flags = r.readU8();
  const U8 maskLength = r.readU8();
  const Knet::AddressFamily af = familyOf(family);
  const U32 width = addressBytes(af);
  if (width == 0) return rec.PIM_FAIL(t.invalidFamily, static_cast<char>(family));
  if (remaining - 4 < S64(width)) return rec.PIM_FAIL(t.ipLength, remaining - 4, " Expected: ", width);
  const Knet::IpGenAddr address = r.readAddress(af);
  try {
    prefix = Knet::IpGenPrefix(address, maskLength);
  } catch (const Loom::RangeException&) {
    // An over-long mask is not a failure of the read: the bytes are consumed and the all-zero
    // prefix left behind fails the message's own validity test.
    rec.PIM_FAIL(t.prefixRange, address, "/", static_cast<char>(maskLength));
    prefix = zeroPrefix(af);
  }
  cursor = r;
  return 4 + width;
}

U32 writePrefixAddress(const FailureRecord& rec, const PrefixRows& t, bool wantMulticast, Knet::PktWriter& cursor,
                       const Knet::IpGenPrefix& prefix, U8 flags) {
  rec.failureClear();
  Knet::PktWriter w = cursor;
  const S64 remaining = w.remaining();
  if (remaining < 4) return rec.PIM_FAIL(t.familyLength, remaining, " Expected: ", 4);
  const Knet::AddressFamily af = prefix.af();
  const U32 width = addressBytes(af);
  if (width == 0) return rec.PIM_FAIL(t.invalidFamily, af);
  // Family, encoding and flags stay written when a later check fails; the cursor does not move.
  if (!w.writeU8(static_cast<U8>(af)) || !w.writeU8(defaultEncoding) || !w.writeU8(flags)) return 0;
  if (prefix.address().isMulticast() != wantMulticast) return rec.PIM_FAIL(t.wrongKind, prefix.address());
  if (remaining - 4 < S64(width)) return rec.PIM_FAIL(t.ipLength, remaining - 4, " Expected: ", width);
  if (!w.writeU8(prefix.length()) || !w.writeAddress(prefix.address())) return 0;
  cursor = w;
  return 4 + width;
}

}  // namespace

std::string_view textOf(EncodedAddressText row) { return texts[static_cast<size_t>(row)].text; }

// ---- Encoded-Unicast ----

U32 EncodedUnicastAddress::read(Knet::PktReader& cursor) {
  failureClear();
  Knet::PktReader r = cursor;
  const S64 remaining = r.remaining();
  if (remaining < 2) return PIM_FAIL(T::unicastFamilyLength, remaining, " Expected: ", 2);
  const U8 family = r.readU8();
  const U8 encoding = r.readU8();
  if (encoding != defaultEncoding) return PIM_FAIL(T::unicastInvalidEncoding, static_cast<char>(encoding));
  const Knet::AddressFamily af = familyOf(family);
  const U32 width = addressBytes(af);
  if (width == 0) return PIM_FAIL(T::unicastReadFamily, static_cast<char>(family));
  if (remaining - 2 < S64(width)) {
    return PIM_FAIL(width == 4 ? T::unicastIpLength : T::unicastIp6Length, remaining - 2, " Expected: ", width);
  }
  address_ = r.readAddress(af);
  cursor = r;
  return 2 + width;
}

U32 EncodedUnicastAddress::write(Knet::PktWriter& cursor) {
  failureClear();
  Knet::PktWriter w = cursor;
  const S64 remaining = w.remaining();
  if (remaining < 2) return PIM_FAIL(T::unicastFamilyLength, remaining, " Expected: ", 2);
  const U32 width = addressBytes(address_.af());
  if (width == 0) return PIM_FAIL(T::unicastWriteFamily, address_.af());
  // Family and encoding stay written when a later check fails; the cursor does not move.
  if (!w.writeU8(static_cast<U8>(address_.af())) || !w.writeU8(defaultEncoding)) return 0;
  if (address_.isMulticast()) return PIM_FAIL(T::unicastNotUnicast, address_);
  if (remaining - 2 < S64(width)) return PIM_FAIL(T::unicastIpLength, remaining - 2, " Expected: ", width);
  if (!w.writeAddress(address_)) return 0;
  cursor = w;
  return 2 + width;
}

U32 EncodedUnicastAddress::readUnicastAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  Knet::PktReader r(pkt, offset);
  return read(r);
}

U32 EncodedUnicastAddress::writeUnicastAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  Knet::PktWriter w(pkt, offset);
  return write(w);
}

bool EncodedUnicastAddress::valid() const {
  if (addressBytes(address_.af()) == 0) return PIM_FAIL(T::unicastUnsupportedFamily, address_.af());
  if (address_.isMulticast()) return PIM_FAIL(T::unicastNotUnicast, address_);
  return true;
}

// ---- Encoded-Group ----

Knet::IpGenAddr EncodedGroupAddress::address() const {
  if (addressBytes(prefix_.af()) == 0) {
    PIM_TRACE(traceError, textOf(T::groupAddressFamily) << prefix_.af());
    return Knet::IpGenAddr();
  }
  return prefix_.address();
}

void EncodedGroupAddress::addressIs(const Knet::IpGenAddr& a) {
  prefix_ = Knet::IpGenPrefix(a, Knet::IpGenPrefix::maxLength(a.af()));
}

void EncodedGroupAddress::groupAddressIs(const GroupAddress& g) {
  addressIs(g.address);
  flags_ = g.flags;
}

U32 EncodedGroupAddress::read(Knet::PktReader& r) {
  U8 flags = flags_.value();
  const U32 n = readPrefixAddress(*this, groupRows, r, prefix_, flags);
  flags_ = GroupFlags(flags);
  return n;
}

U32 EncodedGroupAddress::write(Knet::PktWriter& w) {
  return writePrefixAddress(*this, groupRows, true, w, prefix_, flags_.value());
}

U32 EncodedGroupAddress::readGroupAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  Knet::PktReader r(pkt, offset);
  return read(r);
}

U32 EncodedGroupAddress::writeGroupAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  Knet::PktWriter w(pkt, offset);
  return write(w);
}

bool EncodedGroupAddress::valid() const {
  if (addressBytes(prefix_.af()) == 0) return PIM_FAIL(T::groupUnsupportedFamily, prefix_.af());
  if (!prefix_.address().isMulticast()) return PIM_FAIL(T::groupNotMulticast, prefix_.address());
  return true;
}

// ---- Encoded-Source ----

Knet::IpGenAddr EncodedSourceAddress::address() const {
  LOOM_ASSERT(addressBytes(prefix_.af()) != 0, "Unknown address family");
  return prefix_.address();
}

void EncodedSourceAddress::addressIs(const Knet::IpGenAddr& a) {
  LOOM_ASSERT(addressBytes(a.af()) != 0, "Unknown address family");
  prefix_ = Knet::IpGenPrefix(a, Knet::IpGenPrefix::maxLength(a.af()));
}

void EncodedSourceAddress::sourceAddressIs(const SourceAddress& s) {
  addressIs(s.address);
  flags_ = s.flags;
}

U32 EncodedSourceAddress::read(Knet::PktReader& r) {
  U8 flags = flags_.value();
  const U32 n = readPrefixAddress(*this, sourceRows, r, prefix_, flags);
  flags_ = SourceFlags(flags);
  return n;
}

U32 EncodedSourceAddress::write(Knet::PktWriter& w) {
  return writePrefixAddress(*this, sourceRows, false, w, prefix_, flags_.value());
}

U32 EncodedSourceAddress::readSourceAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  Knet::PktReader r(pkt, offset);
  return read(r);
}

U32 EncodedSourceAddress::writeSourceAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  Knet::PktWriter w(pkt, offset);
  return write(w);
}

bool EncodedSourceAddress::valid() const {
  // The source test reports an unknown family with the group's text.
  if (addressBytes(prefix_.af()) == 0) return PIM_FAIL(T::groupUnsupportedFamily, prefix_.af());
  const Knet::IpGenAddr& a = prefix_.address();
  if (a.isMulticast()) return PIM_FAIL(T::sourceNotUnicast, a);
  if (a.isZero()) return PIM_FAIL(T::sourceAllZeros, a);
  if (!prefix_.isHostPrefix()) return PIM_FAIL(T::sourceNotHostPrefix, prefix_);
  return true;
}

}  // namespace Routing::Pim::Packet
