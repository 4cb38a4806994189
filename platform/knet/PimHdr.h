#pragma once
// Views of the PIM common header and the IPv6 pseudo-header that PIM's checksum covers.
#include <ostream>

#include "knet/Address.h"

namespace Knet {

constexpr U8 ipProtoPim = 103;

// The pseudo-header of an IPv6 upper-layer checksum: source, destination, upper-layer length,
// three zero bytes and the next-header value.
struct PimPseudoHdrIpv6 {
  IpGenAddr src;
  IpGenAddr dst;
  U32 length = 0;
  U8 nextHeader = ipProtoPim;

  static constexpr U32 size = 40;
  // The 40 bytes in wire order.
  void serialize(U8 out[size]) const;
};
std::ostream& operator<<(std::ostream& os, const PimPseudoHdrIpv6& h);

// The 4-byte PIM header (version and type, reserved, checksum) at the front of `avail` bytes that
// run to the end of the packet. Checksums never read beyond those bytes.
class PimCommonHdr {
 public:
  static constexpr U32 size = 4;
  PimCommonHdr(U8* bytes, U32 avail) : p_(bytes), avail_(avail) {}

  PimMessageType messageType() const { return PimMessageType(p_[0]); }
  void messageTypeIs(PimMessageType t) { p_[0] = t.value(); }
  U8 reserved() const { return p_[1]; }
  void reservedIs(U8 v) { p_[1] = v; }
  U16 checksum() const { return static_cast<U16>(p_[2] << 8 | p_[3]); }
  void checksumIs(U16 v) {
    p_[2] = static_cast<U8>(v >> 8);
    p_[3] = static_cast<U8>(v);
  }

  // Internet checksum over `length` bytes from the header, the checksum field as it stands:
  // with the field zeroed, the value to store.
  U16 computedChecksum(U16 length) const;
  // The same over `length` bytes with the stored checksum in them: 0 when that checksum is right.
  U16 computedChecksumU16(U16 length) const;
  // The same over the pseudo-header followed by as many message bytes as its length says.
  U16 computedChecksumIpv6(const PimPseudoHdrIpv6& pseudo) const;

 private:
  U8* p_;
  U32 avail_;
};
std::ostream& operator<<(std::ostream& os, const PimCommonHdr& h);

}  // namespace Knet
