#include "PimMessage/EncodedAddress.h"

#include "PimMessage/Message.h"
#include "knet/Cursor.h"
#include "loom/Assert.h"
#include "loom/Exception.h"

namespace Routing::Pim::Packet {
namespace {

// Failure texts of the encoded group and source addresses: the same sentences with the kind's
// name. Family and encoding values, and the mask length of the range text, are quoted as the raw
// byte.
struct PrefixTexts {
  const char* familyLength;
  const char* invalidEncoding;
  const char* ipLength;
  const char* prefixRange;
  const char* invalidFamily;
  const char* wrongKind;  // a group that is not multicast, a source that is
};

constexpr PrefixTexts groupTexts{
    "Invalid Encoded Group Address - Family and Encoding Length - Remaining: ",
    "Invalid Encoded Group Address - Invalid Encoding - Value: ",
    "Invalid Encoded Group Address - Ip Address Length - Remaining: ",
    "Invalid Encoded Group Address - Incorrect Prefix Range - ",
    "Invalid Encoded Group Address - Invalid Family - Value: ",
    "Invalid Encoded Group Address - Not Multicast - Address: ",
};

constexpr PrefixTexts sourceTexts{
    "Invalid Encoded Source Address - Family and Encoding Length - Remaining: ",
    "Invalid Encoded Source Address - Invalid Encoding - Value: ",
    "Invalid Encoded Source Address - Ip Address Length - Remaining: ",
    "Invalid Encoded Source Address - Incorrect Prefix Range - ",
    "Invalid Encoded Source Address - Invalid Family - Value: ",
    "Invalid Encoded Source Address - Not Unicast - Address: ",
};

constexpr const char* kUnicastFamilyLength =
    "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: ";
constexpr const char* kUnicastInvalidEncoding = "Invalid Encoded Unicast Address - Invalid Encoding - Value: ";
constexpr const char* kUnicastIpLength = "Invalid Encoded Unicast Address - Ip Address Length - Remaining: ";
constexpr const char* kUnicastIp6Length = "Invalid Encoded Unicast Address - Ip6 Address Length - Remaining: ";
constexpr const char* kUnicastReadFamily = "Invalid Unicast Address - Invalid Family - Value: ";
constexpr const char* kUnicastWriteFamily = "Invalid Encoded Unicast Address - Invalid Family - Value: ";
constexpr const char* kUnicastNotUnicast = "Invalid Encoded Unicast Address - Not Unicast - Address: ";
constexpr const char* kUnicastUnsupportedFamily =
    "Invalid Encoded Unicast Address - Unsupported Address Family - Address Family: ";
constexpr const char* kGroupUnsupportedFamily =
    "Invalid Encoded Group Address - Unsupported Address Family - Address Family: ";
constexpr const char* kSourceAllZeros = "Invalid Encoded Source Address - All Zeros - Address: ";
constexpr const char* kSourceNotHostPrefix = "Invalid Encoded Source Address - Not Host Prefix - Prefix: ";

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

// Reads family, encoding, flags, mask length and address of an encoded group or source.
U32 readPrefixAddress(const PrefixTexts& t, const Loom::Ptr<Knet::Pkt>& pkt, U32 offset, Knet::IpGenPrefix& prefix,
                      U8& flags) {
  Knet::PktReader r(pkt, offset);
  const S64 remaining = r.remaining();
  if (remaining < 4) {
    PIM_TRACE(traceError, t.familyLength << remaining << " Expected: " << 4);
    return 0;
  }
  const U8 family = r.readU8();
  const U8 encoding = r.readU8();
  if (encoding != defaultEncoding) {
    PIM_TRACE(traceError, t.invalidEncoding << static_cast<char>(encoding));
    return 0;
  }
  flags = r.readU8();
  const U8 maskLength = r.readU8();
  const Knet::AddressFamily af = familyOf(family);
  const U32 width = addressBytes(af);
  if (width == 0) {
    PIM_TRACE(traceError, t.invalidFamily << static_cast<char>(family));
    return 0;
  }
  if (remaining - 4 < S64(width)) {
    PIM_TRACE(traceError, t.ipLength << remaining - 4 << " Expected: " << width);
    return 0;
  }
  const Knet::IpGenAddr address = r.readAddress(af);
  try {
    prefix = Knet::IpGenPrefix(address, maskLength);
  } catch (const Loom::RangeException&) {
    // An over-long mask is not a failure of the read: the bytes are consumed and the all-zero
    // prefix left behind fails the message's own validity test.
    PIM_TRACE(traceError, t.prefixRange << address << "/" << static_cast<char>(maskLength));
    prefix = zeroPrefix(af);
  }
  return 4 + width;
}

U32 writePrefixAddress(const PrefixTexts& t, bool wantMulticast, const Loom::Ptr<Knet::Pkt>& pkt, U32 offset,
                       const Knet::IpGenPrefix& prefix, U8 flags) {
  Knet::PktWriter w(pkt, offset);
  const S64 remaining = w.remaining();
  if (remaining < 4) {
    PIM_TRACE(traceError, t.familyLength << remaining << " Expected: " << 4);
    return 0;
  }
  const Knet::AddressFamily af = prefix.af();
  const U32 width = addressBytes(af);
  if (width == 0) {
    PIM_TRACE(traceError, t.invalidFamily << af);
    return 0;
  }
  w.writeU8(static_cast<U8>(af));
  w.writeU8(defaultEncoding);
  w.writeU8(flags);
  if (prefix.address().isMulticast() != wantMulticast) {
    PIM_TRACE(traceError, t.wrongKind << prefix.address());
    return 0;
  }
  if (remaining - 4 < S64(width)) {
    PIM_TRACE(traceError, t.ipLength << remaining - 4 << " Expected: " << width);
    return 0;
  }
  w.writeU8(prefix.length());
  w.writeAddress(prefix.address());
  return 4 + width;
}

}  // namespace

// ---- Encoded-Unicast ----

U32 EncodedUnicastAddress::readUnicastAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  Knet::PktReader r(pkt, offset);
  const S64 remaining = r.remaining();
  if (remaining < 2) {
    PIM_TRACE(traceError, kUnicastFamilyLength << remaining << " Expected: " << 2);
    return 0;
  }
  const U8 family = r.readU8();
  const U8 encoding = r.readU8();
  if (encoding != defaultEncoding) {
    PIM_TRACE(traceError, kUnicastInvalidEncoding << static_cast<char>(encoding));
    return 0;
  }
  const Knet::AddressFamily af = familyOf(family);
  if (af == Knet::AddressFamily::ipv4) {
    if (remaining - 2 < 4) {
      PIM_TRACE(traceError, kUnicastIpLength << remaining - 2 << " Expected: " << 4);
      return 0;
    }
    address_ = r.readAddress(af);
    return ipv4SizeInBytes;
  }
  if (af == Knet::AddressFamily::ipv6) {
    if (remaining - 2 < 16) {
      PIM_TRACE(traceError, kUnicastIp6Length << remaining - 2 << " Expected: " << 16);
      return 0;
    }
    address_ = r.readAddress(af);
    return ipv6SizeInBytes;
  }
  PIM_TRACE(traceError, kUnicastReadFamily << static_cast<char>(family));
  return 0;
}

U32 EncodedUnicastAddress::writeUnicastAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  Knet::PktWriter w(pkt, offset);
  const S64 remaining = w.remaining();
  if (remaining < 2) {
    PIM_TRACE(traceError, kUnicastFamilyLength << remaining << " Expected: " << 2);
    return 0;
  }
  const U32 width = addressBytes(address_.af());
  if (width == 0) {
    PIM_TRACE(traceError, kUnicastWriteFamily << address_.af());
    return 0;
  }
  w.writeU8(static_cast<U8>(address_.af()));
  w.writeU8(defaultEncoding);
  if (address_.isMulticast()) {
    PIM_TRACE(traceError, kUnicastNotUnicast << address_);
    return 0;
  }
  if (remaining - 2 < S64(width)) {
    PIM_TRACE(traceError, kUnicastIpLength << remaining - 2 << " Expected: " << width);
    return 0;
  }
  w.writeAddress(address_);
  return 2 + width;
}

bool EncodedUnicastAddress::valid() const {
  if (addressBytes(address_.af()) == 0) {
    PIM_TRACE(traceError, kUnicastUnsupportedFamily << address_.af());
    return false;
  }
  if (address_.isMulticast()) {
    PIM_TRACE(traceError, kUnicastNotUnicast << address_);
    return false;
  }
  return true;
}

// ---- Encoded-Group ----

Knet::IpGenAddr EncodedGroupAddress::address() const {
  if (addressBytes(prefix_.af()) == 0) {
    PIM_TRACE(traceError, "Unsupported address family " << prefix_.af());
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

U32 EncodedGroupAddress::readGroupAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  U8 flags = flags_.value();
  U32 n = readPrefixAddress(groupTexts, pkt, offset, prefix_, flags);
  flags_ = GroupFlags(flags);
  return n;
}

U32 EncodedGroupAddress::writeGroupAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  return writePrefixAddress(groupTexts, true, pkt, offset, prefix_, flags_.value());
}

bool EncodedGroupAddress::valid() const {
  if (addressBytes(prefix_.af()) == 0) {
    PIM_TRACE(traceError, kGroupUnsupportedFamily << prefix_.af());
    return false;
  }
  if (!prefix_.address().isMulticast()) {
    PIM_TRACE(traceError, groupTexts.wrongKind << prefix_.address());
    return false;
  }
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

U32 EncodedSourceAddress::readSourceAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  U8 flags = flags_.value();
  U32 n = readPrefixAddress(sourceTexts, pkt, offset, prefix_, flags);
  flags_ = SourceFlags(flags);
  return n;
}

U32 EncodedSourceAddress::writeSourceAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  return writePrefixAddress(sourceTexts, false, pkt, offset, prefix_, flags_.value());
}

bool EncodedSourceAddress::valid() const {
  if (addressBytes(prefix_.af()) == 0) {
    // The source test reports an unknown family with the group's text.
    PIM_TRACE(traceError, kGroupUnsupportedFamily << prefix_.af());
    return false;
  }
  const Knet::IpGenAddr& a = prefix_.address();
  if (a.isMulticast()) {
    PIM_TRACE(traceError, sourceTexts.wrongKind << a);
    return false;
  }
  if (a.isZero()) {
    PIM_TRACE(traceError, kSourceAllZeros << a);
    return false;
  }
  if (!prefix_.isHostPrefix()) {
    PIM_TRACE(traceError, kSourceNotHostPrefix << prefix_);
    return false;
  }
  return true;
}

// ---- Shared instances ----

EncodedUnicastAddress& scratchUnicastAddress() {
  static Loom::Ptr<EncodedUnicastAddress> a = new EncodedUnicastAddress;
  return *a;
}

EncodedGroupAddress& scratchGroupAddress() {
  static Loom::Ptr<EncodedGroupAddress> a = new EncodedGroupAddress;
  return *a;
}

EncodedSourceAddress& scratchSourceAddress() {
  static Loom::Ptr<EncodedSourceAddress> a = new EncodedSourceAddress;
  return *a;
}

}  // namespace Routing::Pim::Packet
