#include "knet/Checksum.h"

#include <bit>
#include <cstring>

namespace Knet {
namespace {

inline U64 load64(const U8* p) {
  U64 v;
  std::memcpy(&v, p, 8);
  return v;
}

inline U32 fold(U64 sum) {
  sum = (sum & 0xffffffff) + (sum >> 32);
  sum = (sum & 0xffffffff) + (sum >> 32);
  sum = (sum & 0xffff) + (sum >> 16);
  sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<U32>(sum);
}

}  // namespace

U16 onesComplementSum(const U8* data, size_t length, U32 initial) {
  // The one's-complement sum does not depend on byte order except for a final swap, so the data
  // is summed as native 64-bit words split into 32-bit halves (no carry can be lost before
  // 2^32 words), and the folded result is swapped to network order on little-endian hosts.
  U64 a = 0, b = 0, c = 0, d = 0;
  const U8* p = data;
  size_t n = length;
  while (n >= 32) {
    U64 w0 = load64(p), w1 = load64(p + 8), w2 = load64(p + 16), w3 = load64(p + 24);
    a += (w0 & 0xffffffff) + (w0 >> 32);
    b += (w1 & 0xffffffff) + (w1 >> 32);
    c += (w2 & 0xffffffff) + (w2 >> 32);
    d += (w3 & 0xffffffff) + (w3 >> 32);
    p += 32;
    n -= 32;
  }
  while (n >= 8) {
    U64 w = load64(p);
    a += (w & 0xffffffff) + (w >> 32);
    p += 8;
    n -= 8;
  }
  U64 tail = 0;
  std::memcpy(&tail, p, n);  // up to 7 bytes, zero padded: the odd byte lands where RFC 1071 puts it
  a += (tail & 0xffffffff) + (tail >> 32);
  U32 sum = fold(a + b + c + d);
  if constexpr (std::endian::native == std::endian::little) {
    sum = static_cast<U16>((sum >> 8) | (sum << 8));
  }
  return static_cast<U16>(fold(U64(sum) + initial));
}

U16 onesComplementSumByWord(const U8* data, size_t length, U32 initial) {
  U64 sum = initial;
  size_t i = 0;
  for (; i + 1 < length; i += 2) sum += U32(data[i]) << 8 | data[i + 1];
  if (i < length) sum += U32(data[i]) << 8;
  return static_cast<U16>(fold(sum));
}

}  // namespace Knet
