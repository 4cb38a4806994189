#pragma once
// Random join/prune trees for the packing tests (our decoder, and tshark as an independent one):
// a tree of every kind of entry, and the entries the encoder's messages must carry.
#include <map>
#include <random>
#include <set>
#include <string>

#include "PimData/JoinPruneData.h"

namespace PimTest {

// Entries as "GROUP KIND ADDRESS", each with the number of times it was seen.
using Entries = std::map<std::string, int>;

inline std::string entryKey(const Knet::IpGenAddr& g, const char* kind, const Knet::IpGenAddr& a) {
  return g.str() + " " + kind + " " + a.str();
}

inline void collect(const Routing::Pim::JoinPruneData& d, Entries& out) {
  for (const auto& [addr, g] : d.joinPruneGroupData()) {
    for (const auto& s : g->joinedRptSource()) ++out[entryKey(addr, "rptJoin", s)];
    for (const auto& s : g->joinedSource()) ++out[entryKey(addr, "join", s)];
    if (const auto& wc = g->wcSourceData()) ++out[entryKey(addr, wc->join ? "wcJoin" : "wcPrune", wc->rp)];
    if (g->rptPrunedGroupData()) {
      for (const auto& [s, v] : g->rptPrunedGroupData()->prunedRptSource()) ++out[entryKey(addr, "rptPrune", s)];
    }
    for (const auto& s : g->prunedSource()) ++out[entryKey(addr, "prune", s)];
  }
}

struct GeneratedTree {
  bool v6 = false, periodic = false, bidir = false;
  U32 mtu = 0;
  Loom::Ptr<Routing::Pim::JoinPruneData> tree;
  Entries expected;  // what the messages must carry
  U32 suppressed = 0;
};

// ff0e::/16 or 2001:db8::/32 with 32 random bits; 225-238.x or 10-109.x; never a zero last byte.
inline Knet::IpGenAddr randomAddress(std::mt19937& rng, bool v6, bool group) {
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

// The tree of a seed: family, mode, bidirectional groups and MTU drawn first. No contradiction
// inside a group: every source appears in one collection only, (S,G,rpt) joins only where there is
// no (*,G) entry, (S,G,rpt) prunes never beside a (*,G) prune, and no (*,G) prune in a periodic
// tree (the encoder refuses those). Some groups carry the Z flag; periodic trees mark joins as
// suppressed. One shape in four has more than 255 groups of one entry each.
inline GeneratedTree generateTree(U32 seed) {
  using Routing::Pim::JoinPruneGroupData;
  std::mt19937 rng(seed);
  GeneratedTree out;
  const U32 mtus[] = {200, 576, 1280, 1500, 9000};
  out.v6 = rng() % 2;
  out.periodic = rng() % 2;
  out.bidir = rng() % 6 == 0;
  out.mtu = mtus[rng() % 5];
  out.tree = new Routing::Pim::JoinPruneData(Knet::IpGenAddr::parse(out.v6 ? "fe80::2" : "10.0.0.2").value());
  out.tree->holdTimeIs(210);
  out.tree->periodicIs(out.periodic);
  const U32 shape = rng() % 4;
  const U32 groups = shape == 0 ? 260 + rng() % 60 : shape == 1 ? 1 + rng() % 3 : 1 + rng() % 40;
  const U32 maxSources = shape == 1 ? 120 : 12;
  auto count = [&] { return rng() % (maxSources + 1); };
  std::set<Knet::IpGenAddr> used;
  auto fresh = [&](bool group) {
    Knet::IpGenAddr a;
    while (!used.insert(a = randomAddress(rng, out.v6, group)).second) {}
    return a;
  };
  for (U32 i = 0; i < groups; ++i) {
    JoinPruneGroupData& g = out.tree->joinPruneGroupDataIs(fresh(true));
    g.groupFlagsIs(U8((out.bidir ? 0x80 : 0) | (i % 5 == 4 ? 0x01 : 0)));
    if (shape == 0) {
      switch (rng() % 5) {
        case 0: g.joinedSourceIs(fresh(false)); break;
        case 1: g.prunedSourceIs(fresh(false)); break;
        case 2: g.prunedRptSourceIs(fresh(false)); break;
        case 3: g.joinedRptSourceIs(fresh(false)); break;
        default: g.wcSourceDataIs(fresh(false), out.periodic || rng() % 2); break;
      }
      continue;
    }
    const U32 wcKind = rng() % 3;  // none, join, prune
    const bool wcJoin = wcKind == 1 || (wcKind == 2 && out.periodic);
    if (wcKind != 0) g.wcSourceDataIs(fresh(false), wcJoin);
    for (U32 n = wcKind == 0 ? count() / 2 : 0; n > 0; --n) g.joinedRptSourceIs(fresh(false));
    for (U32 n = count(); n > 0; --n) g.joinedSourceIs(fresh(false));
    for (U32 n = count(); n > 0; --n) g.prunedSourceIs(fresh(false));
    for (U32 n = wcKind != 2 || wcJoin ? count() : 0; n > 0; --n) g.prunedRptSourceIs(fresh(false));
    if (!out.periodic) continue;
    for (const auto& s : g.joinedSource()) {
      if (rng() % 4 == 0) g.joinSuppressSourceIs(s);
    }
    if (g.wcSourceData() && rng() % 3 == 0) g.wcSuppressedIs(true);
  }
  collect(*out.tree, out.expected);
  if (!out.periodic) return out;
  for (const auto& [addr, g] : out.tree->joinPruneGroupData()) {
    for (const auto& s : g->joinSuppressSource()) out.suppressed += U32(out.expected.erase(entryKey(addr, "join", s)));
    if (g->wcSourceData() && g->wcSourceData()->wcSuppressed && g->prunedRptSources() == 0) {
      out.suppressed += U32(out.expected.erase(entryKey(addr, "wcJoin", g->wcSourceData()->rp)));
    }
  }
  return out;
}

}  // namespace PimTest
