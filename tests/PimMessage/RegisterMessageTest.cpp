// The Register message: golden data and Null-Registers of both families, the hand-over of the
// received packet without a copy, what a failing read or write records (every truncation
// included), the flags word and its notification.
#include "PimMessage/RegisterMessage.h"

#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;
using T = RegisterText;
using Result = Outcome<Failure>;

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

// Reads the packet with a fresh message; a failed read leaves the packet its headers.
Result read(const Bytes& b, bool v6 = false) {
  Loom::Ptr<Knet::Pkt> p = pkt(b);
  auto m = message(v6);
  const U32 n = m->readRegisterMessage(p, 0);
  if (n == 0) {
    EXPECT_FALSE(m->rcvdPkt());
    EXPECT_EQ(p->size(), b.size()) << "a failed read dropped the headers";
  }
  return {n, m->failure()};
}

// Bytes -> fields -> the same bytes, at an offset. A data Register hands on the received packet
// itself from its inner header on (nothing copied); a Null-Register keeps its headers.
TEST(Register, GoldenPackets) {
  const std::pair<bool, Bytes> cases[] = {
      {false, registerOf(dataFlags, innerV4)},
      {true, registerOf(dataFlags, innerV6, true)},
      {false, registerOf({0xc0, 0, 0, 0}, withIpChecksum(dummyV4))},  // null, border
      {true, registerOf(nullFlags, dummyV6, true)},
  };
  for (const auto& [v6, bytes] : cases) {
    const bool null = bytes[4] & 0x40;
    SCOPED_TRACE(std::string(v6 ? "ipv6" : "ipv4") + (null ? " null" : " data"));
    Loom::Ptr<Knet::Pkt> p = pkt(bytes);
    const U8* start = p->data();
    auto m = message(v6);
    Loom::TraceCapture cap(1);
    ASSERT_EQ(m->readRegisterMessage(p, 0), bytes.size()) << firstError(cap);
    EXPECT_EQ(m->implRegisterFlags(), RegisterImplFlags(U32(bytes[4]) << 24));
    EXPECT_EQ(m->encapsulatedSrc(), ip(v6 ? "2001:db8:66::2" : "10.66.0.2"));
    EXPECT_EQ(m->encapsulatedDst(), ip(v6 ? "ff3e::1:2:3" : "239.1.2.3"));
    EXPECT_EQ(m->rcvdPkt().ptr(), null ? nullptr : p.ptr());
    EXPECT_EQ(p->data(), null ? start : start + 8);
    EXPECT_EQ(p->size(), null ? bytes.size() : bytes.size() - 8);

    auto w = message(v6);
    w->implRegisterFlagsIs(m->implRegisterFlags());
    w->encapsulatedSrcIs(m->encapsulatedSrc());
    w->encapsulatedDstIs(m->encapsulatedDst());
    if (!null) w->rcvdPktIs(pkt(v6 ? innerV6 : innerV4));
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(6 + bytes.size(), 0xee));
    ASSERT_EQ(w->writeRegisterMessage(out, 6), bytes.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + 6, out->data() + out->size()), bytes);
    EXPECT_EQ(w->length(), 8u) << "the checksum covers header and flags";
  }
}

// Packets that read although they are irregular.
TEST(Register, AcceptedIrregularities) {
  for (const auto& [b, v6] : {
           std::pair{registerOf(nullFlags, withIpChecksum(with(dummyV4, {{0, 0x05}}))), false},  // version 0: IPv4
           std::pair{registerOf(nullFlags, dummyV4), false},  // a dummy header checksum of 0 is not checked
           std::pair{registerOf(dataFlags, concat({innerV6, {1, 2, 3}}), true), true},  // bytes beyond the payload
       }) {
    const Result r = read(b, v6);
    EXPECT_EQ(r.count, b.size()) << r.failure;
  }
}

TEST(Register, ReadFailures) {
  const auto reading = [](Bytes inner, bool v6 = false, const Bytes& flags = dataFlags) {
    return [=] { return read(registerOf(flags, inner, v6), v6); };
  };
  const Bytes dummy = withIpChecksum(dummyV4);
  checkFailures<Failure>({
      {"flags cut short", [] { return read(registerOf({0x40, 0x00}, {})); }, T::flagsLength, "2 Expected: 4"},
      {"inner version 5", reading(with(innerV4, {{0, 0x55}})), T::invalidVersion, ""},
      {"ipv4 message, ipv6 inside", reading(innerV6), T::innerFamily, "ipv4 Inner Family: ipv6"},
      {"ipv6 message, ipv4 inside", reading(innerV4, true), T::innerFamily, "ipv6 Inner Family: ipv4"},
      {"ipv4 unicast destination", reading(with(innerV4, {{16, 10}})), T::notMulticast, "10.1.2.3"},
      {"ipv6 unicast destination", reading(with(innerV6, {{24, 0x20}}), true), T::notMulticast6, "203e::1:2:3"},
      {"null, bad dummy checksum", reading(with(dummy, {{11, dummy[11] ^ 1}}), false, nullFlags), T::nullChecksum, ""},
      {"null, 24 bytes behind a header of total 20", reading(concat({dummy, {0, 0, 0, 0}}), false, nullFlags),
       T::nullLength, "20 Remaining: 24"},
      {"data, total shorter than the bytes", reading(with(innerV4, {{3, 30}})), T::dataLength, "33 Expected: 30"},
      {"data ipv6, payload longer than the bytes", reading(with(innerV6, {{5, 60}}), true), T::dataLength,
       "53 Expected: 60"},
      {"data, nothing behind the flags", reading({}), T::dataLength, "0 Expected: 20"},
      {"data, inner header cut, its total length below a header's", reading({0x45, 0, 0, 0x10, 0, 0, 0, 0, 0, 0}),
       T::dataLength, "10 Expected: 16"},
      {"null ipv6, inner header cut", reading(Bytes(dummyV6.begin(), dummyV6.begin() + 8), true, nullFlags),
       T::nullLength6, "40 Remaining: 8"},
  });
}

TEST(Register, TruncationAtEveryLength) {
  const auto reader = [](bool v6) {
    return [v6](const Loom::Ptr<Knet::Pkt>& p) { return read(Bytes(p->data(), p->data() + p->size()), v6); };
  };
  checkCuts<Failure>(registerOf(dataFlags, innerV4),
                     {{4, HeaderText::missingHeader}, {4, T::flagsLength}, {33, T::dataLength}}, v4Src, v4Dst,
                     reader(false));
  checkCuts<Failure>(registerOf(nullFlags, dummyV6, true),
                     {{4, HeaderText::missingHeader}, {4, T::flagsLength}, {40, T::nullLength6}}, v6Src, v6Dst,
                     reader(true));
}

TEST(Register, WriteFailures) {
  // A Register of the family, null or carrying `rcvd`, to `innerDst`, written into `room` bytes.
  const auto write = [](bool v6, bool null, std::optional<Bytes> rcvd, const char* innerDst, U32 room) {
    return [=] {
      auto m = message(v6);
      m->nullFlagIs(null);
      m->encapsulatedSrcIs(ip(v6 ? "2001:db8:66::2" : "10.66.0.2"));
      if (*innerDst) m->encapsulatedDstIs(ip(innerDst));
      if (rcvd) m->rcvdPktIs(pkt(*rcvd));
      return Result{m->writeRegisterMessage(pkt(Bytes(room)), 0), m->failure()};
    };
  };
  checkFailures<Failure>({
      {"no room for the header", write(false, true, {}, "239.1.2.3", 3), T::writeHeaderSpace, "3"},
      {"no room for the flags", write(false, true, {}, "239.1.2.3", 7), T::writeFlagsSpace, "3 Expected: 4"},
      {"null with a packet to encapsulate", write(false, true, innerV4, "239.1.2.3", 100), T::nullWithData, ""},
      {"null to a unicast group", write(false, true, {}, "10.1.2.3", 100), T::notMulticast, "10.1.2.3"},
      {"null ipv6 to a unicast group", write(true, true, {}, "2001:db8::9", 100), T::notMulticast6, "2001:db8::9"},
      {"null without room for the dummy header", write(false, true, {}, "239.1.2.3", 27), T::nullSpace,
       "19 Expected: 20"},
      {"null ipv6 without room for the dummy header", write(true, true, {}, "ff3e::1:2:3", 47), T::nullSpace,
       "39 Expected: 40"},
      {"data without a packet", write(false, false, {}, "", 100), T::noRcvdPkt, ""},
      {"data to a unicast destination", write(false, false, with(innerV4, {{16, 10}}), "", 100), T::notMulticast, "10.1.2.3"},
      {"data whose total length is not its size", write(false, false, with(innerV4, {{3, 40}}), "", 100), T::writeDataLength,
       "33 Expected: 40"},
      {"data ipv6 without room", write(true, false, innerV6, "", 52), T::writeDataSpace, "44 Expected: 53"},
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
  m->nullFlagIs(true);
  m->nullFlagIs(true);  // no change, not notified
  EXPECT_EQ(m->messageSubtype(), RegisterMessage::nullRegisterSubtype);
  m->borderFlagIs(true);
  m->nullFlagIs(false);
  EXPECT_EQ(m->messageSubtype(), RegisterMessage::dataRegisterSubtype);
  EXPECT_EQ(m->implRegisterFlags().value(), 0x80000005u);
  EXPECT_EQ(counter.calls, 4);
}

}  // namespace
}  // namespace Routing::Pim::Packet
