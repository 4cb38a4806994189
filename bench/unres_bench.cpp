// The unresolved-packet queues: Join/Prunes from neighbors that are not known yet are decoded,
// parked in their neighbor's queue and handed to the agent's Join/Prune slot when the neighbor
// becomes active. Every figure has its baseline in this binary:
//   park and hand over 100,000 messages of 1,000 neighbors  vs. the same decode into a plain
//       vector and a walk handing each to the same slot with the same count (the queues' own cost);
//   heap bytes per parked message                            vs. the same decoded messages kept in
//       a vector reserved beforehand (the queues' own bytes), both against the encoded size.
// The messages are IPv4 Join/Prunes of one group and 20 (S,G) joins, each from its own packet.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "PimData/JoinPruneData.h"
#include "PimIO/IOSm.h"
#include "knet/Checksum.h"

namespace {

using namespace Routing::Pim;
using Knet::IpGenAddr;

constexpr U32 neighbors = 1000;
constexpr U32 perNeighbor = 100;
constexpr U32 messages = neighbors * perNeighbor;
constexpr U32 joins = 20;
constexpr U32 ifIndex = 7;
// PIM header, upstream neighbor, reserved/groups/holdtime; one group with its counts; the joins.
constexpr U32 encodedSize = 4 + 6 + 4 + (8 + 4) + joins * 8;
static_assert(encodedSize == 186);

const Knet::IntfId& eth1() {
  static const Knet::IntfId id("eth1");
  return id;
}
IpGenAddr neighborAddr(U32 n) { return IpGenAddr::ipv4(0x0a010001 + n); }  // 10.1.0.1 up

void putU32(std::vector<U8>& b, U32 v) {
  for (int shift = 24; shift >= 0; shift -= 8) b.push_back(static_cast<U8>(v >> shift));
}

// The PIM message (no IP header) of arrival `i`: one group and `joins` (S,G) joins with the S bit,
// sources ascending, every (S,G) of the run distinct; checksum over the whole message.
std::vector<U8> joinPruneBytes(U32 i, U32 upstream) {
  std::vector<U8> b = {0x23, 0, 0, 0, 1, 0};
  putU32(b, upstream);
  b.insert(b.end(), {0, 1, 0, 210});  // reserved, one group, holdtime 210 s
  b.insert(b.end(), {1, 0, 0, 32});   // encoded group, IPv4, /32
  putU32(b, 0xe8000000 + i);          // 232.0.0.0 + i
  b.insert(b.end(), {0, joins, 0, 0});
  for (U32 s = 0; s < joins; ++s) {
    b.insert(b.end(), {1, 0, 0x04, 32});  // encoded source, sparse bit, /32
    putU32(b, 0x0b000000 + i * joins + s);
  }
  const U16 sum = Knet::internetChecksum(b.data(), b.size());
  b[2] = static_cast<U8>(sum >> 8);
  b[3] = static_cast<U8>(sum);
  return b;
}

// One state machine wired as the agent wires it, with one PIM interface and the agent's
// Join/Prune slot watched by a counting notifiee; and the packets of the run in arrival order,
// interleaved across the neighbors (round r of every neighbor before round r + 1).
struct Rig {
  struct Watcher : IO::MessageInfo::Notifiee {
    U64 seen = 0;
    void onCount() override { ++seen; }
  };
  Loom::Ptr<IO::PamManager> manager = IO::pamManagerFactory(Knet::AddressFamily::ipv4, "", false);
  Loom::Ptr<Routing::Pim::Cask::MessageCounters> counters = Routing::Pim::Cask::messageCountersFactory(
      "benchunres" + std::to_string(getpid()), Knet::AddressFamily::ipv4, 64);
  Loom::Ptr<Status> status = statusFactory("bench");
  Keel::ManualClock clock;
  Loom::Ptr<Keel::TimerWheel> wheel = Keel::timerWheelFactory(clock);
  Loom::Ptr<Routing::McastBoundary::Status> boundary = Routing::McastBoundary::statusFactory();
  Loom::Ptr<IO::IOSm> sm;
  Loom::Ptr<Intf> intf;
  Loom::Ptr<IO::MessageInfo> slot = IO::messageInfoFactory();
  Watcher watcher;
  std::vector<Knet::RxPkt> arrivals;

  Rig() {
    manager->kernelIntfIs(ifIndex)->intfIdIs(eth1());
    intf = status->pimIntfIs(eth1());
    sm = IO::iOSmFactory(manager, counters, status, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         wheel->timerNew(), boundary);
    manager->rxMessageInfoIs(Knet::pimJoinPrune().type(), slot);
    watcher.notifierIs(slot);
    watcher.hasNotificationActiveIs(true);
    const U32 upstream = 0x0a000001;  // 10.0.0.1
    arrivals.reserve(messages);
    for (U32 r = 0; r < perNeighbor; ++r) {
      for (U32 n = 0; n < neighbors; ++n) {
        const U32 i = r * neighbors + n;
        arrivals.push_back(Knet::RxPkt{Knet::pktFactory(joinPruneBytes(i, upstream)), ifIndex, neighborAddr(n),
                                       Knet::allPimRouters(Knet::AddressFamily::ipv4)});
      }
    }
  }
  ~Rig() { counters->unlink(); }

  // The receive path's decode of one arrival; null (and the benchmark fails) if it was dropped.
  Loom::Ptr<Packet::Message> decode(const Knet::RxPkt& rx) {
    Loom::Ptr<IO::RxPktContext> ctx = IO::rxPktContextFactory(rx);
    ctx->kIntfIs(manager->kernelIntf(ifIndex));
    return sm->processJoinPruneMessage(ctx) ? ctx->msg() : nullptr;
  }
  bool parkAll() {
    for (const Knet::RxPkt& rx : arrivals) {
      Loom::Ptr<Packet::Message> msg = decode(rx);
      if (!msg) return false;
      sm->pimUnresPktEnq({eth1(), rx.src}, msg);
    }
    return true;
  }
  // Known but not active: what the agent holds after the first Hellos, before it takes them up.
  void neighborsKnown() {
    intf->neighborDelAll();
    for (U32 n = 0; n < neighbors; ++n) intf->neighborIs(neighborAddr(n), false);
  }
  void neighborsActive() {
    for (U32 n = 0; n < neighbors; ++n) intf->neighborIs(neighborAddr(n), true);
  }
};

void perMessage(benchmark::State& state) {
  state.counters["messages"] = messages;  // per iteration, for the script's per-message figure
  state.counters["msgRate"] = benchmark::Counter(messages, benchmark::Counter::kIsIterationInvariantRate);
}

// Decode and park every arrival, then make every neighbor active: each queue is handed over.
void BM_UnresParkHandOver(benchmark::State& state) {
  Rig rig;
  const U64 seenBefore = rig.watcher.seen;
  for (auto _ : state) {
    state.PauseTiming();
    rig.neighborsKnown();
    state.ResumeTiming();
    if (!rig.parkAll()) return state.SkipWithError("a Join/Prune was dropped");
    rig.neighborsActive();
  }
  if (!rig.sm->pimUnresPkt().empty()) return state.SkipWithError("a queue was left behind");
  if (rig.watcher.seen - seenBefore != U64(state.iterations()) * messages) {
    return state.SkipWithError("not every message reached the slot");
  }
  perMessage(state);
}
BENCHMARK(BM_UnresParkHandOver)->Unit(benchmark::kMillisecond);

// The baseline: the same decode into a plain vector, then a walk that does what the hand-over
// does per message (slot, count change, valid count) without any queue.
void BM_UnresVectorWalk(benchmark::State& state) {
  Rig rig;
  const U64 seenBefore = rig.watcher.seen;
  std::vector<Loom::Ptr<Packet::Message>> decoded;
  decoded.reserve(messages);
  IO::IOSm::IntfCounters& handles = rig.sm->intfCounters(eth1());
  for (auto _ : state) {
    for (const Knet::RxPkt& rx : rig.arrivals) {
      Loom::Ptr<Packet::Message> msg = rig.decode(rx);
      if (!msg) return state.SkipWithError("a Join/Prune was dropped");
      decoded.push_back(std::move(msg));
    }
    for (const Loom::Ptr<Packet::Message>& msg : decoded) {
      rig.slot->intfIdIs(eth1());
      rig.slot->messageIs(msg);
      rig.slot->countInc(1);
      rig.sm->updateCounter(IO::MessageCounterDirection::directionRx, msg->pimMessageType(), msg->messageSubtype(),
                            &handles, IO::MessageCounterType::counterValid);
    }
    decoded.clear();
  }
  if (rig.watcher.seen - seenBefore != U64(state.iterations()) * messages) {
    return state.SkipWithError("not every message reached the slot");
  }
  perMessage(state);
}
BENCHMARK(BM_UnresVectorWalk)->Unit(benchmark::kMillisecond);

// For scale, the queues alone: the same messages decoded once before the run, then parked and
// handed over, against the walk alone. The difference of the two is what a queue adds per message.
void BM_UnresParkHandOverDecoded(benchmark::State& state) {
  Rig rig;
  std::vector<Loom::Ptr<Packet::Message>> decoded;
  decoded.reserve(messages);
  for (const Knet::RxPkt& rx : rig.arrivals) decoded.push_back(rig.decode(rx));
  if (!decoded.back()) return state.SkipWithError("a Join/Prune was dropped");
  const U64 seenBefore = rig.watcher.seen;
  for (auto _ : state) {
    state.PauseTiming();
    rig.neighborsKnown();
    state.ResumeTiming();
    for (U32 i = 0; i < messages; ++i) rig.sm->pimUnresPktEnq({eth1(), rig.arrivals[i].src}, decoded[i]);
    rig.neighborsActive();
  }
  if (rig.watcher.seen - seenBefore != U64(state.iterations()) * messages) {
    return state.SkipWithError("not every message reached the slot");
  }
  perMessage(state);
}
BENCHMARK(BM_UnresParkHandOverDecoded)->Unit(benchmark::kMillisecond);

void BM_UnresWalkDecoded(benchmark::State& state) {
  Rig rig;
  std::vector<Loom::Ptr<Packet::Message>> decoded;
  decoded.reserve(messages);
  for (const Knet::RxPkt& rx : rig.arrivals) decoded.push_back(rig.decode(rx));
  if (!decoded.back()) return state.SkipWithError("a Join/Prune was dropped");
  IO::IOSm::IntfCounters& handles = rig.sm->intfCounters(eth1());
  for (auto _ : state) {
    for (const Loom::Ptr<Packet::Message>& msg : decoded) {
      rig.slot->intfIdIs(eth1());
      rig.slot->messageIs(msg);
      rig.slot->countInc(1);
      rig.sm->updateCounter(IO::MessageCounterDirection::directionRx, msg->pimMessageType(), msg->messageSubtype(),
                            &handles, IO::MessageCounterType::counterValid);
    }
  }
  perMessage(state);
}
BENCHMARK(BM_UnresWalkDecoded)->Unit(benchmark::kMillisecond);

// Heap in use by the allocator, counting the Join/Prune group records that the pool handed out
// as taken (they are allocated, from malloc's point of view, whether pooled or in use).
long long heapInUse() {
  return static_cast<long long>(mallinfo2().uordblks) -
         static_cast<long long>(Loom::Pooled<JoinPruneGroupData>::pooledFree() * sizeof(JoinPruneGroupData));
}

// Bytes of heap per parked message, and per decoded message kept in a vector reserved
// beforehand. A first round of each primes the pools and the collections; the second is measured.
void BM_UnresMemory(benchmark::State& state) {
  Rig rig;
  double parked = 0, decodedOnly = 0;
  for (auto _ : state) {
    for (int round = 0; round < 2; ++round) {
      rig.neighborsKnown();
      const long long before = heapInUse();
      if (!rig.parkAll()) return state.SkipWithError("a Join/Prune was dropped");
      parked = double(heapInUse() - before) / messages;
      rig.neighborsActive();
    }
    std::vector<Loom::Ptr<Packet::Message>> decoded;
    for (int round = 0; round < 2; ++round) {
      decoded.clear();
      decoded.reserve(messages);
      const long long before = heapInUse();
      for (const Knet::RxPkt& rx : rig.arrivals) decoded.push_back(rig.decode(rx));
      decodedOnly = double(heapInUse() - before) / messages;
    }
  }
  state.counters["bytesPerParked"] = parked;
  state.counters["decodedOnly"] = decodedOnly;
  state.counters["encodedSize"] = encodedSize;
  state.counters["overhead"] = parked - decodedOnly;
  state.counters["decodedOverEncoded"] = decodedOnly - encodedSize;
}
BENCHMARK(BM_UnresMemory)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
