// The kernel receive filter under a flood of unwanted PIM types (needs root; without it the binary
// says so and measures nothing). A peer namespace sends bursts of Asserts, each closed by one
// Hello, over a veth pair to a socket of the state machine that wants only Hellos; the receiving
// side drains until the Hello. With the filter on the kernel drops the Asserts before they are
// queued; off, the receiving thread reads each one and throws it away. Same run, both ways:
//   BM_FloodDrain/af/filter: CPU time of the receiving thread's drain, per rejected packet;
//   BM_FloodWhole/af/filter: CPU time of the thread that sends and drains (the sending side runs
//                            the veth's receive processing, and so the filter itself), per packet.
// Arguments: address family (0 IPv4, 1 IPv6), filter (0 off, 1 on).
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <vector>

#include "PimIO/IOSm.h"
#include "NetnsBench.h"

namespace {

using namespace Knet;
using namespace Routing::Pim;

constexpr size_t burst = 256;  // unwanted packets per iteration
constexpr U8 helloType = 0x20, assertType = 0x25;

using PimBench::lab;

double threadCpuSeconds() {
  timespec t{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// The state machine in namespace B with a receive slot for Hello when the filter is on, none (no
// filter: every type passes) when it is off.
struct Receiver {
  Receiver(AddressFamily af, bool filter)
      : manager(IO::pamManagerFactory(af, lab().nsB(), false)),
        counters(Routing::Pim::Cask::messageCountersFactory("filterbench" + std::to_string(getpid()), af, 64)) {
    if (filter) manager->rxMessageInfoIs(0, IO::messageInfoFactory());
    sm = IO::iOSmFactory(manager, counters, statusFactory("bench"), configCollFactory(), IpGen::intfStatusFactory(),
                         Acl::aclTypeConfigFactory(), Interface::deviceIntfStatusDirFactory(),
                         Interface::allIntfStatusDirFactory(), pimAttrLogSmFactory(), nullptr, nullptr);
    const int size = 8 << 20;  // room for a whole burst when nothing is filtered
    ::setsockopt(manager->pam()->fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
  }
  ~Receiver() { counters->unlink(); }
  // Takes packets until the Hello that closes the burst; returns the unwanted ones read, or -1
  // when the Hello did not come.
  long drain() {
    IpPam& pam = *manager->pam();
    long unwanted = 0;
    for (int idle = 0; idle < 50;) {
      if (pam.rxPktBatch(batch, IpPam::maxBatch) == 0) {
        ++idle;
        pollfd p{pam.fd(), POLLIN, 0};
        ::poll(&p, 1, 10);
        continue;
      }
      for (const RxPkt& r : batch) {
        const U32 at = pam.af() == AddressFamily::ipv4 ? (r.pkt->data()[0] & 0x0f) * 4u : 0u;
        if (r.pkt->data()[at] == helloType) return unwanted;
        ++unwanted;
      }
    }
    return -1;
  }
  Loom::Ptr<IO::PamManager> manager;
  Loom::Ptr<Routing::Pim::Cask::MessageCounters> counters;
  Loom::Ptr<IO::IOSm> sm;
  std::vector<RxPkt> batch;
};

// Namespace A sends `burst` Asserts and one Hello to B's address with one sendmmsg.
class Flood {
 public:
  explicit Flood(AddressFamily af)
      : sender_(af == AddressFamily::ipv4 ? static_cast<IpPam*>(new IpSocketPam("flood", 103, lab().nsA()))
                                          : static_cast<IpPam*>(new Ip6SocketPam("flood", 103, lab().nsA()))) {
    sender_->enabledIs(true);
    std::memset(&to_, 0, sizeof(to_));
    const IpGenAddr dst = lab().addrB(af);
    if (af == AddressFamily::ipv4) {
      auto* s = reinterpret_cast<sockaddr_in*>(&to_);
      s->sin_family = AF_INET;
      std::memcpy(&s->sin_addr, dst.bytes(), 4);
    } else {
      auto* s = reinterpret_cast<sockaddr_in6*>(&to_);
      s->sin6_family = AF_INET6;
      std::memcpy(&s->sin6_addr, dst.bytes(), 16);
    }
    // An Assert of the size an IPv4 one has (header, group, source, preference, metric); the
    // filter looks at the first byte only.
    assert_.assign(34, 0);
    assert_[0] = assertType;
    hello_ = {helloType, 0, 0, 0};
    iov_.resize(burst + 1, iovec{assert_.data(), assert_.size()});
    iov_[burst] = iovec{hello_.data(), hello_.size()};
    msgs_.resize(burst + 1);
    const socklen_t len = af == AddressFamily::ipv4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    for (size_t i = 0; i <= burst; ++i) msgs_[i].msg_hdr = msghdr{&to_, len, &iov_[i], 1, nullptr, 0, 0};
  }
  bool send() { return ::sendmmsg(sender_->fd(), msgs_.data(), unsigned(msgs_.size()), 0) == int(msgs_.size()); }

 private:
  Loom::Ptr<IpPam> sender_;
  sockaddr_storage to_;
  std::vector<U8> assert_, hello_;
  std::vector<iovec> iov_;
  std::vector<mmsghdr> msgs_;
};

void flood(benchmark::State& state, bool wholeThread) {
  const AddressFamily af = state.range(0) == 0 ? AddressFamily::ipv4 : AddressFamily::ipv6;
  const bool filter = state.range(1) != 0;
  Receiver rx(af, filter);
  Flood tx(af);
  long read = 0;
  for (auto _ : state) {
    const double t0 = threadCpuSeconds();
    if (!tx.send()) {
      state.SkipWithError("sendmmsg failed");
      return;
    }
    const double t1 = threadCpuSeconds();
    const long n = rx.drain();
    const double t2 = threadCpuSeconds();
    if (n < 0 || (!filter && n != long(burst)) || (filter && n != 0)) {
      state.SkipWithError("the burst did not arrive as expected");
      return;
    }
    read += n;
    state.SetIterationTime(wholeThread ? t2 - t0 : t2 - t1);
  }
  state.counters["read"] = benchmark::Counter(double(read) / double(state.iterations()));
  state.SetItemsProcessed(int64_t(state.iterations() * burst));
}

void BM_FloodDrain(benchmark::State& state) { flood(state, false); }
void BM_FloodWhole(benchmark::State& state) { flood(state, true); }

// A fixed number of bursts: with the filter on, the drain's time is so short that a minimum time
// of it would take many seconds of sending.
BENCHMARK(BM_FloodDrain)->ArgsProduct({{0, 1}, {0, 1}})->UseManualTime()->Iterations(2000);
BENCHMARK(BM_FloodWhole)->ArgsProduct({{0, 1}, {0, 1}})->UseManualTime()->Iterations(2000);

}  // namespace

int main(int argc, char** argv) { return PimBench::runNetnsBenchmarks(argc, argv, "filter_bench"); }
