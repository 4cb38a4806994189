// Packet buffers and the bounds-checked cursors.
#include "knet/Pkt.h"

#include <gtest/gtest.h>

#include <vector>

#include "knet/Cursor.h"

namespace Knet {
namespace {

std::vector<U8> bytesOf(const Pkt& p) { return {p.data(), p.data() + p.size()}; }

TEST(Pkt, HeadRoomAddAndRemove) {
  auto p = pktFactory(std::vector<U8>{1, 2, 3, 4}, 8);
  EXPECT_EQ(p->headRoom(), 8u);
  p->headAdd(8);  // fits the head room: no move
  EXPECT_EQ(p->headRoom(), 0u);
  EXPECT_EQ(bytesOf(*p), (std::vector<U8>{0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4}));
  p->data()[0] = 0x45;
  p->headAdd(20);  // beyond the head room: moved into a larger buffer, bytes kept
  EXPECT_EQ(p->size(), 32u);
  EXPECT_EQ(p->data()[20], 0x45);
  EXPECT_EQ(p->data()[31], 4);
  p->headDel(28);
  EXPECT_EQ(bytesOf(*p), (std::vector<U8>{1, 2, 3, 4}));
}

TEST(Pkt, CutAndExtend) {
  auto p = pktFactory(std::vector<U8>{1, 2, 3, 4, 5});
  p->sizeIs(2);
  EXPECT_EQ(bytesOf(*p), (std::vector<U8>{1, 2}));
  p->sizeIs(4);  // extension is zero-filled, not the old bytes
  EXPECT_EQ(bytesOf(*p), (std::vector<U8>{1, 2, 0, 0}));
  p->sizeIs(1000);
  EXPECT_EQ(p->size(), 1000u);
  EXPECT_EQ(p->data()[1], 2);
}

TEST(Pkt, SharedDataIsNotCopiedUntilMadeUnique) {
  auto p = pktFactory(std::vector<U8>{1, 2, 3, 4});
  auto q = p->sharedPkt();
  EXPECT_TRUE(p->dataShared());
  EXPECT_EQ(p->data(), q->data());
  q->headDel(2);
  EXPECT_EQ(q->data(), p->data() + 2);
  q->dataUniqueIs();
  EXPECT_FALSE(q->dataShared());
  EXPECT_FALSE(p->dataShared());
  q->data()[0] = 9;
  EXPECT_EQ(p->data()[2], 3);  // the original is untouched
  // Adding a header in front of shared data must not write into the other packet's bytes.
  auto r = p->sharedPkt();
  r->headDel(2);
  r->headAdd(2);
  EXPECT_EQ(p->data()[0], 1);
}

// A received data Register is handed on by dropping its outer headers in place: the bytes stay
// where they are, and another window on the same buffer keeps its own start.
TEST(Pkt, DelSharedHeadDataMovesOnlyThisWindow) {
  auto p = pktFactory(std::vector<U8>{1, 2, 3, 4, 5});
  auto other = p->sharedPkt();
  const U8* start = p->data();
  p->delSharedHeadData(3);
  EXPECT_EQ(p->data(), start + 3);
  EXPECT_EQ(p->size(), 2u);
  EXPECT_EQ(p->data()[0], 4);
  EXPECT_TRUE(p->dataShared()) << "the bytes were copied";
  EXPECT_EQ(other->data(), start);
  EXPECT_EQ(other->size(), 5u);
  p->delSharedHeadData(2);
  EXPECT_EQ(p->size(), 0u);
  EXPECT_DEATH(p->delSharedHeadData(1), "Pkt::delSharedHeadData past the end");
}

TEST(Cursor, ReadsBigEndianAndRefusesToOverrun) {
  const std::vector<U8> b = {0x12, 0x34, 0x56, 0x78, 0x9a};
  PktReader r(b.data(), 5, 0);
  EXPECT_EQ(r.readU16Be(), 0x1234);
  EXPECT_EQ(r.readU16Be(), 0x5678);
  EXPECT_FALSE(r.overrun());
  EXPECT_EQ(r.readU32Be(), 0u);  // one byte left: refused, position kept
  EXPECT_TRUE(r.overrun());
  EXPECT_EQ(r.remaining(), 1);
  EXPECT_FALSE(r.skip(2));  // checked: refused, position kept
  EXPECT_EQ(r.remaining(), 1);
  EXPECT_EQ(r.readU8(), 0x9a);
  EXPECT_TRUE(r.atEnd());
  EXPECT_EQ(r.readU8(), 0);
  PktReader beyond(b.data(), 5, 7);  // made past the end: the count a failure text quotes
  EXPECT_EQ(beyond.remaining(), -2);
  EXPECT_FALSE(beyond.skip(0));
  PktReader a(b.data(), 5, 1);
  EXPECT_FALSE(a.readAddress(AddressFamily::ipv6).isSet());
  EXPECT_EQ(a.readAddress(AddressFamily::ipv4).str(), "52.86.120.154");
}

TEST(Cursor, SubReaderEndsWhereItsLengthSays) {
  const std::vector<U8> b = {1, 2, 3, 4, 5};
  PktReader r(b.data(), 5, 1);
  EXPECT_FALSE(r.take(5));  // more than remains: refused, position kept
  auto sub = r.take(2);
  ASSERT_TRUE(sub);
  EXPECT_EQ(r.offset(), 3u);
  EXPECT_EQ(sub->offset(), 1u);  // the packet's offsets
  EXPECT_EQ(sub->readU16Be(), 0x0203);
  EXPECT_EQ(sub->readU8(), 0);  // the parent's next byte is beyond the part
  EXPECT_TRUE(sub->overrun());
  EXPECT_EQ(r.readU8(), 4);
}

TEST(Cursor, WritesBigEndianAndRefusesToOverrun) {
  std::vector<U8> b(7);
  PktWriter w(b.data(), 7, 1);
  EXPECT_TRUE(w.writeU32Be(0xdeadbeef));
  EXPECT_FALSE(w.writeU32Be(1));
  EXPECT_TRUE(w.overrun());
  EXPECT_TRUE(w.writeU16Be(0x0102));
  EXPECT_TRUE(w.patchU16Be(1, 0xcafe));
  EXPECT_FALSE(w.patchU16Be(6, 0));
  EXPECT_EQ(b, (std::vector<U8>{0, 0xca, 0xfe, 0xbe, 0xef, 0x01, 0x02}));
}

}  // namespace
}  // namespace Knet
