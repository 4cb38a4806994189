#include "PimMessage/RegisterMessage.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "PimMessage/GroupSourceCodec.h"
#include "knet/Cursor.h"
#include "knet/IpHdr.h"
#include "knet/PimHdr.h"

namespace Routing::Pim::Packet {
namespace {

using T = RegisterText;
using S = RegisterStopText;

constexpr std::array<TextRow<RegisterText>, 20> texts{{
    {T::headerParse, "Invalid Pim Register - Header - Parse Error"},
    {T::flagsLength, "Invalid Pim Register - Flags Length - Remaining: "},
    {T::invalidVersion, "Invalid Pim Register "},
    {T::innerFamily, "Invalid Pim Register - Inner Ip Header - Family: "},
    {T::unknownVersion, "Invalid Pim Register - Inner Ip Header - Unknown Version"},
    {T::notMulticast, "Invalid Pim Register - Inner Ip Header - Not Multicast - Destination: "},
    {T::notMulticast6, "Invalid Pim Register - Inner Ip6 Header - Not Multicast - Destination: "},
    {T::nullChecksum, "Invalid Pim Register - Null Register - Invalid Inner Ip Checksum"},
    {T::nullLength, "Invalid Pim Register - Null Register - Invalid Inner Ip Length - Length: "},
    {T::nullLength6, "Invalid Pim Register - Null Register - Invalid Inner Ip6 Length - Length: "},
    {T::dataLength, "Invalid Pim Register - Encapsulated Data Length - Remaining: "},
    {T::writeHeaderSpace, "Invalid Pim Register - Header - Unavailable Space - Remaining: "},
    {T::writeFlagsSpace, "Invalid Pim Register - Flags - Unavailable Space - Remaining: "},
    {T::writeHeader, "Invalid Pim Register - Header - Write Error"},
    {T::nullWithData, "Invalid Pim Register - Null Register - Using Encapsulated Data Fields"},
    {T::nullSpace, "Invalid Pim Register - Null Header - Unavailable Space - Remaining: "},
    {T::writeFamily, "Invalid Pim Register - Invalid Family - Family: "},
    {T::noRcvdPkt, "Invalid Pim Register - No Rcvd Pkt"},
    {T::writeDataLength, "Invalid Pim Register - Encapsulated Data Length - Length: "},
    {T::writeDataSpace, "Invalid Pim Register - Encapsulated Data - Unavailable Space - Remaining: "},
}};
static_assert(rowsInOrder(texts));

constexpr std::array<TextRow<RegisterStopText>, 13> stopTexts{{
    {S::headerParse, "Invalid Pim Register Stop - Header - Parse Error"},
    {S::groupParse, "Invalid Pim Register Stop - Group Address - Parse Error"},
    {S::groupFamily, "Invalid Pim Register Stop - Group Address - Invalid Family - Family: "},
    {S::groupPrefix, "Invalid Pim Register Stop - Group Address - Invalid Prefix - "},
    {S::sourceParse, "Invalid Pim Register Stop - Source Address - Parse Error"},
    {S::sourceFamily, "Invalid Pim Register Stop - Source Address - Invalid Family - Family: "},
    {S::sourceInvalid, "Invalid Pim Register Stop - Source Address - Invalid Address: "},
    {S::endOfMessage, "Invalid Pim Register Stop - End of Message - Remaining: "},
    {S::writeHeaderSpace, "Invalid Pim Register Stop - Header - Unavailable Space - Remaining: "},
    {S::writeFamily, "Invalid Pim Register Stop - Invalid Family - Family: "},
    {S::groupWrite, "Invalid Pim Register Stop - Group Address - Write Error"},
    {S::sourceWrite, "Invalid Pim Register Stop - Source Address - Write Error"},
    {S::writeHeader, "Invalid Pim Register Stop - Header - Write Error"},
}};
static_assert(rowsInOrder(stopTexts));

constexpr GroupSource::ReadRows stopReadRows{
    S::groupParse,  S::groupFamily,  "Address: ", S::groupPrefix,
    S::sourceParse, S::sourceFamily, "Address: ", S::sourceInvalid,
};
constexpr GroupSource::WriteRows stopWriteRows{S::writeHeaderSpace, S::writeFamily, S::groupWrite, S::sourceWrite};

constexpr U32 innerOffset = 8;  // the inner IP header, behind the header and the flags word

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

std::string_view textOf(RegisterText row) { return texts[static_cast<size_t>(row)].text; }
std::string_view textOf(RegisterStopText row) { return stopTexts[static_cast<size_t>(row)].text; }

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
  if (readHeader(pkt, offset) == 0) return PIM_FAIL(T::headerParse);
  Knet::PktReader r(pkt, offset + 4);
  PIM_TRACE(traceDetail, "readRegisterMessage: headBytes " << r.offset() << ", Remaining: " << r.remaining());
  if (r.remaining() < 4) return PIM_FAIL(T::flagsLength, r.remaining(), " Expected: ", 4);
  implRegisterFlagsU32Is(r.readU32Be());
  if (readInner(pkt, r) == 0) return 0;
  return r.offset() - offset;
}

// The inner header and the data under the cursor, all the rest of the packet: its size, or 0.
U32 RegisterMessage::readInner(const Loom::Ptr<Knet::Pkt>& pkt, Knet::PktReader& r) {
  const U32 dataLength = static_cast<U32>(r.remaining());
  const U8* inner = r.data() + r.offset();
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
      return PIM_FAIL(T::invalidVersion);
    }
  }
  if (family != innerFamily) return PIM_FAIL(T::innerFamily, family, " Inner Family: ", innerFamily);
  const bool null = nullFlag();
  if (family == Knet::AddressFamily::ipv4) {
    // A header that is not all there is refused with the length texts before any field of it
    // is read.
    if (dataLength < Knet::IpHdr::minSize) {
      const U32 total = dataLength >= 4 ? U32(inner[2]) << 8 | inner[3] : 0;
      if (null) return PIM_FAIL(T::nullLength, total, " Remaining: ", dataLength);
      // The total length when the header holds it, else the least a header takes.
      return PIM_FAIL(T::dataLength, dataLength, " Expected: ", dataLength >= 4 ? total : Knet::IpHdr::minSize);
    }
    const Knet::IpHdr h(inner, dataLength);
    encapsulatedSrcIs(h.src());
    encapsulatedDstIs(h.dst());
    if (!encapsulatedDst_.isMulticast()) return PIM_FAIL(T::notMulticast, encapsulatedDst_);
    if (null) {
      // The checksum is summed over the header length that the header gives, kept within the
      // bytes at hand; a zero checksum field is taken as not computed.
      const U32 hl = std::clamp<U32>(h.headerLength(), Knet::IpHdr::minSize, std::min<U32>(dataLength, 60));
      U8 bounded[60];
      std::memcpy(bounded, inner, hl);
      bounded[0] = static_cast<U8>((bounded[0] & 0xf0) | hl / 4);
      const Knet::IpHdr summed(bounded, hl);
      PIM_TRACE(traceDetail, "RX: Dummy Header: " << (DummyHeader{h, summed.expectedChecksum()}));
      if (h.checksum() != 0 && summed.computedChecksum() != 0) return PIM_FAIL(T::nullChecksum);
      if (dataLength == 0 || dataLength != h.totalLength()) {
        return PIM_FAIL(T::nullLength, h.totalLength(), " Remaining: ", dataLength);
      }
    } else if (dataLength == 0 || dataLength < h.headerLength() || dataLength != h.totalLength()) {
      return PIM_FAIL(T::dataLength, dataLength, " Expected: ", h.totalLength());
    }
  } else if (family == Knet::AddressFamily::ipv6) {
    if (dataLength < Knet::Ip6Hdr::size) {
      const U32 payload = dataLength >= 6 ? U32(inner[4]) << 8 | inner[5] : 0;
      if (null) return PIM_FAIL(T::nullLength6, payload + Knet::Ip6Hdr::size, " Remaining: ", dataLength);
      return PIM_FAIL(T::dataLength, dataLength, " Expected: ", payload);
    }
    const Knet::Ip6Hdr h(inner, dataLength);
    encapsulatedSrcIs(h.src());
    encapsulatedDstIs(h.dst());
    if (!encapsulatedDst_.isMulticast()) return PIM_FAIL(T::notMulticast6, encapsulatedDst_);
    if (null) {
      PIM_TRACE(traceDetail, "RX6: Dummy Header: <IP version=" << int(h.version()) << " hdl=" << Knet::Ip6Hdr::size
                                 << " trafficClass=" << int(h.trafficClass()) << " plen=" << h.payloadLength()
                                 << " proto=" << int(h.nextHeader()) << " hopLimit=" << int(h.hopLimit())
                                 << " src=" << h.src() << " dst=" << h.dst() << " tc=" << int(h.trafficClass())
                                 << " fl=" << h.flowLabel() << ">");
      const U32 expected = U32(h.payloadLength()) + Knet::Ip6Hdr::size;
      if (dataLength == 0 || dataLength != expected) {
        return PIM_FAIL(T::nullLength6, expected, " Remaining: ", dataLength);
      }
    } else if (dataLength == 0 || dataLength < h.payloadLength()) {
      // Looser than IPv4: bytes beyond the payload length are accepted.
      return PIM_FAIL(T::dataLength, dataLength, " Expected: ", h.payloadLength());
    }
  } else {
    return PIM_FAIL(T::unknownVersion);
  }
  const Knet::PktOffset innerAt = r.offset();
  if (!r.skip(dataLength)) return 0;  // all that remains
  if (!null) {
    rcvdPkt_ = pkt;
    pkt->delSharedHeadData(innerAt);
  }
  PIM_TRACE(traceDetail, "RX6: <PIM " << this << ">");
  return dataLength;
}

U32 RegisterMessage::writeRegisterMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  failureClear();
  Knet::PktWriter w(pkt, offset);
  if (w.remaining() < 4) return PIM_FAIL(T::writeHeaderSpace, w.remaining());
  w.skip(4);
  if (w.remaining() <= 3) return PIM_FAIL(T::writeFlagsSpace, w.remaining(), " Expected: ", 4);
  w.writeU32Be(implRegisterFlags_.value());
  // The checksum covers the header and the flags word only, so the header is written now.
  lengthIs(innerOffset);
  if (writeHeader(pkt, offset) == 0) return PIM_FAIL(T::writeHeader);
  const U32 n = nullFlag() ? writeNull(w) : writeData(w);
  if (n == 0) return 0;
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return w.offset() - offset;
}

// The dummy header of a Null-Register under the cursor: its size, or 0.
U32 RegisterMessage::writeNull(Knet::PktWriter& w) {
  if (rcvdPkt_) return PIM_FAIL(T::nullWithData);
  const Knet::AddressFamily family = af();
  const S64 room = w.remaining();
  U8* out = w.data() + w.offset();
  if (family == Knet::AddressFamily::ipv4) {
    if (!encapsulatedDst_.isMulticast()) return PIM_FAIL(T::notMulticast, encapsulatedDst_);
    if (room <= 19) return PIM_FAIL(T::nullSpace, room, " Expected: ", Knet::IpHdr::minSize);
    Knet::IpHdr::write(out, 0, Knet::IpHdr::minSize, 1, Knet::ipProtoPim, encapsulatedSrc_, encapsulatedDst_, 1,
                       Knet::IpHdr::dontFragmentFlag);
    const Knet::IpHdr h(out, Knet::IpHdr::minSize);
    PIM_TRACE(traceDetail, "TX: Dummy Header: " << (DummyHeader{h, h.expectedChecksum()}));
    w.skip(Knet::IpHdr::minSize);
    return Knet::IpHdr::minSize;
  }
  if (family == Knet::AddressFamily::ipv6) {
    if (!encapsulatedDst_.isMulticast()) return PIM_FAIL(T::notMulticast6, encapsulatedDst_);
    if (room <= 39) return PIM_FAIL(T::nullSpace, room, " Expected: ", Knet::Ip6Hdr::size);
    Knet::Ip6Hdr::write(out, Knet::ip6TrafficClass(), 0, Knet::ipProtoPim, 1, encapsulatedSrc_, encapsulatedDst_);
    const Knet::Ip6Hdr h(out, Knet::Ip6Hdr::size);
    PIM_TRACE(traceDetail, "TX6: Dummy Header: <IP6 version=" << int(h.version()) << " payloadLen=" << h.payloadLength()
                               << " hopLimit=" << int(h.hopLimit()) << " proto=" << int(h.nextHeader())
                               << " src=" << h.src() << " dst=" << h.dst() << " tc= " << int(h.trafficClass())
                               << " fl= " << h.flowLabel() << ">");
    w.skip(Knet::Ip6Hdr::size);
    return Knet::Ip6Hdr::size;
  }
  return PIM_FAIL(T::writeFamily, family);
}

// The packet to encapsulate, copied under the cursor: its size, or 0.
U32 RegisterMessage::writeData(Knet::PktWriter& w) {
  if (!rcvdPkt_) return PIM_FAIL(T::noRcvdPkt);
  const Knet::AddressFamily family = af();
  const U8* inner = rcvdPkt_->data();
  const U32 length = rcvdPkt_->size();
  if (family == Knet::AddressFamily::ipv4) {
    if (length < Knet::IpHdr::minSize) return PIM_FAIL(T::writeDataLength, length, " Expected: ", Knet::IpHdr::minSize);
    const Knet::IpHdr h(inner, length);
    encapsulatedSrcIs(h.src());
    encapsulatedDstIs(h.dst());
    if (!encapsulatedDst_.isMulticast()) return PIM_FAIL(T::notMulticast, encapsulatedDst_);
    if (h.totalLength() != length) return PIM_FAIL(T::writeDataLength, length, " Expected: ", h.totalLength());
  } else if (family == Knet::AddressFamily::ipv6) {
    if (length < Knet::Ip6Hdr::size) return PIM_FAIL(T::writeDataLength, length, " Expected: ", Knet::Ip6Hdr::size);
    const Knet::Ip6Hdr h(inner, length);
    encapsulatedSrcIs(h.src());
    encapsulatedDstIs(h.dst());
    if (!encapsulatedDst_.isMulticast()) return PIM_FAIL(T::notMulticast6, encapsulatedDst_);
    if (h.payloadLength() > length) return PIM_FAIL(T::writeDataLength, length, " Expected: ", h.payloadLength());
  } else {
    return PIM_FAIL(T::writeFamily, family);
  }
  if (w.remaining() < S64(length)) return PIM_FAIL(T::writeDataSpace, w.remaining(), " Expected: ", length);
  std::memcpy(w.data() + w.offset(), inner, length);
  w.skip(length);
  return length;
}

// ======================================================================== Register-Stop

RegisterStopMessage::RegisterStopMessage() : Message(Knet::pimRegisterStop()) {}

Loom::Ptr<RegisterStopMessage> registerStopMessageFactory() { return new RegisterStopMessage; }

U32 RegisterStopMessage::readRegisterStopMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  if (readHeader(pkt, offset) == 0) return PIM_FAIL(S::headerParse);
  Knet::PktReader r(pkt, offset + 4);
  GroupSource::Body body;
  if (!GroupSource::read(*this, stopReadRows, r, body)) return 0;
  group_ = body.group.address;
  groupFlags_ = body.group.flags;
  source_ = body.source;
  if (!r.atEnd()) return PIM_FAIL(S::endOfMessage, r.remaining());
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return r.offset() - offset;
}

U32 RegisterStopMessage::writeRegisterStopMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  failureClear();
  Knet::PktWriter w(pkt, offset);
  if (!GroupSource::write(*this, stopWriteRows, w, GroupSource::Body{{group_, groupFlags_}, source_})) return 0;
  lengthIs(w.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return PIM_FAIL(S::writeHeader);
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return length();
}

}  // namespace Routing::Pim::Packet
