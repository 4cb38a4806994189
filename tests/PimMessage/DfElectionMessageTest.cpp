// The DF election messages: golden packets of the four subtypes, the subtype in the reserved byte,
// what a failing read or write records (every truncation included) and the subtype assertions.
#include "PimMessage/DfElectionMessage.h"

#include "PimMessage/EncodedAddress.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;
using T = DfElectionText;
using E = EncodedAddressText;
using Result = Outcome<Failure>;

const Knet::IpGenAddr v4Src = ip("10.0.0.2");
const Knet::IpGenAddr v4Dst = ip("224.0.0.13");
const Knet::IpGenAddr v6Src = ip("fe80::2");
const Knet::IpGenAddr v6Dst = ip("ff02::d");

Bytes unicast(const char* a) {
  const Knet::IpGenAddr x = ip(a);
  Bytes b = {static_cast<U8>(x.af()), 0x00};
  b.insert(b.end(), x.bytes(), x.bytes() + x.byteLength());
  return b;
}
Bytes u32(U32 v) { return {U8(v >> 24), U8(v >> 16), U8(v >> 8), U8(v)}; }
const Bytes metrics = concat({u32(1), u32(2)});
const Bytes rp = concat({unicast("10.0.0.9"), metrics});  // the common part behind the header

Bytes dfElection(U8 reserved, const Bytes& body, bool v6 = false) {
  Bytes b = concat({{0x2a, reserved, 0, 0}, body});
  fixChecksum(b, v6 ? v6Src : v4Src, v6 ? v6Dst : v4Dst);
  return b;
}

using Offer = DfElectionOfferMessage;
using Winner = DfElectionWinnerMessage;
using Backoff = DfElectionBackoffMessage;
using Pass = DfElectionPassMessage;

template <class M>
Loom::Ptr<DfElectionMessage> message(bool v6 = false) {
  Loom::Ptr<M> m = new M;
  m->srcIpIs(v6 ? v6Src : v4Src);
  m->dstIpIs(v6 ? v6Dst : v4Dst);
  return m;
}

// Reads and writes with the operation of the message's class, as the receive path does.
U32 read(const Loom::Ptr<DfElectionMessage>& m, const Loom::Ptr<Knet::Pkt>& p, U32 offset = 0) {
  if (auto o = Loom::ptr_cast<Offer>(m)) return o->readDfElectionOfferMessage(p, offset);
  if (auto w = Loom::ptr_cast<Winner>(m)) return w->readDfElectionWinnerMessage(p, offset);
  if (auto b = Loom::ptr_cast<Backoff>(m)) return b->readDfElectionBackoffMessage(p, offset);
  if (auto s = Loom::ptr_cast<Pass>(m)) return s->readDfElectionPassMessage(p, offset);
  return m->readDfElectionMessage(p, offset);
}
U32 write(const Loom::Ptr<DfElectionMessage>& m, const Loom::Ptr<Knet::Pkt>& p, U32 offset = 0) {
  if (auto o = Loom::ptr_cast<Offer>(m)) return o->writeDfElectionOfferMessage(p, offset);
  if (auto w = Loom::ptr_cast<Winner>(m)) return w->writeDfElectionWinnerMessage(p, offset);
  if (auto b = Loom::ptr_cast<Backoff>(m)) return b->writeDfElectionBackoffMessage(p, offset);
  if (auto s = Loom::ptr_cast<Pass>(m)) return s->writeDfElectionPassMessage(p, offset);
  return m->writeDfElectionMessage(p, offset);
}

// The common part of the golden packets: RP 10.0.0.9 (IPv6 2001:db8::9), preference 110, metric 20.
Bytes common(bool v6) { return concat({unicast(v6 ? "2001:db8::9" : "10.0.0.9"), u32(110), u32(20)}); }
const Bytes backoffV4 = dfElection(0x30, concat({common(false), unicast("10.0.0.3"), u32(100), u32(10), {0x03, 0xe8}}));
const Bytes passV6 = dfElection(0x40, concat({common(true), unicast("2001:db8::3"), u32(100), u32(10)}), true);

// Bytes -> fields -> the same bytes, at an offset. The command line's tests check the fields.
TEST(DfElection, GoldenPacketsReadAndWriteBack) {
  const std::pair<Loom::Ptr<DfElectionMessage>, Bytes> cases[] = {
      {message<Offer>(), dfElection(0x10, common(false))},
      {message<Winner>(true), dfElection(0x20, common(true), true)},
      {message<Backoff>(), backoffV4},
      {message<Pass>(true), passV6},
  };
  for (const auto& [m, b] : cases) {
    Loom::TraceCapture cap(1);
    ASSERT_EQ(read(m, pkt(b)), b.size()) << firstError(cap);
    EXPECT_EQ(m->messageSubtype(), b[1] >> 4);
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(3 + b.size(), 0xee));
    ASSERT_EQ(write(m, out, 3), b.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + 3, out->data() + out->size()), b);
    EXPECT_FALSE(m->failure());
  }
}

// The subtype is the upper half of the reserved byte; setting it clears the lower half. Bytes
// behind the message are not looked at.
TEST(DfElection, SubtypeLivesInTheReservedByte) {
  auto m = message<Offer>();
  ASSERT_EQ(read(m, pkt(dfElection(0x1f, concat({common(false), {7, 7, 7}})))), 18u);
  EXPECT_EQ(m->reserved(), 0x1f);
  m->dfElectionMessageTypeIs(dfElectionPass());
  EXPECT_EQ(m->reserved(), 0x40);
  EXPECT_EQ(dfElectionMessageTypeInstance(4u), dfElectionPass());
  EXPECT_FALSE(dfElectionMessageTypeInstance(0u));
  EXPECT_FALSE(dfElectionMessageTypeInstance(5u));
}

TEST(DfElection, ReadFailures) {
  const auto reading = [](Loom::Ptr<DfElectionMessage> m, const Bytes& b) {
    return [=] { return Result{read(m, pkt(b)), m->failure()}; };
  };
  const Bytes v6rp = concat({unicast("2001:db8::9"), metrics});
  checkFailures<Failure>({
      {"an RP of a bad encoding", reading(message<Winner>(), dfElection(0x20, {1, 8, 10, 0, 0, 9})),
       E::unicastInvalidEncoding, "\x08"},
      {"an ipv6 RP", reading(message<Winner>(), dfElection(0x20, v6rp)), T::rpFamily, "ipv4RP Address: 2001:db8::9"},
      {"a multicast RP", reading(message<DfElectionMessage>(), dfElection(0x20, concat({unicast("224.0.0.9"), metrics}))),
       E::unicastNotUnicast, "224.0.0.9"},
      {"an offer with 7 bytes of metrics", reading(message<Offer>(), dfElection(0x10, concat({unicast("10.0.0.9"), u32(1), {0, 0, 0}}))),
       T::metricLength, "7 Expected: 8"},
      {"an ipv6 offering address", reading(message<Backoff>(), dfElection(0x30, concat({rp, unicast("2001:db8::3")}))),
       T::offeringFamily, "ipv4Offering Address: 2001:db8::3"},
      {"a backoff with 9 bytes behind the offering address",
       reading(message<Backoff>(), dfElection(0x30, concat({rp, unicast("10.0.0.3"), metrics, {0}}))), T::offeringLength,
       "9 Expected: 10"},
      {"an ipv6 new winner", reading(message<Pass>(), dfElection(0x40, concat({rp, unicast("2001:db8::3")}))),
       T::winningFamily, "ipv4New Winning Address: 2001:db8::3"},
      {"a pass with 7 bytes behind the new winner",
       reading(message<Pass>(), dfElection(0x40, concat({rp, unicast("10.0.0.3"), u32(1), {0, 0, 0}}))),
       T::winningLength, "7 Expected: 8"},
  });
  // The lines that follow the recorded one: the address's user, then the subtype's.
  const auto reject = [](Loom::Ptr<DfElectionMessage> m, Bytes b, std::string error) {
    checkRejects({{"", b, error}}, v4Src, v4Dst, [m](const Loom::Ptr<Knet::Pkt>& p) { return read(m, p); }, Trace::all);
  };
  const std::string notUnicast = "Invalid Encoded Unicast Address - Not Unicast - Address: ";
  reject(message<Winner>(), dfElection(0x20, {1, 8, 10, 0, 0, 9}),
         "Invalid Encoded Unicast Address - Invalid Encoding - Value: \x08 | Invalid Pim DF Election - RP Address - Parse "
         "Error | Invalid Pim DF Election Winner - Read Error");
  reject(message<Offer>(), dfElection(0x10, concat({unicast("224.0.0.9"), metrics})),
         notUnicast + "224.0.0.9 | Invalid Pim DF Election - RP Address - Invalid Address - 224.0.0.9 | "
                      "Invalid Pim DF Election Offer - Read Error");
  reject(message<Backoff>(), dfElection(0x30, rp),
         "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: 0 Expected: 2 | "
         "Invalid Pim DF Election Backoff - Offering Address - Parse Error");
  reject(message<Backoff>(), dfElection(0x30, concat({rp, unicast("239.0.0.3"), metrics, {0, 1}})),
         notUnicast + "239.0.0.3 | Invalid Pim DF Election Backoff - Offering Address - Invalid Address - 239.0.0.3");
  reject(message<Backoff>(), {0x2a, 0x30, 0},
         "Invalid Pim Message - Missing Pim Header - Remaining: 3 | Invalid Pim DF Election - Header - Parse Error | "
         "Invalid Pim DF Election Backoff - Read Error");
  reject(message<Pass>(), dfElection(0x40, concat({rp, unicast("239.0.0.3"), metrics})),  // the text names Backoff
         notUnicast + "239.0.0.3 | Invalid Pim DF Election Backoff - New Winning Address - Invalid Address - 239.0.0.3");
  reject(message<Pass>(), dfElection(0x40, {}),
         "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: 0 Expected: 2 | "
         "Invalid Pim DF Election - RP Address - Parse Error | Invalid Pim DF Election Pass - Read Error");
  reject(message<Pass>(), dfElection(0x40, concat({rp, {2, 0}})),
         "Invalid Encoded Unicast Address - Ip6 Address Length - Remaining: 0 Expected: 16 | "
         "Invalid Pim DF Election Pass - New Winning Address - Parse Error");
}

TEST(DfElection, TruncationAtEveryLength) {
  const auto reader = [](Loom::Ptr<DfElectionMessage> (*make)(bool), bool v6) {
    return [=](const Loom::Ptr<Knet::Pkt>& p) {
      auto m = make(v6);
      return Result{read(m, p), m->failure()};
    };
  };
  checkCuts<Failure>(backoffV4,
                     {{4, HeaderText::missingHeader}, {2, E::unicastFamilyLength}, {4, E::unicastIpLength},
                      {8, T::metricLength}, {2, E::unicastFamilyLength}, {4, E::unicastIpLength}, {10, T::offeringLength}},
                     v4Src, v4Dst, reader(message<Backoff>, false));
  checkCuts<Failure>(passV6,
                     {{4, HeaderText::missingHeader}, {2, E::unicastFamilyLength}, {16, E::unicastIp6Length},
                      {8, T::metricLength}, {2, E::unicastFamilyLength}, {16, E::unicastIp6Length}, {8, T::winningLength}},
                     v6Src, v6Dst, reader(message<Pass>, true));
}

TEST(DfElection, WriteFailures) {
  // The message with its RP and its offering or winning address, written into `room` bytes.
  const auto writing = [](Loom::Ptr<DfElectionMessage> m, const char* rp, const char* other, U32 room) {
    return [=] {
      if (*rp) m->rpAddressIs(ip(rp));
      const Knet::IpGenAddr o = *other ? ip(other) : Knet::IpGenAddr();
      if (auto b = Loom::ptr_cast<Backoff>(m)) b->offeringAddressIs(o);
      if (auto s = Loom::ptr_cast<Pass>(m)) s->winningAddressIs(o);
      return Result{write(m, pkt(Bytes(room))), m->failure()};
    };
  };
  const auto common = message<DfElectionMessage>;
  checkFailures<Failure>({
      {"no room for the header", writing(common(false), "10.0.0.9", "", 3), T::headerSpace, "3"},
      {"a multicast RP", writing(common(false), "224.0.0.9", "", 64), E::unicastNotUnicast, "224.0.0.9"},
      {"no room for the metrics", writing(common(false), "10.0.0.9", "", 17), T::metricSpace, "7 Expected: 8"},
      {"an offer with no room", writing(message<Offer>(), "10.0.0.9", "", 17), T::metricSpace, "7 Expected: 8"},
      {"a winner of no RP", writing(message<Winner>(), "", "", 64), T::family, "ipUnknown(0) RP Address: unset"},
      {"backoff: no room for the header", writing(message<Backoff>(), "10.0.0.9", "10.0.0.3", 2), T::backoffHeaderSpace, "2"},
      {"backoff: an ipv6 RP", writing(message<Backoff>(), "2001:db8::9", "10.0.0.3", 64), T::backoffFamily,
       "ipv6 RP Address: 2001:db8::9"},
      {"backoff: no offering address", writing(message<Backoff>(), "10.0.0.9", "", 64), T::backoffFamily,
       "ipUnknown(0) Offering Address: unset"},
      {"backoff: a multicast RP", writing(message<Backoff>(), "224.0.0.9", "10.0.0.3", 64), E::unicastNotUnicast, "224.0.0.9"},
      {"backoff: no room for the metrics", writing(message<Backoff>(), "10.0.0.9", "10.0.0.3", 12), T::backoffMetricSpace,
       "2 Expected: 8"},
      {"backoff: a multicast offering address", writing(message<Backoff>(), "10.0.0.9", "239.0.0.3", 64),
       E::unicastNotUnicast, "239.0.0.3"},
      {"backoff: 9 bytes for the tail", writing(message<Backoff>(), "10.0.0.9", "10.0.0.3", 33), T::offeringTailSpace,
       "9 Expected: 10"},
      {"pass: an ipv6 winner", writing(message<Pass>(), "10.0.0.9", "2001:db8::3", 64), T::passFamily,
       "ipv6 Winning Address: 2001:db8::3"},
      {"pass: no room for the metrics", writing(message<Pass>(), "10.0.0.9", "10.0.0.3", 10), T::passMetricSpace,
       "0 Expected: 8"},
      {"pass: 7 bytes for the tail", writing(message<Pass>(), "10.0.0.9", "10.0.0.3", 31), T::winningTailSpace,
       "7 Expected: 8"},
  });
}

using DfElectionDeathTest = ::testing::Test;

// A subclass's operation on a message of another subtype is a programming error.
TEST(DfElectionDeathTest, SubtypeMismatchAborts) {
  const Bytes winner = dfElection(0x20, common(false));
  EXPECT_DEATH(read(message<Offer>(), pkt(winner)), "dfElectionMessageType\\(\\) == dfElectionOffer\\(\\)");
  EXPECT_DEATH(read(message<Backoff>(), pkt(winner)), "dfElectionMessageType\\(\\) == dfElectionBackoff\\(\\)");
  auto pass = message<Pass>();
  pass->dfElectionMessageTypeIs(dfElectionWinner());
  EXPECT_DEATH(write(pass, pkt(Bytes(64))), "dfElectionMessageType\\(\\) == dfElectionPass\\(\\)");
  auto w = message<Winner>();
  w->dfElectionMessageTypeIs(dfElectionOffer());
  EXPECT_DEATH(write(w, pkt(Bytes(64))), "dfElectionMessageType\\(\\) == dfElectionWinner\\(\\)");
}

}  // namespace
}  // namespace Routing::Pim::Packet
