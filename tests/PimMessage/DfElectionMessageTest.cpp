// The DF election messages: golden packets of the four subtypes, the subtype in the reserved byte,
// what a failing read or write records (every truncation and every short room included) and the
// subtype assertions.
#include "PimMessage/DfElectionMessage.h"

#include "PimMessage/EncodedAddress.h"
#include "PimMessage/MessageTable.h"
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
  return concat({{static_cast<U8>(x.af()), 0x00}, Bytes(x.bytes(), x.bytes() + x.byteLength())});
}
Bytes u32(U32 v) { return {U8(v >> 24), U8(v >> 16), U8(v >> 8), U8(v)}; }
const Bytes metrics = concat({u32(1), u32(2)});
const Bytes rp = concat({unicast("10.0.0.9"), metrics});  // a common part

Bytes dfElection(U8 reserved, const Bytes& body, bool v6 = false) {
  Bytes b = concat({{0x2a, reserved, 0, 0}, body});
  fixChecksum(b, v6 ? v6Src : v4Src, v6 ? v6Dst : v4Dst);
  return b;
}

// The classes by subtype (0: the common part alone), read and written as the receive path does.
struct Class {
  U8 subtype;
  Loom::Ptr<DfElectionMessage> make(bool v6 = false) const {
    auto m = subtype ? Loom::ptr_cast<DfElectionMessage>(row().create()) : dfElectionMessageFactory();
    m->srcIpIs(v6 ? v6Src : v4Src);
    m->dstIpIs(v6 ? v6Dst : v4Dst);
    return m;
  }
  const MessageClass& row() const { return *messageClass(Knet::pimDfElection(), subtype); }
  U32 read(Message& m, const Loom::Ptr<Knet::Pkt>& p, U32 at = 0) const {
    return subtype ? row().read(m, p, at, nullptr) : static_cast<DfElectionMessage&>(m).readDfElectionMessage(p, at);
  }
  U32 write(Message& m, const Loom::Ptr<Knet::Pkt>& p, U32 at = 0) const {
    return subtype ? row().write(m, p, at, nullptr) : static_cast<DfElectionMessage&>(m).writeDfElectionMessage(p, at);
  }
  // Reads (or writes into) the packet with a fresh message (with `m`).
  std::function<Result(const Loom::Ptr<Knet::Pkt>&)> reader(bool v6 = false) const {
    return [*this, v6](const Loom::Ptr<Knet::Pkt>& p) {
      auto m = make(v6);
      return Result{read(*m, p), m->failure()};
    };
  }
  std::function<Result(const Loom::Ptr<Knet::Pkt>&)> writer(Loom::Ptr<DfElectionMessage> m) const {
    return [*this, m](const Loom::Ptr<Knet::Pkt>& p) { return Result{write(*m, p), m->failure()}; };
  }
};
const Class common{0}, offer{1}, winner{2}, backoff{3}, pass{4};

// The common part of the golden packets: RP 10.0.0.9 (IPv6 2001:db8::9), preference 110, metric 20.
Bytes commonPart(bool v6) { return concat({unicast(v6 ? "2001:db8::9" : "10.0.0.9"), u32(110), u32(20)}); }
const Bytes offerV4 = dfElection(0x10, commonPart(false));
const Bytes backoffV4 = dfElection(0x30, concat({commonPart(false), unicast("10.0.0.3"), u32(100), u32(10), {3, 0xe8}}));
const Bytes passV6 = dfElection(0x40, concat({commonPart(true), unicast("2001:db8::3"), u32(100), u32(10)}), true);

// Bytes -> fields -> the same bytes, at an offset; then into every room too small for them. The
// command line's tests check the fields.
TEST(DfElection, GoldenPacketsReadAndWrittenBack) {
  const std::tuple<Class, bool, Bytes, std::vector<Cut<Failure>>> cases[] = {
      {offer, false, offerV4, {{4, T::headerSpace}, {2, E::unicastFamilyLength}, {4, E::unicastIpLength}, {8, T::metricSpace}}},
      {winner, true, dfElection(0x20, commonPart(true), true), {}},
      {backoff, false, backoffV4,
       {{4, T::backoffHeaderSpace}, {2, E::unicastFamilyLength}, {4, E::unicastIpLength}, {8, T::backoffMetricSpace},
        {2, E::unicastFamilyLength}, {4, E::unicastIpLength}, {10, T::offeringTailSpace}}},
      {pass, true, passV6,
       {{4, T::passHeaderSpace}, {2, E::unicastFamilyLength}, {16, E::unicastIpLength}, {8, T::passMetricSpace},
        {2, E::unicastFamilyLength}, {16, E::unicastIpLength}, {8, T::winningTailSpace}}},
  };
  for (const auto& [c, v6, b, rooms] : cases) {
    auto m = c.make(v6);
    Loom::TraceCapture cap(1);
    ASSERT_EQ(c.read(*m, pkt(b)), b.size()) << firstError(cap);
    EXPECT_EQ(m->messageSubtype(), c.subtype);
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(3 + b.size(), 0xee));
    ASSERT_EQ(c.write(*m, out, 3), b.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + 3, out->data() + out->size()), b);
    EXPECT_FALSE(m->failure());
    if (!rooms.empty()) checkCuts<Failure>(b, rooms, v4Src, v4Dst, c.writer(m));
  }
}

// The subtype is the upper half of the reserved byte; setting it clears the lower half. Bytes
// behind the message are not looked at.
TEST(DfElection, SubtypeLivesInTheReservedByte) {
  auto m = offer.make();
  ASSERT_EQ(offer.read(*m, pkt(dfElection(0x1f, concat({commonPart(false), {7, 7, 7}})))), 18u);
  EXPECT_EQ(m->reserved(), 0x1f);
  m->dfElectionMessageTypeIs(dfElectionPass());
  EXPECT_EQ(m->reserved(), 0x40);
  EXPECT_EQ(dfElectionMessageTypeInstance(4u), dfElectionPass());
  EXPECT_FALSE(dfElectionMessageTypeInstance(0u) || dfElectionMessageTypeInstance(5u));
}

TEST(DfElection, ReadFailures) {
  const auto reading = [](const Class& c, const Bytes& b) { return [c, b] { return c.reader()(pkt(b)); }; };
  checkFailures<Failure>({
      {"an RP of a bad encoding", reading(winner, dfElection(0x20, {1, 8, 10, 0, 0, 9})), E::unicastInvalidEncoding,
       "\x08"},
      {"an ipv6 RP", reading(winner, dfElection(0x20, concat({unicast("2001:db8::9"), metrics}))), T::rpFamily,
       "ipv4RP Address: 2001:db8::9"},
      {"a multicast RP", reading(common, dfElection(0x20, concat({unicast("224.0.0.9"), metrics}))),
       E::unicastNotUnicast, "224.0.0.9"},
      {"an offer with 7 bytes of metrics", reading(offer, dfElection(0x10, concat({unicast("10.0.0.9"), u32(1), {0, 0, 0}}))),
       T::metricLength, "7 Expected: 8"},
      {"an ipv6 offering address", reading(backoff, dfElection(0x30, concat({rp, unicast("2001:db8::3")}))),
       T::offeringFamily, "ipv4Offering Address: 2001:db8::3"},
      {"a backoff with 9 bytes behind the offering address",
       reading(backoff, dfElection(0x30, concat({rp, unicast("10.0.0.3"), metrics, {0}}))), T::offeringLength,
       "9 Expected: 10"},
      {"an ipv6 new winner", reading(pass, dfElection(0x40, concat({rp, unicast("2001:db8::3")}))), T::winningFamily,
       "ipv4New Winning Address: 2001:db8::3"},
  });
  // The lines that follow the recorded one: the address's user's, then the subtype's.
  const auto reject = [](const Class& c, Bytes b, std::string error) {
    checkRejects({{"", b, error}}, v4Src, v4Dst, [c](const Loom::Ptr<Knet::Pkt>& p) { return c.reader()(p).count; },
                 Trace::all);
  };
  reject(winner, dfElection(0x20, {1, 8, 10, 0, 0, 9}),
         "Invalid Encoded Unicast Address - Invalid Encoding - Value: \x08 | Invalid Pim DF Election - RP Address - "
         "Parse Error | Invalid Pim DF Election Winner - Read Error");
  reject(offer, dfElection(0x10, concat({unicast("224.0.0.9"), metrics})),
         "Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.9 | Invalid Pim DF Election - RP Address - "
         "Invalid Address - 224.0.0.9 | Invalid Pim DF Election Offer - Read Error");
  reject(backoff, {0x2a, 0x30, 0},
         "Invalid Pim Message - Missing Pim Header - Remaining: 3 | Invalid Pim DF Election - Header - Parse Error | "
         "Invalid Pim DF Election Backoff - Read Error");
  reject(pass, dfElection(0x40, concat({rp, unicast("239.0.0.3"), metrics})),  // the text names Backoff
         "Invalid Encoded Unicast Address - Not Unicast - Address: 239.0.0.3 | "
         "Invalid Pim DF Election Backoff - New Winning Address - Invalid Address - 239.0.0.3");
}

TEST(DfElection, TruncationAtEveryLength) {
  checkCuts<Failure>(backoffV4,
                     {{4, HeaderText::missingHeader}, {2, E::unicastFamilyLength}, {4, E::unicastIpLength},
                      {8, T::metricLength}, {2, E::unicastFamilyLength}, {4, E::unicastIpLength}, {10, T::offeringLength}},
                     v4Src, v4Dst, backoff.reader());
  checkCuts<Failure>(passV6,
                     {{4, HeaderText::missingHeader}, {2, E::unicastFamilyLength}, {16, E::unicastIp6Length},
                      {8, T::metricLength}, {2, E::unicastFamilyLength}, {16, E::unicastIp6Length}, {8, T::winningLength}},
                     v6Src, v6Dst, pass.reader(true));
}

TEST(DfElection, WriteFailures) {
  // The message with its RP and its offering or winning address.
  const auto writing = [](const Class& c, const char* rp, const char* other) {
    return [=] {
      auto m = c.make();
      if (*rp) m->rpAddressIs(ip(rp));
      const Knet::IpGenAddr o = *other ? ip(other) : Knet::IpGenAddr();
      if (auto b = Loom::ptr_cast<DfElectionBackoffMessage>(m)) b->offeringAddressIs(o);
      if (auto s = Loom::ptr_cast<DfElectionPassMessage>(m)) s->winningAddressIs(o);
      return c.writer(m)(pkt(Bytes(64)));
    };
  };
  checkFailures<Failure>({
      {"a multicast RP", writing(common, "224.0.0.9", ""), E::unicastNotUnicast, "224.0.0.9"},
      {"a winner of no RP", writing(winner, "", ""), T::family, "ipUnknown(0) RP Address: unset"},
      {"backoff: an ipv6 RP", writing(backoff, "2001:db8::9", "10.0.0.3"), T::backoffFamily,
       "ipv6 RP Address: 2001:db8::9"},
      {"backoff: no offering address", writing(backoff, "10.0.0.9", ""), T::backoffFamily,
       "ipUnknown(0) Offering Address: unset"},
      {"backoff: a multicast offering address", writing(backoff, "10.0.0.9", "239.0.0.3"), E::unicastNotUnicast,
       "239.0.0.3"},
      {"pass: an ipv6 winner", writing(pass, "10.0.0.9", "2001:db8::3"), T::passFamily,
       "ipv6 Winning Address: 2001:db8::3"},
  });
  // The lines that follow the recorded one.
  checkWriteFailures({{"offer", [&] { return writing(offer, "224.0.0.9", "")().count; },
                       "Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.9 | Invalid Pim DF Election - "
                       "RP Address - Write Error | Invalid Pim DF Election Offer - Write Error"},
                      {"pass", [&] { return writing(pass, "10.0.0.9", "239.0.0.3")().count; },
                       "Invalid Encoded Unicast Address - Not Unicast - Address: 239.0.0.3 | "
                       "Invalid Pim DF Election Pass - Winning Address - Write Error"}},
                     Trace::all);
}

using DfElectionDeathTest = ::testing::Test;

// A subclass's operation on a message of another subtype is a programming error.
TEST(DfElectionDeathTest, SubtypeMismatchAborts) {
  const Bytes winnerV4 = dfElection(0x20, commonPart(false));
  EXPECT_DEATH(offer.read(*offer.make(), pkt(winnerV4)), "dfElectionMessageType\\(\\) == dfElectionOffer\\(\\)");
  EXPECT_DEATH(backoff.read(*backoff.make(), pkt(winnerV4)), "dfElectionMessageType\\(\\) == dfElectionBackoff\\(\\)");
  for (const Class& c : {winner, pass}) {
    auto m = c.make();
    m->dfElectionMessageTypeIs(dfElectionOffer());
    EXPECT_DEATH(c.write(*m, pkt(Bytes(64))), "dfElectionMessageType\\(\\) == dfElection(Winner|Pass)\\(\\)");
  }
}

}  // namespace
}  // namespace Routing::Pim::Packet
