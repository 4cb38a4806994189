// The Join/Prune message: golden packets of both families, the decoder's conflict resolution and
// filters, every failure text of both directions, truncation, and the encoder's packing,
// bookmarks, suppression and filtering.
#include "PimMessage/JoinPruneMessage.h"

#include <algorithm>
#include <functional>
#include <sstream>

#include "PimMessage/EncodedAddress.h"
#include "loom/LogMessage.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;
using Report = JoinPruneMessage::Report;

const Knet::IpGenAddr v4Src = ip("10.0.0.1");
const Knet::IpGenAddr v4Dst = ip("224.0.0.13");
const Knet::IpGenAddr v6Src = ip("fe80::1");
const Knet::IpGenAddr v6Dst = ip("ff02::d");

// Four groups, one of each mix, as the encoder lays them out: in each group the (S,G,rpt) joins,
// the (S,G) joins and a (*,G) join form the joined list; a (*,G) prune, the (S,G,rpt) prunes and
// the (S,G) prunes the pruned list. Every source carries the S bit.
const Bytes goldenV4 = {
    0x23, 0x00, 0x00, 0x00,                          // version 2, type 3 Join/Prune, reserved, checksum
    0x01, 0x00, 0x0a, 0x00, 0x00, 0x02,              // upstream neighbor: family 1, encoding 0, 10.0.0.2
    0x00, 0x04, 0x00, 0xd2,                          // reserved, 4 groups, holdtime 210 s
    0x01, 0x00, 0x00, 0x20, 0xe1, 0x01, 0x01, 0x01,  // group 225.1.1.1/32, flags 0
    0x00, 0x01, 0x00, 0x02,                          //   1 joined, 2 pruned
    0x01, 0x00, 0x07, 0x20, 0x0a, 0x01, 0x01, 0x01,  //   joined (*,G): S W R, RP 10.1.1.1/32
    0x01, 0x00, 0x05, 0x20, 0x0a, 0x02, 0x02, 0x02,  //   pruned (S,G,rpt): S R, 10.2.2.2/32
    0x01, 0x00, 0x05, 0x20, 0x0a, 0x02, 0x02, 0x03,  //   pruned (S,G,rpt): S R, 10.2.2.3/32
    0x01, 0x00, 0x00, 0x20, 0xe8, 0x01, 0x01, 0x01,  // group 232.1.1.1/32, flags 0
    0x00, 0x02, 0x00, 0x01,                          //   2 joined, 1 pruned
    0x01, 0x00, 0x04, 0x20, 0x0a, 0x03, 0x03, 0x03,  //   joined (S,G): S, 10.3.3.3/32
    0x01, 0x00, 0x04, 0x20, 0x0a, 0x03, 0x03, 0x04,  //   joined (S,G): S, 10.3.3.4/32
    0x01, 0x00, 0x04, 0x20, 0x0a, 0x03, 0x03, 0x05,  //   pruned (S,G): S, 10.3.3.5/32
    0x01, 0x00, 0x00, 0x20, 0xe9, 0x01, 0x01, 0x01,  // group 233.1.1.1/32, flags 0
    0x00, 0x02, 0x00, 0x00,                          //   2 joined, 0 pruned
    0x01, 0x00, 0x05, 0x20, 0x0a, 0x04, 0x04, 0x04,  //   joined (S,G,rpt): S R, 10.4.4.4/32
    0x01, 0x00, 0x04, 0x20, 0x0a, 0x04, 0x04, 0x05,  //   joined (S,G): S, 10.4.4.5/32
    0x01, 0x00, 0x01, 0x20, 0xef, 0x01, 0x01, 0x01,  // group 239.1.1.1/32, flags Z
    0x00, 0x00, 0x00, 0x02,                          //   0 joined, 2 pruned
    0x01, 0x00, 0x07, 0x20, 0x0a, 0x01, 0x01, 0x01,  //   pruned (*,G): S W R, RP 10.1.1.1/32
    0x01, 0x00, 0x04, 0x20, 0x0a, 0x05, 0x05, 0x05,  //   pruned (S,G): S, 10.5.5.5/32
};

// The entries of goldenV4, in the order the tree keeps them.
const std::vector<std::string> goldenV4Entries = {
    "225.1.1.1: (*,G) join 10.1.1.1",       "225.1.1.1: (S,G,rpt) prune 10.2.2.2",
    "225.1.1.1: (S,G,rpt) prune 10.2.2.3",  "232.1.1.1: (S,G) join 10.3.3.3",
    "232.1.1.1: (S,G) join 10.3.3.4",       "232.1.1.1: (S,G) prune 10.3.3.5",
    "233.1.1.1: (S,G,rpt) join 10.4.4.4",   "233.1.1.1: (S,G) join 10.4.4.5",
    "239.1.1.1: (*,G) prune 10.1.1.1",      "239.1.1.1: (S,G) prune 10.5.5.5",
};

// From fe80::1 to ff02::d; the checksum covers the pseudo-header.
const Bytes goldenV6 = {
    0x23, 0x00, 0x00, 0x00,                                         // version 2, type 3 Join/Prune, reserved, checksum
    0x02, 0x00,                                                     // upstream neighbor: family 2, encoding 0,
    0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02,        //   fe80::2
    0x00, 0x02, 0x00, 0x69,                                         // reserved, 2 groups, holdtime 105 s
    0x02, 0x00, 0x00, 0x80,                                         // group: family 2, encoding 0, flags 0, /128
    0xff, 0x0e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01,        //   ff0e::1
    0x00, 0x01, 0x00, 0x01,                                         //   1 joined, 1 pruned
    0x02, 0x00, 0x07, 0x80,                                         //   joined (*,G): S W R, /128
    0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01,  //   RP 2001:db8::1
    0x02, 0x00, 0x05, 0x80,                                         //   pruned (S,G,rpt): S R, /128
    0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02,  //   2001:db8::2
    0x02, 0x00, 0x00, 0x80,                                         // group: family 2, encoding 0, flags 0, /128
    0xff, 0x3e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0, 0x01,     //   ff3e::8000:1
    0x00, 0x01, 0x00, 0x01,                                         //   1 joined, 1 pruned
    0x02, 0x00, 0x04, 0x80,                                         //   joined (S,G): S, /128
    0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10,  //   2001:db8::10
    0x02, 0x00, 0x04, 0x80,                                         //   pruned (S,G): S, /128
    0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x11,  //   2001:db8::11
};

const std::vector<std::string> goldenV6Entries = {
    "ff0e::1: (*,G) join 2001:db8::1",
    "ff0e::1: (S,G,rpt) prune 2001:db8::2",
    "ff3e::8000:1: (S,G) join 2001:db8::10",
    "ff3e::8000:1: (S,G) prune 2001:db8::11",
};

Bytes checksummed(Bytes b, bool v6) {
  fixChecksum(b, v6 ? v6Src : v4Src, v6 ? v6Dst : v4Dst);
  return b;
}

Loom::Ptr<JoinPruneMessage> message(bool v6 = false) {
  auto m = joinPruneMessageFactory();
  m->srcIpIs(v6 ? v6Src : v4Src);
  m->dstIpIs(v6 ? v6Dst : v4Dst);
  return m;
}

// Deny 225.1.1.0/24, permit the rest of the IPv4 multicast range.
Loom::Ptr<Boundary::IntfBoundary> boundary() {
  auto b = Boundary::intfBoundaryFactory();
  b->ruleIs(*Knet::IpGenPrefix::parse("225.1.1.0/24"), false);
  b->ruleIs(*Knet::IpGenPrefix::parse("224.0.0.0/4"), true);
  b->ruleIs(*Knet::IpGenPrefix::parse("ff00::/8"), true);
  return b;
}

// ---- Trees as lists of entries: "GROUP: KIND ADDRESS" ----

constexpr const char* kinds[] = {"(S,G,rpt) join", "(S,G) join", "(*,G) join", "(*,G) prune", "(S,G,rpt) prune",
                                 "(S,G) prune"};

// Every entry of the tree, group by group in the tree's order, each group in packing order.
std::vector<std::string> entries(const JoinPruneData& d) {
  std::vector<std::string> out;
  for (const auto& [addr, g] : d.joinPruneGroupData()) {
    const std::string prefix = addr.str() + ": ";
    for (const auto& s : g->joinedRptSource()) out.push_back(prefix + "(S,G,rpt) join " + s.str());
    for (const auto& s : g->joinedSource()) out.push_back(prefix + "(S,G) join " + s.str());
    if (const auto& wc = g->wcSourceData()) {
      out.push_back(prefix + (wc->join ? "(*,G) join " : "(*,G) prune ") + wc->rp.str());
    }
    if (g->rptPrunedGroupData()) {
      for (const auto& [s, v] : g->rptPrunedGroupData()->prunedRptSource()) {
        out.push_back(prefix + "(S,G,rpt) prune " + s.str());
      }
    }
    for (const auto& s : g->prunedSource()) out.push_back(prefix + "(S,G) prune " + s.str());
  }
  return out;
}

// Adds one entry given as entries() writes it.
void addEntry(JoinPruneData& d, const std::string& e) {
  using G = JoinPruneGroupData;
  using Add = void (*)(G&, const Knet::IpGenAddr&);
  constexpr Add adds[] = {
      [](G& g, const Knet::IpGenAddr& a) { g.joinedRptSourceIs(a); },
      [](G& g, const Knet::IpGenAddr& a) { g.joinedSourceIs(a); },
      [](G& g, const Knet::IpGenAddr& a) { g.wcSourceDataIs(a, true); },
      [](G& g, const Knet::IpGenAddr& a) { g.wcSourceDataIs(a, false); },
      [](G& g, const Knet::IpGenAddr& a) { g.prunedRptSourceIs(a); },
      [](G& g, const Knet::IpGenAddr& a) { g.prunedSourceIs(a); },
  };
  const size_t colon = e.find(": "), space = e.rfind(' ');
  const std::string kind = e.substr(colon + 2, space - colon - 2);
  const auto k = std::find(std::begin(kinds), std::end(kinds), kind);
  ASSERT_NE(k, std::end(kinds)) << "unknown entry " << e;
  adds[k - std::begin(kinds)](d.joinPruneGroupDataIs(ip(e.substr(0, colon).c_str())), ip(e.substr(space + 1).c_str()));
}

Loom::Ptr<JoinPruneData> tree(const std::vector<std::string>& list, bool v6 = false, bool periodic = false) {
  Loom::Ptr<JoinPruneData> d = new JoinPruneData(ip(v6 ? "fe80::2" : "10.0.0.2"));
  d->holdTimeIs(v6 ? 105 : 210);
  d->periodicIs(periodic);
  for (const auto& e : list) addEntry(*d, e);
  return d;
}

Loom::Ptr<JoinPruneMessage> writer(const Loom::Ptr<JoinPruneData>& d, bool v6 = false, U32 mtu = 1500) {
  auto m = message(v6);
  m->joinPruneDataIs(d);
  m->mtuIs(mtu);
  return m;
}

// Writes one message into a buffer of `size` bytes at `offset`; the bytes written, empty on failure.
Bytes write(const Loom::Ptr<JoinPruneMessage>& m, U32 size = 1500, U32 offset = 0,
            const Loom::Ptr<Boundary::IntfBoundary>& b = nullptr) {
  auto p = pkt(Bytes(size));
  const U32 n = m->writeJoinPruneMessage(p, offset, b);
  if (n == 0) return {};
  EXPECT_LE(offset + n, p->size());
  return Bytes(p->data() + offset, p->data() + offset + n);
}

// Decodes bytes that the encoder wrote; the decoded entries.
std::vector<std::string> decoded(const Bytes& b, bool v6 = false, bool bidir = false) {
  auto m = message(v6);
  m->bidirIs(bidir);
  Loom::TraceCapture cap(1);
  EXPECT_EQ(m->readJoinPruneMessage(pkt(b), 0, nullptr), b.size()) << firstError(cap);
  return m->joinPruneData() ? entries(*m->joinPruneData()) : std::vector<std::string>{};
}

std::vector<std::string> linesAt(const Loom::TraceCapture& cap, int lo, int hi) {
  std::vector<std::string> out;
  for (const auto& l : cap.lines()) {
    if (l.level >= lo && l.level <= hi) out.push_back(l.text);
  }
  return out;
}

// ---- Packets from a description, laid out by hand after the wire format ----

constexpr U8 kSg = 0x04;     // S
constexpr U8 kSgRpt = 0x05;  // S, RPT
constexpr U8 kStarG = 0x07;  // S, WC, RPT

struct Src {
  const char* addr;
  U8 flags;
  U8 mask = 0;  // 0: the host length of the family
};
Src sg(const char* a) { return {a, kSg}; }
Src rpt(const char* a) { return {a, kSgRpt}; }
Src wc(const char* a) { return {a, kStarG}; }

struct Grp {
  const char* addr;
  std::vector<Src> joined;
  std::vector<Src> pruned = {};
  U8 flags = 0;
};

// An IPv4 message from upstream 10.0.0.2 with holdtime 210 s.
Bytes build(const std::vector<Grp>& groups, const Bytes& trailing = {}) {
  auto encoded = [](const char* text, U8 flags, U8 mask) {
    return encodedGroupBytes(text, mask ? mask : U8(ip(text).byteLength() * 8), flags);
  };
  Bytes b = concat({{0x23, 0x00, 0x00, 0x00}, encodedUnicastBytes("10.0.0.2"), {0x00, U8(groups.size()), 0x00, 0xd2}});
  for (const Grp& g : groups) {
    b = concat({b, encoded(g.addr, g.flags, 0), {0, U8(g.joined.size()), 0, U8(g.pruned.size())}});
    for (const Src& s : g.joined) b = concat({b, encoded(s.addr, s.flags, s.mask)});
    for (const Src& s : g.pruned) b = concat({b, encoded(s.addr, s.flags, s.mask)});
  }
  return checksummed(concat({b, trailing}), false);
}

// ======================================================================== golden packets

// Bytes -> tree; the agent's tree -> the same bytes (written as a triggered message, which empties
// the tree); and bytes -> tree -> bytes at an offset with a reserved byte that is not zero.
TEST(JoinPruneCodec, GoldenPackets) {
  struct Case {
    bool v6;
    const Bytes& golden;
    const std::vector<std::string>& list;
    const char* upstream;
    U16 holdtime;
  };
  for (const Case& c : {Case{false, goldenV4, goldenV4Entries, "10.0.0.2", 210},
                        Case{true, goldenV6, goldenV6Entries, "fe80::2", 105}}) {
    SCOPED_TRACE(c.v6 ? "IPv6" : "IPv4");
    const Bytes b = checksummed(c.golden, c.v6);
    auto m = message(c.v6);
    Loom::TraceCapture cap(1);
    ASSERT_EQ(m->readJoinPruneMessage(pkt(b), 0, nullptr), b.size()) << firstError(cap);
    const JoinPruneData& d = *m->joinPruneData();
    EXPECT_EQ(d.upstream(), ip(c.upstream));
    EXPECT_EQ(d.holdTime(), c.holdtime);
    EXPECT_EQ(entries(d), c.list);
    EXPECT_EQ(m->report(), (Report{U32(c.list.size()), 0, 0}));

    auto t = tree(c.list, c.v6);
    if (!c.v6) {
      EXPECT_EQ(m->joinPruneData()->joinPruneGroupData(ip("239.1.1.1"))->groupFlags(), 0x01);
      t->joinPruneGroupData(ip("239.1.1.1"))->groupFlagsIs(0x01);
    }
    auto w = writer(t, c.v6);
    EXPECT_EQ(write(w), b);
    EXPECT_EQ(w->report(), m->report());
    EXPECT_TRUE(t->empty()) << "a triggered message kept what it wrote";
    EXPECT_FALSE(t->bookmark());

    Bytes reserved = c.golden;
    reserved[c.v6 ? 22 : 10] = 0xa5;  // behind the upstream neighbor
    const Bytes r = checksummed(reserved, c.v6);
    auto in = message(c.v6);
    ASSERT_EQ(in->readJoinPruneMessage(pkt(concat({Bytes(40, 0xee), r})), 40, nullptr), r.size());
    EXPECT_EQ(write(writer(in->joinPruneData(), c.v6), 1540, 40), r);
  }
}

// ======================================================================== decoder

// Each row is a whole message: what survives per group, the report and the texts.
TEST(JoinPruneRead, ConflictResolutionAndFilters) {
  struct Row {
    const char* name;
    std::vector<Grp> groups;
    std::vector<std::string> tree;           // the entries that survive
    Report report;                           // processed, suppressed, filtered
    std::vector<std::string> errors = {};    // level 1, in order
    std::vector<std::string> notes = {};     // levels 5 and 6, in order
    bool accepted = true;
    bool boundary = false;
    Bytes trailing = {};
  };
  const std::string multipleStarG =
      "Invalid Pim Join/Prune Source - Received multiple (*,G) join sources. Removing [RP: ";
  const std::string source = "Invalid Pim Join/Prune Source - Source ";
  const std::string bothRpt =
      " is both joined and pruned (S,G,rpt) source.  Only processing it as a pruned (S,G,rpt) source.";
  const std::string bothSgRpt =
      " is both joined (S,G) source and pruned (S,G,rpt) source. Only processing it as a (S,G) source.";
  const std::string bothSg = " is both joined and pruned (S,G) source.  Only processing  it as a pruned (S,G) source.";
  const std::string wcNoRpt = "Invalid Pim Join/Prune - WC set, RPT cleared";
  const std::string skipJoined = "Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: ";
  const std::string skipPruned = "Warning: Pim Join/Prune - Pruned Source Address - Skipping Invalid Address: ";
  const std::string invalidPrefix = "Warning: Pim Join/Prune - Group Address - Skipping Invalid Prefix: ";
  const std::string bidirFilter = "Pim Join/Prune - Bidirectional Filter - Filtered Group Address: ";
  const std::string zeroSources = "Invalid Pim Join/Prune - Zero Num Sources In Group ";
  const std::string zeroValid = "Invalid Pim Join/Prune - Zero Valid Num Groups";
  const char* G = "225.1.1.1";
  const char* G2 = "226.1.1.1";

  const Row rows[] = {
      {.name = "entry kinds do not need the S bit",
       .groups = {{G, {{"10.1.1.1", 0x03}, {"10.3.3.3", 0x00}}, {{"10.2.2.2", 0x01}}}},
       .tree = {"225.1.1.1: (S,G) join 10.3.3.3", "225.1.1.1: (*,G) join 10.1.1.1", "225.1.1.1: (S,G,rpt) prune 10.2.2.2"},
       .report = {3, 0, 0}},
      {.name = "multiple (*,G) joins: the last one stays",
       .groups = {{G, {wc("10.1.1.1"), wc("10.1.1.2"), wc("10.1.1.3")}}}, .tree = {"225.1.1.1: (*,G) join 10.1.1.3"},
       .report = {1, 2, 0},
       .errors = {multipleStarG + "10.1.1.1] and using [RP: 10.1.1.2]", multipleStarG + "10.1.1.2] and using [RP: 10.1.1.3]"}},
      {.name = "(S,G,rpt) joins after a (*,G) join are dropped",
       .groups = {{G, {wc("10.1.1.1"), rpt("10.2.2.1"), rpt("10.2.2.2"), sg("10.3.3.3")}}},
       .tree = {"225.1.1.1: (S,G) join 10.3.3.3", "225.1.1.1: (*,G) join 10.1.1.1"}, .report = {2, 2, 0}},
      {.name = "(S,G,rpt) joins before a (*,G) join are removed, in that group only",
       .groups = {{G, {rpt("10.2.2.1"), rpt("10.2.2.2"), wc("10.1.1.1")}}, {G2, {rpt("10.2.2.1")}}},
       .tree = {"225.1.1.1: (*,G) join 10.1.1.1", "226.1.1.1: (S,G,rpt) join 10.2.2.1"}, .report = {2, 2, 0}},
      {.name = "(*,G) join and prune: the prune stays", .groups = {{G, {wc("10.1.1.1")}, {wc("10.1.1.9")}}},
       .tree = {"225.1.1.1: (*,G) prune 10.1.1.9"}, .report = {1, 1, 0},
       .errors = {"Invalid Pim Join/Prune Source - Received (*,G) join and prune source. Removing (*,G) join [RP: 10.1.1.1] and using (*,G) prune [RP: 10.1.1.9]"}},
      {.name = "(*,G) prune drops the (S,G,rpt) entries before and after it",
       .groups = {{G, {rpt("10.2.2.1"), sg("10.3.3.3")}, {rpt("10.2.2.2"), wc("10.1.1.1"), rpt("10.2.2.3"), sg("10.3.3.4")}}},
       .tree = {"225.1.1.1: (S,G) join 10.3.3.3", "225.1.1.1: (*,G) prune 10.1.1.1", "225.1.1.1: (S,G) prune 10.3.3.4"},
       .report = {3, 3, 0}},
      {.name = "(S,G,rpt) joined and pruned: kept as the prune",
       .groups = {{G, {rpt("10.2.2.1"), rpt("10.2.2.5")}, {rpt("10.2.2.1")}}},
       .tree = {"225.1.1.1: (S,G,rpt) join 10.2.2.5", "225.1.1.1: (S,G,rpt) prune 10.2.2.1"}, .report = {2, 1, 0},
       .errors = {source + "10.2.2.1" + bothRpt}},
      {.name = "(S,G) join and (S,G,rpt) prune: kept as the (S,G) join",
       .groups = {{G, {wc("10.1.1.1"), sg("10.3.3.3")}, {rpt("10.3.3.3"), rpt("10.2.2.2")}}},
       .tree = {"225.1.1.1: (S,G) join 10.3.3.3", "225.1.1.1: (*,G) join 10.1.1.1", "225.1.1.1: (S,G,rpt) prune 10.2.2.2"},
       .report = {3, 1, 0}, .errors = {source + "10.3.3.3" + bothSgRpt}},
      {.name = "(S,G) joined and pruned: kept as the prune",
       .groups = {{G, {sg("10.3.3.3"), sg("10.3.3.4")}, {sg("10.3.3.3")}}},
       .tree = {"225.1.1.1: (S,G) join 10.3.3.4", "225.1.1.1: (S,G) prune 10.3.3.3"}, .report = {2, 1, 0},
       .errors = {source + "10.3.3.3" + bothSg}},
      {.name = "WC without RPT is skipped", .groups = {{G, {{"10.1.1.1", 0x06}, sg("10.3.3.3")}, {{"10.1.1.2", 0x02}}}},
       .tree = {"225.1.1.1: (S,G) join 10.3.3.3"}, .report = {1, 0, 0}, .errors = {wcNoRpt, wcNoRpt}},
      {.name = "invalid sources are skipped",
       .groups = {{G, {sg("232.9.9.9"), sg("0.0.0.0"), {"10.3.3.3", kSg, 24}, sg("10.3.3.4")}, {sg("224.0.0.5")}}},
       .tree = {"225.1.1.1: (S,G) join 10.3.3.4"}, .report = {1, 0, 0},
       .errors = {"Invalid Encoded Source Address - Not Unicast - Address: 232.9.9.9", "Invalid Encoded Source Address - All Zeros - Address: 0.0.0.0", "Invalid Encoded Source Address - Not Host Prefix - Prefix: 10.3.3.3/24", "Invalid Encoded Source Address - Not Unicast - Address: 224.0.0.5"},
       .notes = {skipJoined + "232.9.9.9", skipJoined + "0.0.0.0", skipJoined + "10.3.3.3", skipPruned + "224.0.0.5"}},
      {.name = "sources of the other family are skipped",
       .groups = {{G, {sg("2001:db8::1"), sg("10.3.3.3")}, {wc("2001:db8::2")}}},
       .tree = {"225.1.1.1: (S,G) join 10.3.3.3"}, .report = {1, 0, 0},
       .notes = {"Warning: Pim Join/Prune - Source Address - Mismatch in Address Family: ipv4Source Address: 2001:db8::1", "Warning: Pim Join/Prune - Source Address - Mismatch in Address Family: ipv4Source Address: 2001:db8::2"}},
      {.name = "group of the other family: filtered, its sources still read",
       .groups = {{"ff0e::1", {sg("10.3.3.3"), sg("10.3.3.4")}}, {G, {sg("10.3.3.5")}}},
       .tree = {"225.1.1.1: (S,G) join 10.3.3.5"}, .report = {1, 0, 2},
       .notes = {"Warning: Pim Join/Prune - Group Address - Mismatch in Address Family: ipv4Group Address: ff0e::1"}},
      {.name = "group that is not multicast: filtered",
       .groups = {{"10.9.9.9", {sg("10.3.3.3")}}, {G, {sg("10.3.3.5")}}}, .tree = {"225.1.1.1: (S,G) join 10.3.3.5"},
       .report = {1, 0, 1}, .errors = {"Invalid Encoded Group Address - Not Multicast - Address: 10.9.9.9"},
       .notes = {invalidPrefix + "10.9.9.9"}},
      {.name = "group outside the boundary: filtered",
       .groups = {{G, {wc("10.1.1.1")}, {rpt("10.2.2.2")}}, {G2, {sg("10.3.3.3")}}},
       .tree = {"226.1.1.1: (S,G) join 10.3.3.3"}, .report = {1, 0, 2},
       .notes = {"Filtered: Pim Join/Prune - Multicast Boundary - Filtered Group Address: 225.1.1.1"},
       .boundary = true},
      {.name = "bidirectional group in a sparse-mode message: filtered",
       .groups = {{G, {sg("10.3.3.3")}, {}, 0x80}, {G2, {sg("10.3.3.4")}}}, .tree = {"226.1.1.1: (S,G) join 10.3.3.4"},
       .report = {1, 0, 1}, .notes = {bidirFilter + "225.1.1.1 Bidirectional: 1 Msg Bidirectional Support: 0"}},
      {.name = "empty group", .groups = {{G, {}}, {G2, {sg("10.3.3.4")}}}, .tree = {"226.1.1.1: (S,G) join 10.3.3.4"},
       .report = {1, 0, 0}, .errors = {zeroSources + "225.1.1.1"}},
      {.name = "every group filtered: the counters, then the failure",
       .groups = {{G, {wc("10.1.1.1"), wc("10.1.1.2")}, {}, 0x80}, {"10.9.9.9", {sg("10.3.3.3")}}}, .tree = {},
       .report = {0, 1, 2},
       .errors = {multipleStarG + "10.1.1.1] and using [RP: 10.1.1.2]", "Invalid Encoded Group Address - Not Multicast - Address: 10.9.9.9", "0, 1, 2", zeroValid},
       .notes = {bidirFilter + "225.1.1.1 Bidirectional: 1 Msg Bidirectional Support: 0", invalidPrefix + "10.9.9.9"},
       .accepted = false},
      {.name = "every group filtered, then trailing bytes: the group failure wins", .groups = {{G, {}}}, .tree = {},
       .report = {0, 0, 0}, .errors = {zeroSources + "225.1.1.1", "0, 0, 0", zeroValid}, .accepted = false,
       .trailing = {0, 0}},
      // A group that comes again adds its entries under the same rules as one record would.
      {.name = "a group twice: an (S,G) join after the (S,G,rpt) prune of the first record",
       .groups = {{G, {}, {rpt("10.2.2.2")}}, {G, {sg("10.2.2.2")}, {}}}, .tree = {"225.1.1.1: (S,G) join 10.2.2.2"},
       .report = {1, 1, 0}, .errors = {source + "10.2.2.2" + bothSgRpt}},
      {.name = "bytes after the last group", .groups = {{G, {sg("10.3.3.3")}}},
       .tree = {"225.1.1.1: (S,G) join 10.3.3.3"}, .report = {1, 0, 0},
       .errors = {"Invalid Pim Join/Prune - End of Message - Remaining: 3"}, .accepted = false, .trailing = {0, 0, 0}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    const Bytes b = build(r.groups, r.trailing);
    auto m = message();
    Loom::TraceCapture cap(6);
    const U32 n = m->readJoinPruneMessage(pkt(b), 0, r.boundary ? boundary() : nullptr);
    EXPECT_EQ(n, r.accepted ? b.size() : 0u);
    EXPECT_EQ(errors(cap), r.errors);
    EXPECT_EQ(linesAt(cap, 5, 6), r.notes);
    EXPECT_EQ(m->report(), r.report);
    ASSERT_TRUE(m->joinPruneData());
    EXPECT_EQ(entries(*m->joinPruneData()), r.tree);
  }
}

// Failures before the groups are done: the message keeps no tree.
TEST(JoinPruneRead, RejectTable) {
  const Bytes header = {0x23, 0x00, 0x00, 0x00};
  const Bytes up4 = {0x01, 0x00, 0x0a, 0x00, 0x00, 0x02};
  const Bytes up6 = {0x02, 0x00, 0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02};
  const Bytes oneGroup = {0x00, 0x01, 0x00, 0xd2};
  const Bytes group = {0x01, 0x00, 0x00, 0x20, 0xe1, 0x01, 0x01, 0x01};
  struct Case {
    const char* name;
    Bytes bytes;
    std::vector<std::string> errors;
    bool v6 = false;
  };
  const Case cases[] = {
      {"three bytes",
       {0x23, 0x00, 0x00},
       {"Invalid Pim Message - Missing Pim Header - Remaining: 3", "Invalid Pim Join/Prune - Header - Parse Error"}},
      {"upstream encoding 1",
       concat({header, {0x01, 0x01, 0x0a, 0x00, 0x00, 0x02}, oneGroup}),
       {"Invalid Encoded Unicast Address - Invalid Encoding - Value: \x01",
        "Invalid Pim Join/Prune - Upstream Neighbor Address - Parse Error"}},
      {"upstream family 3",  // the only read of an unknown unicast family
       concat({header, {0x03, 0x00, 0x0a, 0x00, 0x00, 0x02}, oneGroup}),
       {"Invalid Unicast Address - Invalid Family - Value: \x03",
        "Invalid Pim Join/Prune - Upstream Neighbor Address - Parse Error"}},
      {"IPv6 upstream in an IPv4 message",
       concat({header, up6, oneGroup}),
       {"Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Family - Family: ipv4Upstream Address: fe80::2"}},
      {"IPv4 upstream in an IPv6 message",
       concat({header, up4, oneGroup}),
       {"Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Family - Family: ipv6Upstream Address: 10.0.0.2"},
       true},
      {"multicast upstream",
       concat({header, {0x01, 0x00, 0xe0, 0x00, 0x00, 0x05}, oneGroup}),
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.5",
        "Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Address: 224.0.0.5"}},
      {"group encoding 1",
       concat({header, up4, oneGroup, {0x01, 0x01, 0x00, 0x20, 0xe1, 0x01, 0x01, 0x01}}),
       {"Invalid Encoded Group Address - Invalid Encoding - Value: \x01",
        "Invalid Pim Join/Prune - Group Address - Parse Error"}},
      {"no joined source",
       concat({header, up4, oneGroup, group, {0, 1, 0, 0}}),
       {"Invalid Encoded Source Address - Family and Encoding Length - Remaining: 0 Expected: 4",
        "Invalid Pim Join/Prune - Joined Source Address - Parse Error"}},
      {"pruned source encoding 2",
       concat({header, up4, oneGroup, group, {0, 0, 0, 1}, {0x01, 0x02, 0x04, 0x20, 0x0a, 0x03, 0x03, 0x03}}),
       {"Invalid Encoded Source Address - Invalid Encoding - Value: \x02",
        "Invalid Pim Join/Prune - Pruned Source Address - Parse Error"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Bytes b = c.bytes.size() >= 4 ? checksummed(c.bytes, c.v6) : c.bytes;
    auto m = message(c.v6);
    Loom::TraceCapture cap(1);
    EXPECT_EQ(m->readJoinPruneMessage(pkt(b), 0, nullptr), 0u);
    EXPECT_EQ(errors(cap), c.errors);
    EXPECT_FALSE(m->joinPruneData());
  }
}

// Cut at every length of both golden packets: each field fails with its own failure.
TEST(JoinPruneRead, TruncationBothFamilies) {
  using E = EncodedAddressText;
  for (bool v6 : {false, true}) {
    SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
    const U32 a = v6 ? 16 : 4;  // the bytes of an address
    std::vector<Cut<Failure>> cuts = {{4, HeaderText::missingHeader},
                                      {2, E::unicastFamilyLength},
                                      {a, v6 ? E::unicastIp6Length : E::unicastIpLength},
                                      {4, JoinPruneText::infoLength}};
    for (int sources : v6 ? std::vector<int>{2, 2} : std::vector<int>{3, 3, 2, 2}) {  // the groups of the packet
      cuts.insert(cuts.end(), {{4, E::groupFamilyLength}, {a, E::groupIpLength}, {4, JoinPruneText::numSources}});
      for (int i = 0; i < sources; ++i) cuts.insert(cuts.end(), {{4, E::sourceFamilyLength}, {a, E::sourceIpLength}});
    }
    checkCuts<Failure>(checksummed(v6 ? goldenV6 : goldenV4, v6), cuts, v6 ? v6Src : v4Src, v6 ? v6Dst : v4Dst,
                       [v6](const Loom::Ptr<Knet::Pkt>& p) {
                         auto m = message(v6);
                         const U32 n = m->readJoinPruneMessage(p, 0, nullptr);
                         return RecordedOutcome{n, m->failure()};
                       });
  }
}

// ======================================================================== encoder failures

TEST(JoinPruneWrite, RejectTable) {
  struct Case {
    const char* name;
    std::function<void(JoinPruneMessage&, JoinPruneData&)> set;
    U32 mtu;
    U32 size;  // of the packet buffer
    std::vector<std::string> errors;
    Report report = {};
  };
  auto nothing = [](JoinPruneMessage&, JoinPruneData&) {};
  const std::string zeroGroups = "Invalid Pim Join/Prune - Zero Num Groups";
  const Case cases[] = {
      {"no address family",
       [](JoinPruneMessage& m, JoinPruneData&) {
         m.srcIpIs(Knet::IpGenAddr());
         m.dstIpIs(Knet::IpGenAddr());
       },
       1500, 1500, {"Invalid Pim Join/Prune - Unsupported Address Family - Af: ipUnknown(0)"}},
      {"MTU bigger than the buffer", nothing, 1500, 1479,
       {"Invalid Pim Join/Prune - MTU is bigger than buffer - MTU: 1480 Buffer: 1479"}},
      {"no room for the header", nothing, 27, 100,
       {"Invalid Pim Join/Prune - Header - Unavailable Space - Remaining: 0"}},
      {"upstream of the other family", [](JoinPruneMessage&, JoinPruneData& d) { d.upstreamIs(ip("fe80::2")); }, 1500,
       1500, {"Invalid Pim Join/Prune - Invalid Family - Family: ipv6 Upstream Address: fe80::2"}},
      {"multicast upstream", [](JoinPruneMessage&, JoinPruneData& d) { d.upstreamIs(ip("224.0.0.5")); }, 1500, 1500,
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.5",
        "Invalid Pim Join/Prune - Upstream Neighbor Address - Write Error"}},
      {"no room for the J/P info", nothing, 28, 100,
       {"Invalid Pim Join/Prune - J/P Info - Unavailable Space - Remaining: -2 Expected: 4"}},
      {"MTU too small for one group", nothing, 52, 100,
       {"Invalid Pim Join/Prune - Insufficient MTU Size - Remaining: 18 Minimum Expected: 20"}},
      {"periodic (*,G) prune refused",
       [](JoinPruneMessage&, JoinPruneData& d) {
         d.periodicIs(true);
         d.joinPruneGroupDataIs(ip("225.1.1.1")).entriesDelAll();
         d.joinPruneGroupDataIs(ip("225.1.1.1")).wcSourceDataIs(ip("10.1.1.1"), false);
       },
       1500, 1500, {"Invalid Pim Join/Prune - Periodic (*,G)-Prune", zeroGroups}, {0, 0, 1}},
      {"every group filtered",
       [](JoinPruneMessage&, JoinPruneData& d) { d.joinPruneGroupDataIs(ip("225.1.1.1")).groupFlagsIs(0x80); }, 1500,
       1500, {zeroGroups}, {0, 0, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto d = tree({"225.1.1.1: (S,G) join 10.3.3.3"});
    auto m = writer(d, false, c.mtu);
    c.set(*m, *d);
    const U32 routes = d->routes();
    Loom::TraceCapture cap(1);
    EXPECT_EQ(m->writeJoinPruneMessage(pkt(Bytes(c.size)), 0, nullptr), 0u);
    EXPECT_EQ(errors(cap), c.errors);
    EXPECT_EQ(m->report(), c.report);
    if (c.report.filtered == 0 || d->periodic()) {
      EXPECT_EQ(d->routes(), routes) << "a failed write changed the tree";
    }
  }
}

// What a triggered message leaves out is counted as filtered and deleted with the rest of the tree:
// entries and groups that cannot be written (level-1 texts and a log message each), and groups that
// the boundary (225.1.1.0/24 out), the bidirectional mode (226.1.1.1 is a B group) or the family
// keeps out (level-6 texts).
TEST(JoinPruneWrite, WhatIsLeftOut) {
  struct Case {
    const char* name;
    std::vector<std::string> list;
    std::vector<std::string> errors;   // level 1
    std::vector<std::string> filters;  // level 6
    std::vector<std::string> logs;     // "NAME: text"
    Report report;
    std::vector<std::string> written;
    bool bidir = false;
    bool badBookmark = false;
    bool kept = false;  // the entry left out stays in the tree (its group is written)
  };
  const std::string good = "227.1.1.1: (S,G) join 10.3.3.3";
  const std::string afMismatch = "PIM_MESSAGE_AF_MISMATCH: Attempted to send ipv4 Join/Prune message with ";
  const std::string boundaryText = "Pim Join/Prune - Multicast Boundary - Filtered Group Address: 225.1.1.1";
  const std::string bidirText = "Pim Join/Prune - Bidirectional Filter - Filtered Group Address: ";
  const std::vector<std::string> groups = {
      "225.1.1.1: (S,G) join 10.0.0.1", "225.1.1.1: (S,G) prune 10.0.0.2", "225.1.1.1: (S,G,rpt) prune 10.0.0.5",
      "226.1.1.1: (S,G) join 10.0.0.3", good, "ff0e::1: (S,G) join 2001:db8::1"};
  const Case cases[] = {
      {"bookmark without a group family", {good},
       {"Invalid bookmark in Pim Join/Prune - Group Address Family: ipUnknown(0) - Ignoring and Deleting Bookmark"},
       {}, {}, {1, 0, 0}, {good}, false, true},
      {"source of the other family", {good, "227.1.1.1: (S,G) join 2001:db8::1"},
       {"Pim Join/Prune - Invalid Family - Family: ipv6 Source Address: 2001:db8::1"}, {},
       {afMismatch + "2001:db8::1 address in the message"}, {1, 0, 1}, {good}, false, false, true},
      {"RP of the other family", {good, "227.1.1.1: (*,G) join 2001:db8::9"},
       {"Invalid Pim Join/Prune - Invalid Family - Family: ipv6 (*,G) RP Address: 2001:db8::9"}, {},
       {afMismatch + "2001:db8::9 address in the message"}, {1, 0, 1}, {good}, false, false, true},
      {"group that is not multicast",
       {"10.1.1.1: (S,G) join 10.3.3.3", "10.1.1.1: (S,G) prune 10.3.3.4", "10.1.1.1: (*,G) join 10.1.1.9", good},
       {"Invalid Encoded Group Address - Not Multicast - Address: 10.1.1.1", "Pim Join/Prune - Group Address - Write Error"},
       {}, {"PIM_MESSAGE_INVALID_ENCODED_GROUP: Attempted to send Join/Prune message with a non-multicast encoded group "
            "10.1.1.1"},
       {1, 0, 3}, {good}},
      {"multicast RP", {good, "227.1.1.1: (*,G) join 232.1.1.1"},
       {"Invalid Encoded Source Address - Not Unicast - Address: 232.1.1.1",
        "Invalid Pim Join/Prune - (*,G) RP Address - Write Error"}, {},
       {"PIM_MESSAGE_INVALID_ENCODED_SOURCE: Attempted to send Join/Prune message with a non-unicast encoded source "
        "232.1.1.1"}, {1, 0, 1}, {good}, false, false, true},
      {"sparse mode", groups, {},
       {boundaryText, bidirText + "226.1.1.1 Bidirectional: 1 Msg Bidirectional Support: 0",
        "Pim Join/Prune - Invalid Family - Family: ipv6 Group Address: ff0e::1"}, {}, {1, 0, 5}, {good}},
      {"bidirectional mode", groups, {},
       {boundaryText, bidirText + "227.1.1.1 Bidirectional: 0 Msg Bidirectional Support: 1",
        bidirText + "ff0e::1 Bidirectional: 0 Msg Bidirectional Support: 1"}, {}, {1, 0, 5},
       {"226.1.1.1: (S,G) join 10.0.0.3"}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto d = tree(c.list);
    if (auto g = d->joinPruneGroupData(ip("226.1.1.1"))) g->groupFlagsIs(0x80);
    if (c.badBookmark) d->bookmarkIs();
    auto m = writer(d);
    m->bidirIs(c.bidir);
    Loom::TraceCapture cap(6);
    Loom::LogCapture logs;
    const Bytes out = write(m, 1500, 0, c.list == groups ? boundary() : nullptr);
    EXPECT_EQ(errors(cap), c.errors);
    EXPECT_EQ(linesAt(cap, 6, 6), c.filters);
    std::vector<std::string> raised;
    for (const auto& l : logs.messages()) raised.push_back(l.name + ": " + l.text);
    EXPECT_EQ(raised, c.logs);
    EXPECT_EQ(m->report(), c.report);
    EXPECT_EQ(decoded(out, false, c.bidir), c.written);
    EXPECT_FALSE(d->bookmark());
    EXPECT_EQ(d->empty(), !c.kept);
    const auto left = entries(*d);
    EXPECT_EQ(std::count(left.begin(), left.end(), good), 0) << "a triggered message kept what it wrote";
  }
}

// ======================================================================== encoder packing

// Room is the MTU less the IP header, cut down to a multiple of 8 for both families.
TEST(JoinPruneWrite, RoomFromTheMtu) {
  std::vector<std::string> one;  // one IPv4 group of 200 joins: 26 bytes, then 8 per join
  for (U32 i = 1; i <= 200; ++i) one.push_back("225.1.1.1: (S,G) join " + Knet::IpGenAddr::ipv4(0x0a000000 + i).str());
  // Three IPv6 groups of 66, 1 and 1 joins: 1458 bytes in all, the third group needs 44.
  std::vector<std::string> three = {"ff0e::2: (S,G) join 2001:db8::1", "ff0e::3: (S,G) join 2001:db8::1"};
  for (int i = 1; i <= 66; ++i) three.push_back("ff0e::1: (S,G) join 2001:db8::" + std::to_string(i));
  struct Case {
    bool v6;
    U32 mtu;
    U32 length;
    U32 written;
    bool more;  // a bookmark is left
  };
  const Case cases[] = {
      {false, 1500, 1474, 181, true},  // room 1480: 181 joins, the 182nd would end at 1482
      {false, 1508, 1482, 182, true},  // room 1488
      {true, 1500, 1414, 67, true},    // room 1460 cut to 1456: 42 left, the third group stays out
      {true, 1504, 1458, 68, false},  // room 1464: everything
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.mtu) + (c.v6 ? " IPv6" : " IPv4"));
    auto d = tree(c.v6 ? three : one, c.v6);
    auto m = writer(d, c.v6, c.mtu);
    const Bytes out = write(m, c.mtu);
    EXPECT_EQ(out.size(), c.length);
    EXPECT_EQ(m->report().processed, c.written);
    EXPECT_EQ(decoded(out, c.v6).size(), c.written);
    EXPECT_EQ(bool(d->bookmark()), c.more);
  }
}

// A small MTU splits the tree; each message starts where the previous one stopped. mtu 84 leaves
// room for 64 bytes: one group with four entries.
TEST(JoinPruneWrite, BookmarkResume) {
  struct Case {
    const char* name;
    bool periodic;
    std::vector<std::string> list;
    std::vector<std::vector<std::string>> packets;
    std::vector<std::string> bookmarks;  // after each packet; "" for none
  };
  auto many = [](const char* kind, const char* prefix, int n) {
    std::vector<std::string> out;
    for (int i = 1; i <= n; ++i) out.push_back(std::string("225.1.1.1: ") + kind + " " + prefix + std::to_string(i));
    return out;
  };
  auto plus = [](std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  auto slice = [](const std::vector<std::string>& v, size_t from, size_t to) {
    return std::vector<std::string>(v.begin() + from, v.begin() + to);
  };
  const auto joins = many("(S,G) join", "10.0.0.", 4);
  const auto rptPrunes = many("(S,G,rpt) prune", "10.2.2.", 6);
  const std::string starG = "225.1.1.1: (*,G) join 10.1.1.1";
  const std::string starGPrune = "225.1.1.1: (*,G) prune 10.1.1.1";
  const std::string prune = "225.1.1.1: (S,G) prune 10.0.0.9";
  const std::vector<std::string> twoGroups = {"225.1.1.1: (S,G) join 10.0.0.1", "225.1.1.1: (S,G) join 10.0.0.2",
                                              "225.1.1.1: (S,G) join 10.0.0.3", "225.1.1.2: (S,G) join 10.0.0.1"};
  const Case cases[] = {
      {"periodic (S,G,rpt) prunes behind a (*,G) join", true, plus({starG}, rptPrunes),
       {plus({starG}, slice(rptPrunes, 0, 3)), slice(rptPrunes, 3, 6)},
       {"Bookmark: (225.1.1.1, 10.2.2.4) Collection: (S,G,rpt) Type: prune", ""}},
      {"triggered (*,G) join that no longer fits", false, plus(joins, {starG, prune}), {joins, {starG, prune}},
       {"Bookmark: (225.1.1.1, 10.1.1.1) Collection: (*,G) Type: join", ""}},
      {"a group that does not fit starts the next message", false, twoGroups,
       {slice(twoGroups, 0, 3), slice(twoGroups, 3, 4)},
       {"Bookmark: (225.1.1.2, unset) Collection: ", ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto d = tree(c.list, false, c.periodic);
    auto m = writer(d, false, 84);
    for (size_t i = 0; i < c.packets.size(); ++i) {
      SCOPED_TRACE("packet " + std::to_string(i + 1));
      const Bytes out = write(m, 84);
      EXPECT_LE(out.size(), 64u);
      EXPECT_EQ(decoded(out), c.packets[i]);
      std::ostringstream bookmark;
      if (d->bookmark()) bookmark << d->bookmark().ptr();
      EXPECT_EQ(bookmark.str(), c.bookmarks[i]);
    }
    if (c.periodic) {
      EXPECT_EQ(entries(*d), entries(*tree(c.list))) << "a periodic tree keeps its entries";
    } else {
      EXPECT_TRUE(d->empty());
    }
  }
}

// The agent may delete the bookmarked group between two messages: the next message starts at the
// group that follows it, and the bookmark is used up like any other.
TEST(JoinPruneWrite, BookmarkOfADeletedGroup) {
  for (bool periodic : {false, true}) {
    SCOPED_TRACE(periodic ? "periodic" : "triggered");
    auto d = tree({"225.1.1.1: (S,G) join 10.0.0.1", "225.1.1.9: (S,G) join 10.0.0.1"}, false, periodic);
    d->bookmarkIs().group = ip("225.1.1.5");
    auto m = writer(d);
    EXPECT_EQ(decoded(write(m)), std::vector<std::string>{"225.1.1.9: (S,G) join 10.0.0.1"});
    EXPECT_FALSE(d->bookmark()) << "the caller would send 225.1.1.9 again and again";
  }
}

TEST(JoinPruneWrite, PackedRptPrunesAreRecorded) {
  auto d = tree({"225.1.1.1: (*,G) join 10.1.1.1", "225.1.1.1: (S,G,rpt) prune 10.2.2.1"}, false, true);
  EXPECT_FALSE(d->joinPruneGroupData(ip("225.1.1.1"))->periodicPrunedRptGroupData());
  write(writer(d));
  const auto& packed = d->joinPruneGroupData(ip("225.1.1.1"))->periodicPrunedRptGroupData();
  ASSERT_TRUE(packed);
  EXPECT_TRUE(packed->prunedRptSourceHas(ip("10.2.2.1")));
  // Processing the (*,G) entry of a periodic group that still holds them stops the process.
  auto m = writer(d);
  EXPECT_DEATH(m->writeJoinPruneMessage(pkt(Bytes(1500)), 0, nullptr), "not data->periodic\\(\\)");
}

// Join suppression applies to periodic messages only; the marks are used up.
TEST(JoinPruneWrite, Suppression) {
  struct Case {
    const char* name;
    bool periodic;
    std::vector<std::string> list;
    std::vector<std::string> suppressJoins;  // "GROUP SOURCE"
    std::vector<const char*> suppressWc;     // groups
    std::vector<std::string> written;
    Report report;
    std::vector<std::string> writtenNext;    // by the next message; empty: not sent
  };
  const std::string j1 = "225.1.1.1: (S,G) join 10.0.0.1", j2 = "225.1.1.1: (S,G) join 10.0.0.2",
                    wc = "225.1.1.1: (*,G) join 10.1.1.1",
                    rptPrune = "225.1.1.1: (S,G,rpt) prune 10.2.2.1", other = "225.1.1.2: (S,G) join 10.0.0.1";
  const Case cases[] = {
      {"marked (*,G) join kept beside (S,G,rpt) prunes", true, {wc, rptPrune}, {}, {"225.1.1.1"}, {wc, rptPrune},
       {2, 0, 0}, {}},
      {"a triggered message ignores the marks", false, {j1, j2, wc, other}, {"225.1.1.1 10.0.0.2"}, {"225.1.1.1"},
       {j1, j2, wc, other}, {4, 0, 0}, {}},
      {"a group with every entry suppressed is taken back out", true, {j1, other}, {"225.1.1.1 10.0.0.1"}, {}, {other},
       {1, 1, 0}, {j1, other}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto d = tree(c.list, false, c.periodic);
    for (const auto& s : c.suppressJoins) {
      const size_t space = s.find(' ');
      d->joinPruneGroupData(ip(s.substr(0, space).c_str()))->joinSuppressSourceIs(ip(s.substr(space + 1).c_str()));
    }
    for (const char* g : c.suppressWc) d->joinPruneGroupData(ip(g))->wcSuppressedIs(true);
    auto m = writer(d);
    EXPECT_EQ(decoded(write(m)), c.written);
    EXPECT_EQ(m->report(), c.report);
    if (!c.periodic) {
      EXPECT_TRUE(d->empty());
      continue;
    }
    EXPECT_EQ(entries(*d), entries(*tree(c.list))) << "suppression removed an entry";
    for (const auto& [addr, g] : d->joinPruneGroupData()) {
      EXPECT_TRUE(g->joinSuppressSource().empty()) << addr;
      if (g->wcSourceData() && g->prunedRptSources() == 0) {
        EXPECT_FALSE(g->wcSourceData()->wcSuppressed) << addr;
      }
    }
    if (!c.writtenNext.empty()) {
      EXPECT_EQ(decoded(write(m)), c.writtenNext);
      EXPECT_EQ(m->report().suppressed, 0u);
    }
  }
}

}  // namespace
}  // namespace Routing::Pim::Packet
