// Benchmarks of the codec and the checksum beneath it. Every figure has its baseline in this
// binary, and scripts/bench quotes the figure as a ratio to it:
//   the checksum (8 bytes at a time)  vs. the plain 16-bit loop over the same bytes;
//   Hello decode and encode           vs. hand-written code that checksums and walks, or writes,
//                                         the same bytes with plain locals;
//   Bootstrap decode (fresh message)  vs. the same kind of walk over a Bootstrap's ranges and RPs;
//   a trace call whose level is off   vs. the same loop without the call.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/RegisterMessage.h"
#include "knet/IpHdr.h"
#include "knet/Checksum.h"
#include "knet/PimHdr.h"
#include "loom/Trace.h"

namespace {

using Knet::AddressFamily;
using Knet::IpGenAddr;
using Routing::Pim::Packet::HelloMessage;
using Routing::Pim::Packet::HelloPropagationDelay;
using Routing::Pim::Packet::RegisterMessage;

// ---- Checksum ----

std::vector<U8> randomBytes(size_t n) {
  std::mt19937 rng(7);
  std::vector<U8> v(n);
  for (auto& b : v) b = static_cast<U8>(rng());
  return v;
}

void BM_ChecksumByWord(benchmark::State& state) {
  const auto data = randomBytes(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(data.data());
    benchmark::DoNotOptimize(Knet::onesComplementSumByWord(data.data(), data.size()));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_ChecksumFast(benchmark::State& state) {
  const auto data = randomBytes(static_cast<size_t>(state.range(0)));
  if (Knet::onesComplementSum(data.data(), data.size()) != Knet::onesComplementSumByWord(data.data(), data.size())) {
    state.SkipWithError("the two checksums disagree");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(data.data());
    benchmark::DoNotOptimize(Knet::onesComplementSum(data.data(), data.size()));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

// ---- Hello: the message and its bytes ----

IpGenAddr addr(const char* text) { return *IpGenAddr::parse(text); }

struct HelloCase {
  IpGenAddr src;
  IpGenAddr dst;
  std::array<IpGenAddr, 2> secondary;
};

const HelloCase& helloCase(AddressFamily af) {
  static const HelloCase v4{addr("10.0.0.1"), Knet::allPimRouters(AddressFamily::ipv4),
                            {addr("10.1.0.1"), addr("10.2.0.1")}};
  static const HelloCase v6{addr("fe80::1"), Knet::allPimRouters(AddressFamily::ipv6),
                            {addr("2001:db8:1::1"), addr("2001:db8:2::1")}};
  return af == AddressFamily::ipv4 ? v4 : v6;
}

// The values of the typical Hello as plain locals: what the baselines read and write.
struct HelloFields {
  U16 holdTime = 0;
  U16 propagationDelay = 0;  // T bit included
  U16 overrideInterval = 0;
  U32 drPriority = 0;
  U32 generationId = 0;
  U8 addressFamily = 0;
  U32 addressCount = 0;
  // Left uninitialised: zeroing it on every walk would cost more than the walk itself.
  std::array<std::array<U8, 16>, 4> addresses;
};

HelloFields typicalFields(AddressFamily af) {
  HelloFields f;
  f.holdTime = 105;
  f.propagationDelay = 500;
  f.overrideInterval = 2500;
  f.drPriority = 1;
  f.generationId = 0x1badcafe;
  f.addressFamily = static_cast<U8>(af);
  for (const IpGenAddr& a : helloCase(af).secondary) {
    std::memcpy(f.addresses[f.addressCount++].data(), a.bytes(), a.byteLength());
  }
  return f;
}

// The Hello a router sends on every interface: holdtime, LAN prune delay, DR priority,
// generation ID and two secondary addresses.
Loom::Ptr<HelloMessage> typicalHello(AddressFamily af) {
  const HelloCase& c = helloCase(af);
  const HelloFields f = typicalFields(af);
  Loom::Ptr<HelloMessage> m = Routing::Pim::Packet::helloMessageFactory();
  m->srcIpIs(c.src);
  m->dstIpIs(c.dst);
  m->holdTimeOptionIs(true);
  m->holdTimeIs(f.holdTime);
  m->lanPruneDelayOptionIs(true);
  m->propagationDelayIs(HelloPropagationDelay(f.propagationDelay));
  m->overrideIntervalIs(f.overrideInterval);
  m->drPriorityOptionIs(true);
  m->drPriorityIs(f.drPriority);
  m->generationIdOptionIs(true);
  m->generationIdIs(f.generationId);
  for (const IpGenAddr& a : c.secondary) m->secondaryAddrIs(a);
  return m;
}

// The typical Hello encoded by the codec, in a packet of its exact size as the receive path
// hands it over; null if the encode fails.
Loom::Ptr<Knet::Pkt> typicalHelloPkt(AddressFamily af) {
  Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(256);
  const U32 n = typicalHello(af)->writeHelloMessage(pkt, 0);
  if (n == 0) return nullptr;
  pkt->sizeIs(n);
  return pkt;
}

// ---- Hello: hand-written baselines ----

U16 loadU16Be(const U8* p) { return static_cast<U16>(p[0] << 8 | p[1]); }
U32 loadU32Be(const U8* p) { return U32(p[0]) << 24 | U32(p[1]) << 16 | U32(p[2]) << 8 | p[3]; }
void storeU16Be(U8* p, U16 v) {
  p[0] = static_cast<U8>(v >> 8);
  p[1] = static_cast<U8>(v);
}
void storeU32Be(U8* p, U32 v) {
  storeU16Be(p, static_cast<U16>(v >> 16));
  storeU16Be(p + 2, static_cast<U16>(v));
}

// The partial sum of the IPv6 pseudo-header that PIM's checksum covers (RFC 8200, 8.1).
U32 pseudoHeaderSum(const IpGenAddr& src, const IpGenAddr& dst, U32 length) {
  U8 ph[40] = {};
  std::memcpy(ph, src.bytes(), 16);
  std::memcpy(ph + 16, dst.bytes(), 16);
  storeU32Be(ph + 32, length);
  ph[39] = Knet::ipProtoPim;
  return Knet::onesComplementSum(ph, sizeof(ph));
}

// The least that any Hello decoder does: verify the checksum and visit every option, reading
// its type, length and value into locals. No objects, no traces.
bool walkHello(const U8* p, U32 size, AddressFamily af, const IpGenAddr& src, const IpGenAddr& dst,
               HelloFields& f) {
  if (size < 4) return false;
  const U32 initial = af == AddressFamily::ipv6 ? pseudoHeaderSum(src, dst, size) : 0;
  const U16 sum = Knet::internetChecksum(p, size, initial);
  if (sum != 0 && !(af == AddressFamily::ipv6 && sum == 0xffff)) return false;
  U32 pos = 4;
  while (size - pos >= 4) {
    const U16 type = loadU16Be(p + pos);
    const U16 length = loadU16Be(p + pos + 2);
    pos += 4;
    if (length > size - pos) return false;
    const U8* v = p + pos;
    switch (type) {
      case 1: f.holdTime = loadU16Be(v); break;
      case 2:
        f.propagationDelay = loadU16Be(v);
        f.overrideInterval = loadU16Be(v + 2);
        break;
      case 19: f.drPriority = loadU32Be(v); break;
      case 20: f.generationId = loadU32Be(v); break;
      case 24:
        for (U32 at = 0; at < length;) {
          if (length - at < 2 || v[at + 1] != 0) return false;
          const U32 n = v[at] == 1 ? 4 : v[at] == 2 ? 16 : 0;
          if (n == 0 || length - at - 2 < n) return false;
          f.addressFamily = v[at];
          if (f.addressCount < f.addresses.size()) {
            // Copies of a constant size, as a decoder of one family would write them.
            U8* to = f.addresses[f.addressCount++].data();
            if (n == 4) std::memcpy(to, v + at + 2, 4); else std::memcpy(to, v + at + 2, 16);
          }
          at += 2 + n;
        }
        break;
      default: break;
    }
    pos += length;
  }
  return pos == size;
}

// Writes the typical Hello from plain values with byte stores, then its checksum.
U32 writeHelloByHand(U8* p, const HelloFields& f, const IpGenAddr& src, const IpGenAddr& dst) {
  U8* w = p + 4;
  auto option = [&w](U16 type, U16 length) {
    storeU16Be(w, type);
    storeU16Be(w + 2, length);
    w += 4;
  };
  option(1, 2);
  storeU16Be(w, f.holdTime);
  w += 2;
  option(2, 4);
  storeU16Be(w, f.propagationDelay);
  storeU16Be(w + 2, f.overrideInterval);
  w += 4;
  option(19, 4);
  storeU32Be(w, f.drPriority);
  w += 4;
  option(20, 4);
  storeU32Be(w, f.generationId);
  w += 4;
  option(24, 0);
  U8* const list = w;
  const U32 n = f.addressFamily == 1 ? 4 : 16;
  for (U32 i = 0; i < f.addressCount; ++i) {
    w[0] = f.addressFamily;
    w[1] = 0;
    std::memcpy(w + 2, f.addresses[i].data(), n);
    w += 2 + n;
  }
  storeU16Be(list - 2, static_cast<U16>(w - list));
  const U32 size = static_cast<U32>(w - p);
  p[0] = 0x20;
  p[1] = 0;
  storeU16Be(p + 2, 0);
  const U32 initial = f.addressFamily == 2 ? pseudoHeaderSum(src, dst, size) : 0;
  storeU16Be(p + 2, Knet::internetChecksum(p, size, initial));
  return size;
}

bool sameFields(const HelloFields& a, const HelloFields& b) {
  if (a.holdTime != b.holdTime || a.propagationDelay != b.propagationDelay ||
      a.overrideInterval != b.overrideInterval || a.drPriority != b.drPriority || a.generationId != b.generationId ||
      a.addressFamily != b.addressFamily || a.addressCount != b.addressCount) {
    return false;
  }
  const size_t n = a.addressFamily == 1 ? 4 : 16;
  for (U32 i = 0; i < a.addressCount; ++i) {
    if (std::memcmp(a.addresses[i].data(), b.addresses[i].data(), n) != 0) return false;
  }
  return true;
}

// ---- Hello decode ----

// Baseline: checksum and walk the bytes.
void BM_HelloWalk(benchmark::State& state, AddressFamily af) {
  const Loom::Ptr<Knet::Pkt> pkt = typicalHelloPkt(af);
  const HelloCase& c = helloCase(af);
  HelloFields check;
  if (!pkt || !walkHello(pkt->data(), pkt->size(), af, c.src, c.dst, check) || !sameFields(check, typicalFields(af))) {
    state.SkipWithError("the walk does not read what the codec wrote");
    return;
  }
  for (auto _ : state) {
    HelloFields f;
    if (!walkHello(pkt->data(), pkt->size(), af, c.src, c.dst, f)) {
      state.SkipWithError("walk failed");
      break;
    }
    benchmark::DoNotOptimize(f);
  }
}

// A fresh message per packet, as the receive path decodes.
void BM_HelloDecodeFresh(benchmark::State& state, AddressFamily af) {
  const Loom::Ptr<Knet::Pkt> pkt = typicalHelloPkt(af);
  const HelloCase& c = helloCase(af);
  if (!pkt) {
    state.SkipWithError("encode failed");
    return;
  }
  for (auto _ : state) {
    Loom::Ptr<HelloMessage> m = Routing::Pim::Packet::helloMessageFactory();
    m->srcIpIs(c.src);
    m->dstIpIs(c.dst);
    if (m->readHelloMessage(pkt, 0) != pkt->size()) {
      state.SkipWithError("decode failed");
      break;
    }
    benchmark::DoNotOptimize(m.ptr());
  }
}

// One message decoded into again and again: the cost of the decode alone.
void BM_HelloDecodeReuse(benchmark::State& state, AddressFamily af) {
  const Loom::Ptr<Knet::Pkt> pkt = typicalHelloPkt(af);
  const HelloCase& c = helloCase(af);
  const Loom::Ptr<HelloMessage> m = Routing::Pim::Packet::helloMessageFactory();
  if (!pkt) {
    state.SkipWithError("encode failed");
    return;
  }
  for (auto _ : state) {
    m->srcIpIs(c.src);
    m->dstIpIs(c.dst);
    if (m->readHelloMessage(pkt, 0) != pkt->size()) {
      state.SkipWithError("decode failed");
      break;
    }
    benchmark::DoNotOptimize(m.ptr());
  }
}

// ---- Hello encode ----

// Baseline: the same bytes written by hand.
void BM_HelloEncodeByHand(benchmark::State& state, AddressFamily af) {
  const Loom::Ptr<Knet::Pkt> expected = typicalHelloPkt(af);
  const HelloCase& c = helloCase(af);
  const HelloFields f = typicalFields(af);
  std::array<U8, 256> out{};
  if (!expected || writeHelloByHand(out.data(), f, c.src, c.dst) != expected->size() ||
      std::memcmp(out.data(), expected->data(), expected->size()) != 0) {
    state.SkipWithError("the hand-written encoder does not write what the codec writes");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(writeHelloByHand(out.data(), f, c.src, c.dst));
    benchmark::ClobberMemory();
  }
}

// The agent's Hello encoded into a packet of the right size.
void BM_HelloEncode(benchmark::State& state, AddressFamily af) {
  const Loom::Ptr<HelloMessage> m = typicalHello(af);
  const Loom::Ptr<Knet::Pkt> expected = typicalHelloPkt(af);
  if (!expected) {
    state.SkipWithError("encode failed");
    return;
  }
  const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(expected->size());
  for (auto _ : state) {
    if (m->writeHelloMessage(pkt, 0) != pkt->size()) {
      state.SkipWithError("encode failed");
      break;
    }
    benchmark::ClobberMemory();
  }
}

// ---- Trace ----

// A value whose text is costly to build, as a neighbor or a message is.
struct NeighborSummary {
  IpGenAddr address;
  U16 holdTime = 0;
  U32 generationId = 0;
  std::array<IpGenAddr, 2> secondary;
};

std::ostream& operator<<(std::ostream& os, const NeighborSummary& n) {
  std::string s = "neighbor ";
  s.append(n.address.str()).append(" holdtime ").append(std::to_string(n.holdTime));
  s.append(" genid ").append(std::to_string(n.generationId)).append(" secondary [");
  for (const IpGenAddr& a : n.secondary) s.append(" ").append(a.str());
  s.append(" ]");
  return os << s;
}

NeighborSummary neighborSummary() {
  const HelloCase& c = helloCase(AddressFamily::ipv4);
  return NeighborSummary{c.src, 105, 0x1badcafe, c.secondary};
}

Loom::TraceUnit benchTrace("CodecBench");

// Sets a trace unit's level for one benchmark and restores the old level afterwards.
class TraceLevelScope {
 public:
  TraceLevelScope(const char* unit, int level) : unit_(unit), saved_(Loom::traceLevel(unit)) {
    Loom::traceLevelIs(unit, level);
  }
  ~TraceLevelScope() { Loom::traceLevelIs(unit_, saved_); }

 private:
  const char* unit_;
  int saved_;
};

// Baseline: the loop of the trace benchmarks without the trace call.
void BM_EmptyLoop(benchmark::State& state) {
  NeighborSummary n = neighborSummary();
  for (auto _ : state) {
    benchmark::DoNotOptimize(&n);
    benchmark::ClobberMemory();
  }
}

// Baseline of an off trace: the least it can cost is reading a level from memory and branching.
int levelInMemory = Routing::Pim::Packet::traceError;
void BM_LevelCheckLoop(benchmark::State& state) {
  NeighborSummary n = neighborSummary();
  for (auto _ : state) {
    benchmark::DoNotOptimize(&n);
    if (levelInMemory >= Routing::Pim::Packet::traceDetail) benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
}

// A detail trace while only errors are traced, as a router runs: the level is read again on
// every call because memory is clobbered.
void BM_TraceOff(benchmark::State& state) {
  TraceLevelScope level("CodecBench", Routing::Pim::Packet::traceError);
  NeighborSummary n = neighborSummary();
  for (auto _ : state) {
    benchmark::DoNotOptimize(&n);
    LOOM_TRACE(benchTrace, Routing::Pim::Packet::traceDetail, "RX: " << n);
    benchmark::ClobberMemory();
  }
}

// The same through the codec's own macro, which finds its unit through a function call.
void BM_PimTraceOff(benchmark::State& state) {
  TraceLevelScope level("PimMessage", Routing::Pim::Packet::traceError);
  NeighborSummary n = neighborSummary();
  for (auto _ : state) {
    benchmark::DoNotOptimize(&n);
    PIM_TRACE(Routing::Pim::Packet::traceDetail, "RX: " << n);
    benchmark::ClobberMemory();
  }
}

// For scale: the same call with the level on, into a capture (and the ring log).
void BM_TraceOnCapture(benchmark::State& state) {
  Loom::TraceCapture capture(9);
  NeighborSummary n = neighborSummary();
  for (auto _ : state) {
    benchmark::DoNotOptimize(&n);
    LOOM_TRACE(benchTrace, Routing::Pim::Packet::traceDetail, "RX: " << n);
    if (capture.lines().size() >= 1024) capture.clear();
  }
  if (capture.lines().empty() && state.iterations() > 0) state.SkipWithError("nothing was traced");
}

// ---- Register ----

// A data Register from 10.99.0.2 to the RP 10.99.0.1 whose inner IPv4 UDP packet (10.66.0.2 to
// 239.1.2.3) is `innerSize` bytes long, with its checksum over header and flags.
Loom::Ptr<Knet::Pkt> dataRegister(U32 innerSize) {
  std::vector<U8> b(8 + innerSize, 0x5a);
  b[0] = 0x21;
  b[1] = b[2] = b[3] = 0;
  b[4] = b[5] = b[6] = b[7] = 0;
  Knet::IpHdr::write(b.data() + 8, 0, static_cast<U16>(innerSize), 63, 17, IpGenAddr::ipv4(0x0a420002),
                     IpGenAddr::ipv4(0xef010203));
  const U16 sum = Knet::internetChecksum(b.data(), 8);
  b[2] = static_cast<U8>(sum >> 8);
  b[3] = static_cast<U8>(sum);
  return Knet::pktFactory(b);
}

// Decoding hands the packet itself on without copying the inner packet, so the time must not
// grow with its size. Each round reads a new window on the same bytes, as the receive path reads
// a packet of its own (the read drops the window's outer headers).
void BM_RegisterDecode(benchmark::State& state) {
  const U32 innerSize = static_cast<U32>(state.range(0));
  const Loom::Ptr<Knet::Pkt> bytes = dataRegister(innerSize);
  Loom::Ptr<RegisterMessage> m = new RegisterMessage;
  m->srcIpIs(IpGenAddr::ipv4(0x0a630002));
  m->dstIpIs(IpGenAddr::ipv4(0x0a630001));
  for (auto _ : state) {
    Loom::Ptr<Knet::Pkt> pkt = bytes->sharedPkt();
    if (m->readRegisterMessage(pkt, 0) != 8 + innerSize) {
      state.SkipWithError("decode failed");
      break;
    }
    benchmark::DoNotOptimize(m->rcvdPkt().ptr());
    m->rcvdPktIs(nullptr);
  }
  state.counters["inner"] = innerSize;
}

// ---- Bootstrap ----

constexpr U32 bootstrapRanges = 20;
constexpr U32 bootstrapRpsPerRange = 4;

// An IPv4 Bootstrap from the BSR 10.0.0.1 with 20 ranges 239.<i>.0.0/16, each with the RPs
// 10.1.<i>.1 to 10.1.<i>.4, encoded by the codec.
Loom::Ptr<Knet::Pkt> fullBootstrap() {
  Loom::Ptr<Routing::Pim::Packet::BootstrapMessage> m = new Routing::Pim::Packet::BootstrapMessage;
  m->srcIpIs(IpGenAddr::ipv4(0x0a000001));
  m->dstIpIs(Knet::allPimRouters(AddressFamily::ipv4));
  m->fragmentTagIs(7);
  m->hashMaskLenIs(30);
  m->bsrPriorityIs(64);
  m->bsrAddressIs(IpGenAddr::ipv4(0x0a000001));
  m->groupRpDataIs(Routing::Pim::Packet::bootstrapOptionalDataFactory());
  for (U32 g = 0; g < bootstrapRanges; ++g) {
    auto range = Routing::Pim::Packet::bootstrapGroupDataFactory(Knet::IpGenPrefix(IpGenAddr::ipv4(0xef000000 | g << 16), 16));
    range->rpCountIs(bootstrapRpsPerRange);
    range->fragRpCountIs(bootstrapRpsPerRange);
    for (U32 r = 1; r <= bootstrapRpsPerRange; ++r) {
      auto& rp = range->rpListIs(IpGenAddr::ipv4(0x0a010000 | g << 8 | r));
      rp.holdtimeIs(150);
      rp.priorityIs(static_cast<U8>(r));
    }
    m->groupRpData()->groupDataEnq(range);
  }
  Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(1500);
  pkt->sizeIs(m->writeBootstrapMessage(pkt, 0));
  return pkt;
}

// The least any IPv4 Bootstrap decoder does: verify the checksum and read every field into
// locals, with the layout checks of each encoded address. No records, no traces.
U32 walkBootstrap(const U8* p, U32 size) {
  if (size < 14 || Knet::onesComplementSum(p, size) != 0xffff || p[0] != 0x24) return 0;
  U32 fold = U32(p[4]) << 8 | p[5];
  fold ^= U32(p[6]) << 16 | p[7];
  if (p[8] != 1 || p[9] != 0) return 0;
  fold ^= U32(p[10]) << 24 | U32(p[11]) << 16 | U32(p[12]) << 8 | p[13];
  U32 pos = 14;
  while (pos < size) {
    if (size - pos < 12 || p[pos] != 1 || p[pos + 1] != 0) return 0;
    fold ^= U32(p[pos + 4]) << 24 | U32(p[pos + 5]) << 16 | U32(p[pos + 3]);
    const U32 rps = p[pos + 8];
    pos += 12;
    for (U32 r = 0; r < rps; ++r) {
      if (size - pos < 10 || p[pos] != 1 || p[pos + 1] != 0) return 0;
      fold ^= (U32(p[pos + 2]) << 24 | U32(p[pos + 3]) << 16 | U32(p[pos + 4]) << 8 | p[pos + 5]) + p[pos + 8];
      pos += 10;
    }
  }
  return fold | 1;
}

void BM_BootstrapWalk(benchmark::State& state) {
  const Loom::Ptr<Knet::Pkt> pkt = fullBootstrap();
  for (auto _ : state) {
    const U32 r = walkBootstrap(pkt->data(), pkt->size());
    if (r == 0) {
      state.SkipWithError("walk failed");
      break;
    }
    benchmark::DoNotOptimize(r);
  }
  state.counters["bytes"] = pkt->size();
}

// A fresh message per packet, as the receive path decodes.
void BM_BootstrapDecode(benchmark::State& state) {
  const Loom::Ptr<Knet::Pkt> pkt = fullBootstrap();
  for (auto _ : state) {
    Loom::Ptr<Routing::Pim::Packet::BootstrapMessage> m = new Routing::Pim::Packet::BootstrapMessage;
    m->srcIpIs(IpGenAddr::ipv4(0x0a000001));
    m->dstIpIs(Knet::allPimRouters(AddressFamily::ipv4));
    if (m->readBootstrapMessage(pkt, 0) != pkt->size() ||
        m->groupRpData()->groupData().size() != bootstrapRanges) {
      state.SkipWithError("decode failed");
      break;
    }
    benchmark::DoNotOptimize(m.ptr());
  }
  state.counters["bytes"] = pkt->size();
}

}  // namespace

// 1480 bytes: a full Ethernet payload behind the IPv4 header; 50 bytes: the typical IPv4 Hello.
BENCHMARK(BM_ChecksumByWord)->Arg(1480)->Arg(50);
BENCHMARK(BM_ChecksumFast)->Arg(1480)->Arg(50);

BENCHMARK_CAPTURE(BM_HelloWalk, ipv4, AddressFamily::ipv4);
BENCHMARK_CAPTURE(BM_HelloDecodeFresh, ipv4, AddressFamily::ipv4);
BENCHMARK_CAPTURE(BM_HelloDecodeReuse, ipv4, AddressFamily::ipv4);
BENCHMARK_CAPTURE(BM_HelloWalk, ipv6, AddressFamily::ipv6);
BENCHMARK_CAPTURE(BM_HelloDecodeFresh, ipv6, AddressFamily::ipv6);
BENCHMARK_CAPTURE(BM_HelloDecodeReuse, ipv6, AddressFamily::ipv6);

BENCHMARK_CAPTURE(BM_HelloEncodeByHand, ipv4, AddressFamily::ipv4);
BENCHMARK_CAPTURE(BM_HelloEncode, ipv4, AddressFamily::ipv4);
BENCHMARK_CAPTURE(BM_HelloEncodeByHand, ipv6, AddressFamily::ipv6);
BENCHMARK_CAPTURE(BM_HelloEncode, ipv6, AddressFamily::ipv6);

// A small and a full inner packet (1400 bytes behind the outer IPv4 and PIM headers).
BENCHMARK(BM_RegisterDecode)->Arg(100)->Arg(1400);

// 20 ranges of 4 RPs each.
BENCHMARK(BM_BootstrapWalk);
BENCHMARK(BM_BootstrapDecode);

BENCHMARK(BM_EmptyLoop);
BENCHMARK(BM_LevelCheckLoop);
BENCHMARK(BM_TraceOff);
BENCHMARK(BM_PimTraceOff);
BENCHMARK(BM_TraceOnCapture);

int main(int argc, char** argv) {
  // Figures are measured with every trace off unless a benchmark sets a level itself.
  Loom::traceLevelIs("*", 0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
