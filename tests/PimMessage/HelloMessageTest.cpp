// The Hello message: golden packets of both families, every option, every failure text, and the
// reading of every truncated packet.
#include "PimMessage/HelloMessage.h"

#include "loom/Exception.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;

const Knet::IpGenAddr v4Src = ip("10.0.0.1");
const Knet::IpGenAddr v4Dst = ip("224.0.0.13");
const Knet::IpGenAddr v6Src = ip("fe80::1");
const Knet::IpGenAddr v6Dst = ip("ff02::d");

// An IPv4 Hello with every option, as the writer lays them out.
const Bytes helloV4 = {
    0x20, 0x00, 0xbb, 0x23,                          // version 2, type 0 Hello, reserved, checksum 0xbb23
    0x00, 0x01, 0x00, 0x02, 0x00, 0x69,              // Holdtime: 105 s
    0x00, 0x02, 0x00, 0x04, 0x81, 0xf4, 0x0b, 0xb8,  // LAN Prune Delay: T bit, 500 ms, override 3000 ms
    0x00, 0x13, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01,  // DR Priority: 1
    0x00, 0x14, 0x00, 0x04, 0x12, 0x34, 0x56, 0x78,  // Generation ID: 0x12345678
    0x00, 0x16, 0x00, 0x00,                          // Bidirectional Capable
    0x00, 0x18, 0x00, 0x0c,                          // Address List, 12 bytes:
    0x01, 0x00, 0x0a, 0x00, 0x01, 0x02,              //   10.0.1.2
    0x01, 0x00, 0x0a, 0x00, 0x02, 0x02,              //   10.0.2.2
    0x00, 0x1b, 0x00, 0x08, 0x00, 0x01, 0x00, 0x00,  // PIM-over-TCP capable: family 1, reserved
    0x0a, 0x00, 0x00, 0x01,                          //   10.0.0.1
    0x00, 0x1c, 0x00, 0x08, 0x00, 0x01, 0x00, 0x00,  // PIM-over-SCTP capable: family 1, reserved
    0x0a, 0x00, 0x00, 0x01,                          //   10.0.0.1
    0x00, 0x1f, 0x00, 0x08, 0x00, 0x00, 0x00, 0x07,  // Interface Identifier: router id 7
    0x00, 0x00, 0x00, 0x2a,                          //   interface id 42
};

// An IPv6 Hello from fe80::1 to ff02::d; the checksum includes the pseudo-header.
const Bytes helloV6 = {
    0x20, 0x00, 0xec, 0x06,                          // version 2, type 0 Hello, reserved, checksum 0xec06
    0x00, 0x01, 0x00, 0x02, 0x00, 0x69,              // Holdtime: 105 s
    0x00, 0x13, 0x00, 0x04, 0x00, 0x00, 0x00, 0x05,  // DR Priority: 5
    0x00, 0x14, 0x00, 0x04, 0xca, 0xfe, 0xf0, 0x0d,  // Generation ID: 0xcafef00d
    0x00, 0x18, 0x00, 0x12,                          // Address List, 18 bytes:
    0x02, 0x00, 0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00,  //   2001:db8::1
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
    0x00, 0x01,                                      //
    0x00, 0x1f, 0x00, 0x08, 0x0a, 0x00, 0x00, 0x01,  // Interface Identifier: router id 10.0.0.1
    0x00, 0x00, 0x00, 0x0b,                          //   interface id 11
};

Loom::Ptr<HelloMessage> hello(const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst) {
  auto m = helloMessageFactory();
  m->srcIpIs(src);
  m->dstIpIs(dst);
  return m;
}

// Reads a v4 Hello; the bytes get a right checksum first unless told otherwise.
U32 readV4(Bytes b, Loom::Ptr<HelloMessage>* out = nullptr, bool fix = true) {
  if (fix && b.size() >= 4) fixChecksum(b, v4Src, v4Dst);
  auto m = hello(v4Src, v4Dst);
  U32 n = m->readHelloMessage(pkt(b), 0);
  if (out) *out = m;
  return n;
}

const Bytes header = {0x20, 0x00, 0x00, 0x00};
const Bytes holdtime105 = {0x00, 0x01, 0x00, 0x02, 0x00, 0x69};

// Bytes -> fields: every option of the golden packet, as the message renders it.
TEST(Hello, GoldenIpv4) {
  Loom::Ptr<HelloMessage> m;
  Loom::TraceCapture cap(5);
  ASSERT_EQ(readV4(helloV4, &m, false), helloV4.size()) << firstError(cap);
  EXPECT_TRUE(errors(cap).empty());
  // The TCP option renders under the SCTP name, with blanks around its "=".
  EXPECT_EQ(text(m.ptr()),
            "type=hello | Option: holdtime=105, Option: tbit=true, propagationDelay=500, override=3000, "
            "Option: drPriority=1, Option: generationId=305419896, "
            "Option: secondary address=[ 10.0.1.2, 10.0.2.2 ], Option: bidirectional capable, "
            "Option: sctpConnectionId = 10.0.0.1, Option: sctpConnectionId=10.0.0.1, "
            "Option: [ RouterId :7 InterfaceId:42]");
  EXPECT_EQ(m->tcpConnectionId(), v4Src);
  EXPECT_EQ(m->length(), helloV4.size());
}

// Fields -> the same bytes: writing what the IPv4 golden packet holds reproduces it exactly.
TEST(Hello, WriteReproducesTheGoldenPacket) {
  auto v4 = hello(v4Src, v4Dst);
  v4->holdTimeOptionIs(true);
  v4->holdTimeIs(105);
  v4->lanPruneDelayOptionIs(true);
  v4->tBitIs(true);
  v4->propagationDelayIs(HelloPropagationDelay(500));
  v4->overrideIntervalIs(3000);
  v4->drPriorityOptionIs(true);
  v4->drPriorityIs(1);
  v4->generationIdOptionIs(true);
  v4->generationIdIs(0x12345678);
  v4->bidirectionalCapableIs(true);
  v4->secondaryAddrIs(ip("10.0.1.2"));
  v4->secondaryAddrIs(ip("10.0.2.2"));
  v4->secondaryAddrIs(ip("10.0.1.2"));  // already there: changes nothing
  v4->tcpConnectionOptionIs(true);
  v4->tcpConnectionIdIs(v4Src);
  v4->sctpConnectionOptionIs(true);
  v4->sctpConnectionIdIs(v4Src);
  v4->interfaceIdOptionIs(true);
  v4->routerIdIs(7);
  v4->interfaceIdIs(42);
  auto p = pkt(Bytes(1500));
  ASSERT_EQ(v4->writeHelloMessage(p, 0), helloV4.size());
  EXPECT_EQ(Bytes(p->data(), p->data() + helloV4.size()), helloV4);
  EXPECT_EQ(v4->length(), helloV4.size());
}

// The IPv6 golden packet: read, then written back at an offset into exactly its room.
TEST(Hello, GoldenIpv6RoundTripAtAnOffset) {
  auto m = hello(v6Src, v6Dst);
  ASSERT_EQ(m->readHelloMessage(pkt(helloV6), 0), helloV6.size());
  EXPECT_EQ(text(m.ptr()),
            "type=hello | Option: holdtime=105, Option: drPriority=5, Option: generationId=3405705229, "
            "Option: secondary address=[ 2001:db8::1 ], Option: [ RouterId :167772161 InterfaceId:11]");
  auto p = pkt(Bytes(40 + helloV6.size()));
  ASSERT_EQ(m->writeHelloMessage(p, 40), helloV6.size());
  EXPECT_EQ(Bytes(p->data() + 40, p->data() + p->size()), helloV6);
}

TEST(Hello, HeaderOnlyIsAcceptedWithoutHoldtime) {
  Loom::Ptr<HelloMessage> m;
  Loom::TraceCapture cap(7);
  EXPECT_EQ(readV4(header, &m), 4u);
  EXPECT_TRUE(errors(cap).empty());
  EXPECT_TRUE(cap.contains("Invalid Pim Hello - No Holdtime Option"));
  EXPECT_FALSE(m->holdTimeOption());
}

// Packets that read, with the warnings (levels 5 and below) they trace and what they hold.
TEST(Hello, NonFatalIrregularities) {
  struct Case {
    const char* name;
    Bytes bytes;
    std::vector<std::string> warnings;  // levels 1 and 5
    std::string text;                   // the message's text
  };
  const std::string h105 = "type=hello | Option: holdtime=105";
  const Case cases[] = {
      {"unknown type 40 skipped", concat({header, {0x00, 0x28, 0x00, 0x06, 1, 2, 3, 4, 5, 6}, holdtime105}),
       {"Warning: Pim Hello - Unsupport Hello Option - Type: 40"}, h105},
      {"multicast secondary kept",
       concat({header, {0x00, 0x18, 0x00, 0x0c, 0x01, 0x00, 224, 1, 1, 1, 0x01, 0x00, 10, 0, 0, 9}}),
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.1.1.1",
        "Warning: Pim Hello - Address List Option - Skipping Invalid Address: 224.1.1.1"},
       "type=hello | Option: secondary address=[ 224.1.1.1, 10.0.0.9 ]"},
      {"v6 secondary in a v4 Hello skipped",
       concat({header, {0x00, 0x18, 0x00, 0x18, 0x02, 0x00, 0xfe, 0x80}, Bytes(13, 0), {0x07, 0x01, 0x00, 10, 0, 0, 9}}),
       {"Warning: Pim Hello - Address List Option - Family: ipv4 Skipping Address: fe80::7"},
       "type=hello | Option: secondary address=[ 10.0.0.9 ]"},
      // An address that crosses the option's end is read whole; reading goes on behind it.
      {"address crossing the option end", concat({header, {0x00, 0x18, 0x00, 0x04, 0x01, 0x00, 10, 0, 0, 5}, holdtime105}),
       {}, h105 + ", Option: secondary address=[ 10.0.0.5 ]"},
      {"tcp family 1 length 10 skipped",
       concat({header, {0x00, 0x1b, 0x00, 0x0a, 0x00, 0x01, 0, 0, 10, 0, 0, 1, 0, 0}, holdtime105}),
       {"Invalid Pim Hello - Pim over Tcp Option - IPv4 address family has unexpected length 10"}, h105},
      {"sctp family 2 length 8 skipped",
       concat({header, {0x00, 0x1c, 0x00, 0x08, 0x00, 0x02, 0, 0, 10, 0, 0, 1}, holdtime105}),
       {"Invalid Pim Hello - Pim over Sctp Option - IPv6 address family has unexpected length 8"}, h105},
      {"sctp family 9 skipped", concat({header, {0x00, 0x1c, 0x00, 0x08, 0x00, 0x09, 0, 0, 10, 0, 0, 1}, holdtime105}),
       {"Invalid Pim Hello - Pim over Sctp Option - Invalid address family 9 with length 8"}, h105},
      {"tcp v6 connection address",
       concat({header, {0x00, 0x1b, 0x00, 0x14, 0x00, 0x02, 0, 0, 0x20, 0x01, 0x0d, 0xb8}, Bytes(11, 0), {0x02}}), {},
       "type=hello | Option: sctpConnectionId = 2001:db8::2"},
  };
  for (const Case& c : cases) {
    Loom::Ptr<HelloMessage> m;
    Loom::TraceCapture cap(5);
    EXPECT_EQ(readV4(c.bytes, &m), c.bytes.size()) << c.name << ": " << firstError(cap);
    std::vector<std::string> warnings;
    for (const auto& l : cap.lines()) {
      if (l.level == 1 || l.level == 5) warnings.push_back(l.text);
    }
    EXPECT_EQ(warnings, c.warnings) << c.name;
    EXPECT_EQ(text(m.ptr()), c.text) << c.name;
  }
  // A header alone is a Hello, without a holdtime.
  Loom::TraceCapture cap(7);
  EXPECT_EQ(readV4(header), 4u);
  EXPECT_TRUE(cap.contains("Invalid Pim Hello - No Holdtime Option"));
}

TEST(Hello, RejectTable) {
  checkRejects(
      {
          {"holdtime length 4", concat({header, {0x00, 0x01, 0x00, 0x04, 0, 0, 0, 105}}),
           "Invalid Pim Hello - Holdtime Option Size - Received Value: 4"},
          {"lan prune delay length 2", concat({header, {0x00, 0x02, 0x00, 0x02, 0, 1}}),
           "Invalid Pim Hello - Lan Prune Delay Option Size - Received Value: 2"},
          {"dr priority length 8", concat({header, {0x00, 0x13, 0x00, 0x08}, Bytes(8)}),
           "Invalid Pim Hello - Dr Priority Option Size - Received Value: 8"},
          {"generation id length 0", concat({header, {0x00, 0x14, 0x00, 0x00}}),
           "Invalid Pim Hello - Generation Id Option Size - Received Value: 0"},
          {"bidir length 4", concat({header, {0x00, 0x16, 0x00, 0x04, 0, 0, 0, 0}}),
           "Invalid Pim Hello - Non-zero Bidirectional Capable Option Size - Received Value: 4"},
          {"interface id length 4", concat({header, {0x00, 0x1f, 0x00, 0x04, 0, 0, 0, 1}}),
           "Invalid Pim Hello - Interface Identifier Option Size - Received Value: 4"},
          {"tcp length 4", concat({header, {0x00, 0x1b, 0x00, 0x04, 0, 1, 0, 0}}),
           "Invalid Pim Hello - Pim over Tcp Option Size - Received Value: 4"},
          {"sctp length 0", concat({header, {0x00, 0x1c, 0x00, 0x00}}),
           "Invalid Pim Hello - Pim over Sctp Option Size - Received Value: 0"},
          {"address list longer than the packet", concat({header, {0x00, 0x18, 0x00, 0x0c, 0x01, 0x00, 10, 0, 0, 1}}),
           "Invalid Pim Hello - Address List Option Length - Remaining: 6 Expected: 12"},
          {"unknown option running past the end", concat({header, {0x00, 0x28, 0x00, 0x08, 1, 2, 3, 4}}),
           "Invalid Pim Hello - Hello Option Length - Remaining: -4 Expected: 4"},
          {"two stray bytes after an option", concat({header, holdtime105, {0, 0}}),
           "Invalid Pim Hello - Hello Option Length - Remaining: 2 Expected: 4"},
      },
      v4Src, v4Dst, [](const Loom::Ptr<Knet::Pkt>& p) { return hello(v4Src, v4Dst)->readHelloMessage(p, 0); });
  // The address list's own failure comes first, the Hello's text last.
  checkRejects({{"address list with a bad encoding", concat({header, {0x00, 0x18, 0x00, 0x06, 0x01, 0x01, 10, 0, 0, 1}}),
                 "Invalid Encoded Unicast Address - Invalid Encoding - Value: \x01 | "
                 "Invalid Pim Hello - Address List Option - Unicast Address - Parse Error"}},
               v4Src, v4Dst, [](const Loom::Ptr<Knet::Pkt>& p) { return hello(v4Src, v4Dst)->readHelloMessage(p, 0); },
               Trace::all);
}

// Cut inside an option header: the option-length text; cut before one: a complete Hello.
TEST(Hello, TruncationBothFamilies) {
  const std::string optionLength = "Invalid Pim Hello - Hello Option Length - Remaining: ";
  const Fragment pimHeader{4, "Invalid Pim Message - Missing Pim Header - Remaining: "};
  const Fragment optionHeader{4, optionLength, ""};
  const Fragment holdtime{2, "Invalid Pim Hello - Holdtime Option Length - Remaining: "};
  const Fragment drPriority{4, "Invalid Pim Hello - Dr Priority Option Length - Remaining: "};
  const Fragment generationId{4, "Invalid Pim Hello - Generation Id Option Length - Remaining: "};
  const std::string addressList = "Invalid Pim Hello - Address List Option Length - Remaining: ";
  // A connection or interface id value cut short runs past the end.
  checkTruncations(helloV4,
                   {pimHeader, optionHeader, holdtime, optionHeader,
                    {4, "Invalid Pim Hello - Lan Prune Delay Option Length - Remaining: "}, optionHeader, drPriority,
                    optionHeader, generationId, optionHeader, optionHeader, {12, addressList}, optionHeader,
                    {8, optionLength}, optionHeader, {8, optionLength}, optionHeader, {8, optionLength}},
                   v4Src, v4Dst, [](const Loom::Ptr<Knet::Pkt>& p) { return hello(v4Src, v4Dst)->readHelloMessage(p, 0); });
  checkTruncations(helloV6,
                   {pimHeader, optionHeader, holdtime, optionHeader, drPriority, optionHeader, generationId,
                    optionHeader, {18, addressList}, optionHeader, {8, optionLength}},
                   v6Src, v6Dst, [](const Loom::Ptr<Knet::Pkt>& p) { return hello(v6Src, v6Dst)->readHelloMessage(p, 0); });
}

TEST(Hello, WriteFailures) {
  // A v4 Hello set up by `set`, written into `room` bytes.
  auto write = [](std::function<void(HelloMessage&)> set, U32 room, bool family = true) {
    return [=] {
      auto m = family ? hello(v4Src, v4Dst) : helloMessageFactory();
      set(*m);
      return m->writeHelloMessage(pkt(Bytes(room)), 0);
    };
  };
  const auto v6addr = ip("2001:db8::1");
  checkWriteFailures({
      {"no room for the header", write([](HelloMessage&) {}, 3), "Invalid Pim Hello - Header - Unavailable Space - Remaining: 3"},
      {"holdtime", write([](HelloMessage& m) { m.holdTimeOptionIs(true); }, 9),
       "Invalid Pim Hello - Holdtime Option - Unavailable Space - Remaining: 5 Expected: 6"},
      {"lan prune delay", write([](HelloMessage& m) { m.lanPruneDelayOptionIs(true); }, 11),
       "Invalid Pim Hello - Lan Prune Delay Option - Unavailable Space - Remaining: 7 Expected: 8"},
      {"dr priority", write([](HelloMessage& m) { m.drPriorityOptionIs(true); }, 4),
       "Invalid Pim Hello - Dr Priority Option - Unavailable Space - Remaining: 0 Expected: 8"},
      {"generation id", write([](HelloMessage& m) { m.generationIdOptionIs(true); }, 10),
       "Invalid Pim Hello - Generation Id Option - Unavailable Space - Remaining: 6 Expected: 8"},
      {"bidirectional", write([](HelloMessage& m) { m.bidirectionalCapableIs(true); }, 7),
       "Invalid Pim Hello - Bidirectional Capable Option - Unavailable Space - Remaining: 3 Expected: 4"},
      // The address list's header reuses the generation id text.
      {"address list header", write([](HelloMessage& m) { m.secondaryAddrIs(ip("10.0.0.2")); }, 6),
       "Invalid Pim Hello - Generation Id Option - Unavailable Space - Remaining: 2 Expected: 4"},
      {"address list address", write([](HelloMessage& m) { m.secondaryAddrIs(ip("10.0.0.2")); }, 12),
       "Invalid Encoded Unicast Address - Ip Address Length - Remaining: 2 Expected: 4"},
      {"address of the other family", write([=](HelloMessage& m) { m.secondaryAddrIs(v6addr); }, 100),
       "Invalid Pim Hello - Address List Option - Family: ipv6 Address: 2001:db8::1"},
      {"tcp id of the other family", write([=](HelloMessage& m) { m.tcpConnectionOptionIs(true), m.tcpConnectionIdIs(v6addr); }, 100),
       "Invalid Pim Hello - tcpConnectionId Option - Family: ipv6"},
      {"tcp room", write([](HelloMessage& m) { m.tcpConnectionOptionIs(true), m.tcpConnectionIdIs(v4Src); }, 15),
       "Invalid Pim Hello - TCP capable  Option - Unavailable Space - Remaining: 11 Expected: 12"},
      {"sctp id of the other family",
       write([=](HelloMessage& m) { m.sctpConnectionOptionIs(true), m.sctpConnectionIdIs(v6addr); }, 100),
       "Invalid Pim Hello - sctpConnectionId Option - Family: ipv6"},
      {"sctp room", write([](HelloMessage& m) { m.sctpConnectionOptionIs(true), m.sctpConnectionIdIs(v4Src); }, 8),
       "Invalid Pim Hello - STCP capable  Option - Unavailable Space - Remaining: 4 Expected: 12"},
      {"interface id", write([](HelloMessage& m) { m.interfaceIdOptionIs(true); }, 15),
       "Invalid Pim Hello - InterfaceId Option - Unavailable Space - Remaining: 11 Expected: 12"},
      // Neither the message nor the connection id has a family: the size cannot be chosen.
      {"tcp of no family", write([](HelloMessage& m) { m.tcpConnectionOptionIs(true); }, 100, false),
       "Invalid Pim Hello - TCP capable Option - Invalid address family ipUnknown(0)"},
      {"sctp of no family", write([](HelloMessage& m) { m.sctpConnectionOptionIs(true); }, 100, false),
       "Invalid Pim Hello - SCTP capable Option - Invalid address family ipUnknown(0)"},
  });
  checkWriteFailures({{"no family", write([](HelloMessage& m) { m.holdTimeOptionIs(true); }, 100, false),
                       "Invalid address family | Invalid Pim Hello - Header - Write Error"}},
                     Trace::all);
}

// The T bit and the delay share one field; each setter keeps the other's bits.
TEST(Hello, PropagationDelayAccessorsKeepTheOtherBits) {
  HelloMessage m;
  m.implPropagationDelayIs(0x8000 | 1234);
  m.propagationDelayIs(HelloPropagationDelay(0xffff));  // masked to 15 bits
  EXPECT_TRUE(m.tBit());
  EXPECT_EQ(m.propagationDelay().value(), 0x7fff);
  m.tBitIs(false);
  EXPECT_EQ(m.implPropagationDelay(), 0x7fff);
  EXPECT_EQ(HelloPropagationDelay::fromString("32767").value(), 32767);
  try {
    HelloPropagationDelay::fromString("32768");
    FAIL() << "32768 accepted";
  } catch (const Loom::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "HelloPropagationDelay::value < HelloPropagationDelay::min or > HelloPropagationDelay::max not allowed");
  }
}

}  // namespace
}  // namespace Routing::Pim::Packet
