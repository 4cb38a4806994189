#pragma once
// The Internet checksum (RFC 1071): the one's-complement of the one's-complement sum of the data
// taken as big-endian 16-bit words, a trailing odd byte padded with zero.
#include <cstddef>

#include "loom/Types.h"

namespace Knet {

// The folded one's-complement sum of the data, plus `initial` (a partial sum of earlier data
// whose length was even). Not complemented. Reads 8 bytes at a time.
U16 onesComplementSum(const U8* data, size_t length, U32 initial = 0);

// The value to store in a checksum field (the complement of the sum).
inline U16 internetChecksum(const U8* data, size_t length, U32 initial = 0) {
  return static_cast<U16>(~onesComplementSum(data, length, initial));
}

// The same sum as onesComplementSum, one 16-bit word at a time: the reference the fast version
// is tested and measured against.
U16 onesComplementSumByWord(const U8* data, size_t length, U32 initial = 0);

}  // namespace Knet
