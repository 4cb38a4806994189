#include "knet/IpPacket.h"

#include <optional>
#include <sstream>

#include "knet/IpHdr.h"
#include "knet/PimHdr.h"

namespace Knet {

namespace {

// ---- Failure texts ----
constexpr const char* kTruncated = "Truncated capture - IP length ";
constexpr const char* kTruncatedHeader = "Truncated capture - IP header length ";
constexpr const char* kIpv4HeaderLength = "Invalid IPv4 Header - Header Length: ";
constexpr const char* kIpv4Checksum = "Invalid IPv4 Header - Checksum - Received: ";
constexpr const char* kIpv4TotalLength = "Invalid IPv4 Header - Total Length: ";
constexpr const char* kIpv6ExtensionLength = "Invalid IPv6 Header - Extension Headers: ";
constexpr const char* kFragment = "Fragmented IP packet - Offset: ";

// IPv6 next-header values of the extension headers that may stand in front of PIM.
enum Ipv6Extension : U8 { hopByHop = 0, routing = 43, fragment = 44, authentication = 51, destinationOptions = 60 };

constexpr U8 ipTos = 192;  // precedence 6, internetwork control
constexpr U8 ipTtl = 1;

U16 readU16Be(std::span<const U8> bytes, size_t at) { return static_cast<U16>(bytes[at] << 8 | bytes[at + 1]); }

template <class... Parts>
IpPacket failed(IpPacket packet, IpPacket::Failure why, const Parts&... parts) {
  std::ostringstream os;
  (os << ... << parts);
  packet.kind = IpPacket::Kind::failed;
  packet.why = why;
  packet.failure = os.str();
  return packet;
}

IpPacket fragmented(IpPacket packet, U32 offset, bool more) {
  return failed(std::move(packet), IpPacket::Failure::fragment, kFragment, offset, " More Fragments: ", more ? 1 : 0, " - not reassembled");
}

IpPacket parseIpv4(std::span<const U8> bytes) {
  IpPacket packet;
  if (bytes.size() < IpHdr::minSize) return packet;
  const IpHdr ip(bytes.data(), static_cast<U32>(bytes.size()));
  if (ip.protocol() != ipProtoPim) return packet;
  packet.src = ip.src();
  packet.dst = ip.dst();

  const U32 headerLength = ip.headerLength();
  if (headerLength < IpHdr::minSize) return failed(std::move(packet), IpPacket::Failure::headerLength, kIpv4HeaderLength, headerLength);
  if (headerLength > bytes.size()) {
    return failed(std::move(packet), IpPacket::Failure::truncatedHeader, kTruncatedHeader, headerLength, " captured ", bytes.size());
  }
  if (ip.computedChecksum() != 0) return failed(std::move(packet), IpPacket::Failure::checksum, kIpv4Checksum, ip.checksum());
  const U32 totalLength = ip.totalLength();
  if (totalLength < headerLength) {
    return failed(std::move(packet), IpPacket::Failure::totalLength, kIpv4TotalLength, totalLength, " Header Length: ", headerLength);
  }
  if (ip.moreFragments() || ip.fragmentOffset() != 0) {
    return fragmented(std::move(packet), ip.fragmentOffset() * 8u, ip.moreFragments());
  }
  if (totalLength > bytes.size()) return failed(std::move(packet), IpPacket::Failure::truncated, kTruncated, totalLength, " captured ", bytes.size());
  packet.kind = IpPacket::Kind::pim;
  packet.pim = bytes.subspan(headerLength, totalLength - headerLength);
  return packet;
}

IpPacket parseIpv6(std::span<const U8> bytes) {
  IpPacket packet;
  if (bytes.size() < Ip6Hdr::size) return packet;
  const Ip6Hdr ip(bytes.data(), static_cast<U32>(bytes.size()));
  const size_t totalLength = Ip6Hdr::size + ip.payloadLength();
  U8 next = ip.nextHeader();
  size_t at = Ip6Hdr::size;
  std::optional<std::pair<U32, bool>> fragmentOf;  // offset and more-fragments flag
  // Each extension header is at least 8 bytes long, so the walk ends within the captured bytes.
  // A chain that is cut off by the capture cannot say whether PIM follows: not PIM.
  while (next != ipProtoPim) {
    if (at + 2 > bytes.size()) return packet;
    size_t length = 0;
    switch (next) {
      case hopByHop:
      case routing:
      case destinationOptions:
        length = (bytes[at + 1] + 1u) * 8u;
        break;
      case authentication:
        length = (bytes[at + 1] + 2u) * 4u;
        break;
      case fragment: {
        if (at + 8 > bytes.size()) return packet;
        const U16 field = readU16Be(bytes, at + 2);
        const U32 offset = (field >> 3) * 8u;
        const bool more = field & 1;
        if (offset != 0 || more) fragmentOf.emplace(offset, more);
        // Behind a later fragment lies the middle of the payload, not more headers.
        if (offset != 0 && bytes[at] != ipProtoPim) return packet;
        length = 8;
        break;
      }
      default:
        return packet;
    }
    next = bytes[at];
    at += length;
  }
  packet.src = ip.src();
  packet.dst = ip.dst();
  if (fragmentOf) return fragmented(std::move(packet), fragmentOf->first, fragmentOf->second);
  if (totalLength > bytes.size()) return failed(std::move(packet), IpPacket::Failure::truncated, kTruncated, totalLength, " captured ", bytes.size());
  if (at > totalLength) {
    return failed(std::move(packet), IpPacket::Failure::extensionLength, kIpv6ExtensionLength, at - Ip6Hdr::size, " bytes Payload Length: ",
                  ip.payloadLength());
  }
  packet.kind = IpPacket::Kind::pim;
  packet.pim = bytes.subspan(at, totalLength - at);
  return packet;
}

}  // namespace

IpPacket parseIpPacket(std::span<const U8> bytes) {
  if (bytes.empty()) return IpPacket{};
  switch (bytes[0] >> 4) {
    case 4: return parseIpv4(bytes);
    case 6: return parseIpv6(bytes);
    default: return IpPacket{};
  }
}

U32 maxPimMessageSize(AddressFamily af) {
  // IPv4's total length counts the header; IPv6's payload length does not.
  return af == AddressFamily::ipv6 ? 0xffff : 0xffff - IpHdr::minSize;
}

void addIpHeader(Pkt& pkt, const IpGenAddr& src, const IpGenAddr& dst) {
  const U32 payload = pkt.size();
  if (src.af() == AddressFamily::ipv6) {
    pkt.headAdd(Ip6Hdr::size);
    Ip6Hdr::write(pkt.data(), ipTos, static_cast<U16>(payload), ipProtoPim, ipTtl, src, dst);
  } else {
    pkt.headAdd(IpHdr::minSize);
    IpHdr::write(pkt.data(), ipTos, static_cast<U16>(payload + IpHdr::minSize), ipTtl,
                       ipProtoPim, src, dst);
  }
}

}  // namespace Knet
