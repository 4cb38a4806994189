#pragma once
// Read views of IPv4 and IPv6 headers over received bytes, and writers that lay down a header in
// front of a payload.
#include "knet/Address.h"

namespace Knet {

class IpHdr {
 public:
  static constexpr U32 minSize = 20;
  IpHdr(const U8* bytes, U32 avail) : p_(bytes), avail_(avail) {}

  // Room for the fixed part, version 4, a header length of at least 20 bytes that fits.
  bool valid() const;
  U8 version() const { return p_[0] >> 4; }
  U32 headerLength() const { return U32(p_[0] & 0x0f) * 4; }
  U8 tos() const { return p_[1]; }
  U16 totalLength() const { return u16(2); }
  U16 id() const { return u16(4); }
  U16 fragmentField() const { return u16(6); }
  bool moreFragments() const { return fragmentField() & 0x2000; }
  U16 fragmentOffset() const { return fragmentField() & 0x1fff; }
  U8 ttl() const { return p_[8]; }
  U8 protocol() const { return p_[9]; }
  U16 checksum() const { return u16(10); }
  IpGenAddr src() const { return IpGenAddr::fromBytes(AddressFamily::ipv4, p_ + 12); }
  IpGenAddr dst() const { return IpGenAddr::fromBytes(AddressFamily::ipv4, p_ + 16); }
  // Internet checksum over the header as it stands: 0 when the stored checksum is right.
  U16 computedChecksum() const;

  // Writes a 20-byte header without options, its checksum included.
  static void write(U8* out, U8 tos, U16 totalLength, U8 ttl, U8 protocol, const IpGenAddr& src,
                    const IpGenAddr& dst, U16 id = 0);

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

  static void write(U8* out, U8 trafficClass, U16 payloadLength, U8 nextHeader, U8 hopLimit,
                    const IpGenAddr& src, const IpGenAddr& dst);

 private:
  const U8* p_;
  U32 avail_;
};

}  // namespace Knet
