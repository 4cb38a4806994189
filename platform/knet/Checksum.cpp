#include "knet/Checksum.h"

#include <bit>
#include <cstring>

namespace Knet {
namespace {

// The word loads below place bytes as a little-endian host does (x86-64, AArch64 Linux).
static_assert(std::endian::native == std::endian::little, "the checksum assumes a little-endian host");

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
  // 2^32 words), and the folded result is swapped to network order.
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
  // The last 0 to 7 bytes, loaded in fixed-width pieces (a variable-length copy into a word
  // stalls the load that reads it back). Each piece lands at the same position, relative to the
  // start of the data, that an 8-byte load would have put it; a lone last byte is zero padded as
  // RFC 1071 wants.
  U64 tail = 0;
  if (n & 4) {
    U32 t;
    std::memcpy(&t, p, 4);
    tail = t;
    p += 4;
  }
  if (n & 2) {
    U16 t;
    std::memcpy(&t, p, 2);
    tail |= U64(t) << ((n & 4) * 8);
    p += 2;
  }
  if (n & 1) tail |= U64(*p) << ((n & 6) * 8);
  a += (tail & 0xffffffff) + (tail >> 32);
  U32 sum = fold(a + b + c + d);
  sum = static_cast<U16>((sum >> 8) | (sum << 8));
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
