#include "PimMessage/RegisterMessage.h"

#include <algorithm>
#include <cstring>

#include "PimMessage/GroupSourceCodec.h"
#include "knet/Cursor.h"
#include "knet/IpHdr.h"
#include "knet/PimHdr.h"

namespace Routing::Pim::Packet {
namespace {

// ---- Register texts ----
constexpr const char* kHeaderParse = "Invalid Pim Register - Header - Parse Error";
constexpr const char* kFlagsLength = "Invalid Pim Register - Flags Length - Remaining: ";
constexpr const char* kInvalidVersion = "Invalid Pim Register ";
constexpr const char* kInnerFamily = "Invalid Pim Register - Inner Ip Header - Family: ";
constexpr const char* kUnknownVersion = "Invalid Pim Register - Inner Ip Header - Unknown Version";
constexpr const char* kNotMulticast = "Invalid Pim Register - Inner Ip Header - Not Multicast - Destination: ";
constexpr const char* kNotMulticast6 = "Invalid Pim Register - Inner Ip6 Header - Not Multicast - Destination: ";
constexpr const char* kNullChecksum = "Invalid Pim Register - Null Register - Invalid Inner Ip Checksum";
constexpr const char* kNullLength = "Invalid Pim Register - Null Register - Invalid Inner Ip Length - Length: ";
constexpr const char* kNullLength6 = "Invalid Pim Register - Null Register - Invalid Inner Ip6 Length - Length: ";
constexpr const char* kDataLength = "Invalid Pim Register - Encapsulated Data Length - Remaining: ";
constexpr const char* kWriteHeaderSpace = "Invalid Pim Register - Header - Unavailable Space - Remaining: ";
constexpr const char* kWriteFlagsSpace = "Invalid Pim Register - Flags - Unavailable Space - Remaining: ";
constexpr const char* kWriteHeader = "Invalid Pim Register - Header - Write Error";
constexpr const char* kNullWithData = "Invalid Pim Register - Null Register - Using Encapsulated Data Fields";
constexpr const char* kNullSpace = "Invalid Pim Register - Null Header - Unavailable Space - Remaining: ";
constexpr const char* kWriteFamily = "Invalid Pim Register - Invalid Family - Family: ";
constexpr const char* kNoRcvdPkt = "Invalid Pim Register - No Rcvd Pkt";
constexpr const char* kWriteDataLength = "Invalid Pim Register - Encapsulated Data Length - Length: ";
constexpr const char* kWriteDataSpace = "Invalid Pim Register - Encapsulated Data - Unavailable Space - Remaining: ";

// ---- Register-Stop texts ----
constexpr GroupSource::ReadTexts registerStopReadTexts{
    "Invalid Pim Register Stop - Header - Parse Error",
    "Invalid Pim Register Stop - Group Address - Parse Error",
    "Invalid Pim Register Stop - Group Address - Invalid Family - Family: ",
    "Address: ",
    "Invalid Pim Register Stop - Group Address - Invalid Prefix - ",
    "Invalid Pim Register Stop - Source Address - Parse Error",
    "Invalid Pim Register Stop - Source Address - Invalid Family - Family: ",
    "Address: ",
    "Invalid Pim Register Stop - Source Address - Invalid Address: ",
};
constexpr GroupSource::WriteTexts registerStopWriteTexts{
    "Invalid Pim Register Stop - Header - Unavailable Space - Remaining: ",
    "Invalid Pim Register Stop - Invalid Family - Family: ",
    "Invalid Pim Register Stop - Group Address - Write Error",
    "Invalid Pim Register Stop - Source Address - Write Error",
};
constexpr const char* kStopEndOfMessage = "Invalid Pim Register Stop - End of Message - Remaining: ";
constexpr const char* kStopWriteHeader = "Invalid Pim Register Stop - Header - Write Error";

constexpr U32 flagsOffset = 4;  // the flags word, behind the PIM header
constexpr U32 innerOffset = 8;  // the inner IP header, behind the flags word

U32 loadU32Be(const U8* p) { return U32(p[0]) << 24 | U32(p[1]) << 16 | U32(p[2]) << 8 | p[3]; }

// The fields of an IPv4 dummy header, as the Null-Register traces show them, with the checksum
// the header should carry.
struct DummyHeader {
  const Knet::IpHdr& h;
  U16 expected;
};
std::ostream& operator<<(std::ostream& os, DummyHeader d) {
  const Knet::IpHdr& h = d.h;
  return os << "<IP version=" << int(h.version()) << " ihl=" << h.headerLength() / 4 << " tos=" << int(h.tos())
            << " len=" << h.totalLength() << " id=" << h.id() << " moreFrag=" << h.moreFragments()
            << " dontFrag=" << h.dontFragment() << " reservedFragFlag=" << h.reservedFragmentFlag()
            << " frag=" << h.fragmentOffset() << " ttl=" << int(h.ttl()) << " chksum=" << h.checksum()
            << " computed chksum=" << d.expected << ">";
}

}  // namespace

// ======================================================================== Register

RegisterMessage::RegisterMessage() : Message(Knet::pimRegister()) { handleMessageSubtype(); }

Loom::Ptr<RegisterMessage> registerMessageFactory() { return new RegisterMessage; }

void RegisterMessage::implRegisterFlagsIs(RegisterImplFlags v) {
  if (v == implRegisterFlags_) return;
  implRegisterFlags_ = v;
  handleMessageSubtype();
  notifiees_.notify(&Notifiee::onImplRegisterFlags);
}

void RegisterMessage::borderFlagIs(bool v) {
  const U32 rest = implRegisterFlags_.value() & ~RegisterImplFlags::borderBit;
  implRegisterFlagsIs(RegisterImplFlags(rest | (v ? RegisterImplFlags::borderBit : 0)));
}

void RegisterMessage::nullFlagIs(bool v) {
  const U32 rest = implRegisterFlags_.value() & ~RegisterImplFlags::nullBit;
  implRegisterFlagsIs(RegisterImplFlags(rest | (v ? RegisterImplFlags::nullBit : 0)));
}

void RegisterMessage::handleMessageSubtype() {
  messageSubtypeIs(implRegisterFlags_.null() ? nullRegisterSubtype : dataRegisterSubtype);
}

U32 RegisterMessage::readRegisterMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  if (readHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kHeaderParse);
    return 0;
  }
  const S64 rest = S64(pkt->size()) - S64(offset) - 4;
  PIM_TRACE(traceDetail, "readRegisterMessage: headBytes " << offset + 4 << ", Remaining: " << rest);
  if (rest < 4) {
    PIM_TRACE(traceError, kFlagsLength << rest << " Expected: " << 4);
    return 0;
  }
  implRegisterFlagsU32Is(loadU32Be(pkt->data() + offset + flagsOffset));
  return readInner(pkt, offset, static_cast<U32>(rest - 4));
}

// The inner header and the data behind the flags word, dataLength bytes of them.
U32 RegisterMessage::readInner(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset, U32 dataLength) {
  const U8* inner = pkt->data() + offset + innerOffset;
  const Knet::AddressFamily family = af();
  // The version nibble. A dummy header with a zero version is taken as IPv4. With no byte at all
  // the family is the message's, and the length checks below refuse the message.
  Knet::AddressFamily innerFamily = family;
  if (dataLength > 0) {
    const U8 version = inner[0] >> 4;
    if (version == 4 || version == 0) {
      innerFamily = Knet::AddressFamily::ipv4;
    } else if (version == 6) {
      innerFamily = Knet::AddressFamily::ipv6;
    } else {
      PIM_TRACE(traceError, kInvalidVersion);
      return 0;
    }
  }
  if (family != innerFamily) {
    PIM_TRACE(traceError, kInnerFamily << family << " Inner Family: " << innerFamily);
    return 0;
  }
  const bool null = nullFlag();
  if (family == Knet::AddressFamily::ipv4) {
    // A header that is not all there is refused with the length texts before any field of it
    // is read.
    if (dataLength < Knet::IpHdr::minSize) {
      const U32 total = dataLength >= 4 ? U32(inner[2]) << 8 | inner[3] : 0;
      if (null) {
        PIM_TRACE(traceError, kNullLength << total << " Remaining: " << dataLength);
      } else {
        // The total length when the header holds it, else the least a header takes.
        PIM_TRACE(traceError, kDataLength << dataLength << " Expected: " << (dataLength >= 4 ? total : Knet::IpHdr::minSize));
      }
      return 0;
    }
    const Knet::IpHdr h(inner, dataLength);
    encapsulatedSrcIs(h.src());
    encapsulatedDstIs(h.dst());
    if (!encapsulatedDst_.isMulticast()) {
      PIM_TRACE(traceError, kNotMulticast << encapsulatedDst_);
      return 0;
    }
    if (null) {
      // The checksum is summed over the header length that the header gives, kept within the
      // bytes at hand; a zero checksum field is taken as not computed.
      const U32 hl = std::clamp<U32>(h.headerLength(), Knet::IpHdr::minSize, std::min<U32>(dataLength, 60));
      U8 bounded[60];
      std::memcpy(bounded, inner, hl);
      bounded[0] = static_cast<U8>((bounded[0] & 0xf0) | hl / 4);
      const Knet::IpHdr summed(bounded, hl);
      PIM_TRACE(traceDetail, "RX: Dummy Header: " << (DummyHeader{h, summed.expectedChecksum()}));
      if (h.checksum() != 0 && summed.computedChecksum() != 0) {
        PIM_TRACE(traceError, kNullChecksum);
        return 0;
      }
      if (dataLength == 0 || dataLength != h.totalLength()) {
        PIM_TRACE(traceError, kNullLength << h.totalLength() << " Remaining: " << dataLength);
        return 0;
      }
    } else if (dataLength == 0 || dataLength < h.headerLength() || dataLength != h.totalLength()) {
      PIM_TRACE(traceError, kDataLength << dataLength << " Expected: " << h.totalLength());
      return 0;
    }
  } else if (family == Knet::AddressFamily::ipv6) {
    if (dataLength < Knet::Ip6Hdr::size) {
      const U32 payload = dataLength >= 6 ? U32(inner[4]) << 8 | inner[5] : 0;
      if (null) {
        PIM_TRACE(traceError, kNullLength6 << payload + Knet::Ip6Hdr::size << " Remaining: " << dataLength);
      } else {
        PIM_TRACE(traceError, kDataLength << dataLength << " Expected: " << payload);
      }
      return 0;
    }
    const Knet::Ip6Hdr h(inner, dataLength);
    encapsulatedSrcIs(h.src());
    encapsulatedDstIs(h.dst());
    if (!encapsulatedDst_.isMulticast()) {
      PIM_TRACE(traceError, kNotMulticast6 << encapsulatedDst_);
      return 0;
    }
    if (null) {
      PIM_TRACE(traceDetail, "RX6: Dummy Header: <IP version=" << int(h.version()) << " hdl=" << Knet::Ip6Hdr::size
                                 << " trafficClass=" << int(h.trafficClass()) << " plen=" << h.payloadLength()
                                 << " proto=" << int(h.nextHeader()) << " hopLimit=" << int(h.hopLimit())
                                 << " src=" << h.src() << " dst=" << h.dst() << " tc=" << int(h.trafficClass())
                                 << " fl=" << h.flowLabel() << ">");
      const U32 expected = U32(h.payloadLength()) + Knet::Ip6Hdr::size;
      if (dataLength == 0 || dataLength != expected) {
        PIM_TRACE(traceError, kNullLength6 << expected << " Remaining: " << dataLength);
        return 0;
      }
    } else if (dataLength == 0 || dataLength < h.payloadLength()) {
      // Looser than IPv4: bytes beyond the payload length are accepted.
      PIM_TRACE(traceError, kDataLength << dataLength << " Expected: " << h.payloadLength());
      return 0;
    }
  } else {
    PIM_TRACE(traceError, kUnknownVersion);
    return 0;
  }
  if (!null) {
    rcvdPkt_ = pkt;
    pkt->delSharedHeadData(offset + innerOffset);
  }
  PIM_TRACE(traceDetail, "RX6: <PIM " << this << ">");
  return innerOffset + dataLength;
}

U32 RegisterMessage::writeRegisterMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const S64 remaining = S64(pkt->size()) - S64(offset);
  if (remaining < 4) {
    PIM_TRACE(traceError, kWriteHeaderSpace << remaining);
    return 0;
  }
  if (remaining - 4 <= 3) {
    PIM_TRACE(traceError, kWriteFlagsSpace << remaining - 4 << " Expected: " << 4);
    return 0;
  }
  Knet::PktWriter w(pkt, offset + flagsOffset);
  w.writeU32Be(implRegisterFlags_.value());
  // The checksum covers the header and the flags word only, so the header is written now.
  lengthIs(innerOffset);
  if (writeHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kWriteHeader);
    return 0;
  }
  const U32 at = offset + innerOffset;
  const S64 room = remaining - innerOffset;
  const U32 n = nullFlag() ? writeNull(pkt, at, room) : writeData(pkt, at, room);
  if (n == 0) return 0;
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return innerOffset + n;
}

// The dummy header of a Null-Register, at `at` with `room` bytes: its size, or 0.
U32 RegisterMessage::writeNull(const Loom::Ptr<Knet::Pkt>& pkt, U32 at, S64 room) {
  if (rcvdPkt_) {
    PIM_TRACE(traceError, kNullWithData);
    return 0;
  }
  const Knet::AddressFamily family = af();
  U8* out = pkt->data() + at;
  if (family == Knet::AddressFamily::ipv4) {
    if (!encapsulatedDst_.isMulticast()) {
      PIM_TRACE(traceError, kNotMulticast << encapsulatedDst_);
      return 0;
    }
    if (room <= 19) {
      PIM_TRACE(traceError, kNullSpace << room << " Expected: " << Knet::IpHdr::minSize);
      return 0;
    }
    Knet::IpHdr::write(out, 0, Knet::IpHdr::minSize, 1, Knet::ipProtoPim, encapsulatedSrc_, encapsulatedDst_, 1,
                       Knet::IpHdr::dontFragmentFlag);
    const Knet::IpHdr h(out, Knet::IpHdr::minSize);
    PIM_TRACE(traceDetail, "TX: Dummy Header: " << (DummyHeader{h, h.expectedChecksum()}));
    return Knet::IpHdr::minSize;
  }
  if (family == Knet::AddressFamily::ipv6) {
    if (!encapsulatedDst_.isMulticast()) {
      PIM_TRACE(traceError, kNotMulticast6 << encapsulatedDst_);
      return 0;
    }
    if (room <= 39) {
      PIM_TRACE(traceError, kNullSpace << room << " Expected: " << Knet::Ip6Hdr::size);
      return 0;
    }
    Knet::Ip6Hdr::write(out, Knet::ip6TrafficClass(), 0, Knet::ipProtoPim, 1, encapsulatedSrc_, encapsulatedDst_);
    const Knet::Ip6Hdr h(out, Knet::Ip6Hdr::size);
    PIM_TRACE(traceDetail, "TX6: Dummy Header: <IP6 version=" << int(h.version()) << " payloadLen=" << h.payloadLength()
                               << " hopLimit=" << int(h.hopLimit()) << " proto=" << int(h.nextHeader())
                               << " src=" << h.src() << " dst=" << h.dst() << " tc= " << int(h.trafficClass())
                               << " fl= " << h.flowLabel() << ">");
    return Knet::Ip6Hdr::size;
  }
  PIM_TRACE(traceError, kWriteFamily << family);
  return 0;
}

// The packet to encapsulate, copied to `at` with `room` bytes: its size, or 0.
U32 RegisterMessage::writeData(const Loom::Ptr<Knet::Pkt>& pkt, U32 at, S64 room) {
  if (!rcvdPkt_) {
    PIM_TRACE(traceError, kNoRcvdPkt);
    return 0;
  }
  const Knet::AddressFamily family = af();
  const U8* inner = rcvdPkt_->data();
  const U32 length = rcvdPkt_->size();
  if (family == Knet::AddressFamily::ipv4) {
    if (length < Knet::IpHdr::minSize) {
      PIM_TRACE(traceError, kWriteDataLength << length << " Expected: " << Knet::IpHdr::minSize);
      return 0;
    }
    const Knet::IpHdr h(inner, length);
    encapsulatedSrcIs(h.src());
    encapsulatedDstIs(h.dst());
    if (!encapsulatedDst_.isMulticast()) {
      PIM_TRACE(traceError, kNotMulticast << encapsulatedDst_);
      return 0;
    }
    if (h.totalLength() != length) {
      PIM_TRACE(traceError, kWriteDataLength << length << " Expected: " << h.totalLength());
      return 0;
    }
  } else if (family == Knet::AddressFamily::ipv6) {
    if (length < Knet::Ip6Hdr::size) {
      PIM_TRACE(traceError, kWriteDataLength << length << " Expected: " << Knet::Ip6Hdr::size);
      return 0;
    }
    const Knet::Ip6Hdr h(inner, length);
    encapsulatedSrcIs(h.src());
    encapsulatedDstIs(h.dst());
    if (!encapsulatedDst_.isMulticast()) {
      PIM_TRACE(traceError, kNotMulticast6 << encapsulatedDst_);
      return 0;
    }
    if (h.payloadLength() > length) {
      PIM_TRACE(traceError, kWriteDataLength << length << " Expected: " << h.payloadLength());
      return 0;
    }
  } else {
    PIM_TRACE(traceError, kWriteFamily << family);
    return 0;
  }
  if (room < S64(length)) {
    PIM_TRACE(traceError, kWriteDataSpace << room << " Expected: " << length);
    return 0;
  }
  std::memcpy(pkt->data() + at, inner, length);
  return length;
}

// ======================================================================== Register-Stop

RegisterStopMessage::RegisterStopMessage() : Message(Knet::pimRegisterStop()) {}

Loom::Ptr<RegisterStopMessage> registerStopMessageFactory() { return new RegisterStopMessage; }

U32 RegisterStopMessage::readRegisterStopMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  GroupSource::Body body;
  const U32 end = GroupSource::read(*this, registerStopReadTexts, pkt, offset, body);
  if (end == 0) return 0;
  group_ = body.group.address;
  groupFlags_ = body.group.flags;
  source_ = body.source;
  if (end != pkt->size()) {
    PIM_TRACE(traceError, kStopEndOfMessage << pkt->size() - end);
    return 0;
  }
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return end - offset;
}

U32 RegisterStopMessage::writeRegisterStopMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const U32 end =
      GroupSource::write(*this, registerStopWriteTexts, pkt, offset, GroupSource::Body{{group_, groupFlags_}, source_});
  if (end == 0) return 0;
  lengthIs(end - offset);
  if (writeHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kStopWriteHeader);
    return 0;
  }
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return length();
}

}  // namespace Routing::Pim::Packet
