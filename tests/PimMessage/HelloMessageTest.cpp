// The Hello message: the golden packet, what a read accepts, and what a read or write records when
// it fails (every truncation included).
#include "PimMessage/HelloMessage.h"

#include "PimMessage/EncodedAddress.h"
#include "loom/Exception.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;
using T = HelloText;
using E = EncodedAddressText;
using Result = Outcome<Failure>;

const Knet::IpGenAddr v4Src = ip("10.0.0.1");
const Knet::IpGenAddr v4Dst = ip("224.0.0.13");

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

Loom::Ptr<HelloMessage> hello() {
  auto m = helloMessageFactory();
  m->srcIpIs(v4Src);
  m->dstIpIs(v4Dst);
  return m;
}

// Reads the bytes (their checksum fixed first) with a fresh message, kept in `out` if given.
Result read(Bytes b, Loom::Ptr<HelloMessage>* out = nullptr) {
  if (b.size() >= 4) fixChecksum(b, v4Src, v4Dst);
  auto m = hello();
  const U32 n = m->readHelloMessage(pkt(b), 0);
  if (out) *out = m;
  return {n, m->failure()};
}
std::function<Result()> reading(const Bytes& b) {
  return [b] { return read(b); };
}

const Bytes header = {0x20, 0x00, 0x00, 0x00};
const Bytes holdtime105 = {0x00, 0x01, 0x00, 0x02, 0x00, 0x69};

// Bytes -> fields -> the same bytes, written at an offset into exactly their room. (The IPv6
// Hellos of the command line's sample capture go the same way.)
TEST(Hello, GoldenPacketReadAndWrittenBack) {
  Loom::Ptr<HelloMessage> m;
  Loom::TraceCapture cap(1);
  ASSERT_EQ(read(helloV4, &m).count, helloV4.size()) << firstError(cap);
  EXPECT_TRUE(errors(cap).empty()) << firstError(cap);
  // The TCP option renders under the SCTP name, with blanks around its "=".
  EXPECT_EQ(text(m.ptr()),
            "type=hello | Option: holdtime=105, Option: tbit=true, propagationDelay=500, override=3000, "
            "Option: drPriority=1, Option: generationId=305419896, Option: secondary address=[ 10.0.1.2, 10.0.2.2 ], "
            "Option: bidirectional capable, Option: sctpConnectionId = 10.0.0.1, Option: sctpConnectionId=10.0.0.1, "
            "Option: [ RouterId :7 InterfaceId:42]");
  EXPECT_EQ(m->tcpConnectionId(), v4Src);
  auto p = pkt(Bytes(40 + helloV4.size()));
  ASSERT_EQ(m->writeHelloMessage(p, 40), helloV4.size());
  EXPECT_EQ(Bytes(p->data() + 40, p->data() + p->size()), helloV4);
  EXPECT_FALSE(m->failure());
}

// What a read passes over with a line (levels 1, 5 and 7) but does not fail for, so that nothing
// is recorded. An address that crosses the option's end is read whole; reading goes on behind it.
TEST(Hello, IrregularitiesThatDoNotFail) {
  const Bytes irregular = concat({header, holdtime105,
                                  {0, 0x18, 0, 0x0c, 1, 0, 224, 1, 1, 1, 1, 0, 10, 0, 0, 9},      // a multicast secondary
                                  {0, 0x18, 0, 0x12, 2, 0, 0xfe, 0x80}, Bytes(13, 0), {7},        // an IPv6 secondary
                                  {0, 0x1c, 0, 8, 0, 2, 0, 0, 10, 0, 0, 1},                       // IPv6 of length 8
                                  {0, 0x1c, 0, 8, 0, 9, 0, 0, 10, 0, 0, 1},                       // family 9
                                  {0, 0x1b, 0, 0x14, 0, 2, 0, 0, 0x20, 1, 0x0d, 0xb8}, Bytes(11, 0), {2},  // TCP, IPv6
                                  {0, 0x18, 0, 4, 1, 0, 10, 0, 0, 5}});                           // crossing its end
  Loom::Ptr<HelloMessage> m;
  Loom::TraceCapture cap(7);
  EXPECT_EQ(read(irregular, &m).count, irregular.size()) << firstError(cap);
  std::vector<std::string> lines;
  for (const auto& l : cap.lines()) {
    if (l.level == 1 || l.level == 5 || l.level == 7) lines.push_back(l.text);
  }
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "Invalid Encoded Unicast Address - Not Unicast - Address: 224.1.1.1",
                       "Warning: Pim Hello - Address List Option - Skipping Invalid Address: 224.1.1.1",
                       "Warning: Pim Hello - Address List Option - Family: ipv4 Skipping Address: fe80::7",
                       "Invalid Pim Hello - Pim over Sctp Option - IPv6 address family has unexpected length 8",
                       "Invalid Pim Hello - Pim over Sctp Option - Invalid address family 9 with length 8"}));
  EXPECT_EQ(text(m.ptr()), "type=hello | Option: holdtime=105, Option: secondary address=[ 224.1.1.1, 10.0.0.9, "
                           "10.0.0.5 ], Option: sctpConnectionId = 2001:db8::2");
  EXPECT_FALSE(m->failure());
  // A header alone is a Hello without a holdtime.
  EXPECT_EQ(read(header, &m).count, 4u);
  EXPECT_TRUE(cap.contains("Invalid Pim Hello - No Holdtime Option"));
  EXPECT_FALSE(m->failure() || m->holdTimeOption());
}

TEST(Hello, ReadFailures) {
  const auto option = [](Bytes b) { return reading(concat({header, b})); };
  checkFailures<Failure>({
      {"header cut", reading({0x20, 0}), HeaderText::missingHeader, "2"},
      {"holdtime length 4", option({0, 1, 0, 4, 0, 0, 0, 105}), T::holdtimeSize, "4"},
      {"lan prune delay length 2", option({0, 2, 0, 2, 0, 1}), T::lanPruneDelaySize, "2"},
      {"dr priority length 8", option({0, 0x13, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0}), T::drPrioritySize, "8"},
      {"generation id length 0", option({0, 0x14, 0, 0}), T::generationIdSize, "0"},
      {"bidir length 4", option({0, 0x16, 0, 4, 0, 0, 0, 0}), T::bidirSize, "4"},
      {"interface id length 4", option({0, 0x1f, 0, 4, 0, 0, 0, 1}), T::interfaceIdSize, "4"},
      {"tcp length 4", option({0, 0x1b, 0, 4, 0, 1, 0, 0}), T::tcpSize, "4"},
      {"sctp length 0", option({0, 0x1c, 0, 0}), T::sctpSize, "0"},
      {"holdtime value cut", option({0, 1, 0, 2, 0}), T::holdtimeLength, "1 Expected: 2"},
      {"address list longer than the packet", option({0, 0x18, 0, 12, 1, 0, 10, 0, 0, 1}), T::addressListLength,
       "6 Expected: 12"},
      {"unknown option running past the end", option({0, 0x28, 0, 8, 1, 2, 3, 4}), T::optionLength, "-4 Expected: 4"},
      {"two stray bytes after an option", option(concat({holdtime105, {0, 0}})), T::optionLength, "2 Expected: 4"},
      // The address's own failure is traced first and recorded; the Hello's text follows.
      {"address list with a bad encoding", option({0, 0x18, 0, 6, 1, 1, 10, 0, 0, 1}),
       E::unicastInvalidEncoding, "\x01"},
  });
  checkRejects({{"the Hello's line after the address's", concat({header, {0, 0x18, 0, 6, 1, 1, 10, 0, 0, 1}}),
                 "Invalid Pim Hello - Address List Option - Unicast Address - Parse Error"}},
               v4Src, v4Dst, [](const Loom::Ptr<Knet::Pkt>& p) { return hello()->readHelloMessage(p, 0); }, Trace::last);
}

// Cut inside an option header: the option length failure; cut before one: a complete Hello.
TEST(Hello, TruncationAtEveryLength) {
  const Cut<Failure> optionHeader{4, T::optionLength, Failure()};
  const Cut<Failure> cutValue{8, T::optionLength};  // a connection or interface id value runs past the end
  checkCuts<Failure>(helloV4,
                     {{4, HeaderText::missingHeader}, optionHeader, {2, T::holdtimeLength}, optionHeader,
                      {4, T::lanPruneDelayLength}, optionHeader, {4, T::drPriorityLength}, optionHeader,
                      {4, T::generationIdLength}, optionHeader, optionHeader, {12, T::addressListLength}, optionHeader,
                      cutValue, optionHeader, cutValue, optionHeader, cutValue},
                     v4Src, v4Dst, [](const Loom::Ptr<Knet::Pkt>& p) {
                       auto m = hello();
                       return Result{m->readHelloMessage(p, 0), m->failure()};
                     });
}

// The golden Hello written into every room too small for it: each option fails for its room.
TEST(Hello, WriteIntoEveryShortRoom) {
  Loom::Ptr<HelloMessage> m;
  ASSERT_EQ(read(helloV4, &m).count, helloV4.size());
  checkCuts<Failure>(helloV4,
                     {{4, T::writeHeaderSpace}, {6, T::writeHoldtime}, {8, T::writeLanPruneDelay}, {8, T::writeDrPriority},
                      {8, T::writeGenerationId}, {4, T::writeBidir}, {4, T::writeGenerationId},  // the list's header
                      {2, E::unicastFamilyLength}, {4, E::unicastIpLength}, {2, E::unicastFamilyLength},
                      {4, E::unicastIpLength}, {12, T::tcpWriteSpace}, {12, T::sctpWriteSpace}, {12, T::writeInterfaceId}},
                     v4Src, v4Dst, [m](const Loom::Ptr<Knet::Pkt>& room) {
                       return Result{m->writeHelloMessage(room, 0), m->failure()};
                     });
  checkFailures<Failure>({{"the values of the line", [m] { return Result{m->writeHelloMessage(pkt(Bytes(60)), 0), m->failure()}; },
                           T::tcpWriteSpace, "6 Expected: 12"}});
}

TEST(Hello, WriteFailures) {
  // A v4 Hello (or one of no family) set up by `set`, written into 100 bytes.
  const auto write = [](std::function<void(HelloMessage&)> set, bool family = true) {
    return [=] {
      auto m = family ? hello() : helloMessageFactory();
      set(*m);
      return Result{m->writeHelloMessage(pkt(Bytes(100)), 0), m->failure()};
    };
  };
  using H = HelloMessage;
  const auto v6 = ip("2001:db8::1");
  checkFailures<Failure>({
      {"address of the other family", write([=](H& m) { m.secondaryAddrIs(v6); }), T::writeAddressFamily,
       "ipv6 Address: 2001:db8::1"},
      {"tcp id of the other family", write([=](H& m) { m.tcpConnectionOptionIs(true), m.tcpConnectionIdIs(v6); }),
       T::tcpIdFamily, "ipv6"},
      {"sctp id of the other family", write([=](H& m) { m.sctpConnectionOptionIs(true), m.sctpConnectionIdIs(v6); }),
       T::sctpIdFamily, "ipv6"},
      // Neither the message nor the connection id has a family: the size cannot be chosen.
      {"tcp of no family", write([](H& m) { m.tcpConnectionOptionIs(true); }, false), T::tcpWriteFamily, "ipUnknown(0)"},
      {"sctp of no family", write([](H& m) { m.sctpConnectionOptionIs(true); }, false), T::sctpWriteFamily, "ipUnknown(0)"},
      {"no family for the header", write([](H& m) { m.holdTimeOptionIs(true); }, false), HeaderText::invalidFamily, ""},
  });
}

// The T bit and the delay share one field; each setter keeps the other's bits.
TEST(Hello, PropagationDelayAccessorsKeepTheOtherBits) {
  HelloMessage m;
  m.implPropagationDelayIs(0x8000 | 1234);
  m.propagationDelayIs(HelloPropagationDelay(0xffff));  // masked to 15 bits
  EXPECT_EQ(m.implPropagationDelay(), 0xffff);
  m.tBitIs(false);
  EXPECT_EQ(m.implPropagationDelay(), 0x7fff);
  EXPECT_EQ(HelloPropagationDelay::fromString("32767").value(), 32767);
  EXPECT_THROW(HelloPropagationDelay::fromString("32768"), Loom::RangeException);
}

}  // namespace
}  // namespace Routing::Pim::Packet
