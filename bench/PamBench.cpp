// Benchmarks of the raw sockets on a veth pair between two network namespaces (needs root; without
// it the binary says so and measures nothing). scripts/bench quotes each figure against its
// baseline from the same run:
//   receive: IpPam::rxPktBatch draining Hellos into Pkts with their interface and addresses
//            vs. a bare recvmmsg loop on a socket of the same kind and options;
//   transmit: IpPam::txPkt vs. a bare sendto of the same bytes.
// Argument 0 is IPv4, 1 is IPv6.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <iostream>
#include <memory>
#include <vector>

#include "PimMessage/HelloMessage.h"
#include "knet/IpPam.h"
#include "NetnsBench.h"

namespace {

using namespace Knet;
using Clock = std::chrono::steady_clock;

constexpr IpProtocolNumber pim = 103;
constexpr size_t burst = 256;  // Hellos sent per iteration, then drained

AddressFamily afOf(const benchmark::State& state) {
  return state.range(0) == 0 ? AddressFamily::ipv4 : AddressFamily::ipv6;
}

using PimBench::lab;

Loom::Ptr<IpPam> pamIn(AddressFamily af, const std::string& ns, const char* name) {
  Loom::Ptr<IpPam> p = af == AddressFamily::ipv4 ? static_cast<IpPam*>(new IpSocketPam(name, pim, ns))
                                                 : static_cast<IpPam*>(new Ip6SocketPam(name, pim, ns));
  return p;
}

std::vector<U8> helloBytes(const IpGenAddr& src, const IpGenAddr& dst) {
  auto m = Routing::Pim::Packet::helloMessageFactory();
  m->srcIpIs(src);
  m->dstIpIs(dst);
  m->holdTimeOptionIs(true);
  m->holdTimeIs(105);
  m->generationIdOptionIs(true);
  m->generationIdIs(42);
  auto p = pktFactory(256);
  const U32 n = m->writeHelloMessage(p, 0);
  return std::vector<U8>(p->data(), p->data() + n);
}

using PimBench::sockAddr;

// A sends `burst` Hellos to B's unicast address with one sendmmsg; veth hands them to B's queue
// before the call returns.
class Flood {
 public:
  explicit Flood(AddressFamily af)
      : sender_(pamIn(af, lab().nsA(), "flood")),
        burst_(helloBytes(lab().addrA(af), lab().addrB(af)), lab().addrB(af), lab().ifIndexB(), burst) {
    sender_->enabledIs(true);
  }
  size_t send() { return burst_.send(sender_->fd()); }

 private:
  Loom::Ptr<IpPam> sender_;
  PimBench::Burst burst_;
};

// Room for B's queue to hold a whole burst.
void bigReceiveBuffer(int fd) {
  const int size = 8 << 20;
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
}

// Drains a burst with `drain(max)` returning packets taken; only calls that took packets are timed.
template <class Drain>
void drainBursts(benchmark::State& state, Flood& flood, int fd, Drain drain) {
  size_t total = 0;
  for (auto _ : state) {
    const size_t sent = flood.send();
    size_t got = 0;
    Clock::duration spent{};
    for (int idle = 0; got < sent && idle < 20;) {
      const auto t0 = Clock::now();
      const size_t n = drain(IpPam::maxBatch);
      if (n == 0) {
        ++idle;
        pollfd p{fd, POLLIN, 0};
        ::poll(&p, 1, 10);
        continue;
      }
      spent += Clock::now() - t0;
      got += n;
    }
    total += got;
    state.SetIterationTime(std::chrono::duration<double>(spent).count());
  }
  state.SetItemsProcessed(int64_t(total));
}

void BM_PamRxBatch(benchmark::State& state) {
  const AddressFamily af = afOf(state);
  Flood flood(af);
  auto b = pamIn(af, lab().nsB(), "rx");
  b->flagsIs(IpPam::flagPktInfo);
  b->enabledIs(true);
  bigReceiveBuffer(b->fd());
  std::vector<RxPkt> out;
  drainBursts(state, flood, b->fd(), [&](size_t max) {
    const size_t n = b->rxPktBatch(out, max);
    benchmark::DoNotOptimize(out.data());
    return n;
  });
}

// The same socket kind and options, drained by recvmmsg into fixed buffers, nothing else.
void BM_BareRecvmmsg(benchmark::State& state) {
  const AddressFamily af = afOf(state);
  Flood flood(af);
  auto b = pamIn(af, lab().nsB(), "bare");
  b->flagsIs(IpPam::flagPktInfo);
  b->enabledIs(true);
  bigReceiveBuffer(b->fd());
  constexpr size_t n = IpPam::maxBatch;
  std::vector<U8> data(n * 65535);
  std::vector<sockaddr_in6> names(n);
  std::vector<std::array<U8, 128>> control(n);
  std::vector<iovec> iov(n);
  std::vector<mmsghdr> msgs(n);
  drainBursts(state, flood, b->fd(), [&](size_t max) {
    for (size_t i = 0; i < max; ++i) {
      iov[i] = {data.data() + i * 65535, 65535};
      msgs[i].msg_hdr = msghdr{&names[i], sizeof(sockaddr_in6), &iov[i], 1, control[i].data(), 128, 0};
    }
    const int r = ::recvmmsg(b->fd(), msgs.data(), unsigned(max), MSG_DONTWAIT, nullptr);
    return r > 0 ? size_t(r) : 0;
  });
}

// Sends to ALL-PIM-ROUTERS on A's veth; B has not joined the group and drops them.
void BM_PamTx(benchmark::State& state) {
  const AddressFamily af = afOf(state);
  auto a = pamIn(af, lab().nsA(), "tx");
  a->enabledIs(true);
  TxParams p;
  p.ifIndex = lab().ifIndexA();
  p.src = af == AddressFamily::ipv4 ? lab().addrA(af) : PimTest::NetnsLab::linkLocalA();
  p.dst = allPimRouters(af);
  auto pkt = pktFactory(helloBytes(p.src, p.dst));
  for (auto _ : state) benchmark::DoNotOptimize(a->txPkt(*pkt, p));
  if (a->txErrors() != 0) state.SkipWithError("txPkt failed");
  state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_BareSendto(benchmark::State& state) {
  const AddressFamily af = afOf(state);
  auto a = pamIn(af, lab().nsA(), "bare");
  a->enabledIs(true);
  const U32 ifIndex = lab().ifIndexA();
  const IpGenAddr src = af == AddressFamily::ipv4 ? lab().addrA(af) : PimTest::NetnsLab::linkLocalA();
  const auto bytes = helloBytes(src, allPimRouters(af));
  PimBench::multicastIfIs(a->fd(), src, ifIndex);
  sockaddr_storage to;
  const socklen_t len = sockAddr(allPimRouters(af), ifIndex, to);
  size_t failures = 0;
  for (auto _ : state) {
    failures += ::sendto(a->fd(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), len) < 0;
  }
  if (failures != 0) state.SkipWithError("sendto failed");
  state.SetItemsProcessed(int64_t(state.iterations()));
}

BENCHMARK(BM_PamRxBatch)->Arg(0)->Arg(1)->UseManualTime();
BENCHMARK(BM_BareRecvmmsg)->Arg(0)->Arg(1)->UseManualTime();
BENCHMARK(BM_PamTx)->Arg(0)->Arg(1);
BENCHMARK(BM_BareSendto)->Arg(0)->Arg(1);

}  // namespace

int main(int argc, char** argv) { return PimBench::runNetnsBenchmarks(argc, argv, "pam_bench"); }
