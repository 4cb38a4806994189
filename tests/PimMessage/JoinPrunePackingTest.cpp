// Packing of random join/prune trees: every message the encoder writes fits the MTU, holds at most
// 255 groups and decodes; together the messages carry every entry exactly once (triggered trees)
// or every entry that is not suppressed (periodic trees).
#include "PimMessage/JoinPruneMessage.h"
#include "support/CodecTest.h"
#include "support/JoinPruneTrees.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;

TEST(JoinPrunePacking, RandomTreesDrainExactly) {
  int messages = 0, splitGroups = 0, fullGroupCounts = 0;
  for (U32 seed = 1; seed <= 240; ++seed) {
    GeneratedTree gen = generateTree(seed);
    const bool v6 = gen.v6, periodic = gen.periodic, bidir = gen.bidir;
    const U32 mtu = gen.mtu;
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
