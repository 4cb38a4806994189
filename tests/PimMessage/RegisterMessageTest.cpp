// The Register message: golden data and Null-Registers of both families, the hand-over of the
// received packet without a copy, every failure text of the read and the write, truncation at
// every length, the flags word and its notification.
#include "PimMessage/RegisterMessage.h"

#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;

const Knet::IpGenAddr v4Src = ip("10.99.0.2");
const Knet::IpGenAddr v4Dst = ip("10.99.0.1");
const Knet::IpGenAddr v6Src = ip("2001:db8::2");
const Knet::IpGenAddr v6Dst = ip("2001:db8::1");

// A 33-byte IPv4 UDP packet from 10.66.0.2 to 239.1.2.3 carrying "pimio".
const Bytes innerV4 = {
    0x45, 0x00, 0x00, 0x21, 0x12, 0x34, 0x40, 0x00,  // version 4, ihl 5, total 33, id 0x1234, DF
    0x3f, 0x11, 0x00, 0x00, 0x0a, 0x42, 0x00, 0x02,  // ttl 63, UDP, checksum 0, 10.66.0.2
    0xef, 0x01, 0x02, 0x03,                          // 239.1.2.3
    0x13, 0x88, 0x13, 0x88, 0x00, 0x0d, 0x00, 0x00,  // UDP 5000 -> 5000, length 13
    'p',  'i',  'm',  'i',  'o'};

// A 53-byte IPv6 UDP packet from 2001:db8:66::2 to ff3e::1:2:3 carrying "pimio".
const Bytes innerV6 = {
    0x60, 0x00, 0x00, 0x00, 0x00, 0x0d, 0x11, 0x3f,  // version 6, payload 13, UDP, hop limit 63
    0x20, 0x01, 0x0d, 0xb8, 0x00, 0x66, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02,  // 2001:db8:66::2
    0xff, 0x3e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0x02, 0, 0x03,  // ff3e::1:2:3
    0x13, 0x88, 0x13, 0x88, 0x00, 0x0d, 0x00, 0x00,  // UDP 5000 -> 5000, length 13
    'p',  'i',  'm',  'i',  'o'};

// The Null-Register dummy headers the writer makes for (10.66.0.2, 239.1.2.3) and
// (2001:db8:66::2, ff3e::1:2:3).
const Bytes dummyV4 = {
    0x45, 0x00, 0x00, 0x14, 0x00, 0x01, 0x40, 0x00,  // total 20, id 1, DF
    0x01, 0x67, 0x00, 0x00, 0x0a, 0x42, 0x00, 0x02,  // ttl 1, PIM, checksum (filled in below)
    0xef, 0x01, 0x02, 0x03};
const Bytes dummyV6 = {
    0x6c, 0x00, 0x00, 0x00, 0x00, 0x00, 0x67, 0x01,  // traffic class 192, payload 0, PIM, hop limit 1
    0x20, 0x01, 0x0d, 0xb8, 0x00, 0x66, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02,
    0xff, 0x3e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0x02, 0, 0x03};

// An IPv4 header with its checksum computed by the plain reference sum.
Bytes withIpChecksum(Bytes h) {
  h[10] = h[11] = 0;
  const U16 sum = static_cast<U16>(~Knet::onesComplementSumByWord(h.data(), 20));
  h[10] = static_cast<U8>(sum >> 8);
  h[11] = static_cast<U8>(sum);
  return h;
}

const Bytes dataFlags = {0x00, 0x00, 0x00, 0x00};
const Bytes nullFlags = {0x40, 0x00, 0x00, 0x00};
const Bytes borderNullFlags = {0xc0, 0x00, 0x00, 0x00};

// A Register with its checksum over header and flags.
Bytes registerOf(const Bytes& flags, const Bytes& inner, bool v6 = false) {
  Bytes b = concat({{0x21, 0x00, 0x00, 0x00}, flags, inner});
  fixChecksum(b, v6 ? v6Src : v4Src, v6 ? v6Dst : v4Dst, 8);
  return b;
}

Loom::Ptr<RegisterMessage> message(bool v6 = false) {
  Loom::Ptr<RegisterMessage> m = registerMessageFactory();
  m->srcIpIs(v6 ? v6Src : v4Src);
  m->dstIpIs(v6 ? v6Dst : v4Dst);
  return m;
}

// Bytes -> fields -> the same bytes, at an offset. A data Register hands on the received packet
// itself from its inner header on (nothing copied); a Null-Register keeps its headers.
TEST(Register, GoldenPackets) {
  struct Case {
    const char* name;
    bool v6;
    bool null;
    bool border;
    Bytes bytes;
  };
  const Case cases[] = {
      {"ipv4 data", false, false, false, registerOf(dataFlags, innerV4)},
      {"ipv6 data", true, false, false, registerOf(dataFlags, innerV6, true)},
      {"ipv4 null border", false, true, true, registerOf(borderNullFlags, withIpChecksum(dummyV4))},
      {"ipv6 null", true, true, false, registerOf(nullFlags, dummyV6, true)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Knet::IpGenAddr innerSrc = ip(c.v6 ? "2001:db8:66::2" : "10.66.0.2");
    const Knet::IpGenAddr innerDst = ip(c.v6 ? "ff3e::1:2:3" : "239.1.2.3");
    Loom::Ptr<Knet::Pkt> p = pkt(c.bytes);
    const U8* start = p->data();
    auto m = message(c.v6);
    Loom::TraceCapture cap(1);
    ASSERT_EQ(m->readRegisterMessage(p, 0), c.bytes.size()) << firstError(cap);
    EXPECT_EQ(m->nullFlag(), c.null);
    EXPECT_EQ(m->borderFlag(), c.border);
    EXPECT_EQ(m->messageSubtype(), c.null ? RegisterMessage::nullRegisterSubtype : RegisterMessage::dataRegisterSubtype);
    EXPECT_EQ(m->encapsulatedSrc(), innerSrc);
    EXPECT_EQ(m->encapsulatedDst(), innerDst);
    if (c.null) {
      EXPECT_FALSE(m->rcvdPkt());
      EXPECT_EQ(p->size(), c.bytes.size());
    } else {
      ASSERT_EQ(m->rcvdPkt().ptr(), p.ptr());
      EXPECT_EQ(p->data(), start + 8);
      EXPECT_EQ(Bytes(p->data(), p->data() + p->size()), c.v6 ? innerV6 : innerV4);
    }

    auto w = message(c.v6);
    w->nullFlagIs(c.null);
    w->borderFlagIs(c.border);
    if (c.null) {
      w->encapsulatedSrcIs(innerSrc);
      w->encapsulatedDstIs(innerDst);
    } else {
      w->rcvdPktIs(pkt(c.v6 ? innerV6 : innerV4));
    }
    constexpr U32 offset = 6;
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(offset + c.bytes.size(), 0xee));
    ASSERT_EQ(w->writeRegisterMessage(out, offset), c.bytes.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + offset, out->data() + out->size()), c.bytes);
    EXPECT_EQ(w->length(), 8u) << "the checksum covers header and flags";
  }
}

// Packets that fail to read, with the first failure text; the packet keeps its headers.
TEST(Register, ReadRejectTable) {
  Bytes badChecksum = withIpChecksum(dummyV4);
  badChecksum[11] ^= 1;
  Bytes shortTotal = innerV4;
  shortTotal[3] = 30;
  Bytes unicastInner = innerV4;
  unicastInner[16] = 10;
  Bytes unicastInner6 = innerV6;
  unicastInner6[24] = 0x20;
  Bytes longPayload6 = innerV6;
  longPayload6[5] = 60;
  Bytes dummyPadded = concat({withIpChecksum(dummyV4), {0, 0, 0, 0}});
  struct Case {
    const char* name;
    bool v6;
    Bytes bytes;
    std::string error;
  };
  const Case cases[] = {
      {"flags cut short", false, registerOf({0x40, 0x00}, {}), "Invalid Pim Register - Flags Length - Remaining: 2 Expected: 4"},
      {"ipv4 message, ipv6 inside", false, registerOf(dataFlags, innerV6),
       "Invalid Pim Register - Inner Ip Header - Family: ipv4 Inner Family: ipv6"},
      {"ipv6 message, ipv4 inside", true, registerOf(dataFlags, innerV4, true),
       "Invalid Pim Register - Inner Ip Header - Family: ipv6 Inner Family: ipv4"},
      {"ipv4 unicast destination", false, registerOf(dataFlags, unicastInner),
       "Invalid Pim Register - Inner Ip Header - Not Multicast - Destination: 10.1.2.3"},
      {"ipv6 unicast destination", true, registerOf(dataFlags, unicastInner6, true),
       "Invalid Pim Register - Inner Ip6 Header - Not Multicast - Destination: 203e::1:2:3"},
      {"null, bad dummy checksum", false, registerOf(nullFlags, badChecksum),
       "Invalid Pim Register - Null Register - Invalid Inner Ip Checksum"},
      {"null, 24 bytes behind a header of total 20", false, registerOf(nullFlags, dummyPadded),
       "Invalid Pim Register - Null Register - Invalid Inner Ip Length - Length: 20 Remaining: 24"},
      {"data, total shorter than the bytes carried", false, registerOf(dataFlags, shortTotal),
       "Invalid Pim Register - Encapsulated Data Length - Remaining: 33 Expected: 30"},
      {"data ipv6, payload longer than the bytes carried", true, registerOf(dataFlags, longPayload6, true),
       "Invalid Pim Register - Encapsulated Data Length - Remaining: 53 Expected: 60"},
      {"data, nothing behind the flags", false, registerOf(dataFlags, {}),
       "Invalid Pim Register - Encapsulated Data Length - Remaining: 0 Expected: 20"},
      {"data, inner header cut, its total length below a header's", false,
       registerOf(dataFlags, Bytes{0x45, 0x00, 0x00, 0x10, 0, 0, 0, 0, 0, 0}),
       "Invalid Pim Register - Encapsulated Data Length - Remaining: 10 Expected: 16"},
      {"null ipv6, inner header cut", true, registerOf(nullFlags, Bytes(dummyV6.begin(), dummyV6.begin() + 8), true),
       "Invalid Pim Register - Null Register - Invalid Inner Ip6 Length - Length: 40 Remaining: 8"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Loom::Ptr<Knet::Pkt> p = pkt(c.bytes);
    auto m = message(c.v6);
    Loom::TraceCapture cap(1);
    EXPECT_EQ(m->readRegisterMessage(p, 0), 0u);
    EXPECT_EQ(firstError(cap), c.error);
    EXPECT_FALSE(m->rcvdPkt());
    EXPECT_EQ(p->size(), c.bytes.size()) << "a failed read dropped the headers";
  }
}

TEST(Register, AcceptedIrregularities) {
  Bytes zeroVersion = withIpChecksum(dummyV4);
  zeroVersion[0] = 0x05;  // version nibble 0: taken as IPv4
  zeroVersion = withIpChecksum(zeroVersion);
  Bytes extra6 = concat({innerV6, {1, 2, 3}});
  struct Case {
    const char* name;
    bool v6;
    Bytes bytes;
  };
  const Case cases[] = {
      {"dummy header with a zero version nibble", false, registerOf(nullFlags, zeroVersion)},
      {"dummy header checksum 0 is taken unchecked", false, registerOf(nullFlags, dummyV4)},
      {"ipv6 data with bytes beyond the payload", true, registerOf(dataFlags, extra6, true)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = message(c.v6);
    Loom::TraceCapture cap(1);
    EXPECT_EQ(m->readRegisterMessage(pkt(c.bytes), 0), c.bytes.size()) << firstError(cap);
  }
}

TEST(Register, TruncationAtEveryLength) {
  const Bytes full = registerOf(dataFlags, innerV4);
  checkTruncations(full,
                   {{4, "Invalid Pim Message - Missing Pim Header - Remaining: "},
                    {4, "Invalid Pim Register - Flags Length - Remaining: "},
                    {33, "Invalid Pim Register - Encapsulated Data Length - Remaining: "}},
                   v4Src, v4Dst, [](const Loom::Ptr<Knet::Pkt>& p) { return message()->readRegisterMessage(p, 0); });
  const Bytes null6 = registerOf(nullFlags, dummyV6, true);
  checkTruncations(null6,
                   {{4, "Invalid Pim Message - Missing Pim Header - Remaining: "},
                    {4, "Invalid Pim Register - Flags Length - Remaining: "},
                    {40, "Invalid Pim Register - Null Register - Invalid Inner Ip6 Length - Length: 40 Remaining: "}},
                   v6Src, v6Dst, [](const Loom::Ptr<Knet::Pkt>& p) { return message(true)->readRegisterMessage(p, 0); });
}

TEST(Register, WriteFailures) {
  Bytes unicastInner = innerV4;
  unicastInner[16] = 10;
  Bytes longTotal = innerV4;
  longTotal[3] = 40;
  // A Register of the family, null or carrying `rcvd`, to `innerDst`, written into `room` bytes.
  auto write = [](bool v6, bool null, std::optional<Bytes> rcvd, const char* innerDst, U32 room) {
    return [=] {
      auto m = message(v6);
      m->nullFlagIs(null);
      m->encapsulatedSrcIs(ip(v6 ? "2001:db8:66::2" : "10.66.0.2"));
      if (*innerDst) m->encapsulatedDstIs(ip(innerDst));
      if (rcvd) m->rcvdPktIs(pkt(*rcvd));
      return m->writeRegisterMessage(pkt(Bytes(room)), 0);
    };
  };
  checkWriteFailures({
      {"no room for the header", write(false, true, {}, "239.1.2.3", 3),
       "Invalid Pim Register - Header - Unavailable Space - Remaining: 3"},
      {"no room for the flags", write(false, true, {}, "239.1.2.3", 7),
       "Invalid Pim Register - Flags - Unavailable Space - Remaining: 3 Expected: 4"},
      {"null with a packet to encapsulate", write(false, true, innerV4, "239.1.2.3", 100),
       "Invalid Pim Register - Null Register - Using Encapsulated Data Fields"},
      {"null to a unicast group", write(false, true, {}, "10.1.2.3", 100),
       "Invalid Pim Register - Inner Ip Header - Not Multicast - Destination: 10.1.2.3"},
      {"null ipv6 to a unicast group", write(true, true, {}, "2001:db8::9", 100),
       "Invalid Pim Register - Inner Ip6 Header - Not Multicast - Destination: 2001:db8::9"},
      {"null without room for the dummy header", write(false, true, {}, "239.1.2.3", 27),
       "Invalid Pim Register - Null Header - Unavailable Space - Remaining: 19 Expected: 20"},
      {"null ipv6 without room for the dummy header", write(true, true, {}, "ff3e::1:2:3", 47),
       "Invalid Pim Register - Null Header - Unavailable Space - Remaining: 39 Expected: 40"},
      {"data without a packet", write(false, false, {}, "", 100), "Invalid Pim Register - No Rcvd Pkt"},
      {"data to a unicast destination", write(false, false, unicastInner, "", 100),
       "Invalid Pim Register - Inner Ip Header - Not Multicast - Destination: 10.1.2.3"},
      {"data whose total length is not its size", write(false, false, longTotal, "", 100),
       "Invalid Pim Register - Encapsulated Data Length - Length: 33 Expected: 40"},
      {"data ipv6 without room", write(true, false, innerV6, "", 52),
       "Invalid Pim Register - Encapsulated Data - Unavailable Space - Remaining: 44 Expected: 53"},
  });
}

TEST(Register, FlagsWordSubtypeAndNotification) {
  struct Counter : RegisterMessage::Notifiee {
    int calls = 0;
    void onImplRegisterFlags() override { ++calls; }
  };
  auto m = message();
  Counter counter;
  counter.notifierIs(m);
  EXPECT_EQ(m->messageSubtype(), RegisterMessage::dataRegisterSubtype) << "a new Register is a data Register";

  m->implRegisterFlagsU32Is(0x00000005);
  EXPECT_EQ(counter.calls, 1);
  m->nullFlagIs(true);
  EXPECT_EQ(m->implRegisterFlags().value(), 0x40000005u);
  EXPECT_EQ(m->messageSubtype(), RegisterMessage::nullRegisterSubtype);
  EXPECT_EQ(counter.calls, 2);
  m->nullFlagIs(true);
  EXPECT_EQ(counter.calls, 2) << "a value that does not change is not notified";
  m->borderFlagIs(true);
  EXPECT_EQ(m->implRegisterFlags().value(), 0xc0000005u);
  EXPECT_EQ(m->implRegisterFlags().reserved2(), 5u);
  m->nullFlagIs(false);
  EXPECT_EQ(m->messageSubtype(), RegisterMessage::dataRegisterSubtype);
  EXPECT_TRUE(m->borderFlag());
  EXPECT_EQ(counter.calls, 4);
}

}  // namespace
}  // namespace Routing::Pim::Packet
