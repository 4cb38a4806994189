// Benchmarks of the Join/Prune codec. Every figure has its baseline in this binary, and
// scripts/bench quotes the figure as a ratio to it:
//   decode of a full IPv4 packet into the tree  vs. a walk that checksums the same bytes and reads
//                                                   every address into locals;
//   draining a triggered tree into packets       vs. packing the same routes by hand from plain
//                                                   sorted arrays (same bytes, no tree);
//   draining ten times the routes                vs. draining the routes once (linearity).
// The packets are made by the library's own encoder, and every setup checks that they have the
// shape and size the figure claims.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "PimMessage/JoinPruneMessage.h"
#include "knet/Checksum.h"
#include "knet/Pkt.h"
#include "loom/Trace.h"

namespace {

using Knet::IpGenAddr;
using Routing::Pim::JoinPruneData;
using Routing::Pim::JoinPruneGroupData;
using Routing::Pim::Packet::JoinPruneMessage;

// ---- Sizes of an IPv4 Join/Prune ----

constexpr U32 mtu = 1500;
constexpr U32 room = mtu - 20;         // the PIM message behind the IPv4 header
constexpr U32 messageHeader = 4 + 6 + 4;  // PIM header, upstream neighbor, reserved/groups/holdtime
constexpr U32 groupHeader = 8 + 4;       // encoded group and the two counts
constexpr U32 sourceSize = 8;            // encoded source

// The shapes of a full packet: all sources in one group, or one source in as many groups as fit.
constexpr U32 oneGroupSources = (room - messageHeader - groupHeader) / sourceSize;         // 181
constexpr U32 singleSourceGroups = (room - messageHeader) / (groupHeader + sourceSize);  // 73

constexpr U32 messageSize(U32 groups, U32 sources) {
  return messageHeader + groups * groupHeader + sources * sourceSize;
}
static_assert(messageSize(1, oneGroupSources) == 1474 && messageSize(singleSourceGroups, singleSourceGroups) == 1474);

const IpGenAddr& srcIp() {
  static const IpGenAddr a = IpGenAddr::ipv4(0x0a000001);  // 10.0.0.1
  return a;
}
const IpGenAddr& upstream() {
  static const IpGenAddr a = IpGenAddr::ipv4(0x0a000002);  // 10.0.0.2
  return a;
}
// Group g is 232.0.0.0 + g; the sources are numbered across the whole tree from 10.0.0.1 up, so
// that every (S,G) differs and each group's sources are in ascending order.
U32 groupNumber(U32 g) { return 0xe8000000 + g; }
U32 sourceNumber(U32 g, U32 perGroup, U32 s) { return 0x0a000001 + g * perGroup + s; }

// A tree of `groups` groups, each with `perGroup` (S,G) joins.
Loom::Ptr<JoinPruneData> sgTree(U32 groups, U32 perGroup, bool periodic) {
  Loom::Ptr<JoinPruneData> data = new JoinPruneData(upstream());
  data->holdTimeIs(210);
  data->periodicIs(periodic);
  for (U32 g = 0; g < groups; ++g) {
    JoinPruneGroupData& group = data->joinPruneGroupDataIs(IpGenAddr::ipv4(groupNumber(g)));
    group.joinedSourceReserve(perGroup);
    for (U32 s = 0; s < perGroup; ++s) group.joinedSourceIs(IpGenAddr::ipv4(sourceNumber(g, perGroup, s)));
  }
  return data;
}

Loom::Ptr<JoinPruneMessage> message() {
  Loom::Ptr<JoinPruneMessage> m = Routing::Pim::Packet::joinPruneMessageFactory();
  m->srcIpIs(srcIp());
  m->dstIpIs(Knet::allPimRouters(Knet::AddressFamily::ipv4));
  m->mtuIs(mtu);
  return m;
}

// The packet of a tree that fits exactly one message, cut to the message's size; null, with the
// reason in `why`, unless the encoder wrote the whole tree into one packet of the expected size.
Loom::Ptr<Knet::Pkt> fullPacket(U32 groups, U32 perGroup, std::string& why) {
  const Loom::Ptr<JoinPruneMessage> m = message();
  const Loom::Ptr<JoinPruneData> data = sgTree(groups, perGroup, false);
  m->joinPruneDataIs(data);
  const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(room);
  const U32 n = m->writeJoinPruneMessage(pkt, 0, nullptr);
  const U32 expected = messageSize(groups, groups * perGroup);
  if (n != expected || data->bookmark() || !data->empty() || m->report().processed != groups * perGroup) {
    why = "the encoder did not write one packet of " + std::to_string(expected) + " bytes (wrote " +
          std::to_string(n) + (data->bookmark() ? ", with a bookmark)" : ")");
    return nullptr;
  }
  pkt->sizeIs(n);
  return pkt;
}

// ---- Decode baseline: the bare walk ----

U16 loadU16Be(const U8* p) { return static_cast<U16>(p[0] << 8 | p[1]); }
U32 loadU32Be(const U8* p) { return U32(p[0]) << 24 | U32(p[1]) << 16 | U32(p[2]) << 8 | p[3]; }

// One encoded IPv4 address as a decoder of that family would hold it.
struct Encoded {
  U32 address = 0;
  U8 flags = 0;
  U8 maskLength = 0;
};

// What the walk read: the last group and source, and a fold of everything so that no read can be
// left out.
struct WalkResult {
  U16 holdTime = 0;
  U32 groups = 0;
  U32 sources = 0;
  Encoded upstream;
  Encoded group;
  Encoded source;
  U32 fold = 0;
};

// The least that any IPv4 Join/Prune decoder does: verify the checksum and the layout, and read
// the upstream neighbor, every group and every source into locals. No tree, no traces.
bool walkJoinPrune(const U8* p, U32 size, WalkResult& out) {
  if (size < messageHeader || Knet::onesComplementSum(p, size) != 0xffff || p[0] != 0x23) return false;
  if (p[4] != 1 || p[5] != 0) return false;
  out.upstream.address = loadU32Be(p + 6);
  const U32 groups = p[11];
  out.holdTime = loadU16Be(p + 12);
  U32 pos = messageHeader;
  auto readEncoded = [&](Encoded& e) {
    if (size - pos < 8 || p[pos] != 1 || p[pos + 1] != 0) return false;
    e.flags = p[pos + 2];
    e.maskLength = p[pos + 3];
    e.address = loadU32Be(p + pos + 4);
    pos += 8;
    return true;
  };
  for (U32 g = 0; g < groups; ++g) {
    if (!readEncoded(out.group) || size - pos < 4) return false;
    const U32 sources = U32(loadU16Be(p + pos)) + loadU16Be(p + pos + 2);
    pos += 4;
    out.fold ^= out.group.address;
    for (U32 s = 0; s < sources; ++s) {
      if (!readEncoded(out.source)) return false;
      out.fold ^= out.source.address + out.source.flags + out.source.maskLength;
    }
    out.sources += sources;
    ++out.groups;
  }
  return pos == size;
}

// The same fold over a decoded tree, to check that the walk and the decoder read the same.
U32 foldOf(const JoinPruneData& data) {
  U32 fold = 0;
  for (const auto& [address, group] : data.joinPruneGroupData()) {
    fold ^= address.v4();
    for (const IpGenAddr& s : group->joinedSource()) fold ^= s.v4() + Routing::Pim::SourceFlags::sparseBit + 32;
  }
  return fold;
}

// ---- Decode ----

// Range 0: groups; range 1: sources per group.
void BM_JoinPruneWalk(benchmark::State& state) {
  const U32 groups = static_cast<U32>(state.range(0));
  const U32 perGroup = static_cast<U32>(state.range(1));
  std::string why;
  const Loom::Ptr<Knet::Pkt> pkt = fullPacket(groups, perGroup, why);
  if (!pkt) {
    state.SkipWithError(why.c_str());
    return;
  }
  const Loom::Ptr<JoinPruneMessage> m = message();
  WalkResult check;
  if (!walkJoinPrune(pkt->data(), pkt->size(), check) || check.sources != groups * perGroup ||
      m->readJoinPruneMessage(pkt, 0, nullptr) != pkt->size() || check.fold != foldOf(*m->joinPruneData())) {
    state.SkipWithError("the walk does not read what the decoder reads");
    return;
  }
  for (auto _ : state) {
    WalkResult r;
    if (!walkJoinPrune(pkt->data(), pkt->size(), r)) {
      state.SkipWithError("walk failed");
      break;
    }
    benchmark::DoNotOptimize(r);
  }
  state.counters["sources"] = groups * perGroup;
  state.counters["bytes"] = pkt->size();
}

// A fresh message per packet, as the receive path decodes; the tree of the previous packet is
// freed inside the loop, as the agent frees it.
void BM_JoinPruneDecode(benchmark::State& state) {
  const U32 groups = static_cast<U32>(state.range(0));
  const U32 perGroup = static_cast<U32>(state.range(1));
  std::string why;
  const Loom::Ptr<Knet::Pkt> pkt = fullPacket(groups, perGroup, why);
  if (!pkt) {
    state.SkipWithError(why.c_str());
    return;
  }
  for (auto _ : state) {
    Loom::Ptr<JoinPruneMessage> m = message();
    if (m->readJoinPruneMessage(pkt, 0, nullptr) != pkt->size() || m->report().processed != groups * perGroup) {
      state.SkipWithError("decode failed");
      break;
    }
    benchmark::DoNotOptimize(m.ptr());
  }
  state.counters["sources"] = groups * perGroup;
  state.counters["bytes"] = pkt->size();
}

// ---- Drain baseline: packing by hand ----

void storeU16Be(U8* p, U16 v) {
  p[0] = static_cast<U8>(v >> 8);
  p[1] = static_cast<U8>(v);
}
void storeU32Be(U8* p, U32 v) {
  storeU16Be(p, static_cast<U16>(v >> 16));
  storeU16Be(p + 2, static_cast<U16>(v));
}

// The routes as plain sorted arrays: group numbers and, per group, source numbers.
struct PlainRoutes {
  std::vector<U32> groups;
  std::vector<std::vector<U32>> sources;
};

PlainRoutes plainRoutes(U32 groups, U32 perGroup) {
  PlainRoutes r;
  r.groups.resize(groups);
  r.sources.resize(groups);
  for (U32 g = 0; g < groups; ++g) {
    r.groups[g] = groupNumber(g);
    r.sources[g].resize(perGroup);
    for (U32 s = 0; s < perGroup; ++s) r.sources[g][s] = sourceNumber(g, perGroup, s);
  }
  return r;
}

void storeEncoded(U8* p, U8 flags, U32 address) {
  p[0] = 1;
  p[1] = 0;
  p[2] = flags;
  p[3] = 32;
  storeU32Be(p + 4, address);
}

// Where the hand-written packer stopped.
struct PackCursor {
  size_t group = 0;
  size_t source = 0;
};

// Packs one IPv4 message from the cursor on, with the encoder's rules: up to `room` bytes, a new
// group only with room for it and one source, at most 255 groups. Returns the bytes written
// (0 when nothing is left).
U32 packByHand(U8* p, const PlainRoutes& routes, PackCursor& at, U16 holdTime, U32 upstreamAddress) {
  if (at.group >= routes.groups.size()) return 0;
  p[0] = 0x23;
  p[1] = 0;
  storeU16Be(p + 2, 0);
  p[4] = 1;
  p[5] = 0;
  storeU32Be(p + 6, upstreamAddress);
  p[10] = 0;
  storeU16Be(p + 12, holdTime);
  U32 pos = messageHeader;
  U32 groups = 0;
  while (at.group < routes.groups.size() && groups < 255 && room - pos >= groupHeader + sourceSize) {
    const std::vector<U32>& sources = routes.sources[at.group];
    storeEncoded(p + pos, 0, routes.groups[at.group]);
    U8* const counts = p + pos + 8;
    pos += groupHeader;
    const size_t fit = std::min<size_t>(sources.size() - at.source, (room - pos) / sourceSize);
    for (size_t i = 0; i < fit; ++i, pos += sourceSize) {
      storeEncoded(p + pos, Routing::Pim::SourceFlags::sparseBit, sources[at.source + i]);
    }
    storeU16Be(counts, static_cast<U16>(fit));
    storeU16Be(counts + 2, 0);
    ++groups;
    at.source += fit;
    if (at.source < sources.size()) break;  // the packet is full inside this group
    ++at.group;
    at.source = 0;
  }
  p[11] = static_cast<U8>(groups);
  storeU16Be(p + 2, Knet::internetChecksum(p, pos));
  return pos;
}

// ---- Drain ----

struct DrainTotals {
  U64 packets = 0;
  U64 bytes = 0;
  U64 routes = 0;
};

// Writes triggered messages until the encoder leaves no bookmark; false if a write fails.
// `each` sees every packet.
template <class Each>
bool drain(JoinPruneMessage& m, const Loom::Ptr<Knet::Pkt>& pkt, DrainTotals& t, Each each) {
  do {
    const U32 n = m.writeJoinPruneMessage(pkt, 0, nullptr);
    if (n == 0) return false;
    t.bytes += n;
    t.routes += m.report().processed;
    ++t.packets;
    each(pkt->data(), n);
  } while (m.joinPruneData()->bookmark());
  return true;
}

// Checks once, outside the timing, that the hand-written packer writes byte for byte what the
// encoder writes for the same routes; empty when it does, else the reason.
std::string compareWithHand(U32 groups, U32 perGroup) {
  const Loom::Ptr<JoinPruneMessage> m = message();
  const Loom::Ptr<JoinPruneData> data = sgTree(groups, perGroup, false);
  m->joinPruneDataIs(data);
  const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(room);
  const PlainRoutes routes = plainRoutes(groups, perGroup);
  PackCursor at;
  std::vector<U8> hand(room);
  DrainTotals t;
  std::string why;
  const bool ok = drain(*m, pkt, t, [&](const U8* bytes, U32 n) {
    const U32 h = packByHand(hand.data(), routes, at, data->holdTime(), upstream().v4());
    if (why.empty() && (h != n || std::memcmp(hand.data(), bytes, n) != 0)) {
      why = "packet " + std::to_string(t.packets) + " differs from the hand-packed one";
    }
  });
  if (!ok) return "a write failed";
  if (!why.empty()) return why;
  if (packByHand(hand.data(), routes, at, 0, 0) != 0) return "the encoder left routes behind";
  if (!data->empty() || t.routes != U64(groups) * perGroup) return "the tree was not drained";
  return "";
}

// Range 0: routes; range 1: groups. The hand-written packer over the same routes, as plain
// sorted arrays that it only reads.
void BM_JoinPruneDrainByHand(benchmark::State& state) {
  const U32 routeCount = static_cast<U32>(state.range(0));
  const U32 groups = static_cast<U32>(state.range(1));
  const U32 perGroup = routeCount / groups;
  const std::string why = compareWithHand(groups, perGroup);
  if (!why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  const PlainRoutes routes = plainRoutes(groups, perGroup);
  std::vector<U8> out(room);
  DrainTotals t;
  for (auto _ : state) {
    PackCursor at;
    while (const U32 n = packByHand(out.data(), routes, at, 210, upstream().v4())) {
      t.bytes += n;
      ++t.packets;
      benchmark::ClobberMemory();
    }
  }
  state.counters["routes"] = routeCount;
  state.counters["packets"] = double(t.packets) / double(state.iterations());
  state.counters["fill"] = double(t.bytes) / double(t.packets * room);
}

// The encoder drains a triggered tree. Building the tree and freeing what is left of it are not
// timed.
void BM_JoinPruneDrain(benchmark::State& state) {
  const U32 routeCount = static_cast<U32>(state.range(0));
  const U32 groups = static_cast<U32>(state.range(1));
  const U32 perGroup = routeCount / groups;
  const Loom::Ptr<JoinPruneMessage> m = message();
  const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(room);
  DrainTotals t;
  for (auto _ : state) {
    state.PauseTiming();
    m->joinPruneDataIs(sgTree(groups, perGroup, false));
    const U64 routesBefore = t.routes;
    state.ResumeTiming();
    if (!drain(*m, pkt, t, [](const U8*, U32) {})) {
      state.SkipWithError("a write failed");
      break;
    }
    state.PauseTiming();
    const bool drained = m->joinPruneData()->empty() && t.routes - routesBefore == routeCount;
    m->joinPruneDataIs(nullptr);
    state.ResumeTiming();
    if (!drained) {
      state.SkipWithError("the tree was not drained");
      break;
    }
  }
  state.counters["routes"] = routeCount;
  state.counters["packets"] = double(t.packets) / double(std::max<U64>(state.iterations(), 1));
  state.counters["fill"] = t.packets ? double(t.bytes) / double(t.packets * room) : 0;
}

}  // namespace

// A full packet of (S,G) joins: 181 sources in one group, and 73 groups of one source.
BENCHMARK(BM_JoinPruneWalk)->Args({1, oneGroupSources})->Args({singleSourceGroups, 1});
BENCHMARK(BM_JoinPruneDecode)->Args({1, oneGroupSources})->Args({singleSourceGroups, 1});

// 100,000 routes over 1,000 groups, and ten times the routes over the same groups (1,000 sources
// a group) and over ten times the groups (100 sources a group). For scale, the 100,000 routes in
// 10 groups of 10,000 sources: a group that spans many packets.
BENCHMARK(BM_JoinPruneDrainByHand)->Args({100000, 1000})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JoinPruneDrain)
    ->Args({100000, 1000})
    ->Args({1000000, 1000})
    ->Args({1000000, 10000})
    ->Args({100000, 10})
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  // Figures are measured with every trace off.
  Loom::traceLevelIs("*", 0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
