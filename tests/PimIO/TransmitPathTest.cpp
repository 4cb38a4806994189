// The transmit path's refusals, one message at a time through the manager's transmit record:
// each with its trace and its count (the packets that do leave are checked on the wire, in the
// namespace tests).
#include <gtest/gtest.h>

#include "PimMessage/AssertMessage.h"
#include "PimMessage/MessageTable.h"
#include "support/IOSmAgent.h"
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

}  // namespace
}  // namespace Routing::Pim::IO
