// Raw sockets between two network namespaces: PIM Hellos sent by one end arrive at the other with
// their interface, addresses, TTL and TOS; failures are counted and traced; the kernel filter drops
// what the program refuses; the flags reach the socket options.
#include "knet/IpPam.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <vector>

#include "PimMessage/HelloMessage.h"
#include "knet/IpHdr.h"
#include "loom/Trace.h"
#include "support/Netns.h"

namespace {

using namespace Knet;
using Bytes = std::vector<U8>;
using PimTest::NetnsLab;

constexpr IpProtocolNumber pim = 103;
constexpr AddressFamily v4 = AddressFamily::ipv4;
constexpr AddressFamily v6 = AddressFamily::ipv6;

enum class Kind { ip, ipHdrIncl, ip6, ip6HdrIncl };

AddressFamily afOf(Kind k) { return k == Kind::ip || k == Kind::ipHdrIncl ? v4 : v6; }

Loom::Ptr<IpPam> pamOf(Kind k, const std::string& ns) {
  Loom::Ptr<IpPam> p;
  switch (k) {
    case Kind::ip:
      p = new IpSocketPam("a", pim, ns);
      break;
    case Kind::ipHdrIncl:
      p = new IpSocketPam("a", pim, ns);
      p->flagsIs(IpPam::flagHeaderIncluded);
      break;
    case Kind::ip6:
      p = new Ip6SocketPam("a", pim, ns);
      break;
    case Kind::ip6HdrIncl:
      p = new Ip6HdrInclSocketPam("a", pim, ns);
      break;
  }
  p->enabledIs(true);
  return p;
}

// The receiving end: interface and addresses, TTL and TOS, ALL-PIM-ROUTERS joined on its veth.
Loom::Ptr<IpPam> receiver(const NetnsLab& lab, AddressFamily af) {
  Loom::Ptr<IpPam> p = af == v4 ? static_cast<IpPam*>(new IpSocketPam("b", pim, lab.nsB()))
                                 : static_cast<IpPam*>(new Ip6SocketPam("b", pim, lab.nsB()));
  p->flagsIs(IpPam::flagPktInfo | IpPam::flagRxTtlTos);
  p->groupIs(lab.ifIndexB(), allPimRouters(af));
  p->enabledIs(true);
  return p;
}

// A Hello encoded by the codec for the given addresses (the IPv6 checksum covers them).
Bytes hello(const IpGenAddr& src, const IpGenAddr& dst, U16 holdTime = 105) {
  auto m = Routing::Pim::Packet::helloMessageFactory();
  m->srcIpIs(src);
  m->dstIpIs(dst);
  m->holdTimeOptionIs(true);
  m->holdTimeIs(holdTime);
  m->drPriorityOptionIs(true);
  m->drPriorityIs(7);
  m->generationIdOptionIs(true);
  m->generationIdIs(0x12345678);
  auto p = pktFactory(256);
  const U32 n = m->writeHelloMessage(p, 0);
  EXPECT_GT(n, 0u);
  return Bytes(p->data(), p->data() + n);
}

// A Join/Prune with no groups: header, upstream neighbor, reserved, group count 0, holdtime 210.
Bytes joinPrune(const IpGenAddr& neighbor) {
  Bytes b = {0x23, 0, 0, 0, U8(neighbor.af() == v4 ? 1 : 2), 0};
  b.insert(b.end(), neighbor.bytes(), neighbor.bytes() + neighbor.byteLength());
  b.insert(b.end(), {0, 0, 0, 210});
  return b;
}

// The packet that a socket of kind k sends: the message, behind an IP header it writes itself in
// the header-included modes.
Loom::Ptr<Pkt> packet(Kind k, const Bytes& message, const TxParams& p) {
  auto pkt = pktFactory(message);
  if (k == Kind::ipHdrIncl) {
    pkt->headAdd(IpHdr::minSize);
    IpHdr::write(pkt->data(), p.tos, U16(pkt->size()), p.ttl, pim, p.src, p.dst);
  } else if (k == Kind::ip6HdrIncl) {
    pkt->headAdd(Ip6Hdr::size);
    Ip6Hdr::write(pkt->data(), p.tos, U16(message.size()), pim, p.ttl, p.src, p.dst);
  }
  return pkt;
}

// What arrives within about a second, until a packet whose PIM type is `lastType` is in.
std::vector<RxPkt> receiveUntil(IpPam& pam, U8 lastType) {
  std::vector<RxPkt> got, batch;
  auto typeOf = [&](const RxPkt& r) {
    const U32 at = pam.af() == v4 ? IpHdr(r.pkt->data(), r.pkt->size()).headerLength() : 0;
    return r.pkt->size() > at ? U8(r.pkt->data()[at] & 0x0f) : U8(0xff);
  };
  for (int round = 0; round < 20; ++round) {
    pollfd pfd{pam.fd(), POLLIN, 0};
    ::poll(&pfd, 1, 50);
    pam.rxPktBatch(batch, IpPam::maxBatch);
    got.insert(got.end(), batch.begin(), batch.end());
    for (const RxPkt& r : batch) {
      if (typeOf(r) == lastType) return got;
    }
  }
  return got;
}

std::vector<U8> typesOf(const std::vector<RxPkt>& pkts, AddressFamily af) {
  std::vector<U8> out;
  for (const RxPkt& r : pkts) {
    const U32 at = af == v4 ? IpHdr(r.pkt->data(), r.pkt->size()).headerLength() : 0;
    out.push_back(U8(r.pkt->data()[at] & 0x0f));
  }
  return out;
}

struct HelloCase {
  const char* name;
  Kind kind;
  bool multicast;
  U8 ttl;
  U8 tos;
};

TEST(IpPam, HelloArrivesWithInterfaceAddressesTtlAndTos) {
  PIMIO_NETNS_LAB(lab);
  const HelloCase cases[] = {
      {"IPv4 to ALL-PIM-ROUTERS", Kind::ip, true, 1, 0xc0},
      {"IPv4 unicast", Kind::ip, false, 7, 0x20},
      {"IPv4 header included, multicast", Kind::ipHdrIncl, true, 1, 0xc0},
      {"IPv4 header included, unicast", Kind::ipHdrIncl, false, 9, 0x48},
      {"IPv6 to ALL-PIM-ROUTERS", Kind::ip6, true, 1, 0xc0},
      {"IPv6 unicast", Kind::ip6, false, 5, 0x20},
      {"IPv6 header included, multicast", Kind::ip6HdrIncl, true, 1, 0xc0},
      {"IPv6 header included, unicast", Kind::ip6HdrIncl, false, 64, 0x48},
  };
  for (const HelloCase& c : cases) {
    SCOPED_TRACE(c.name);
    const AddressFamily af = afOf(c.kind);
    auto a = pamOf(c.kind, lab.nsA());
    auto b = receiver(lab, af);
    ASSERT_TRUE(a->enabled() && b->enabled());
    TxParams p;
    p.ifIndex = lab.ifIndexA();
    p.src = af == v6 && c.multicast ? NetnsLab::linkLocalA() : lab.addrA(af);
    p.dst = c.multicast ? allPimRouters(af) : lab.addrB(af);
    p.ttl = c.ttl;
    p.tos = c.tos;
    const Bytes message = hello(p.src, p.dst);
    ASSERT_TRUE(a->txPkt(*packet(c.kind, message, p), p)) << std::strerror(a->lastErrno());
    EXPECT_EQ(a->txPkts(), 1u);

    const auto got = receiveUntil(*b, 0);
    ASSERT_EQ(got.size(), 1u);
    const RxPkt& r = got[0];
    EXPECT_EQ(r.ifIndex, lab.ifIndexB());
    EXPECT_EQ(r.src, p.src);
    EXPECT_EQ(r.dst, p.dst);
    EXPECT_EQ(r.ttl, c.ttl);
    EXPECT_EQ(r.tos, c.tos);
    Bytes data(r.pkt->data(), r.pkt->data() + r.pkt->size());
    if (af == v4) {
      const IpHdr h(r.pkt->data(), r.pkt->size());
      ASSERT_TRUE(h.valid());
      EXPECT_EQ(h.ttl(), c.ttl);
      EXPECT_EQ(h.tos(), c.tos);
      EXPECT_EQ(h.protocol(), pim);
      EXPECT_EQ(h.src(), p.src);
      EXPECT_EQ(h.dst(), p.dst);
      data.erase(data.begin(), data.begin() + h.headerLength());
    }
    EXPECT_EQ(data, message);
    EXPECT_EQ(b->rxPkts(), 1u);
    EXPECT_EQ(b->rxErrors(), 0u);

    // A packet still held when the next batch comes keeps its bytes.
    ASSERT_TRUE(a->txPkt(*packet(c.kind, hello(p.src, p.dst, 7), p), p));
    ASSERT_EQ(receiveUntil(*b, 0).size(), 1u);
    EXPECT_EQ(Bytes(r.pkt->data() + (r.pkt->size() - message.size()), r.pkt->data() + r.pkt->size()), message);
  }
}

struct Counts : IpPam::Notifiee {
  int txPkts = 0, txErrors = 0;
  void onTxPkts() override { ++txPkts; }
  void onTxErrors() override { ++txErrors; }
};

TEST(IpPam, FailuresAreCountedAndTraced) {
  PIMIO_NETNS_LAB(lab);
  // Destinations with no route in the namespace: the send fails at once, nothing leaves.
  const struct {
    Kind kind;
    const char* dst;
  } cases[] = {{Kind::ip, "10.98.0.1"}, {Kind::ip6, "fd00:98::1"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dst);
    Loom::TraceCapture cap(1);
    auto a = pamOf(c.kind, lab.nsA());
    Counts counts;
    counts.notifierIs(a);
    TxParams p;
    p.dst = *IpGenAddr::parse(c.dst);
    EXPECT_FALSE(a->txPkt(*pktFactory(hello(lab.addrA(afOf(c.kind)), p.dst)), p));
    EXPECT_EQ(a->txErrors(), 1u);
    EXPECT_EQ(a->txPkts(), 0u);
    EXPECT_EQ(counts.txErrors, 1);
    EXPECT_EQ(a->lastErrno(), ENETUNREACH);
    EXPECT_TRUE(cap.contains("a: sendmsg failed: Network is unreachable")) << ::testing::PrintToString(cap.texts());
  }
  // A packet longer than the receive buffer is dropped and counted, not handed on cut short.
  {
    auto a = pamOf(Kind::ip, lab.nsA());
    auto b = receiver(lab, v4);
    b->maxRxPktDataIs(IpHdr::minSize + 8);
    TxParams p;
    p.ifIndex = lab.ifIndexA();
    p.dst = lab.addrB(v4);
    ASSERT_TRUE(a->txPkt(*pktFactory(hello(lab.addrA(v4), p.dst)), p));
    pollfd pfd{b->fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&pfd, 1, 1000), 1);
    std::vector<RxPkt> got;
    EXPECT_EQ(b->rxPktBatch(got, 4), 0u);
    EXPECT_EQ(b->rxErrors(), 1u);
    EXPECT_EQ(b->rxPkts(), 0u);
  }
  // An unknown namespace: the socket stays closed.
  Loom::TraceCapture cap(1);
  IpSocketPam lost("lost", pim, lab.nsA() + "-missing");
  lost.enabledIs(true);
  EXPECT_FALSE(lost.enabled());
  EXPECT_EQ(lost.fd(), -1);
  EXPECT_EQ(lost.callErrors(), 1u);
  EXPECT_TRUE(cap.contains("lost: open /run/netns/" + lab.nsA() + "-missing failed: No such file or directory"))
      << ::testing::PrintToString(cap.texts());
}

// A program that admits only PIM type 0 (Hello). IPv4 raw sockets see the IP header first, IPv6
// raw sockets the PIM header.
std::vector<IpFilter> helloOnly(AddressFamily af) {
  std::vector<IpFilter> prog;
  if (af == v4) {
    prog.push_back({BPF_LDX | BPF_B | BPF_MSH, 0, 0, 0});  // x = IP header length
    prog.push_back({BPF_LD | BPF_B | BPF_IND, 0, 0, 0});   // a = byte at x
  } else {
    prog.push_back({BPF_LD | BPF_B | BPF_ABS, 0, 0, 0});   // a = byte 0
  }
  prog.push_back({BPF_ALU | BPF_AND | BPF_K, 0, 0, 0x0f});  // the type nibble
  prog.push_back({BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0});     // Hello?
  prog.push_back({BPF_RET | BPF_K, 0, 0, 0xffffffff});      // whole packet
  prog.push_back({BPF_RET | BPF_K, 0, 0, 0});               // dropped
  return prog;
}

TEST(IpPam, KernelFilterDropsWhatTheProgramRefuses) {
  PIMIO_NETNS_LAB(lab);
  for (const AddressFamily af : {v4, v6}) {
    SCOPED_TRACE(af == v4 ? "IPv4" : "IPv6");
    auto a = pamOf(af == v4 ? Kind::ip : Kind::ip6, lab.nsA());
    auto b = receiver(lab, af);
    const auto prog = helloOnly(af);
    for (U32 i = 0; i < prog.size(); ++i) b->rxFilterIs(i, prog[i]);
    b->flagsIs(b->flags() | IpPam::flagFilter);
    EXPECT_EQ(b->callErrors(), 0u);

    TxParams p;
    p.ifIndex = lab.ifIndexA();
    p.src = af == v4 ? lab.addrA(af) : NetnsLab::linkLocalA();
    p.dst = allPimRouters(af);
    const Bytes jp = joinPrune(lab.addrB(af)), hi = hello(p.src, p.dst);
    // The Join/Prune goes first: once the Hello is in, a Join/Prune let through would be too.
    auto exchange = [&] {
      EXPECT_TRUE(a->txPkt(*pktFactory(jp), p));
      EXPECT_TRUE(a->txPkt(*pktFactory(hi), p));
      return typesOf(receiveUntil(*b, 0), af);
    };
    EXPECT_EQ(exchange(), (std::vector<U8>{0}));
    b->flagsIs(b->flags() & ~IpPam::flagFilter);
    EXPECT_EQ(exchange(), (std::vector<U8>{3, 0}));
    EXPECT_EQ(b->callErrors(), 0u);
  }
}

// The flags that no traffic here shows, and the priority, reach the socket options: on an open
// socket at once, and on a socket as it opens. (Packet info, received TTL and TOS, and the
// header-included mode show in what the Hello test receives.)
TEST(IpPam, FlagsAndPriorityReachTheSocket) {
  PIMIO_NETNS_LAB(lab);
  auto option = [](const IpPam& pam, int level, int name) {
    int v = -1;
    socklen_t len = sizeof(v);
    EXPECT_EQ(::getsockopt(pam.fd(), level, name, &v, &len), 0);
    return v;
  };
  for (const Kind kind : {Kind::ip, Kind::ip6}) {
    const bool is4 = kind == Kind::ip;
    const int ip = is4 ? IPPROTO_IP : IPPROTO_IPV6, transparent = is4 ? IP_TRANSPARENT : IPV6_TRANSPARENT,
              loop = is4 ? IP_MULTICAST_LOOP : IPV6_MULTICAST_LOOP;
    auto opened = pamOf(kind, lab.nsA());
    opened->flagsIs(IpPam::flagTransparent | IpPam::flagNoMulticastLoop);
    opened->priorityIs(6);
    EXPECT_EQ(option(*opened, ip, transparent), 1);
    EXPECT_EQ(option(*opened, ip, loop), 0);
    EXPECT_EQ(option(*opened, SOL_SOCKET, SO_PRIORITY), 6);
    opened->flagsIs(0);
    EXPECT_EQ(option(*opened, ip, transparent), 0);
    EXPECT_EQ(option(*opened, ip, loop), 1);
    Loom::Ptr<IpPam> fresh = is4 ? static_cast<IpPam*>(new IpSocketPam("f", pim, lab.nsA()))
                                 : static_cast<IpPam*>(new Ip6SocketPam("f", pim, lab.nsA()));
    fresh->flagsIs(IpPam::flagTransparent);
    fresh->enabledIs(true);
    EXPECT_EQ(option(*fresh, ip, transparent), 1);
    EXPECT_EQ(opened->callErrors() + fresh->callErrors(), 0u);
  }
}

}  // namespace
