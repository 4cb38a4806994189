// The DF election messages: golden packets of the four subtypes in both families, the subtype in
// the reserved byte, the reject and write-failure texts, truncation at every length, the subtype
// assertions and the renderings.
#include "PimMessage/DfElectionMessage.h"

#include <sstream>

#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;

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

Bytes dfElection(U8 reserved, const Bytes& body, bool v6 = false) {
  Bytes b = concat({{0x2a, reserved, 0, 0}, body});
  fixChecksum(b, v6 ? v6Src : v4Src, v6 ? v6Dst : v4Dst);
  return b;
}

template <class M>
Loom::Ptr<M> message(bool v6 = false) {
  Loom::Ptr<M> m = new M;
  m->srcIpIs(v6 ? v6Src : v4Src);
  m->dstIpIs(v6 ? v6Dst : v4Dst);
  return m;
}

// Reads with the operation of the message's class, as the receive path does.
U32 read(const Loom::Ptr<DfElectionMessage>& m, const Loom::Ptr<Knet::Pkt>& p, U32 offset = 0) {
  if (auto o = Loom::ptr_cast<DfElectionOfferMessage>(m)) return o->readDfElectionOfferMessage(p, offset);
  if (auto w = Loom::ptr_cast<DfElectionWinnerMessage>(m)) return w->readDfElectionWinnerMessage(p, offset);
  if (auto b = Loom::ptr_cast<DfElectionBackoffMessage>(m)) return b->readDfElectionBackoffMessage(p, offset);
  if (auto s = Loom::ptr_cast<DfElectionPassMessage>(m)) return s->readDfElectionPassMessage(p, offset);
  return m->readDfElectionMessage(p, offset);
}

U32 write(const Loom::Ptr<DfElectionMessage>& m, const Loom::Ptr<Knet::Pkt>& p, U32 offset = 0) {
  if (auto o = Loom::ptr_cast<DfElectionOfferMessage>(m)) return o->writeDfElectionOfferMessage(p, offset);
  if (auto w = Loom::ptr_cast<DfElectionWinnerMessage>(m)) return w->writeDfElectionWinnerMessage(p, offset);
  if (auto b = Loom::ptr_cast<DfElectionBackoffMessage>(m)) return b->writeDfElectionBackoffMessage(p, offset);
  if (auto s = Loom::ptr_cast<DfElectionPassMessage>(m)) return s->writeDfElectionPassMessage(p, offset);
  return m->writeDfElectionMessage(p, offset);
}

// The common part of every golden packet: RP 10.0.0.9 (IPv6 2001:db8::9), preference 110, metric 20.
Bytes common(bool v6) { return concat({unicast(v6 ? "2001:db8::9" : "10.0.0.9"), u32(110), u32(20)}); }

struct Golden {
  const char* name;
  bool v6;
  Loom::Ptr<DfElectionMessage> (*make)(bool v6);
  Bytes bytes;
  std::string text;
};

std::vector<Golden> goldens() {
  return {
      {"offer ipv4", false, [](bool v6) -> Loom::Ptr<DfElectionMessage> { return message<DfElectionOfferMessage>(v6); },
       dfElection(0x10, common(false)),
       "type=dfElection | type=dfElectionOffer, rpAddress=10.0.0.9, senderMetricPreference=110, senderMetric=20"},
      {"winner ipv6", true, [](bool v6) -> Loom::Ptr<DfElectionMessage> { return message<DfElectionWinnerMessage>(v6); },
       dfElection(0x20, common(true), true),
       "type=dfElection | type=dfElectionWinner, rpAddress=2001:db8::9, senderMetricPreference=110, senderMetric=20"},
      {"backoff ipv4", false, [](bool v6) -> Loom::Ptr<DfElectionMessage> { return message<DfElectionBackoffMessage>(v6); },
       dfElection(0x30, concat({common(false), unicast("10.0.0.3"), u32(100), u32(10), {0x03, 0xe8}})),
       "type=dfElection | type=dfElectionBackoff, rpAddress=10.0.0.9, senderMetricPreference=110, senderMetric=20, "
       "offeringAddress=10.0.0.3, offeringMetricPreference=100, offeringMetric=10, interval=1000"},
      {"pass ipv6", true, [](bool v6) -> Loom::Ptr<DfElectionMessage> { return message<DfElectionPassMessage>(v6); },
       dfElection(0x40, concat({common(true), unicast("2001:db8::3"), u32(100), u32(10)}), true),
       "type=dfElection | type=dfElectionPass, rpAddress=2001:db8::9, senderMetricPreference=110, senderMetric=20, "
       "winningAddress=2001:db8::3, winningMetricPreference=100, winningMetric=10"},
  };
}

TEST(DfElection, GoldenPacketsReadRenderAndWriteBack) {
  for (const Golden& g : goldens()) {
    SCOPED_TRACE(g.name);
    auto m = g.make(g.v6);
    Loom::TraceCapture cap(1);
    ASSERT_EQ(read(m, pkt(g.bytes)), g.bytes.size()) << firstError(cap);
    std::ostringstream os;
    os << m.ptr();
    EXPECT_EQ(os.str(), g.text);
    EXPECT_EQ(m->messageSubtype(), static_cast<U8>(m->dfElectionMessageType()));

    constexpr U32 offset = 3;
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(offset + g.bytes.size(), 0xee));
    ASSERT_EQ(write(m, out, offset), g.bytes.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + offset, out->data() + out->size()), g.bytes);
  }
}

// The subtype is the upper half of the reserved byte; setting it clears the lower half. Bytes
// behind the message are not looked at.
TEST(DfElection, SubtypeLivesInTheReservedByte) {
  const Bytes b = dfElection(0x1f, concat({common(false), {7, 7, 7}}));
  auto m = message<DfElectionOfferMessage>();
  ASSERT_EQ(m->readDfElectionOfferMessage(pkt(b), 0), 18u);
  EXPECT_EQ(m->dfElectionMessageType(), dfElectionOffer());
  EXPECT_EQ(m->reserved(), 0x1f);
  m->dfElectionMessageTypeIs(dfElectionPass());
  EXPECT_EQ(m->reserved(), 0x40);
  EXPECT_EQ(dfElectionMessageTypeInstance(4u), dfElectionPass());
  EXPECT_EQ(dfElectionMessageTypeInstance("dfElectionBackoff"), dfElectionBackoff());
  EXPECT_FALSE(dfElectionMessageTypeInstance(0u));
  EXPECT_FALSE(dfElectionMessageTypeInstance(5u));
  EXPECT_FALSE(dfElectionMessageTypeInstance("dfElectionoffer"));
}

TEST(DfElection, ReadRejectTable) {
  struct Case {
    const char* name;
    Loom::Ptr<DfElectionMessage> m;
    Bytes bytes;
    std::vector<std::string> texts;  // the message's own texts
  };
  const Bytes rp = unicast("10.0.0.9");
  const Bytes metrics = concat({u32(1), u32(2)});
  const Case cases[] = {
      {"an RP of a bad encoding", message<DfElectionWinnerMessage>(), dfElection(0x20, {0x01, 0x08, 10, 0, 0, 9}),
       {"Invalid Pim DF Election - RP Address - Parse Error", "Invalid Pim DF Election Winner - Read Error"}},
      {"an ipv6 RP", message<DfElectionWinnerMessage>(), dfElection(0x20, concat({unicast("2001:db8::9"), metrics})),
       {"Invalid Pim DF Election - RP Address - Invalid Family - Family: ipv4RP Address: 2001:db8::9",
        "Invalid Pim DF Election Winner - Read Error"}},
      {"a multicast RP", message<DfElectionMessage>(), dfElection(0x20, concat({unicast("224.0.0.9"), metrics})),
       {"Invalid Pim DF Election - RP Address - Invalid Address - 224.0.0.9"}},
      {"a backoff without the offering address", message<DfElectionBackoffMessage>(), dfElection(0x30, concat({rp, metrics})),
       {"Invalid Pim DF Election Backoff - Offering Address - Parse Error"}},
      {"an ipv6 offering address", message<DfElectionBackoffMessage>(),
       dfElection(0x30, concat({rp, metrics, unicast("2001:db8::3"), metrics, {0, 1}})),
       {"Invalid Pim DF Election Backoff - Offering Address - Invalid Family - Family: ipv4Offering Address: 2001:db8::3"}},
      {"a multicast offering address", message<DfElectionBackoffMessage>(),
       dfElection(0x30, concat({rp, metrics, unicast("239.0.0.3"), metrics, {0, 1}})),
       {"Invalid Pim DF Election Backoff - Offering Address - Invalid Address - 239.0.0.3"}},
      {"a backoff with 9 bytes behind the offering address", message<DfElectionBackoffMessage>(),
       dfElection(0x30, concat({rp, metrics, unicast("10.0.0.3"), metrics, {0}})),
       {"Invalid Pim DF Election Backoff - Offering Metric and Metric Preference Length - Remaining: 9 Expected: 10"}},
      {"a pass of a bad header", message<DfElectionPassMessage>(), Bytes{0x2a, 0x40, 0, 0},
       {"Invalid Pim DF Election - Header - Parse Error", "Invalid Pim DF Election Pass - Read Error"}},
      {"an offer with 7 bytes of metrics", message<DfElectionOfferMessage>(), dfElection(0x10, concat({rp, u32(1), {0, 0, 0}})),
       {"Invalid Pim DF Election - Metric and Metric Preference Length - Remaining: 7 Expected: 8",
        "Invalid Pim DF Election Offer - Read Error"}},
      {"an ipv6 new winner", message<DfElectionPassMessage>(),
       dfElection(0x40, concat({rp, metrics, unicast("2001:db8::3"), metrics})),
       {"Invalid Pim DF Election Pass - New Winning Address - Invalid Family - Family: ipv4New Winning Address: 2001:db8::3"}},
      {"a multicast new winner (the text names Backoff)", message<DfElectionPassMessage>(),
       dfElection(0x40, concat({rp, metrics, unicast("239.0.0.3"), metrics})),
       {"Invalid Pim DF Election Backoff - New Winning Address - Invalid Address - 239.0.0.3"}},
      {"a pass with 7 bytes behind the new winner", message<DfElectionPassMessage>(),
       dfElection(0x40, concat({rp, metrics, unicast("10.0.0.3"), u32(1), {0, 0, 0}})),
       {"Invalid Pim DF Election Pass - New Winning Metric and Metric Preference Length - Remaining: 7 Expected: 8"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Loom::TraceCapture cap(1);
    EXPECT_EQ(read(c.m, pkt(c.bytes)), 0u);
    std::vector<std::string> own;
    for (const std::string& e : errors(cap)) {
      if (startsWith(e, "Invalid Pim DF")) own.push_back(e);
    }
    EXPECT_EQ(own, c.texts);
  }
}

TEST(DfElection, TruncationAtEveryLength) {
  const Bytes backoff = dfElection(0x30, concat({common(false), unicast("10.0.0.3"), u32(100), u32(10), {0x03, 0xe8}}));
  checkTruncations(backoff,
                   {{4, "Invalid Pim DF Election Backoff - Read Error"},
                    {6, "Invalid Pim DF Election Backoff - Read Error"},
                    {8, "Invalid Pim DF Election Backoff - Read Error"},
                    {6, "Invalid Pim DF Election Backoff - Offering Address - Parse Error"},
                    {10, "Invalid Pim DF Election Backoff - Offering Metric and Metric Preference Length - Remaining: "}},
                   v4Src, v4Dst,
                   [](const Loom::Ptr<Knet::Pkt>& p) { return message<DfElectionBackoffMessage>()->readDfElectionBackoffMessage(p, 0); },
                   true);
  const Bytes pass = dfElection(0x40, concat({common(true), unicast("2001:db8::3"), u32(100), u32(10)}), true);
  checkTruncations(pass,
                   {{4, "Invalid Pim DF Election Pass - Read Error"},
                    {18, "Invalid Pim DF Election Pass - Read Error"},
                    {8, "Invalid Pim DF Election Pass - Read Error"},
                    {18, "Invalid Pim DF Election Pass - New Winning Address - Parse Error"},
                    {8, "Invalid Pim DF Election Pass - New Winning Metric and Metric Preference Length - Remaining: "}},
                   v6Src, v6Dst,
                   [](const Loom::Ptr<Knet::Pkt>& p) { return message<DfElectionPassMessage>(true)->readDfElectionPassMessage(p, 0); },
                   true);
}

TEST(DfElection, WriteFailures) {
  struct Case {
    const char* name;
    Loom::Ptr<DfElectionMessage> m;
    const char* rp;
    const char* other;  // the offering or winning address
    U32 room;
    std::string error;
  };
  const Case cases[] = {
      {"common: no room for the header", message<DfElectionMessage>(), "10.0.0.9", "", 3,
       "Invalid Pim DF Election - Header - Unavailable Space - Remaining: 3"},
      {"common: a multicast RP", message<DfElectionMessage>(), "224.0.0.9", "", 64,
       "Invalid Pim DF Election - RP Address - Write Error"},
      {"common: no room for the metrics", message<DfElectionMessage>(), "10.0.0.9", "", 17,
       "Invalid Pim DF Election - Metric and Metric Preference - Unavailable Space - Remaining: 7 Expected: 8"},
      {"offer: its own text after the common one", message<DfElectionOfferMessage>(), "10.0.0.9", "", 17,
       "Invalid Pim DF Election Offer - Write Error"},
      {"winner: its own text after the common one", message<DfElectionWinnerMessage>(), "", "", 64,
       "Invalid Pim DF Election Winner - Write Error"},
      {"backoff: an ipv6 RP", message<DfElectionBackoffMessage>(), "2001:db8::9", "10.0.0.3", 64,
       "Invalid Pim DF Election Backoff - Invalid Family - Family: ipv6 RP Address: 2001:db8::9"},
      {"backoff: no offering address", message<DfElectionBackoffMessage>(), "10.0.0.9", "", 64,
       "Invalid Pim DF Election Backoff - Invalid Family - Family: ipUnknown(0) Offering Address: unset"},
      {"backoff: a multicast RP", message<DfElectionBackoffMessage>(), "224.0.0.9", "10.0.0.3", 64,
       "Invalid Pim DF Election Backoff - RP Address - Write Error"},
      {"backoff: no room for the metrics", message<DfElectionBackoffMessage>(), "10.0.0.9", "10.0.0.3", 12,
       "Invalid Pim DF Election Backoff - Metric and Metric Preference - Unavailable Space - Remaining: 2 Expected: 8"},
      {"backoff: a multicast offering address", message<DfElectionBackoffMessage>(), "10.0.0.9", "239.0.0.3", 64,
       "Invalid Pim DF Election Backoff - Offering Address - Write Error"},
      {"backoff: 9 bytes for the tail", message<DfElectionBackoffMessage>(), "10.0.0.9", "10.0.0.3", 33,
       "Invalid Pim DF Election Backoff - Offering Metric and Metric Preference - Unavailable Space - Remaining: 9 "
       "Expected: 10"},
      {"pass: an ipv6 winner", message<DfElectionPassMessage>(), "10.0.0.9", "2001:db8::3", 64,
       "Invalid Pim DF Election Pass - Invalid Family - Family: ipv6 Winning Address: 2001:db8::3"},
      {"pass: a multicast winner", message<DfElectionPassMessage>(), "10.0.0.9", "239.0.0.3", 64,
       "Invalid Pim DF Election Pass - Winning Address - Write Error"},
      {"pass: 7 bytes for the tail", message<DfElectionPassMessage>(), "10.0.0.9", "10.0.0.3", 31,
       "Invalid Pim DF Election Pass - Winning Metric and Metric Preference - Unavailable Space - Remaining: 7 Expected: 8"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (*c.rp) c.m->rpAddressIs(ip(c.rp));
    const Knet::IpGenAddr other = *c.other ? ip(c.other) : Knet::IpGenAddr();
    if (auto b = Loom::ptr_cast<DfElectionBackoffMessage>(c.m)) b->offeringAddressIs(other);
    if (auto s = Loom::ptr_cast<DfElectionPassMessage>(c.m)) s->winningAddressIs(other);
    Loom::TraceCapture cap(1);
    EXPECT_EQ(write(c.m, pkt(Bytes(c.room))), 0u);
    const std::vector<std::string> e = errors(cap);
    ASSERT_FALSE(e.empty());
    EXPECT_EQ(e.back(), c.error);
  }
}

using DfElectionDeathTest = ::testing::Test;

// A subclass's operation on a message of another subtype is a programming error.
TEST(DfElectionDeathTest, SubtypeMismatchAborts) {
  const Bytes winner = dfElection(0x20, common(false));
  EXPECT_DEATH(message<DfElectionOfferMessage>()->readDfElectionOfferMessage(pkt(winner), 0),
               "dfElectionMessageType\\(\\) == dfElectionOffer\\(\\)");
  EXPECT_DEATH(message<DfElectionBackoffMessage>()->readDfElectionBackoffMessage(pkt(winner), 0),
               "dfElectionMessageType\\(\\) == dfElectionBackoff\\(\\)");
  auto pass = message<DfElectionPassMessage>();
  pass->dfElectionMessageTypeIs(dfElectionWinner());
  EXPECT_DEATH(pass->writeDfElectionPassMessage(pkt(Bytes(64)), 0), "dfElectionMessageType\\(\\) == dfElectionPass\\(\\)");
  auto w = message<DfElectionWinnerMessage>();
  w->dfElectionMessageTypeIs(dfElectionOffer());
  EXPECT_DEATH(w->writeDfElectionWinnerMessage(pkt(Bytes(64)), 0), "dfElectionMessageType\\(\\) == dfElectionWinner\\(\\)");
}

}  // namespace
}  // namespace Routing::Pim::Packet
