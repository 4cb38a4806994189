// The transmit path's refusals, one message at a time through the manager's transmit record:
// each with its trace and its count (the packets that do leave are checked on the wire, in the
// namespace tests).
#include <gtest/gtest.h>

#include <optional>
#include <sstream>

#include "PimMessage/AssertMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/MessageTable.h"
#include "support/IOSmAgent.h"
#include "support/JoinPruneTrees.h"
#include "support/PimBytes.h"

namespace Routing::Pim::IO {
namespace {

using namespace PimTest;

const Knet::IntfId eth1("eth1");

// A message as a peer would have sent it, decoded: what the agent then hands to the record.
Loom::Ptr<Packet::Message> decoded(Bytes b, U8 subtype = Packet::noSubtype) {
  const Knet::IpGenAddr src = ip("10.0.0.2"), dst = ip("224.0.0.13");
  fixChecksum(b, src, dst);
  const Packet::MessageClass* row = Packet::messageClass(Knet::PimMessageType(b[0]), subtype);
  auto m = row->create();
  m->srcIpIs(src);
  m->dstIpIs(dst);
  EXPECT_NE(row->read(*m, pkt(b), 0, nullptr), 0u);
  m->srcIpIs(Knet::IpGenAddr());
  m->dstIpIs(Knet::IpGenAddr());
  return m;
}

TEST(TransmitPath, RefusalsWithTheirTextsAndCounts) {
  enum Count { error, filtered };
  const struct {
    const char* name;
    std::function<Loom::Ptr<Packet::Message>()> message;
    Knet::IntfId intf;
    Count count;
    std::string text;
  } rows[] = {
      {"no message", [] { return nullptr; }, eth1, error, "TX: Error - No Message"},
      {"a hello out of an interface without PIM", [] { return decoded(helloBytes()); }, Knet::IntfId("eth9"), error,
       "TX: Error - Invalid Interface - Id: eth9"},
      {"a PIM interface the manager has no device for", [] { return decoded(helloBytes()); }, Knet::IntfId("eth2"),
       error, "TX: Error - Invalid Interface - Id: eth2"},
      {"a device whose kernel index is gone", [] { return decoded(helloBytes()); }, Knet::IntfId("eth3"), error,
       "TX: Error - Invalid Kernel Interface - Id: eth3"},
      {"a PIM interface without IP", [] { return decoded(helloBytes()); }, Knet::IntfId("eth4"), error,
       "TX: Error - Invalid Velo interface eth4"},
      {"a register-stop without a destination", [] { return decoded(registerStopBytes("239.2.2.2", "10.1.1.1")); },
       eth1, error, "TX: Error - Unknown Pim Destination - Type: registerStop Id: eth1"},
      {"a df election of subtype 5",
       [] {
         auto m = decoded(dfElectionBytes(2, "10.9.9.9"), 2);
         m->reservedIs(0x50);
         m->messageSubtypeIs(5);
         return m;
       },
       eth1, error, "TX: Error - Invalid Pim DF Election Type"},
      {"an assert the writer refuses (an IPv6 group from an IPv4 router)",
       [] {
         auto m = decoded(assertBytes("239.2.2.2", "10.1.1.1"));
         static_cast<Packet::AssertMessage&>(*m).groupIs(ip("ff3e::2"));
         return m;
       },
       eth1, error, "TX: Error - Invalid Pim Assert - Write Error"},
      {"a join/prune whose every group lies behind the boundary",
       [] { return decoded(joinPruneBytes("10.0.0.2", "239.1.2.3", "10.1.1.1")); }, eth1, filtered,
       "TX: Filtered - Pim Join/Prune - Zero Groups"},
      {"an assert for a group behind the boundary", [] { return decoded(assertBytes("239.1.2.3", "10.1.1.1")); }, eth1,
       filtered, "TX: Assert group in Boundary filter - Packet Filtered"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    IO::Test::IOSmAgent a;
    for (const auto& [id, index] : {std::pair{"eth1", 7u}, {"eth3", 9u}, {"eth4", 10u}}) {
      a.manager->intfIs(Knet::IntfId(id))->ifIndexIs(index);
      if (index != 9) a.manager->kernelIntfIs(index)->intfIdIs(Knet::IntfId(id));
    }
    for (const char* id : {"eth1", "eth2", "eth3", "eth4"}) a.status->pimIntfIs(Knet::IntfId(id));
    a.ipStatus->ipIntfIs(eth1)->primaryAddrIs(Knet::IpGenPrefix(ip("10.0.0.1"), 24));
    a.boundary->softwareBoundaryStatusIs("eth1")->ruleIs(Knet::IpGenPrefix(ip("239.1.0.0"), 16), false);
    a.boundary->softwareBoundaryStatusIs("eth1")->ruleIs(Knet::IpGenPrefix(ip("224.0.0.0"), 4), true);
    auto io = a.sm();
    const auto& record = a.manager->txMessageInfo();
    auto msg = row.message();
    record->intfIdIs(row.intf);
    if (msg) record->messageIs(msg);
    const auto& counter = a.manager->txPamCounter();
    const U32 count = counter->count(), errors = counter->error();  // the machine's catch-up tried once
    Loom::TraceCapture cap(1);
    record->countInc(1);
    EXPECT_EQ(counter->count() - count, 1u);
    EXPECT_EQ(counter->error() - errors, row.count == error ? 1u : 0u);
    bool traced = false;
    for (const auto& l : cap.lines()) traced |= l.unit == "PimIO" && l.text == "<Vrf:blue> " + row.text;
    EXPECT_TRUE(traced) << row.text;
    if (msg) {
      const auto c = a.counters->msgCounter({row.intf, msg->messageType(), 255});
      EXPECT_EQ(c.txInvalid, row.count == error ? 1u : 0u);
      EXPECT_EQ(c.txFiltered, row.count == filtered ? 1u : 0u);
      EXPECT_EQ(c.txValid, 0u);
    }
  }
}


// The Join/Prune writer packs runs of (S,G) joins without a check per source when its packing
// trace is off; with the trace on it walks entry by entry. Both must write the same messages and
// leave the same tree, whatever the sources around the run: multicast ones, those above the
// multicast block, those of the other family, and a bookmark inside the run.
TEST(TransmitPath, JoinPruneRunsPackAsTheEntryWalkDoes) {
  const struct {
    const char* name;
    const char* upstream;
    const char* group;
    std::vector<const char*> joins;
    U32 mtu;
    bool periodic;
  } rows[] = {
      {"a multicast source inside the run", "10.0.0.2", "239.1.1.1",
       {"10.1.1.1", "224.0.0.1", "239.9.9.9", "240.0.0.1", "250.1.1.1"}, 1500, false},
      {"IPv6 sources after the IPv4 ones", "10.0.0.2", "239.1.1.1", {"10.1.1.1", "2001:db8::1", "ff0e::1"}, 1500,
       false},
      {"a run cut by the MTU resumes from the bookmark", "10.0.0.2", "239.1.1.1",
       {"10.1.1.1", "10.1.1.2", "10.1.1.3", "10.1.1.4", "10.1.1.5", "10.1.1.6", "10.1.1.7", "10.1.1.8", "10.1.1.9"},
       70, true},
      {"IPv6: a multicast source ends the run", "fe80::2", "ff0e::1", {"2001:db8::1", "fc00::1", "ff0e::9"}, 1500,
       false},
      {"IPv6: a run cut by the MTU", "fe80::2", "ff0e::1",
       {"2001:db8::1", "2001:db8::2", "2001:db8::3", "2001:db8::4", "2001:db8::5"}, 140, false},
  };
  // Writes messages from the tree until it has no more to send: the bytes of each, the writer's
  // report, and the entries the tree keeps at the end.
  auto drain = [](const auto& row, bool entryWalk) {
    Loom::Ptr<JoinPruneData> tree = new JoinPruneData(ip(row.upstream));
    tree->holdTimeIs(210);
    tree->periodicIs(row.periodic);
    auto& g = tree->joinPruneGroupDataIs(ip(row.group));
    for (const char* s : row.joins) g.joinedSourceIs(ip(s));
    std::optional<Loom::TraceCapture> packingTrace;
    if (entryWalk) packingTrace.emplace(Packet::tracePacking);
    std::vector<std::string> out;
    for (int i = 0; i < 10; ++i) {
      auto m = Packet::joinPruneMessageFactory();
      m->joinPruneDataIs(tree);
      m->mtuIs(row.mtu);
      m->srcIpIs(ip(row.upstream));
      m->dstIpIs(ip(ip(row.upstream).af() == Knet::AddressFamily::ipv4 ? "224.0.0.13" : "ff02::d"));
      auto pkt = Knet::pktFactory(1500);
      const U32 n = m->writeJoinPruneMessage(pkt, 0, nullptr);
      std::ostringstream os;
      os << "bytes " << testing::PrintToString(Bytes(pkt->data(), pkt->data() + n)) << " report " << m->report();
      out.push_back(os.str());
      if (n == 0 || !tree->bookmark()) break;
    }
    Entries left;
    collect(*tree, left);
    out.push_back(testing::PrintToString(left));
    return out;
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto runs = drain(row, false), walk = drain(row, true);
    EXPECT_EQ(runs, walk);
    EXPECT_GT(walk.size(), 1u);
  }
}

}  // namespace
}  // namespace Routing::Pim::IO
