#include "knet/PimHdr.h"

#include <algorithm>
#include <cstring>
#include <iomanip>

#include "knet/Checksum.h"

namespace Knet {

void PimPseudoHdrIpv6::serialize(U8 out[size]) const {
  std::memcpy(out, src.bytes(), 16);
  std::memcpy(out + 16, dst.bytes(), 16);
  out[32] = static_cast<U8>(length >> 24);
  out[33] = static_cast<U8>(length >> 16);
  out[34] = static_cast<U8>(length >> 8);
  out[35] = static_cast<U8>(length);
  out[36] = out[37] = out[38] = 0;
  out[39] = nextHeader;
}

std::ostream& operator<<(std::ostream& os, const PimPseudoHdrIpv6& h) {
  return os << "<src=" << h.src << " dst=" << h.dst << " length=" << h.length
            << " nextHeader=" << static_cast<unsigned>(h.nextHeader) << ">";
}

U16 PimCommonHdr::computedChecksum(U16 length) const {
  return internetChecksum(p_, std::min<U32>(length, avail_));
}

U16 PimCommonHdr::computedChecksumU16(U16 length) const {
  return internetChecksum(p_, std::min<U32>(length, avail_));
}

U16 PimCommonHdr::computedChecksumIpv6(const PimPseudoHdrIpv6& pseudo) const {
  U8 ph[PimPseudoHdrIpv6::size];
  pseudo.serialize(ph);
  U16 partial = onesComplementSum(ph, sizeof(ph));
  return internetChecksum(p_, std::min<U32>(pseudo.length, avail_), partial);
}

std::ostream& operator<<(std::ostream& os, const PimCommonHdr& h) {
  auto flags = os.flags();
  os << "<version=" << static_cast<unsigned>(h.messageType().version()) << " type="
     << static_cast<unsigned>(h.messageType().type()) << " reserved=" << static_cast<unsigned>(h.reserved())
     << " checksum=0x" << std::hex << std::setw(4) << std::setfill('0') << h.checksum() << ">";
  os.flags(flags);
  return os << std::setfill(' ');
}

}  // namespace Knet
