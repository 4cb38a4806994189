// Packing of random join/prune trees: every message the encoder writes fits the MTU, holds at most
// 255 groups and decodes; together the messages carry every entry exactly once (triggered trees)
// or every entry that is not suppressed (periodic trees).
#include <map>
#include <random>
#include <set>

#include "PimMessage/JoinPruneMessage.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;

// One entry of a tree, as "GROUP KIND ADDRESS".
using Entries = std::map<std::string, int>;

std::string key(const Knet::IpGenAddr& g, const char* kind, const Knet::IpGenAddr& a) {
  return g.str() + " " + kind + " " + a.str();
}

void collect(const JoinPruneData& d, Entries& out) {
  for (const auto& [addr, g] : d.joinPruneGroupData()) {
    for (const auto& s : g->joinedRptSource()) ++out[key(addr, "rptJoin", s)];
    for (const auto& s : g->joinedSource()) ++out[key(addr, "join", s)];
    if (const auto& wc = g->wcSourceData()) ++out[key(addr, wc->join ? "wcJoin" : "wcPrune", wc->rp)];
    if (g->rptPrunedGroupData()) {
      for (const auto& [s, v] : g->rptPrunedGroupData()->prunedRptSource()) ++out[key(addr, "rptPrune", s)];
    }
    for (const auto& s : g->prunedSource()) ++out[key(addr, "prune", s)];
  }
}

struct Generated {
  Loom::Ptr<JoinPruneData> tree;
  Entries expected;  // what the messages must carry
  U32 suppressed = 0;
};

// ff0e::/16 or 2001:db8::/32 with 32 random bits; 225-238.x or 10-109.x; never a zero last byte.
Knet::IpGenAddr randomAddress(std::mt19937& rng, bool v6, bool group) {
  U8 b[16] = {};
  if (v6) {
    b[0] = group ? 0xff : 0x20, b[1] = group ? 0x0e : 0x01, b[2] = group ? 0 : 0x0d, b[3] = group ? 0 : 0xb8;
  } else {
    b[0] = group ? U8(225 + rng() % 14) : U8(10 + rng() % 100);
  }
  const int last = v6 ? 15 : 3;
  for (int i = v6 ? 12 : 1; i <= last; ++i) b[i] = U8(rng());
  b[last] |= 1;
  return Knet::IpGenAddr::fromBytes(v6 ? Knet::AddressFamily::ipv6 : Knet::AddressFamily::ipv4, b);
}

// A tree without contradictions inside a group: every source appears in one collection only,
// (S,G,rpt) joins only where there is no (*,G) entry, (S,G,rpt) prunes never beside a (*,G)
// prune, and no (*,G) prune in a periodic tree (the encoder refuses those).
Generated generate(std::mt19937& rng, bool v6, bool periodic, bool bidir) {
  Generated out;
  out.tree = new JoinPruneData(Knet::IpGenAddr::parse(v6 ? "fe80::2" : "10.0.0.2").value());
  out.tree->holdTimeIs(210);
  out.tree->periodicIs(periodic);
  const U32 shape = rng() % 4;
  const U32 groups = shape == 0 ? 260 + rng() % 60 : shape == 1 ? 1 + rng() % 3 : 1 + rng() % 40;
  const U32 maxSources = shape == 1 ? 120 : 12;
  auto count = [&] { return rng() % (maxSources + 1); };
  std::set<Knet::IpGenAddr> used;
  auto fresh = [&](bool group) {
    Knet::IpGenAddr a;
    while (!used.insert(a = randomAddress(rng, v6, group)).second) {}
    return a;
  };
  for (U32 i = 0; i < groups; ++i) {
    JoinPruneGroupData& g = out.tree->joinPruneGroupDataIs(fresh(true));
    if (bidir) g.groupFlagsIs(0x80);
    if (shape == 0) {  // many groups of one entry each, to reach the 255-group limit
      switch (rng() % 5) {
        case 0: g.joinedSourceIs(fresh(false)); break;
        case 1: g.prunedSourceIs(fresh(false)); break;
        case 2: g.prunedRptSourceIs(fresh(false)); break;
        case 3: g.joinedRptSourceIs(fresh(false)); break;
        default: g.wcSourceDataIs(fresh(false), periodic || rng() % 2); break;
      }
      continue;
    }
    const U32 wcKind = rng() % 3;  // none, join, prune
    const bool wcJoin = wcKind == 1 || (wcKind == 2 && periodic);
    if (wcKind != 0) g.wcSourceDataIs(fresh(false), wcJoin);
    for (U32 n = wcKind == 0 ? count() / 2 : 0; n > 0; --n) g.joinedRptSourceIs(fresh(false));
    for (U32 n = count(); n > 0; --n) g.joinedSourceIs(fresh(false));
    for (U32 n = count(); n > 0; --n) g.prunedSourceIs(fresh(false));
    for (U32 n = wcKind != 2 || wcJoin ? count() : 0; n > 0; --n) g.prunedRptSourceIs(fresh(false));
    if (!periodic) continue;
    for (const auto& s : g.joinedSource()) {
      if (rng() % 4 == 0) g.joinSuppressSourceIs(s);
    }
    if (g.wcSourceData() && rng() % 3 == 0) g.wcSuppressedIs(true);
  }
  collect(*out.tree, out.expected);
  if (!periodic) return out;
  for (const auto& [addr, g] : out.tree->joinPruneGroupData()) {
    for (const auto& s : g->joinSuppressSource()) out.suppressed += U32(out.expected.erase(key(addr, "join", s)));
    if (g->wcSourceData() && g->wcSourceData()->wcSuppressed && g->prunedRptSources() == 0) {
      out.suppressed += U32(out.expected.erase(key(addr, "wcJoin", g->wcSourceData()->rp)));
    }
  }
  return out;
}

TEST(JoinPrunePacking, RandomTreesDrainExactly) {
  const U32 mtus[] = {200, 576, 1280, 1500, 9000};
  int messages = 0, splitGroups = 0, fullGroupCounts = 0;
  for (U32 seed = 1; seed <= 240; ++seed) {
    std::mt19937 rng(seed);
    const bool v6 = rng() % 2;
    const bool periodic = rng() % 2;
    const bool bidir = rng() % 6 == 0;
    const U32 mtu = mtus[rng() % 5];
    Generated gen = generate(rng, v6, periodic, bidir);
    SCOPED_TRACE("seed " + std::to_string(seed) + (v6 ? " IPv6" : " IPv4") + (periodic ? " periodic" : " triggered") +
                 " mtu " + std::to_string(mtu));
    Entries before;
    collect(*gen.tree, before);
    const U32 room = (mtu - (v6 ? 40 : 20)) / 8 * 8;
    auto message = [&] {
      auto m = joinPruneMessageFactory();
      m->srcIpIs(ip(v6 ? "fe80::1" : "10.0.0.1"));
      m->dstIpIs(ip(v6 ? "ff02::d" : "224.0.0.13"));
      m->bidirIs(bidir);
      return m;
    };
    auto m = message();
    m->mtuIs(mtu);
    m->joinPruneDataIs(gen.tree);
    Entries carried;
    U32 processed = 0, suppressed = 0;
    const U32 bound = gen.tree->routes() + U32(gen.tree->joinPruneGroupData().size()) + 2;
    U32 calls = 0;
    for (; calls < bound; ++calls) {
      auto p = pkt(Bytes(mtu));
      const U32 n = m->writeJoinPruneMessage(p, 0, nullptr);
      if (n == 0) break;
      ++messages;
      ASSERT_LE(n, room);
      processed += m->report().processed;
      suppressed += m->report().suppressed;
      EXPECT_EQ(m->report().filtered, 0u);
      auto back = message();
      Loom::TraceCapture cap(1);
      ASSERT_EQ(back->readJoinPruneMessage(pkt(Bytes(p->data(), p->data() + n)), 0, nullptr), n) << firstError(cap);
      const JoinPruneData& got = *back->joinPruneData();
      ASSERT_LE(got.joinPruneGroupData().size(), 255u);
      if (got.joinPruneGroupData().size() == 255) ++fullGroupCounts;
      EXPECT_EQ(back->report(), (JoinPruneMessage::Report{m->report().processed, 0, 0}))
          << "the receiver resolved a contradiction";
      collect(got, carried);
      if (!gen.tree->bookmark()) break;
      if (gen.tree->bookmark()->source.isSet()) ++splitGroups;
    }
    ASSERT_LT(calls, bound) << "the encoder did not finish";
    EXPECT_FALSE(gen.tree->bookmark());
    EXPECT_EQ(carried, gen.expected) << "each entry once";
    EXPECT_EQ(processed, gen.expected.size());
    EXPECT_EQ(suppressed, gen.suppressed);
    Entries after;
    collect(*gen.tree, after);
    EXPECT_EQ(after, periodic ? before : Entries()) << "a periodic tree keeps its entries, a triggered one is drained";
    EXPECT_EQ(gen.tree->empty(), !periodic);
    for (const auto& [addr, g] : gen.tree->joinPruneGroupData()) EXPECT_TRUE(g->joinSuppressSource().empty()) << addr;
  }
  // The seeds reach what the test is about.
  EXPECT_GT(messages, 400);
  EXPECT_GT(splitGroups, 20) << "few messages stopped inside a group";
  EXPECT_GT(fullGroupCounts, 0) << "no message reached 255 groups";
}

}  // namespace
}  // namespace Routing::Pim::Packet
