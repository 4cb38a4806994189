// Message processing, the neighbor filter and the unresolved-packet queues, driven through the
// state machine with the timer wheel on a clock the test moves (no sleeping). Packets are bytes
// as a peer sends them; counts are read back from the real shared-memory table.
#include <gtest/gtest.h>

#include <functional>

#include "PimMessage/DfElectionMessage.h"
#include "support/PimBytes.h"
#include "support/IOSmAgent.h"

namespace Routing::Pim::IO {
namespace {

using namespace PimTest;
using Cask::CounterKey;
using Lines = std::vector<std::string>;

const Knet::IntfId eth1("eth1");
constexpr U32 eth1Index = 7;
const Knet::IpGenAddr peer = ip("10.0.0.2");
const Knet::IpGenAddr allPimRouters = ip("224.0.0.13");

// The bodies of the messages, IPv4, before their checksum.
Bytes joinPruneBytes(const char* group) { return PimTest::joinPruneBytes("10.0.0.1", group, "10.1.1.1"); }
Bytes assertBytes(const char* group) { return PimTest::assertBytes(group, "10.1.1.1"); }
// The first range given, then 239.1/16, which lies behind eth1's boundary.
Bytes bootstrapBytes(const char* first, U8 mask, U8 flags) {
  return PimTest::bootstrapBytes("10.9.9.9", first, mask, flags, "239.1.0.0", 16);
}
Bytes dfWinnerBytes(U8 subtype) { return dfElectionBytes(subtype, "10.9.9.9"); }

Loom::Ptr<RxPktContext> context(Bytes b, const Loom::Ptr<PamManager>& manager, const Knet::IpGenAddr& dst) {
  fixChecksum(b, peer, dst);
  auto ctx = rxPktContextFactory(Knet::RxPkt{pkt(b), eth1Index, peer, dst});
  ctx->kIntfIs(manager->kernelIntf(eth1Index));
  return ctx;
}

struct Fixture : Test::IOSmAgent {
  Loom::Ptr<IOSm> io;
  Fixture() {
    manager->kernelIntfIs(eth1Index)->intfIdIs(eth1);
    // Groups of 239.1/16 lie behind eth1's boundary; the rest of the multicast range passes.
    auto b = boundary->softwareBoundaryStatusIs(eth1.name());
    b->ruleIs(Knet::IpGenPrefix(ip("239.1.0.0"), 16), false);
    b->ruleIs(Knet::IpGenPrefix(ip("224.0.0.0"), 4), true);
    status->pimIntfIs(eth1);
    io = sm();
  }
  Cask::MessageCounterData count(Knet::PimMessageType t, U8 subtype = CounterKey::anySubtype) const {
    return counters->msgCounter({eth1, t.type(), subtype});
  }
};

Lines lines(const Loom::TraceCapture& cap, int atMost) {
  Lines out;
  for (const auto& l : cap.lines()) {
    if (l.unit == "PimIO" && l.level <= atMost) out.push_back(l.text);
  }
  return out;
}

// A missing or mistyped list lets everything through; an existing list that does not name the
// address drops it; Register and Register-Stop are never filtered.
TEST(MessageProcessing, NeighborFilterAsymmetry) {
  const struct {
    const char* name;
    const char* list;  // eth1's neighbor filter
    Knet::PimMessageType type;
    Knet::IpGenAddr src;
    bool dropped;
    std::string text;
  } rows[] = {
      {"no filter on the interface", "", Knet::pimHello(), peer, false, ""},
      {"a list that does not exist", "missing", Knet::pimHello(), peer, false,
       "Neighbor Filter - No Config For ACL - Name: missing"},
      {"an IPv6 neighbor against an IPv4 list", "v4", Knet::pimHello(), ip("fe80::2"), false,
       "Neighbor Filter Ipv6 - Invalid ACL Type - Name: v4 Type: 1"},
      {"an IPv4 neighbor against an IPv6 list", "v6", Knet::pimHello(), peer, false,
       "Neighbor Filter - Invalid ACL Type - Name: v6 Type: 2"},
      {"an empty list", "empty", Knet::pimJoinPrune(), peer, true,
       "Neighbor Filter - No Rule Match - Deny - Name: empty Source: 10.0.0.2"},
      {"a permit", "v4", Knet::pimHello(), ip("10.0.0.9"), false,
       "Neighbor Filter - Rule Match - Permit - Name: v4 Source: 10.0.0.9"},
      {"a deny before the permit", "v4", Knet::pimAssert(), peer, true,
       "Neighbor Filter - Rule Match - Deny - Name: v4 Source: 10.0.0.2"},
      {"no rule for the address", "v4", Knet::pimHello(), ip("192.168.1.1"), true,
       "Neighbor Filter - No Rule Match - Deny - Name: v4 Source: 192.168.1.1"},
      {"an IPv6 deny", "v6", Knet::pimHello(), ip("fe80::2"), true,
       "Neighbor Filter - Rule Match - Deny - Name: v6 Source: fe80::2"},
      {"register under a deny-all list", "empty", Knet::pimRegister(), peer, false, ""},
      {"register-stop under a deny-all list", "empty", Knet::pimRegisterStop(), peer, false, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Fixture f;
    f.acl->aclConfigIs("empty", Acl::AclType::ipv4);
    auto v4 = f.acl->aclConfigIs("v4", Acl::AclType::ipv4);
    v4->ipRuleConfigIs(20, {Acl::AclAction::permit, Acl::IpFilter(Knet::IpGenPrefix(ip("10.0.0.0"), 24))});
    v4->ipRuleConfigIs(10, {Acl::AclAction::deny, Acl::IpFilter(Knet::IpGenPrefix(ip("10.0.0.2"), 32))});
    f.acl->aclConfigIs("v6", Acl::AclType::ipv6)
        ->ip6RuleConfigIs(10, {Acl::AclAction::deny, Acl::Ip6Filter(Knet::IpGenPrefix(ip("fe80::"), 64))});
    f.config->intfConfigIs(eth1)->neighborFilterIs(row.list);
    Loom::TraceCapture cap(7);
    EXPECT_EQ(f.io->neighborFiltered(row.type, row.src, eth1), row.dropped);
    const Lines got = lines(cap, 7);
    if (row.text.empty()) {
      EXPECT_EQ(got.size(), 1u) << "the entry line only: " << ::testing::PrintToString(got);
    } else {
      EXPECT_EQ(got.back(), "<Vrf:blue> " + row.text);
    }
  }
}

// ---- Unresolved-packet queues

struct Queues : Fixture {
  // The agent's Join/Prune slot and what it saw, one entry per count change.
  Loom::Ptr<MessageInfo> slot = messageInfoFactory();
  struct Watcher : MessageInfo::Notifiee {
    std::vector<Loom::Ptr<Packet::Message>> seen;
    void onCount() override { seen.push_back(notifier()->message()); }
  } watcher;
  Queues() {
    manager->rxMessageInfoIs(Knet::pimJoinPrune().type(), slot);
    watcher.notifierIs(slot);
    watcher.hasNotificationActiveIs(true);
  }
  Loom::Ptr<Packet::Message> park(const Knet::IpGenAddr& from, Bytes b = joinPruneBytes("239.2.2.2")) {
    auto ctx = context(b, manager, allPimRouters);
    const bool ok = b[0] == 0x23 ? io->processJoinPruneMessage(ctx) : io->processAssertMessage(ctx);
    EXPECT_TRUE(ok);
    io->pimUnresPktEnq({eth1, from}, ctx->msg());
    return ctx->msg();
  }
  void neighborUp(const Knet::IpGenAddr& a) { status->pimIntf(eth1)->neighborIs(a, true); }
};

// ---- The receive path's checks, one packet at a time (the socket's side is in the namespace tests)

// An IPv4 packet as the socket delivers it: a 20-byte header, then the PIM message.
Bytes ipv4(Bytes pim, const Knet::IpGenAddr& dst) {
  fixChecksum(pim, peer, dst);
  Bytes h = {0x45, 0xc0, 0, U8(20 + pim.size()), 0, 0, 0, 0, 1, 103, 0, 0, 10, 0, 0, 2};
  h.insert(h.end(), dst.bytes(), dst.bytes() + 4);
  return concat({h, pim});
}

// Each row a packet from `src` to its IP destination on kernel interface `ifIndex`: where it lands
// (its trace and the count it leaves), and after all of them every packet read is accounted once.
// What can cross a wire is also sent over a veth in the namespace tests; these rows are the checks
// and decodes in detail.
TEST(ReceivePath, EveryCheckLandsInItsSlotOrCounter) {
  const Knet::IpGenAddr unicast = ip("10.0.0.1");
  enum Lands { handed, invalid, filtered, error };
  const struct {
    const char* name;
    Bytes bytes;  // from the IP header on
    Knet::IpGenAddr src;
    U32 ifIndex;
    Lands lands;
    std::string text;  // the line that says so ("" for a hand-over)
  } rows[] = {
      {"hello", ipv4(helloBytes(), allPimRouters), peer, eth1Index, handed, ""},
      {"hello cut in an option", ipv4(cut(helloBytes(), 1), allPimRouters), peer, eth1Index, invalid,
       "RX: Error - Invalid Pim Hello - Read Error"},
      {"an IP header longer than the packet", {0x46, 0, 0, 20, 0, 0, 0, 0, 1, 103, 0, 0, 10, 0, 0, 2, 224, 0, 0, 13}, peer,
       eth1Index, error, "RX: Error - Missing Ip Header - Remaining: 20 Length: 24"},
      {"a null register on an interface without PIM", ipv4(nullRegisterBytes("10.1.1.1", "239.2.2.2"), unicast), peer, 10,
       handed, ""},
      {"a kernel interface the manager has no interface for", ipv4(helloBytes(), allPimRouters), peer, 8, invalid,
       "RX: Error - Invalid Interface - Id: eth2"},
      {"join/prune", ipv4(joinPruneBytes("239.2.2.2"), allPimRouters), peer, eth1Index, handed, ""},
      {"join/prune of one group behind the boundary", ipv4(joinPruneBytes("239.1.2.3"), allPimRouters), peer, eth1Index,
       filtered, "RX: Filtered - Pim Join/Prune - Zero Groups"},
      {"join/prune cut in its source", ipv4(cut(joinPruneBytes("239.2.2.2"), 2), allPimRouters), peer, eth1Index, invalid,
       "RX: Error - Invalid Pim Join/Prune - Read Error"},
      {"join/prune announcing no group",
       ipv4(concat({{0x23, 0, 0, 0}, encodedUnicastBytes("10.0.0.1"), {0, 0, 0, 210}}), allPimRouters), peer, eth1Index,
       invalid, "RX: Error - Invalid Pim Join/Prune - Read Error"},
      {"an assert, which the agent takes no slot for", ipv4(assertBytes("239.2.2.2"), allPimRouters), peer, eth1Index,
       filtered, "RX: Error - No Message Info - Type: 5"},
      {"an assert for a group behind the boundary", ipv4(assertBytes("239.1.2.3"), allPimRouters), peer, eth1Index,
       filtered, "RX: Assert: Group is Boundary filter - Packet Filtered"},
      {"bootstrap to a unicast address, only its second range bounded", ipv4(bootstrapBytes("224.0.0.0", 4, 0), unicast),
       peer, eth1Index, handed, ""},
      {"bootstrap, first range admin-scoped, not bounded", ipv4(bootstrapBytes("239.2.0.0", 16, 1), allPimRouters), peer,
       eth1Index, handed, ""},
      {"bootstrap, first range admin-scoped and bounded", ipv4(bootstrapBytes("224.0.0.0", 4, 1), allPimRouters), peer,
       eth1Index, filtered, "RX: Bootstrap: Group in Boundary Filter - Packet Filtered"},
      {"df election winner", ipv4(dfWinnerBytes(2), allPimRouters), peer, eth1Index, handed, ""},
      {"df election winner cut", ipv4(cut(dfWinnerBytes(2), 4), allPimRouters), peer, eth1Index, invalid,
       "RX: Error - Invalid Pim DF Election Winner - Read Error"},
      {"df election subtype 5", ipv4(dfWinnerBytes(5), allPimRouters), peer, eth1Index, invalid,
       "RX: Error - Unsupported Pim DF Election Type"},
  };
  Queues f;
  f.manager->intfIs(eth1)->ifIndexIs(eth1Index);
  f.manager->kernelIntfIs(8)->intfIdIs(Knet::IntfId("eth2"));
  f.manager->kernelIntfIs(10)->intfIdIs(Knet::IntfId("eth4"));
  f.manager->intfIs(Knet::IntfId("eth4"))->ifIndexIs(10);
  f.manager->rxMessageInfoIs(Knet::pimRegister().type(), messageInfoFactory());
  f.status->pimIntf(eth1)->neighborIs(peer, true);
  f.manager->rxMessageInfoIs(Knet::pimHello().type(), messageInfoFactory());
  f.manager->rxMessageInfoIs(Knet::pimBootstrap().type(), messageInfoFactory());
  f.manager->rxMessageInfoIs(Knet::pimDfElection().type(), messageInfoFactory());
  const auto& counter = f.manager->rxPamCounter();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto before = f.io->rxAccounting();
    Loom::TraceCapture cap(4);  // the Bootstrap boundary says so at 4
    counter->countInc(1);  // as rxPkt counts what it reads
    f.io->processPkt(rxPktContextFactory(Knet::RxPkt{pkt(row.bytes), row.ifIndex, row.src, row.bytes.size() > 19
                                                         ? Knet::IpGenAddr::fromBytes(Knet::AddressFamily::ipv4, &row.bytes[16])
                                                         : allPimRouters}));
    const auto after = f.io->rxAccounting();
    EXPECT_EQ(after.valid - before.valid, row.lands == handed ? 1u : 0u);
    EXPECT_EQ(after.invalid - before.invalid, row.lands == invalid ? 1u : 0u);
    EXPECT_EQ(after.filtered - before.filtered, row.lands == filtered ? 1u : 0u);
    EXPECT_EQ(after.errors - before.errors, row.lands == error ? 1u : 0u);
    if (!row.text.empty()) {
      const Lines got = lines(cap, 4);
      EXPECT_NE(std::find(got.begin(), got.end(), "<Vrf:blue> " + row.text), got.end()) << ::testing::PrintToString(got);
    }
  }
  const auto law = f.io->rxAccounting();
  EXPECT_TRUE(law.balanced()) << law;
  EXPECT_EQ(law.read, std::size(rows));
}

// The receive path keeps what it found for a kernel index: every change of the tables it found
// it in shows on the next packet. Each row sends a packet that is handed over (and leaves its
// record), changes the tables, and sends the same packet again: where that one lands.
TEST(ReceivePath, AnInterfaceChangeShowsOnTheNextPacket) {
  const Knet::IntfId eth4("eth4");
  const Bytes hello = ipv4(helloBytes(), allPimRouters);
  const Bytes joinPrune = ipv4(joinPruneBytes("239.2.2.2"), allPimRouters);
  enum Lands { handedOnEth1, handedOnEth4, invalid, parked };
  const struct {
    const char* name;
    const Bytes& bytes;
    std::function<void(Queues&, const std::function<void()>& send)> change;
    Lands lands;
    std::string text;  // the line that says so ("" for a hand-over)
  } rows[] = {
      {"nothing changed", hello, [](Queues&, auto&) {}, handedOnEth1, ""},
      {"kernel interface deleted", hello, [](Queues& f, auto&) { f.manager->kernelIntfDel(eth1Index); }, invalid,
       "RX: Error - Invalid Kernel Interface - Id: 7"},
      {"kernel index given to another name", hello,
       [](Queues& f, auto&) { f.manager->kernelIntf(eth1Index)->intfIdIs(Knet::IntfId("eth2")); }, invalid,
       "RX: Error - Invalid Interface - Id: eth2"},
      {"kernel index given to another PIM interface", hello,
       [&](Queues& f, auto&) { f.manager->kernelIntf(eth1Index)->intfIdIs(eth4); }, handedOnEth4, ""},
      {"interface deleted", hello, [](Queues& f, auto&) { f.manager->intfDel(eth1); }, invalid,
       "RX: Error - Invalid Interface - Id: eth1"},
      {"PIM disabled", hello, [](Queues& f, auto&) { f.status->pimIntfDel(eth1); }, invalid,
       "RX: Error - Invalid Pim Interface - Type: hello Id: eth1"},
      {"PIM enabled again, its neighbors not known yet", joinPrune,
       [](Queues& f, auto&) { f.status->pimIntfDel(eth1), f.status->pimIntfIs(eth1); }, parked,
       "RX: queuing PIM joinPrune packet for processing when neighbor eth1 neighbor 10.0.0.2 shows up on interface eth1"},
      {"another PIM status, without the interface", hello,
       [](Queues& f, auto&) { f.io->pimStatusIs(statusFactory("blue")); }, invalid,
       "RX: Error - Invalid Pim Interface - Type: hello Id: eth1"},
      {"PIM disabled while the machine is inactive", hello,
       [](Queues& f, auto& send) {
         f.io->hasNotificationActiveIs(false);
         send();  // found afresh, and not kept: nothing tells an inactive machine of the change
         f.status->pimIntfDel(eth1);
       },
       invalid,
       "RX: Error - Invalid Pim Interface - Type: hello Id: eth1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Queues f;
    f.manager->intfIs(eth1)->ifIndexIs(eth1Index);
    f.manager->intfIs(eth4)->ifIndexIs(11);
    f.status->pimIntf(eth1)->neighborIs(peer, true);
    f.status->pimIntfIs(eth4)->neighborIs(peer, true);
    f.manager->rxMessageInfoIs(Knet::pimHello().type(), messageInfoFactory());
    const auto send = [&] {
      f.manager->rxPamCounter()->countInc(1);
      f.io->processPkt(rxPktContextFactory(Knet::RxPkt{pkt(row.bytes), eth1Index, peer, allPimRouters}));
    };
    const Knet::PimMessageType t(row.bytes[20]);
    const auto onEth4 = [&] { return f.counters->msgCounter({eth4, t.type(), CounterKey::anySubtype}).rxValid; };
    send();
    ASSERT_EQ(f.count(t).rxValid, 1u);
    row.change(f, send);
    const auto before = f.io->rxAccounting();
    const U32 eth1Before = f.count(t).rxValid, eth4Before = onEth4();
    Loom::TraceCapture cap(1);
    send();
    const auto after = f.io->rxAccounting();
    EXPECT_EQ(f.count(t).rxValid - eth1Before, row.lands == handedOnEth1 ? 1u : 0u);
    EXPECT_EQ(onEth4() - eth4Before, row.lands == handedOnEth4 ? 1u : 0u);
    EXPECT_EQ(after.invalid - before.invalid, row.lands == invalid ? 1u : 0u);
    EXPECT_EQ(after.parked - before.parked, row.lands == parked ? 1u : 0u);
    EXPECT_TRUE(after.balanced()) << after;
    const Lines got = lines(cap, 1);
    EXPECT_EQ(got, row.text.empty() ? Lines{} : Lines{"<Vrf:blue> " + row.text});
  }
}

// A Hello's message object serves again once its slot and the agent have let it go: what the agent
// keeps stays as it arrived, and what it reads is the packet's alone (nothing left over from an
// earlier Hello). Hold times 1 to 6; the first carries a secondary address; the agent keeps the
// third.
TEST(ReceivePath, HellosTheAgentKeepsStayAsTheyArrived) {
  Queues f;
  f.manager->intfIs(eth1)->ifIndexIs(eth1Index);
  const auto slot = messageInfoFactory();
  f.manager->rxMessageInfoIs(Knet::pimHello().type(), slot);
  struct Reader : MessageInfo::Notifiee {
    std::vector<std::pair<U16, size_t>> seen;  // hold time, secondary addresses
    Loom::Ptr<Packet::HelloMessage> kept;
    void onCount() override {
      const auto hello = notifier()->helloMessage();
      seen.emplace_back(hello->holdTime(), hello->secondaryAddr().size());
      if (seen.size() == 3) kept = hello;
    }
  } reader;
  reader.notifierIs(slot);
  reader.hasNotificationActiveIs(true);
  for (U8 holdTime = 1; holdTime <= 6; ++holdTime) {
    Bytes b = {0x20, 0, 0, 0, 0, 1, 0, 2, 0, holdTime};
    if (holdTime == 1) b = concat({b, {0, 24, 0, 6, 1, 0, 192, 168, 1, 1}});
    f.io->processPkt(rxPktContextFactory(Knet::RxPkt{pkt(ipv4(b, allPimRouters)), eth1Index, peer, allPimRouters}));
  }
  EXPECT_EQ(reader.seen, (std::vector<std::pair<U16, size_t>>{{1, 1}, {2, 0}, {3, 0}, {4, 0}, {5, 0}, {6, 0}}));
  ASSERT_TRUE(reader.kept);
  EXPECT_EQ(reader.kept->holdTime(), 3);
}

// A Hello from a filtered address with one secondary address that passes is taken, and decoded
// once; a Hello none of whose addresses passes is filtered.
TEST(ReceivePath, HelloRescuedByASecondaryAddress) {
  Queues f;
  f.manager->intfIs(eth1)->ifIndexIs(eth1Index);
  f.manager->rxMessageInfoIs(Knet::pimHello().type(), messageInfoFactory());
  f.acl->aclConfigIs("nbr", Acl::AclType::ipv4)
      ->ipRuleConfigIs(10, {Acl::AclAction::permit, Acl::IpFilter(Knet::IpGenPrefix(ip("192.168.0.0"), 16))});
  f.config->intfConfigIs(eth1)->neighborFilterIs("nbr");
  // Holdtime, then an address list of one address (option 24).
  const auto hello = [](U8 lastByte) {
    return concat({helloBytes(), {0, 24, 0, 6, 1, 0, 192, 168, 1, lastByte}});
  };
  Loom::TraceCapture cap(4);
  f.io->processPkt(rxPktContextFactory(Knet::RxPkt{pkt(ipv4(hello(1), allPimRouters)), eth1Index, peer, allPimRouters}));
  EXPECT_EQ(f.manager->rxMessageInfo(Knet::pimHello().type())->count(), 1u);
  size_t decodes = 0;
  for (const auto& l : cap.lines()) decodes += l.unit == "PimMessage" && startsWith(l.text, "RX: <PIM");
  EXPECT_EQ(decodes, 1u) << "decoded during the filter check only";
  f.acl->aclConfig("nbr")->ruleDelAll();
  f.io->processPkt(rxPktContextFactory(Knet::RxPkt{pkt(ipv4(hello(1), allPimRouters)), eth1Index, peer, allPimRouters}));
  EXPECT_EQ(f.manager->rxMessageInfo(Knet::pimHello().type())->count(), 1u);
  EXPECT_EQ(f.count(Knet::pimHello()).rxFiltered, 1u);
}

TEST(UnresolvedPackets, PurgedAtTheSecondReviewNeverTheFirst) {
  Queues q;
  Loom::TraceCapture cap(3);
  q.park(peer);
  EXPECT_EQ(q.timer->timeMin(), 5.0) << "armed by the first queue";
  q.advanceTo(5.0);  // first review: seen once, kept
  q.park(peer);      // parked just after a review
  EXPECT_EQ(q.io->pimUnresPkt({eth1, peer})->pktCount(), 2u);
  EXPECT_EQ(q.timer->timeMin(), 10.0) << "re-armed while queues remain";
  q.advanceTo(10.0);  // the first is purged, the second seen once
  EXPECT_EQ(q.io->pimUnresPkt({eth1, peer})->pktCount(), 1u);
  EXPECT_EQ(q.count(Knet::pimJoinPrune()).rxInvalid, 1u);
  q.advanceTo(15.0);
  EXPECT_FALSE(q.io->pimUnresPkt({eth1, peer}));
  EXPECT_EQ(q.count(Knet::pimJoinPrune()).rxInvalid, 2u) << "each purge counted";
  EXPECT_EQ(q.timer->timeMin(), Keel::timeInfinity) << "no queue left, not re-armed";
  const Lines got = lines(cap, 3);
  EXPECT_EQ(std::count(got.begin(), got.end(),
                       "<Vrf:blue> Purging PIM joinPrune packet since neighbor 10.0.0.2 was not discovered yet."),
            2);
  EXPECT_EQ(got.back(), "<Vrf:blue> Purged all queued packets for neighbor 10.0.0.2");
  EXPECT_EQ(std::count(got.begin(), got.end(), "<Vrf:blue> There are unresolved packets.  Re-enabling timer."), 2);
  EXPECT_EQ(std::count(got.begin(), got.end(), "<Vrf:blue> RX: There are unresolved packets.  Enabling timer."), 1);
}

// Handed over in arrival order, one count change and one valid count each; a type without a
// slot is counted filtered; the timer stays armed until the last queue goes.
TEST(UnresolvedPackets, HandOverInArrivalOrderAndTheTimer) {
  Queues q;
  const Knet::IpGenAddr other = ip("10.0.0.3");
  const auto first = q.park(peer);
  q.park(other);
  const auto assert = q.park(peer, assertBytes("239.2.2.2"));
  const auto third = q.park(peer, joinPruneBytes("239.3.3.3"));
  q.advanceTo(5.0);  // between the two reviews
  Loom::TraceCapture cap(3);
  q.neighborUp(peer);
  EXPECT_EQ(q.watcher.seen, (std::vector<Loom::Ptr<Packet::Message>>{first, third}));
  EXPECT_EQ(q.slot->intfId(), eth1);
  EXPECT_EQ(q.count(Knet::pimJoinPrune()).rxValid, 2u);
  EXPECT_EQ(q.count(Knet::pimAssert()).rxFiltered, 1u) << "no Assert slot";
  EXPECT_EQ(q.timer->timeMin(), 10.0) << "another neighbor still waits";
  q.neighborUp(other);
  EXPECT_EQ(q.watcher.seen.size(), 3u);
  EXPECT_EQ(q.timer->timeMin(), Keel::timeInfinity);
  q.neighborUp(ip("10.0.0.4"));
  EXPECT_EQ(lines(cap, 3), (Lines{"<Vrf:blue> RX: Error - No Message Info - Type: assert",
                                  "<Vrf:blue> Processed all queued packets for neighbor 10.0.0.2",
                                  "<Vrf:blue> Processed all queued packets for neighbor 10.0.0.3",
                                  "<Vrf:blue> There are no unresolved packets.  Disabling timer.",
                                  "<Vrf:blue> No unresolved packets for neighbor 10.0.0.4"}));
  EXPECT_TRUE(q.io->pimUnresPkt().empty());
}

// Sequence numbers: the larger of the next number and the tail's + 1; put and delete by number.
TEST(UnresolvedPackets, QueueNumbering) {
  PimUnresolvedPackets q({eth1, peer});
  std::vector<Loom::Ptr<PimPacket>> p;
  for (int i = 0; i < 5; ++i) p.push_back(PimPacketIs());
  EXPECT_EQ(q.pktEnq(p[0]), 0u);
  q.pktIs(7, p[1]);
  EXPECT_EQ(q.pktEnq(p[2]), 8u) << "after the tail put at 7";
  q.pktIs(3, p[3]);
  EXPECT_EQ(q.pktEnq(p[4]), 9u);
  q.pktDel(7);
  std::vector<U32> order;
  for (PimPacket* e = q.pkt().head(); e; e = PimUnresolvedPackets::Queue::next(e)) order.push_back(e->linkIndex());
  EXPECT_EQ(order, (std::vector<U32>{0, 3, 8, 9}));
  EXPECT_EQ(q.pktDeq(), p[0]);
  EXPECT_EQ(q.pkt(3), p[3].ptr());
  q.pktDel(9);
  EXPECT_EQ(q.pkt().tail(), p[2].ptr()) << "the tail follows a deleted last entry";
  EXPECT_EQ(q.pktCount(), 2u);
}

}  // namespace
}  // namespace Routing::Pim::IO
