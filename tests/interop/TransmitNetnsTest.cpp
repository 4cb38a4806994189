// The transmit path on the wire: every message type handed to the state machine in one namespace
// is captured on the veth in the other, both families and both header modes, and checked there:
// destination, source, TTL (hop limit), TOS (traffic class), the IPv4 don't-fragment bit and
// header checksum, decoded back by the codec and dissected by tshark as an independent oracle.
// And a Join/Prune tree too big for one packet leaves in packets that fit the interface's MTU and
// together carry the tree.
#include <gtest/gtest.h>
#include <unistd.h>

#include "PimIO/IOSm.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/MessageTable.h"
#include "TsharkSupport.h"
#include "knet/IpHdr.h"
#include "support/IOSmAgent.h"
#include "support/JoinPruneTrees.h"
#include "support/Netns.h"
#include "support/PimBytes.h"

namespace Routing::Pim::IO {
namespace {

using namespace PimTest;
using Knet::AddressFamily;

// The sending agent in namespace a, its PIM interface the veth end "pa".
struct Sender : Test::IOSmAgent {
  const Knet::IntfId pa{"pa"};
  Loom::Ptr<IOSm> io;

  Sender(const NetnsLab& lab, AddressFamily af, bool headerIncluded, U32 mtu = 1500)
      : IOSmAgent(af, lab.nsA(), headerIncluded) {
    manager->kernelIntfIs(lab.ifIndexA())->intfIdIs(pa);
    manager->intfIs(pa)->ifIndexIs(lab.ifIndexA());
    status->pimIntfIs(pa)->addrIs(af == AddressFamily::ipv4 ? lab.addrA(af) : NetnsLab::linkLocalA());
    auto ip = ipStatus->ipIntfIs(pa);
    ip->mtuIs(mtu);
    ip->primaryAddrIs(Knet::IpGenPrefix(lab.addrA(af), af == AddressFamily::ipv4 ? 24 : 64));
    io = sm();
  }
  void send(const Loom::Ptr<Packet::Message>& m) {
    const auto& record = manager->txMessageInfo();
    record->intfIdIs(pa);
    record->messageIs(m);
    record->countInc(1);
  }
};

// A message decoded from the bytes a peer would send: what an agent hands over to send.
Loom::Ptr<Packet::Message> decoded(Bytes b, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst, U8 subtype,
                                   const Knet::IpGenAddr& sendTo) {
  fixChecksum(b, src, dst);
  const Packet::MessageClass* row = Packet::messageClass(Knet::PimMessageType(b[0]), subtype);
  auto m = row->create();
  m->srcIpIs(src);
  m->dstIpIs(dst);
  EXPECT_NE(row->read(*m, pkt(b), 0, nullptr), 0u) << row->name;
  m->srcIpIs(Knet::IpGenAddr());
  m->dstIpIs(sendTo);
  return m;
}

// An IPv4 or IPv6 packet of 28 bytes (UDP) with the TOS and TTL given, as a data Register carries it.
Bytes innerPacket(AddressFamily af, U8 tos, U8 ttl) {
  if (af == AddressFamily::ipv4) {
    return {0x45, tos, 0, 28, 0, 1, 0, 0, ttl, 17, 0, 0, 10, 1, 1, 1, 239, 2, 2, 2, 0, 1, 0, 2, 0, 8, 0, 0};
  }
  Bytes b = {U8(0x60 | (tos >> 4)), U8(tos << 4), 0, 0, 0, 8, 17, ttl};
  for (const char* a : {"2001:db8::1", "ff3e::2"}) {
    const auto x = ip(a);
    b.insert(b.end(), x.bytes(), x.bytes() + 16);
  }
  return concat({b, {0, 1, 0, 2, 0, 8, 0, 0}});
}

Bytes dataRegister(AddressFamily af, U8 tos, U8 ttl) { return concat({{0x21, 0, 0, 0, 0, 0, 0, 0}, innerPacket(af, tos, ttl)}); }

// What the wire must show of one message.
struct Expect {
  const char* name;
  Loom::Ptr<Packet::Message> message;
  U8 pimType;
  U8 ttl, tos;
};

TEST(TransmitNetns, EveryTypeOnTheWire) {
  PIMIO_NETNS_LAB(lab);
  for (const AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    const bool v4 = af == AddressFamily::ipv4;
    const char* group = v4 ? "239.2.2.2" : "ff3e::2";
    const char* source = v4 ? "10.1.1.1" : "2001:db8::1";
    const char* range = v4 ? "239.0.0.0" : "ff3e::";
    const U8 rangeMask = v4 ? 8 : 16;
    const Knet::IpGenAddr peer = lab.addrB(af), all = Knet::allPimRouters(af), none;
    const Knet::IpGenAddr self = v4 ? lab.addrA(af) : NetnsLab::linkLocalA();
    const std::string up = peer.str();
    const Bytes common = concat({encodedUnicastBytes(source), {0, 0, 0, 1, 0, 0, 0, 10}});
    for (const bool headerIncluded : {false, true}) {
      SCOPED_TRACE(std::string(v4 ? "IPv4" : "IPv6") + (headerIncluded ? ", header included" : ""));
      Sender agent(lab, af, headerIncluded);
      const int fd = NetnsLab::packetSocket(lab.nsB(), lab.ifIndexB());
      ASSERT_GE(fd, 0);
      auto d = [&](Bytes b, const Knet::IpGenAddr& to, U8 subtype = Packet::noSubtype) {
        return decoded(std::move(b), peer, all, subtype, to);
      };
      const std::vector<Expect> expected = {
          {"hello", d(helloBytes(), none), 0, 1, 192},
          {"null register", d(nullRegisterBytes(source, group), peer), 1, 255, 192},
          {"data register, TOS 192, TTL 64", d(dataRegister(af, 192, 64), peer), 1, 64, 184},
          {"data register, TOS 0, TTL 0", d(dataRegister(af, 0, 0), peer), 1, 255, 0},
          {"register-stop", d(registerStopBytes(group, source), peer), 2, 255, 192},
          {"join/prune", d(joinPruneBytes(up.c_str(), group, source), none), 3, 1, 192},
          {"bootstrap", d(bootstrapBytes(source, range, rangeMask, 0, v4 ? "224.0.0.0" : "ff00::", v4 ? 4 : 8), none),
           4, 1, 192},
          {"assert", d(assertBytes(group, source), none), 5, 1, 192},
          {"candidate-RP advertisement", d(crpAdvBytes(source, range, rangeMask), peer), 8, 255, 192},
          {"df election offer", d(concat({{0x2A, 0x10, 0, 0}, common}), none, 1), 10, 1, 192},
          {"df election winner", d(concat({{0x2A, 0x20, 0, 0}, common}), none, 2), 10, 1, 192},
          {"df election backoff",
           d(concat({{0x2A, 0x30, 0, 0}, common, encodedUnicastBytes(up.c_str()), {0, 0, 0, 1, 0, 0, 0, 9, 0, 100}}),
             none, 3),
           10, 1, 192},
          {"df election pass",
           d(concat({{0x2A, 0x40, 0, 0}, common, encodedUnicastBytes(up.c_str()), {0, 0, 0, 1, 0, 0, 0, 9}}), none, 4),
           10, 1, 192},
      };
      for (const auto& e : expected) agent.send(e.message);
      const auto frames = NetnsLab::pimPackets(fd, expected.size());
      ::close(fd);
      ASSERT_EQ(frames.size(), expected.size()) << "sent " << agent.manager->pam()->txPkts() << ", failed "
                                                << agent.manager->pam()->txErrors();
      std::vector<std::vector<U8>> ethernet;
      for (size_t i = 0; i < frames.size(); ++i) {
        const Expect& e = expected[i];
        SCOPED_TRACE(e.name);
        const Bytes& f = frames[i];
        const Knet::IpGenAddr dst = e.message->dstIp().isSet() ? e.message->dstIp() : all;
        U32 at = 0;
        if (v4) {
          const Knet::IpHdr h(f.data(), U32(f.size()));
          at = h.headerLength();
          EXPECT_EQ(h.src(), self);
          EXPECT_EQ(h.dst(), dst);
          EXPECT_EQ(h.ttl(), e.ttl);
          EXPECT_EQ(h.tos(), e.tos);
          EXPECT_EQ(h.checksum(), h.expectedChecksum()) << "header checksum";
          if (headerIncluded) {
            EXPECT_TRUE(h.dontFragment());
          }
        } else {
          at = 40;
          EXPECT_EQ(Knet::IpGenAddr::fromBytes(af, &f[8]), self);
          EXPECT_EQ(Knet::IpGenAddr::fromBytes(af, &f[24]), dst);
          EXPECT_EQ(f[7], e.ttl) << "hop limit";
          EXPECT_EQ(U8((f[0] << 4) | (f[1] >> 4)), e.tos) << "traffic class";
        }
        // Our own reader takes it back as the same class.
        const auto lookup = Packet::messageClassOf(Knet::PimMessageType(f[at]), f[at + 1]);
        ASSERT_EQ(lookup.outcome, Packet::MessageClassLookup::Outcome::found);
        auto back = lookup.row->create();
        back->srcIpIs(self);
        back->dstIpIs(dst);
        EXPECT_EQ(lookup.row->read(*back, pkt(Bytes(f.begin() + at, f.end())), 0, nullptr), f.size() - at);
        Bytes frame = {0, 0, 0x5e, 0, 1, 1, 2, 0, 0, 0, 0, 1, U8(v4 ? 0x08 : 0x86), U8(v4 ? 0x00 : 0xdd)};
        frame.insert(frame.end(), f.begin(), f.end());
        ethernet.push_back(frame);
      }
      EXPECT_EQ(agent.counters->msgCounter({agent.pa, 10, 255}).txValid, 4u) << "the four DF election messages";
      if (!PimioTest::haveProgram("tshark")) {
        if (PimioTest::underCi()) ADD_FAILURE() << "tshark is not on the PATH; CI needs it";
        continue;
      }
      auto dissection = TsharkTest::dissect("tshark", ethernet);
      ASSERT_TRUE(dissection.error.empty()) << dissection.error;
      for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(expected[i].name);
        const auto& p = dissection.packets[i];
        EXPECT_EQ(TsharkTest::first(p, "pim.type"), std::to_string(expected[i].pimType));
        EXPECT_EQ(TsharkTest::first(p, "pim.cksum.status"), "1") << "tshark finds the PIM checksum good (1)";
        // A null register's dummy IPv6 header names PIM as its next header and carries nothing:
        // tshark calls that empty inner message malformed.
        if (v4 || expected[i].name != std::string("null register")) {
          EXPECT_EQ(TsharkTest::values(p, "_ws.malformed"), "");
        }
        if (v4) {
          EXPECT_EQ(TsharkTest::first(p, "ip.checksum.status"), "1");
        }
      }
      dissection.remove();
    }
  }
}

// A triggered tree of 200 groups with ten (S,G) joins each leaves as packets that each fit the
// interface's MTU (1280 here) and together carry every entry once.
TEST(TransmitNetns, JoinPruneBeyondTheMtuFollowsTheBookmark) {
  PIMIO_NETNS_LAB(lab);
  for (const AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    SCOPED_TRACE(af == AddressFamily::ipv4 ? "IPv4" : "IPv6");
    const bool v4 = af == AddressFamily::ipv4;
    Sender agent(lab, af, false, 1280);
    const int fd = NetnsLab::packetSocket(lab.nsB(), lab.ifIndexB());
    ASSERT_GE(fd, 0);
    std::mt19937 rng(7);
    Loom::Ptr<JoinPruneData> tree = new JoinPruneData(lab.addrB(af));
    tree->holdTimeIs(210);
    for (int g = 0; g < 200; ++g) {
      auto& group = tree->joinPruneGroupDataIs(randomAddress(rng, !v4, true));
      for (int s = 0; s < 10; ++s) group.joinedSourceIs(randomAddress(rng, !v4, false));
    }
    Entries expected;
    collect(*tree, expected);
    auto jp = Packet::joinPruneMessageFactory();
    jp->joinPruneDataIs(tree);
    int sends = 0;
    do {
      agent.send(jp);
    } while (tree->bookmark() && ++sends < 1000);
    const size_t sent = agent.manager->pam()->txPkts();
    EXPECT_GT(sent, 10u);
    const auto frames = NetnsLab::pimPackets(fd, sent);
    ::close(fd);
    ASSERT_EQ(frames.size(), sent);
    Entries carried;
    for (const auto& f : frames) {
      EXPECT_LE(f.size(), 1280u);
      const U32 at = v4 ? 20 : 40;
      auto back = Packet::joinPruneMessageFactory();
      back->srcIpIs(v4 ? lab.addrA(af) : NetnsLab::linkLocalA());
      back->dstIpIs(Knet::allPimRouters(af));
      ASSERT_EQ(back->readJoinPruneMessage(pkt(Bytes(f.begin() + at, f.end())), 0, nullptr), f.size() - at);
      collect(*back->joinPruneData(), carried);
    }
    EXPECT_EQ(carried, expected) << "each entry once";
  }
}

}  // namespace
}  // namespace Routing::Pim::IO
