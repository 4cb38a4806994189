// Two packet access managers in two network namespaces, both families and both header modes: a
// Hello encoded by the codec leaves one manager's socket and reaches the other's through its event
// loop, as a readable count that the receiving side drains, with its kernel interface and
// addresses.
#include <gtest/gtest.h>

#include "PimIO/PamManager.h"
#include "PimIO/PamWatch.h"
#include "knet/IpHdr.h"
#include "knet/IpPacket.h"
#include "support/Netns.h"

namespace Routing::Pim::IO {
namespace {

using Knet::AddressFamily;

// Drains the socket whenever its readable count moves.
struct Drain : Knet::IpPam::Notifiee {
  std::vector<Knet::RxPkt> got;
  void onReadable() override {
    std::vector<Knet::RxPkt> batch;
    notifier()->rxPktBatch(batch, Knet::IpPam::maxBatch);
    got.insert(got.end(), batch.begin(), batch.end());
  }
};

TEST(PamManagerNetns, HelloFromOneNamespaceToTheOther) {
  PIMIO_NETNS_LAB(lab);
  for (const AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    for (const bool headerIncluded : {false, true}) {
      SCOPED_TRACE(std::string(af == AddressFamily::ipv4 ? "IPv4" : "IPv6") + (headerIncluded ? ", header included" : ""));
      auto a = pamManagerFactory(af, lab.nsA(), headerIncluded);
      auto b = pamManagerFactory(af, lab.nsB(), false);
      b->pam()->groupIs(lab.ifIndexB(), Knet::allPimRouters(af));
      a->pam()->enabledIs(true);
      Keel::ManualClock clock;
      auto loop = Keel::eventLoopFactory(Keel::timerWheelFactory(clock));
      PamWatch watch(loop, b->pam());
      Drain drain;
      drain.notifierIs(b->pam());
      b->pam()->enabledIs(true);
      ASSERT_TRUE(a->pam()->enabled() && b->pam()->enabled());

      Knet::TxParams p;
      p.ifIndex = lab.ifIndexA();
      p.src = af == AddressFamily::ipv6 ? PimTest::NetnsLab::linkLocalA() : lab.addrA(af);
      p.dst = Knet::allPimRouters(af);
      p.tos = 192;
      auto hello = Packet::helloMessageFactory();
      hello->srcIpIs(p.src);
      hello->dstIpIs(p.dst);
      hello->holdTimeOptionIs(true);
      hello->holdTimeIs(105);
      auto pkt = Knet::PktManager::instance().pktNew(Knet::maxPimMessageSize(af));
      pkt->sizeIs(hello->writeHelloMessage(pkt, 0));
      const std::vector<U8> message(pkt->data(), pkt->data() + pkt->size());
      if (headerIncluded) Knet::addIpHeader(*pkt, p.src, p.dst);
      ASSERT_TRUE(a->pam()->txPkt(*pkt, p));

      for (int round = 0; round < 20 && drain.got.empty(); ++round) loop->runOnce(0.05);
      ASSERT_EQ(drain.got.size(), 1u);
      EXPECT_GE(b->pam()->readable(), 1u);
      const Knet::RxPkt& r = drain.got[0];
      EXPECT_EQ(r.ifIndex, lab.ifIndexB());
      EXPECT_EQ(r.src, p.src);
      EXPECT_EQ(r.dst, p.dst);
      EXPECT_EQ(r.ttl, 1);
      EXPECT_EQ(r.tos, 192);
      const U32 at = af == AddressFamily::ipv4 ? Knet::IpHdr(r.pkt->data(), r.pkt->size()).headerLength() : 0;
      EXPECT_EQ(std::vector<U8>(r.pkt->data() + at, r.pkt->data() + r.pkt->size()), message);
      const int fd = b->pam()->fd();
      b->pam()->enabledIs(false);
      EXPECT_EQ(loop->fdWatch(fd), nullptr) << "a closed socket is still watched";
      EXPECT_EQ(loop->errors(), 0u);
    }
  }
}

}  // namespace
}  // namespace Routing::Pim::IO
