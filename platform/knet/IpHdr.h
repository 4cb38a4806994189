#pragma once
// Read views of IPv4 and IPv6 headers over received bytes, and writers that lay down a header in
// front of a payload.
#include "knet/Address.h"

namespace Knet {

class IpHdr {
 public:
  static constexpr U32 minSize = 20;
  // Flags in the fragment field.
  static constexpr U16 reservedFlag = 0x8000;
  static constexpr U16 dontFragmentFlag = 0x4000;
  static constexpr U16 moreFragmentsFlag = 0x2000;
  IpHdr(const U8* bytes, U32 avail) : p_(bytes), avail_(avail) {}

  // Room for the fixed part, version 4, a header length of at least 20 bytes that fits.
  bool valid() const;
  U8 version() const { return p_[0] >> 4; }
  U32 headerLength() const { return U32(p_[0] & 0x0f) * 4; }
  U8 tos() const { return p_[1]; }
  U16 totalLength() const { return u16(2); }
  U16 id() const { return u16(4); }
  U16 fragmentField() const { return u16(6); }
  bool reservedFragmentFlag() const { return fragmentField() & reservedFlag; }
  bool dontFragment() const { return fragmentField() & dontFragmentFlag; }
  bool moreFragments() const { return fragmentField() & moreFragmentsFlag; }
  U16 fragmentOffset() const { return fragmentField() & 0x1fff; }
  U8 ttl() const { return p_[8]; }
  U8 protocol() const { return p_[9]; }
  U16 checksum() const { return u16(10); }
  IpGenAddr src() const { return IpGenAddr::fromBytes(AddressFamily::ipv4, p_ + 12); }
  IpGenAddr dst() const { return IpGenAddr::fromBytes(AddressFamily::ipv4, p_ + 16); }
  // Internet checksum over the header as it stands: 0 when the stored checksum is right. The
  // header length must be available.
  U16 computedChecksum() const;
  // The checksum the header should carry: the sum over the header with its checksum field taken
  // as zero. The header length must be available.
  U16 expectedChecksum() const;

  // Writes a 20-byte header without options, its checksum included. Addresses of another
  // family are written as zeros.
  static void write(U8* out, U8 tos, U16 totalLength, U8 ttl, U8 protocol, const IpGenAddr& src,
                    const IpGenAddr& dst, U16 id = 0, U16 fragmentField = 0);

 private:
  U16 u16(U32 at) const { return static_cast<U16>(p_[at] << 8 | p_[at + 1]); }
  const U8* p_;
  U32 avail_;
};

class Ip6Hdr {
 public:
  static constexpr U32 size = 40;
  Ip6Hdr(const U8* bytes, U32 avail) : p_(bytes), avail_(avail) {}

  bool valid() const { return avail_ >= size && version() == 6; }
  U8 version() const { return p_[0] >> 4; }
  U8 trafficClass() const { return static_cast<U8>((p_[0] << 4) | (p_[1] >> 4)); }
  U32 flowLabel() const { return U32(p_[1] & 0x0f) << 16 | U32(p_[2]) << 8 | p_[3]; }
  U16 payloadLength() const { return static_cast<U16>(p_[4] << 8 | p_[5]); }
  U8 nextHeader() const { return p_[6]; }
  U8 hopLimit() const { return p_[7]; }
  IpGenAddr src() const { return IpGenAddr::fromBytes(AddressFamily::ipv6, p_ + 8); }
  IpGenAddr dst() const { return IpGenAddr::fromBytes(AddressFamily::ipv6, p_ + 24); }

  // Writes a 40-byte header with flow label 0. Addresses of another family are written as zeros.
  static void write(U8* out, U8 trafficClass, U16 payloadLength, U8 nextHeader, U8 hopLimit,
                    const IpGenAddr& src, const IpGenAddr& dst);

 private:
  const U8* p_;
  U32 avail_;
};

// The traffic class of the IPv6 headers that this host makes (192, internetwork control, unless
// set otherwise), as the type of service of its IPv4 headers.
U8 ip6TrafficClass();
void ip6TrafficClassIs(U8 v);

}  // namespace Knet
