// The transmit path through the state machine on a veth pair between two namespaces (root only;
// without it the binary says so and measures nothing): the agent raises the transmit record's
// count, and the machine checks the interface, encodes, counts and sends. Against a bare sendto
// of the same bytes on a socket of the same kind, same run. Argument 0 is a Hello, 1 a periodic
// Join/Prune of one group and 181 (S,G) joins, which fills a 1,500-byte IPv4 packet.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "PimIO/IOSm.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/MessageTable.h"
#include "NetnsBench.h"

namespace {

using namespace Routing::Pim;
using Knet::AddressFamily;

using PimBench::lab;

const Knet::IntfId pa("pa");

Loom::Ptr<Packet::Message> message(int kind) {
  if (kind == 0) {
    auto h = Packet::helloMessageFactory();
    h->holdTimeOptionIs(true);
    h->holdTimeIs(105);
    h->generationIdOptionIs(true);
    h->generationIdIs(42);
    return h;
  }
  Loom::Ptr<JoinPruneData> tree = new JoinPruneData(lab().addrB(AddressFamily::ipv4));
  tree->holdTimeIs(210);
  tree->periodicIs(true);  // re-sent whole every time, as a periodic refresh is
  auto& g = tree->joinPruneGroupDataIs(Knet::IpGenAddr::parse("239.1.1.1").value());
  for (U32 i = 0; i < 181; ++i) {
    const U8 b[4] = {10, 1, U8(i >> 8), U8(i + 1)};
    g.joinedSourceIs(Knet::IpGenAddr::fromBytes(AddressFamily::ipv4, b));
  }
  auto jp = Packet::joinPruneMessageFactory();
  jp->joinPruneDataIs(tree);
  return jp;
}

// The agent's side in namespace a: one PIM interface on the veth end "pa".
struct Agent {
  Loom::Ptr<IO::PamManager> manager = IO::pamManagerFactory(AddressFamily::ipv4, lab().nsA(), false);
  Loom::Ptr<Routing::Pim::Cask::MessageCounters> counters =
      Routing::Pim::Cask::messageCountersFactory("txbench" + std::to_string(getpid()), AddressFamily::ipv4, 256);
  Loom::Ptr<Status> status = statusFactory("bench");
  Loom::Ptr<IpGen::IntfStatus> ipStatus = IpGen::intfStatusFactory();
  Keel::ManualClock clock;
  Loom::Ptr<Keel::TimerWheel> wheel = Keel::timerWheelFactory(clock);
  Loom::Ptr<IO::IOSm> io;
  Agent() {
    manager->kernelIntfIs(lab().ifIndexA())->intfIdIs(pa);
    manager->intfIs(pa)->ifIndexIs(lab().ifIndexA());
    status->pimIntfIs(pa)->addrIs(lab().addrA(AddressFamily::ipv4));
    ipStatus->ipIntfIs(pa)->primaryAddrIs(Knet::IpGenPrefix(lab().addrA(AddressFamily::ipv4), 24));
    io = IO::iOSmFactory(manager, counters, status, configCollFactory(), ipStatus, Acl::aclTypeConfigFactory(),
                         Interface::deviceIntfStatusDirFactory(), Interface::allIntfStatusDirFactory(),
                         pimAttrLogSmFactory(), wheel->timerNew(), nullptr);
  }
  ~Agent() { counters->unlink(); }
};

void BM_StateMachineTx(benchmark::State& state) {
  Agent a;
  const auto& record = a.manager->txMessageInfo();
  record->intfIdIs(pa);
  record->messageIs(message(int(state.range(0))));
  for (auto _ : state) record->countInc(1);
  const auto& pam = *a.manager->pam();
  if (pam.txErrors() != 0 || pam.txPkts() < state.iterations()) state.SkipWithError("the machine did not send");
  state.SetItemsProcessed(int64_t(state.iterations()));
}

// The same bytes as the machine sends, by hand: encoded once, then sendto on a raw socket of the
// same kind with the same options, out of the same interface.
void BM_BareSendtoSameBytes(benchmark::State& state) {
  Agent a;
  auto m = message(int(state.range(0)));
  const Knet::IpGenAddr src = lab().addrA(AddressFamily::ipv4), dst = Knet::allPimRouters(AddressFamily::ipv4);
  m->srcIpIs(src);
  m->dstIpIs(dst);
  auto pkt = Knet::pktFactory(1480);
  const U32 n = Packet::messageClass(m->pimMessageType())->write(*m, pkt, 0, nullptr);
  const int fd = a.manager->pam()->fd();
  PimBench::multicastIfIs(fd, src, lab().ifIndexA());
  sockaddr_storage to;
  const socklen_t len = PimBench::sockAddr(dst, lab().ifIndexA(), to);
  size_t failures = 0;
  for (auto _ : state) {
    failures += ::sendto(fd, pkt->data(), n, 0, reinterpret_cast<sockaddr*>(&to), len) < 0;
  }
  if (failures != 0 || n == 0) state.SkipWithError("sendto failed");
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.counters["bytes"] = n;
}

BENCHMARK(BM_StateMachineTx)->Arg(0)->Arg(1);
BENCHMARK(BM_BareSendtoSameBytes)->Arg(0)->Arg(1);

}  // namespace

int main(int argc, char** argv) { return PimBench::runNetnsBenchmarks(argc, argv, "tx_bench"); }
