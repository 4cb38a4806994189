// The Internet checksum: the fast sum against the word-by-word reference, and known values.
#include "knet/Checksum.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "knet/PimHdr.h"

namespace Knet {
namespace {

TEST(Checksum, KnownValues) {
  // The example of RFC 1071: 00 01 f2 03 f4 f5 f6 f7 sums to 0xddf2.
  const U8 rfc[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
  EXPECT_EQ(onesComplementSum(rfc, sizeof(rfc)), 0xddf2);
  EXPECT_EQ(internetChecksum(rfc, sizeof(rfc)), 0x220d);
  // An odd trailing byte is the high byte of a zero-padded word.
  const U8 odd[] = {0x12, 0x34, 0x56};
  EXPECT_EQ(onesComplementSum(odd, 3), 0x1234 + 0x5600);
  EXPECT_EQ(onesComplementSum(odd, 0), 0);
  // Carries wrap around: 0xffff + 0x0001 is 0x0001 in one's complement.
  const U8 wrap[] = {0xff, 0xff, 0x00, 0x01};
  EXPECT_EQ(onesComplementSum(wrap, 4), 0x0001);
}

TEST(Checksum, FastSumMatchesTheReferenceForEveryLengthAndAlignment) {
  std::mt19937 rng(7);
  std::vector<U8> buf(1600 + 8);
  for (auto& b : buf) b = static_cast<U8>(rng());
  for (size_t align = 0; align < 8; ++align) {
    for (size_t len = 0; len <= 300; ++len) {
      ASSERT_EQ(onesComplementSum(buf.data() + align, len), onesComplementSumByWord(buf.data() + align, len))
          << "align " << align << " length " << len;
    }
  }
  for (size_t len : {1480u, 1500u, 1600u}) {
    EXPECT_EQ(onesComplementSum(buf.data(), len, 0x1234), onesComplementSumByWord(buf.data(), len, 0x1234));
  }
  // All ones: the largest sums, where lost carries would show.
  std::vector<U8> ones(4096, 0xff);
  EXPECT_EQ(onesComplementSum(ones.data(), ones.size()), onesComplementSumByWord(ones.data(), ones.size()));
}

TEST(Checksum, StoredChecksumVerifiesToZero) {
  std::vector<U8> msg = {0x20, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x02, 0x00, 0x69, 0x77};
  PimCommonHdr hdr(msg.data(), static_cast<U32>(msg.size()));
  hdr.checksumIs(hdr.computedChecksum(static_cast<U16>(msg.size())));
  EXPECT_EQ(hdr.computedChecksumU16(static_cast<U16>(msg.size())), 0);
  // A length beyond the bytes is held to the bytes.
  EXPECT_EQ(hdr.computedChecksumU16(60000), 0);
}

}  // namespace
}  // namespace Knet
