#include "knet/IpHdr.h"

#include <algorithm>
#include <cstring>

#include "knet/Checksum.h"

namespace Knet {

bool IpHdr::valid() const {
  return avail_ >= minSize && version() == 4 && headerLength() >= minSize && headerLength() <= avail_;
}

U16 IpHdr::computedChecksum() const { return internetChecksum(p_, headerLength()); }

U16 IpHdr::expectedChecksum() const {
  U8 copy[60];
  const U32 n = std::min<U32>(headerLength(), sizeof(copy));
  std::memcpy(copy, p_, n);
  copy[10] = copy[11] = 0;
  return internetChecksum(copy, n);
}

namespace {
// The address bytes if of the family, else zeros.
const U8* addressBytesOf(const IpGenAddr& a, AddressFamily af) {
  static constexpr U8 zeros[16] = {};
  return a.af() == af ? a.bytes() : zeros;
}
U8 trafficClass = 192;
}  // namespace

U8 ip6TrafficClass() { return trafficClass; }
void ip6TrafficClassIs(U8 v) { trafficClass = v; }

void IpHdr::write(U8* out, U8 tos, U16 totalLength, U8 ttl, U8 protocol, const IpGenAddr& src,
                  const IpGenAddr& dst, U16 id, U16 fragmentField) {
  out[0] = 0x45;
  out[1] = tos;
  out[2] = static_cast<U8>(totalLength >> 8);
  out[3] = static_cast<U8>(totalLength);
  out[4] = static_cast<U8>(id >> 8);
  out[5] = static_cast<U8>(id);
  out[6] = static_cast<U8>(fragmentField >> 8);
  out[7] = static_cast<U8>(fragmentField);
  out[8] = ttl;
  out[9] = protocol;
  out[10] = out[11] = 0;
  std::memcpy(out + 12, addressBytesOf(src, AddressFamily::ipv4), 4);
  std::memcpy(out + 16, addressBytesOf(dst, AddressFamily::ipv4), 4);
  U16 sum = internetChecksum(out, minSize);
  out[10] = static_cast<U8>(sum >> 8);
  out[11] = static_cast<U8>(sum);
}

void Ip6Hdr::write(U8* out, U8 trafficClass, U16 payloadLength, U8 nextHeader, U8 hopLimit,
                   const IpGenAddr& src, const IpGenAddr& dst) {
  out[0] = static_cast<U8>(0x60 | trafficClass >> 4);
  out[1] = static_cast<U8>(trafficClass << 4);
  out[2] = out[3] = 0;
  out[4] = static_cast<U8>(payloadLength >> 8);
  out[5] = static_cast<U8>(payloadLength);
  out[6] = nextHeader;
  out[7] = hopLimit;
  std::memcpy(out + 8, addressBytesOf(src, AddressFamily::ipv6), 16);
  std::memcpy(out + 24, addressBytesOf(dst, AddressFamily::ipv6), 16);
}

}  // namespace Knet
