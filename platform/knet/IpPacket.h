#pragma once
// The IP layer around PIM messages: finding the PIM message in a received or captured IPv4 or
// IPv6 packet (header checks, IPv6 extension headers, fragments), and putting the IP header in
// front of an encoded message the way a router sends it.
#include <span>
#include <string>

#include "knet/Address.h"
#include "knet/Pkt.h"

namespace Knet {

// What a captured IP packet holds.
struct IpPacket {
  enum class Kind {
    notPim,  // another protocol, or too short to tell
    pim,     // `pim` holds the PIM message
    failed,  // PIM, but the IP layer is broken: `failure` says how
  };
  // Why the IP layer is broken, for code to test; `failure` has the text for people.
  enum class Failure {
    none,
    headerLength,       // an IPv4 header length below 20 bytes
    truncatedHeader,    // the IPv4 header runs past the captured bytes
    checksum,           // a wrong IPv4 header checksum
    totalLength,        // an IPv4 total length shorter than its header
    truncated,          // the packet runs past the captured bytes
    extensionLength,    // IPv6 extension headers longer than the payload
    fragment,           // a fragment, first or later: not reassembled
  };
  Kind kind = Kind::notPim;
  Failure why = Failure::none;
  IpGenAddr src;
  IpGenAddr dst;
  std::span<const U8> pim;  // from the PIM header to the end of the IP payload
  std::string failure;
};

// Looks through the IP header (and IPv6 extension headers) of `bytes` for a PIM message.
//
// IPv4: the header must be sound (length, checksum, total length) and the payload ends where
// the total length says; Ethernet padding behind it is not part of the message. IPv6: the
// hop-by-hop, routing, destination options, fragment and authentication headers are skipped
// until the next header is PIM. A fragment of a PIM packet (IPv4 or IPv6, first or later) is
// reported as failed, since nothing here reassembles. A packet whose headers claim more
// bytes than were captured is reported as failed ("Truncated capture"), never decoded in part.
IpPacket parseIpPacket(std::span<const U8> bytes);

// Puts an IPv4 header (TOS 192, TTL 1, id 0, no fragment flags) or an IPv6 header (traffic class
// 192, hop limit 1) with protocol PIM in front of the message in `pkt`. The family is that of
// `src`; `dst` must have the same one.
void addIpHeader(Pkt& pkt, const IpGenAddr& src, const IpGenAddr& dst);

// The most bytes of PIM message that fit in one IP packet of the family.
U32 maxPimMessageSize(AddressFamily af);

}  // namespace Knet
