// The receive path's headline benchmark, on a veth pair between two network namespaces (needs
// root; without it the binary says so and measures nothing). A sender in namespace B floods
// ALL-PIM-ROUTERS on its veth with valid PIM messages from an address that the agent in
// namespace A holds as an active neighbor; the agent's socket joined the group on its veth.
//   BM_RxPath: IOSm::rxPkt, the whole receive path: drain in batches, header and interface,
//              destination and source checks, decode, count in the shared-memory table, hand-over
//              into the agent's receive slot of the type;
//   BM_RxBare: a bare recvmmsg drain of a socket made the same way (a packet access manager's),
//              into fixed buffers, nothing else.
// Arguments: the family (0 IPv4, 1 IPv6) and the message: 0 is a Hello, n > 0 a Join/Prune of one
// group with n (S,G) joins. Each iteration puts `burst` packets in the receiving socket's queue
// (not timed), then drains the socket until all of them are read; only the drain is timed, in
// wall time (manual time) and in the thread's CPU time (counter cpuPerPacket, ns). Both sides
// drain the same way: until the socket is empty, the empty read included.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "PimIO/IOSm.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "NetnsBench.h"

namespace Routing::Pim::IO {
namespace {

using Knet::AddressFamily;
using Knet::IpGenAddr;
using Clock = std::chrono::steady_clock;

constexpr size_t burst = 256;  // packets queued per iteration, then drained
constexpr U32 mtu = 1500;

using PimBench::lab;

AddressFamily afOf(const benchmark::State& state) {
  return state.range(0) == 0 ? AddressFamily::ipv4 : AddressFamily::ipv6;
}
U32 sourcesOf(const benchmark::State& state) { return U32(state.range(1)); }

// The sender's address as the agent sees it: IPv6 multicast to a link-scope group leaves from the
// link-local address.
IpGenAddr senderAddr(AddressFamily af) {
  return af == AddressFamily::ipv4 ? lab().addrB(af) : PimTest::NetnsLab::linkLocalB();
}

IpGenAddr addr(const char* text) { return *IpGenAddr::parse(text); }

// Source s of the Join/Prune: 10.1.0.1 up, or 2001:db8::1 up.
IpGenAddr sourceAddr(AddressFamily af, U32 s) {
  if (af == AddressFamily::ipv4) return IpGenAddr::ipv4(0x0a010001 + s);
  std::array<U8, 16> b{0x20, 0x01, 0x0d, 0xb8};
  b[14] = U8((s + 1) >> 8);
  b[15] = U8(s + 1);
  return IpGenAddr::fromBytes(AddressFamily::ipv6, b.data());
}

// The PIM message that the sender puts on the wire, checksum included; empty when the encoder did
// not write the whole message into one packet.
std::vector<U8> messageBytes(AddressFamily af, U32 sources) {
  const IpGenAddr src = senderAddr(af), dst = Knet::allPimRouters(af);
  const auto p = Knet::pktFactory(mtu);
  U32 n = 0;
  if (sources == 0) {
    auto m = Packet::helloMessageFactory();
    m->srcIpIs(src);
    m->dstIpIs(dst);
    m->holdTimeOptionIs(true);
    m->holdTimeIs(105);
    m->generationIdOptionIs(true);
    m->generationIdIs(42);
    n = m->writeHelloMessage(p, 0);
  } else {
    Loom::Ptr<JoinPruneData> data =
        new JoinPruneData(af == AddressFamily::ipv4 ? lab().addrA(af) : PimTest::NetnsLab::linkLocalA());
    data->holdTimeIs(210);
    JoinPruneGroupData& g = data->joinPruneGroupDataIs(addr(af == AddressFamily::ipv4 ? "232.1.1.1" : "ff3e::1"));
    for (U32 s = 0; s < sources; ++s) g.joinedSourceIs(sourceAddr(af, s));
    auto m = Packet::joinPruneMessageFactory();
    m->srcIpIs(src);
    m->dstIpIs(dst);
    m->mtuIs(mtu);
    m->joinPruneDataIs(data);
    n = m->writeJoinPruneMessage(p, 0, nullptr);
    if (!data->empty() || data->bookmark()) return {};
  }
  return std::vector<U8>(p->data(), p->data() + n);
}

using PimBench::sockAddr;

// B sends `burst` copies of one message to ALL-PIM-ROUTERS out of its veth with sendmmsg; veth
// hands them to A's socket queue before the call returns.
class Flood {
 public:
  Flood(AddressFamily af, std::vector<U8> bytes)
      : burst_(std::move(bytes), Knet::allPimRouters(af), lab().ifIndexB(), burst) {
    sender_ = af == AddressFamily::ipv4
                  ? static_cast<Knet::IpPam*>(new Knet::IpSocketPam("flood", Knet::ipProtoPim, lab().nsB()))
                  : static_cast<Knet::IpPam*>(new Knet::Ip6SocketPam("flood", Knet::ipProtoPim, lab().nsB()));
    sender_->flagsIs(Knet::IpPam::flagNoMulticastLoop);
    sender_->enabledIs(true);
    ok_ = PimBench::multicastIfIs(sender_->fd(), lab().addrB(af), lab().ifIndexB()) && !burst_.bytes().empty();
  }
  bool ok() const { return ok_ && sender_->enabled(); }
  // Packets sent; a full send buffer ends the burst early.
  size_t send() { return burst_.send(sender_->fd(), 100); }

 private:
  PimBench::Burst burst_;
  Loom::Ptr<Knet::IpPam> sender_;
  bool ok_ = false;
};

// A's side: a packet access manager in namespace A, its socket joined to ALL-PIM-ROUTERS on the
// veth, with a receive queue that holds a whole burst.
Loom::Ptr<PamManager> receivingManager(AddressFamily af) {
  auto manager = pamManagerFactory(af, lab().nsA(), false);
  manager->pam()->groupIs(lab().ifIndexA(), Knet::allPimRouters(af));
  manager->pam()->maxRxPktDataIs(65535);
  manager->pam()->enabledIs(true);
  const int size = 16 << 20;
  ::setsockopt(manager->pam()->fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
  return manager;
}

// The agent as it wires one I/O state machine: the manager above, knowing the veth as interface
// "pa", a counter table in shared memory, a PIM interface with the sender as active neighbor, a
// receive slot for Hello and Join/Prune, and the timer wheel on the monotonic clock.
struct Agent {
  explicit Agent(AddressFamily af)
      : manager(receivingManager(af)),
        counters(Cask::messageCountersFactory(
            "rxbench" + std::to_string(getpid()) + "-" + std::to_string(serial.fetch_add(1)), af, 64)) {
    const Knet::IntfId pa("pa");
    manager->kernelIntfIs(lab().ifIndexA())->intfIdIs(pa);
    manager->intfIs(pa)->ifIndexIs(lab().ifIndexA());
    status->pimIntfIs(pa)->neighborIs(senderAddr(af), true);
    for (const Knet::PimMessageType t : {Knet::pimHello(), Knet::pimJoinPrune()}) {
      manager->rxMessageInfoIs(t.type(), messageInfoFactory());
    }
    io = IOSmIs(manager, counters, status, configCollFactory(), IpGen::intfStatusFactory(), Acl::aclTypeConfigFactory(),
                Interface::deviceIntfStatusDirFactory(), Interface::allIntfStatusDirFactory(), pimAttrLogSmFactory(),
                wheel->timerNew(), McastBoundary::statusFactory());
  }
  ~Agent() {
    io = nullptr;
    counters->unlink();
  }
  // Packets read, and how many of them reached their slot.
  U64 read() const { return manager->rxPamCounter()->count(); }
  U64 handedOver() const {
    U64 n = 0;
    for (const Knet::PimMessageType t : {Knet::pimHello(), Knet::pimJoinPrune()}) {
      n += manager->rxMessageInfo(t.type())->count();
    }
    return n;
  }

  static inline std::atomic<U32> serial{0};
  Keel::MonotonicClock clock;
  Loom::Ptr<Keel::TimerWheel> wheel = Keel::timerWheelFactory(clock);
  Loom::Ptr<PamManager> manager;
  Loom::Ptr<Cask::MessageCounters> counters;
  Loom::Ptr<Status> status = statusFactory("bench");
  Loom::Ptr<IOSm> io;
};

double threadCpuNs() {
  timespec t{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
}

// Queues a burst, then runs `drain()` (which empties the socket and returns the packets it read)
// until the burst is read. A drain that found nothing yet waits for the socket and is not timed.
template <class Drain>
void drainBursts(benchmark::State& state, Flood& flood, int fd, Drain drain) {
  size_t total = 0, lost = 0, drains = 0;
  double cpu = 0, wall = 0;
  for (auto _ : state) {
    const size_t sent = flood.send();
    size_t got = 0;
    Clock::duration spent{};
    for (int idle = 0; got < sent && idle < 20;) {
      const double c0 = threadCpuNs();
      const auto t0 = Clock::now();
      const size_t n = drain();
      const auto t1 = Clock::now();
      const double c1 = threadCpuNs();
      if (n == 0) {
        ++idle;
        pollfd p{fd, POLLIN, 0};
        ::poll(&p, 1, 10);
        continue;
      }
      spent += t1 - t0;
      cpu += c1 - c0;
      got += n;
      ++drains;
    }
    total += got;
    lost += sent - std::min(sent, got);
    state.SetIterationTime(std::chrono::duration<double>(spent).count());
    wall += std::chrono::duration<double, std::nano>(spent).count();
  }
  state.SetItemsProcessed(int64_t(total));
  state.counters["packets"] = benchmark::Counter(double(total), benchmark::Counter::kAvgIterations);
  state.counters["cpuPerPacket"] = total ? cpu / double(total) : 0;
  state.counters["lost"] = double(lost);
  // Wall time of the drains that the thread spent off the CPU (preempted), and drains per burst
  // (more than one when packets still arrived during a drain).
  state.counters["offCpuPerPacket"] = total ? (wall - cpu) / double(total) : 0;
  state.counters["drainsPerBurst"] = benchmark::Counter(double(drains), benchmark::Counter::kAvgIterations);
}

bool setUp(benchmark::State& state, const Flood& flood, const Loom::Ptr<PamManager>& manager) {
  if (!flood.ok()) {
    state.SkipWithError("the sender could not be set up (or the message does not fit one packet)");
    return false;
  }
  if (!manager->pam()->enabled()) {
    state.SkipWithError("the receiving socket did not open");
    return false;
  }
  return true;
}

void BM_RxPath(benchmark::State& state) {
  const AddressFamily af = afOf(state);
  Flood flood(af, messageBytes(af, sourcesOf(state)));
  Agent agent(af);
  if (!setUp(state, flood, agent.manager)) return;
  // The socket's receive buffers are made on its first read; the baseline makes its own before the
  // loop too.
  agent.io->rxPkt();
  drainBursts(state, flood, agent.manager->pam()->fd(), [&] {
    const U64 before = agent.read();
    agent.io->rxPkt();
    return size_t(agent.read() - before);
  });
  // Every packet read must have gone the whole way, or this measured a drop path.
  const auto a = agent.io->rxAccounting();
  if (agent.handedOver() != agent.read() || a.valid != a.read || !a.balanced()) {
    std::ostringstream why;
    why << "not every packet was handed over: " << a << ", handed over " << agent.handedOver();
    state.SkipWithError(why.str().c_str());
  }
}

// The same socket, read by recvmmsg into fixed buffers until it is empty.
void BM_RxBare(benchmark::State& state) {
  const AddressFamily af = afOf(state);
  Flood flood(af, messageBytes(af, sourcesOf(state)));
  const auto manager = receivingManager(af);
  if (!setUp(state, flood, manager)) return;
  const int fd = manager->pam()->fd();
  constexpr size_t n = Knet::IpPam::maxBatch;
  constexpr size_t dataSize = 65535;
  std::vector<U8> data(n * dataSize);
  std::vector<sockaddr_in6> names(n);
  std::vector<std::array<U8, 128>> control(n);
  std::vector<iovec> iov(n);
  std::vector<mmsghdr> msgs(n);
  drainBursts(state, flood, fd, [&] {
    size_t got = 0;
    for (;;) {
      for (size_t i = 0; i < n; ++i) {
        iov[i] = {data.data() + i * dataSize, dataSize};
        msgs[i].msg_hdr = msghdr{&names[i], sizeof(sockaddr_in6), &iov[i], 1, control[i].data(), 128, 0};
      }
      const int r = ::recvmmsg(fd, msgs.data(), unsigned(n), MSG_DONTWAIT, nullptr);
      if (r <= 0) return got;
      got += size_t(r);
    }
  });
}

// IPv4: Hello, Join/Prune of 1 group x 1, 20 and 181 (S,G) (181 fill a 1500-byte packet); IPv6:
// Hello, Join/Prune of 1 group x 1 and 20.
void rxArgs(benchmark::internal::Benchmark* b) {
  for (const int sources : {0, 1, 20, 181}) b->Args({0, sources});
  for (const int sources : {0, 1, 20}) b->Args({1, sources});
}

BENCHMARK(BM_RxPath)->Apply(rxArgs)->UseManualTime();
BENCHMARK(BM_RxBare)->Apply(rxArgs)->UseManualTime();

}  // namespace
}  // namespace Routing::Pim::IO

int main(int argc, char** argv) { return PimBench::runNetnsBenchmarks(argc, argv, "rx_bench"); }
