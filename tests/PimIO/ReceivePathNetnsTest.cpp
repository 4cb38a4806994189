// The receive path on a real socket: a peer namespace sends, over a veth pair, every PIM type
// and every rejection that can cross a wire, in both families; each lands in its receive slot or
// counter with its trace, and every packet read is accounted once. Then a flood from neighbors
// that never say Hello: the queues stay within their depth and the accounting holds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "PimIO/IOSm.h"
#include "knet/IpPacket.h"
#include "support/IOSmAgent.h"
#include "support/Netns.h"
#include "support/PimBytes.h"

namespace Routing::Pim::IO {
namespace {

using namespace PimTest;
using Knet::AddressFamily;
using Lines = std::vector<std::string>;

// The addresses of one family: the lab's, and made-up ones inside it.
struct Family {
  AddressFamily af;
  const char* unknown;   // a neighbor that never said Hello
  const char* crowd;     // another, whose queue is filled to its depth
  const char* filtered;  // a neighbor the interface's list keeps out
  const char* group;
  const char* source;
  const char* range;  // two group ranges of an RP
  U8 rangeMask;
  const char* range2;
  U8 range2Mask;
};
const Family v4{AddressFamily::ipv4, "10.99.0.77", "10.99.0.78", "10.99.0.66", "239.2.2.2", "10.1.1.1",
                "239.0.0.0", 8, "224.0.0.0", 4};
const Family v6{AddressFamily::ipv6, "fe80::77", "fe80::78", "fe80::66", "ff3e::2", "2001:db8::1",
                "ff3e::", 16, "ff00::", 8};

// The agent in namespace a, its one PIM interface the veth end "pa".
struct Agent : Test::IOSmAgent {
  const Knet::IntfId pa{"pa"};
  const U32 ifIndex;
  Loom::Ptr<IOSm> io;

  Agent(const NetnsLab& lab, const Family& f, const Knet::IpGenAddr& peer)
      : IOSmAgent(f.af, lab.nsA()), ifIndex(lab.ifIndexA()) {
    manager->kernelIntfIs(ifIndex)->intfIdIs(pa);
    manager->intfIs(pa)->ifIndexIs(ifIndex);
    manager->pam()->groupIs(ifIndex, Knet::allPimRouters(f.af));
    // Slots for Graft (6) and type 9 too, so that the kernel filter lets them reach the checks.
    for (U8 t : {0, 1, 2, 3, 4, 5, 6, 8, 9, 10}) manager->rxMessageInfoIs(t, messageInfoFactory());
    status->pimIntfIs(pa)->neighborIs(peer, true);
    const Knet::IpGenAddr kept = ip(f.filtered);
    if (f.af == AddressFamily::ipv4) {
      auto list = acl->aclConfigIs("nbr", Acl::AclType::ipv4);
      list->ipRuleConfigIs(10, {Acl::AclAction::deny, Acl::IpFilter(Knet::IpGenPrefix(kept, 32))});
      list->ipRuleConfigIs(20, {Acl::AclAction::permit, Acl::IpFilter(Knet::IpGenPrefix(ip("0.0.0.0"), 0))});
    } else {
      auto list = acl->aclConfigIs("nbr", Acl::AclType::ipv6);
      list->ip6RuleConfigIs(10, {Acl::AclAction::deny, Acl::Ip6Filter(Knet::IpGenPrefix(kept, 128))});
      list->ip6RuleConfigIs(20, {Acl::AclAction::permit, Acl::Ip6Filter(Knet::IpGenPrefix(ip("::"), 0))});
    }
    config->intfConfigIs(pa)->neighborFilterIs("nbr");
    io = sm();
  }

  // Reads until `read` packets have been read in all, or a second has passed.
  void drainUntil(U64 read) {
    for (int i = 0; i < 200 && io->rxAccounting().read < read; ++i) {
      io->rxPkt();
      if (io->rxAccounting().read < read) usleep(5000);
    }
  }
};

// The peer in namespace b: writes whole packets, so that it may speak for addresses not its own.
struct Peer {
  Loom::Ptr<PamManager> manager;
  U32 ifIndex;
  U64 sent = 0;
  Peer(const NetnsLab& lab, AddressFamily af) : manager(pamManagerFactory(af, lab.nsB(), true)), ifIndex(lab.ifIndexB()) {
    manager->pam()->enabledIs(true);
  }
  void send(Bytes pim, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst) {
    if (pim.size() >= 4) fixChecksum(pim, src, dst);
    auto p = pkt(pim);
    Knet::addIpHeader(*p, src, dst);
    Knet::TxParams t;
    t.ifIndex = ifIndex;
    t.dst = dst;
    ASSERT_TRUE(manager->pam()->txPkt(*p, t)) << "errno " << manager->pam()->lastErrno();
    ++sent;
  }
};

Lines lines(const Loom::TraceCapture& cap) {
  Lines out;
  for (const auto& l : cap.lines()) {
    if (l.unit == "PimIO" && l.level <= 3) out.push_back(l.text);
  }
  return out;
}

TEST(ReceivePathNetns, EveryTypeAndEveryRejectionLandsWhereItShould) {
  PIMIO_NETNS_LAB(lab);
  for (const Family& f : {v4, v6}) {
    SCOPED_TRACE(f.af == AddressFamily::ipv4 ? "IPv4" : "IPv6");
    const Knet::IpGenAddr peer = f.af == AddressFamily::ipv4 ? lab.addrB(f.af) : NetnsLab::linkLocalB();
    const Knet::IpGenAddr all = Knet::allPimRouters(f.af);
    const Knet::IpGenAddr self = lab.addrA(f.af);
    const std::string selfText = self.str();
    Agent agent(lab, f, peer);
    Peer sender(lab, f.af);
    enum Lands { handed, parked, invalid, filtered, error };
    const struct {
      const char* name;
      Bytes bytes;
      Knet::IpGenAddr src, dst;
      Lands lands;
      std::string text;
    } rows[] = {
        {"hello", helloBytes(), peer, all, handed, ""},
        {"null register", nullRegisterBytes(f.source, f.group), peer, self, handed, ""},
        {"register-stop", registerStopBytes(f.group, f.source), peer, self, handed, ""},
        {"join/prune", joinPruneBytes(selfText.c_str(), f.group, f.source), peer, all, handed, ""},
        {"bootstrap", bootstrapBytes(f.source, f.range, f.rangeMask, 0, f.range2, f.range2Mask), peer, all, handed, ""},
        {"assert", assertBytes(f.group, f.source), peer, all, handed, ""},
        {"candidate-RP advertisement", crpAdvBytes(f.source, f.range, f.rangeMask), peer, self, handed, ""},
        {"df election winner", dfElectionBytes(2, f.source), peer, all, handed, ""},
        {"a 3-byte PIM payload", {0x20, 0, 0}, peer, all, error, "RX: Error - Missing Pim Header - Remaining: 3"},
        {"graft", {0x26, 0, 0, 0}, peer, self, error, "RX: Error - Unsupported Pim Message - Type: graft"},
        {"version 3", {0x30, 0, 0, 0}, peer, self, error, "RX: Error - Invalid Pim Version - Version: 3"},
        {"type 9", {0x29, 0, 0, 0}, peer, self, error, "RX: Error - Invalid Pim Message - Type: 9"},
        {"join/prune to a unicast address", joinPruneBytes(selfText.c_str(), f.group, f.source), peer, self, invalid,
         "RX: Error - Invalid Pim Message - Destination is Not ALL-PIM-ROUTERS - Type: joinPrune Address: " + selfText},
        {"register to ALL-PIM-ROUTERS", nullRegisterBytes(f.source, f.group), peer, all, invalid,
         "RX: Error - Invalid Pim Message - Type: register Destination is Multicast: " + all.str()},
        {"df election from an unknown neighbor", dfElectionBytes(2, f.source), ip(f.unknown), all, invalid,
         "RX: Error - Invalid Pim Message - Drop DF election message  because neighborship does not exist: " +
             std::string(f.unknown)},
        {"join/prune from an unknown neighbor", joinPruneBytes(selfText.c_str(), f.group, f.source), ip(f.unknown), all,
         parked, ""},
        {"a neighbor the filter keeps out", helloBytes(), ip(f.filtered), all, filtered,
         "RX: Filtered - Type: hello Interface: pa"},
    };
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      const auto before = agent.io->rxAccounting();
      Loom::TraceCapture cap(3);
      sender.send(row.bytes, row.src, row.dst);
      agent.drainUntil(sender.sent);
      const auto after = agent.io->rxAccounting();
      ASSERT_EQ(after.read, sender.sent) << "the packet did not arrive";
      EXPECT_EQ(after.valid - before.valid, row.lands == handed ? 1u : 0u);
      EXPECT_EQ(after.parked - before.parked, row.lands == parked ? 1u : 0u);
      EXPECT_EQ(after.invalid - before.invalid, row.lands == invalid ? 1u : 0u);
      EXPECT_EQ(after.filtered - before.filtered, row.lands == filtered ? 1u : 0u);
      EXPECT_EQ(after.errors - before.errors, row.lands == error ? 1u : 0u);
      if (!row.text.empty()) {
        const Lines got = lines(cap);
        EXPECT_NE(std::find(got.begin(), got.end(), "<Vrf:blue> " + row.text), got.end()) << ::testing::PrintToString(got);
      }
      if (row.lands == handed) {
        const auto& slot = agent.manager->rxMessageInfo(row.bytes[0] & 0x0f);
        ASSERT_TRUE(slot && slot->message());
        EXPECT_EQ(slot->message()->srcIp(), peer);
        EXPECT_EQ(slot->intfId(), agent.pa);
      }
    }

    // A queue at its depth of 1024 refuses the next message of its neighbor.
    for (int i = 0; i < 1024; ++i) {
      sender.send(joinPruneBytes(selfText.c_str(), f.group, f.source), ip(f.crowd), all);
      if (i % 64 == 63) agent.drainUntil(sender.sent);
    }
    Loom::TraceCapture cap(3);
    sender.send(joinPruneBytes(selfText.c_str(), f.group, f.source), ip(f.crowd), all);
    agent.drainUntil(sender.sent);
    EXPECT_EQ(agent.io->pimUnresPkt({agent.pa, ip(f.crowd)})->pktCount(), 1024u);
    const Lines got = lines(cap);
    EXPECT_NE(std::find(got.begin(), got.end(),
                        "<Vrf:blue> RX: Error - Invalid Pim Message - Neighbor Queue Full - Type: joinPrune Address: " +
                            std::string(f.crowd)),
              got.end());

    // The interface of a border router keeps link-local control messages out; an interface the
    // manager does not know drops what comes in on it.
    agent.status->pimIntf(agent.pa)->mbrIs(true);
    sender.send(helloBytes(), peer, all);
    agent.drainUntil(sender.sent);
    agent.status->pimIntf(agent.pa)->mbrIs(false);
    agent.manager->kernelIntfDel(agent.ifIndex);
    sender.send(helloBytes(), peer, all);
    agent.drainUntil(sender.sent);
    EXPECT_EQ(agent.counters->msgCounter({agent.pa, Knet::pimHello().type(), 255}).rxFiltered, 2u)
        << "the filtered neighbor's Hello and the border router's";
    EXPECT_EQ(agent.counters->msgCounter({Knet::IntfId(), Knet::pimHello().type(), 255}).rxInvalid, 1u)
        << "the unknown interface's, counted in the totals only";

    const auto law = agent.io->rxAccounting();
    EXPECT_EQ(law.read, sender.sent);
    EXPECT_EQ(law.read, agent.manager->pam()->rxPkts()) << "the socket's own count";
    EXPECT_TRUE(law.balanced()) << law;
  }
}

// A million Join/Prunes from sixteen neighbors that never say Hello (PIMIO_FLOOD_PACKETS to change
// the number): each queue stops at its depth, the rest is counted invalid, nothing is lost.
TEST(ReceivePathNetns, FloodFromUnknownNeighbors) {
  PIMIO_NETNS_LAB(lab);
  const char* env = std::getenv("PIMIO_FLOOD_PACKETS");
  const U64 packets = env ? std::strtoull(env, nullptr, 10) : 1000000;
  const Knet::IpGenAddr peer = lab.addrB(AddressFamily::ipv4);
  Agent agent(lab, v4, peer);
  Peer sender(lab, AddressFamily::ipv4);
  const std::string self = lab.addrA(AddressFamily::ipv4).str();
  std::vector<Bytes> messages;
  std::vector<Knet::IpGenAddr> sources;
  for (int i = 0; i < 16; ++i) {
    sources.push_back(ip(("10.99.0." + std::to_string(100 + i)).c_str()));
    messages.push_back(joinPruneBytes(self.c_str(), "239.2.2.2", "10.1.1.1"));
  }
  const Knet::IpGenAddr all = Knet::allPimRouters(AddressFamily::ipv4);
  for (U64 i = 0; i < packets; ++i) {
    sender.send(messages[i % 16], sources[i % 16], all);
    if (i % 64 == 63) agent.io->rxPkt();
  }
  agent.drainUntil(sender.sent);
  const auto law = agent.io->rxAccounting();
  EXPECT_EQ(law.read, packets);
  EXPECT_TRUE(law.balanced()) << law;
  EXPECT_EQ(law.parked, std::min<U64>(packets, 16 * 1024)) << "every queue at its depth, no further";
  EXPECT_EQ(law.invalid, packets - law.parked);
}

}  // namespace
}  // namespace Routing::Pim::IO
