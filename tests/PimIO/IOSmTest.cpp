// The state machine's frame: what construction and each watched object's change reach, in order
// (the handlers trace their entry at level 8), and the message counters in a real shared-memory
// table.
#include <gtest/gtest.h>
#include "PimIO/IOSm.h"
#include "support/IOSmAgent.h"
#include "loom/Trace.h"

namespace Routing::Pim::IO {
namespace {

using Cask::CounterKey;
using Cask::MessageCounterData;
using Lines = std::vector<std::string>;
constexpr auto rx = MessageCounterDirection::directionRx;
constexpr auto valid = MessageCounterType::counterValid;

using Agent = Test::IOSmAgent;

Lines entries(const Loom::TraceCapture& cap) {
  Lines out;
  for (const auto& l : cap.lines()) {
    if (l.unit == "PimIO") out.push_back(l.text);
  }
  return out;
}

TEST(IOSm, ConstructionOrderAndDefaults) {
  Agent a;
  a.status->pimIntfIs(Knet::IntfId("eth1"));
  Loom::TraceCapture cap(8);
  auto sm = a.sm();
  EXPECT_EQ(entries(cap), (Lines{"<Vrf:blue> handleTxError", "<Vrf:blue> handleTxSuccess", "<Vrf:blue> rxPkt",
                                 "<Vrf:blue> txPkt", "<Vrf:blue> TX: Error - No Message",
                                 "<Vrf:blue> handleUnresolvedPackets", "<Vrf:blue> handlePamFilter",
                                 "<Vrf:blue> handleInitialized", "<Vrf:blue> Enabling Pam Pim4",
                                 "<Vrf:blue> handleInterface"}));
  EXPECT_TRUE(sm->initialized() && sm->hasNotificationActive());
  EXPECT_EQ(sm->pimIntf().size(), 1u);
  EXPECT_EQ(sm->unresQDepth(), 1024u);
  EXPECT_EQ(sm->unresTimeout(), 5.0);
  EXPECT_EQ(sm->loopQuantum(), 0.5);
  EXPECT_FALSE(sm->bidir());
  ASSERT_TRUE(sm->mcastBoundary());
  EXPECT_EQ(sm->mcastBoundary()->name(), "PimIO");
  EXPECT_EQ(sm->pimPam()->maxRxPktData(), 65535u);
  EXPECT_EQ(Knet::PktManager::instance().maxPktSize(), 65535u);
  a.boundary = nullptr;
  EXPECT_FALSE(a.sm()->mcastBoundary()) << "no boundary status, no boundary";
}

// What each change of a watched object reaches, in order; the same object again reaches nothing.
TEST(IOSm, ReactorsAndTheirCatchUp) {
  Agent a;
  a.status->pimIntfIs(Knet::IntfId("eth1"));
  auto sm = a.sm(false);
  auto other = statusFactory("blue");
  other->pimIntfIs(Knet::IntfId("eth3"));
  EXPECT_EQ(sm->pimPam(), nullptr);
  const struct {
    const char* name;
    std::function<void()> change;
    Lines reached;
  } steps[] = {
      {"a manager given later", [&] { sm->pimPamManagerIs(a.manager); },
       {"handleTxError", "handleTxSuccess", "rxPkt", "txPkt", "TX: Error - No Message"}},
      {"the same manager again", [&] { sm->pimPamManagerIs(a.manager); }, {}},
      {"a new socket", [&] { a.manager->pamIs(a.manager->pam4Is("Other", 103, "").ptr()); },
       {"handleTxError", "handleTxSuccess", "rxPkt"}},
      {"a receive slot", [&] { a.manager->rxMessageInfoIs(0, messageInfoFactory()); }, {"handlePamFilter"}},
      {"a message to send", [&] { a.manager->txMessageInfo()->countInc(); }, {"txPkt", "TX: Error - No Message"}},
      {"an interface comes", [&] { a.status->pimIntfIs(Knet::IntfId("eth2")); }, {"handlePimInterface"}},
      {"a neighbor becomes active", [&] { a.status->pimIntf(Knet::IntfId("eth2"))->neighborIs(*Knet::IpGenAddr::parse("10.0.0.9"), true); },
       {"handleNewNeighbor eth2 10.0.0.9", "No unresolved packets for neighbor 10.0.0.9"}},
      {"the interface goes", [&] { a.status->pimIntfDel(Knet::IntfId("eth2")); }, {"handlePimInterface"}},
      {"a device changes", [&] { a.devices->intfStatusAndDeviceNameIs(Knet::IntfId("eth2"), {7, "veth2"}); },
       {"handleInterface( eth2", "doMaybeUpdatePimRoutersMembership", "dropPimRoutersMembership( eth2, 7"}},
      {"the review timer fires", [&] { a.timer->timeMinIs(1), a.clock.nowIs(2), a.wheel->advance(); },
       {"handleUnresolvedPackets"}},
      {"the same timer again", [&] { sm->unresTimerIs(a.timer); }, {}},
      {"another status", [&] { sm->pimStatusIs(other); }, {}},
      {"inactive", [&] { sm->hasNotificationActiveIs(false), a.manager->txMessageInfo()->countInc(); }, {}},
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(s.name);
    Loom::TraceCapture cap(8);
    s.change();
    Lines expected;
    for (const auto& r : s.reached) expected.push_back("<Vrf:blue> " + r);
    EXPECT_EQ(entries(cap), expected);
  }
  ASSERT_EQ(sm->pimIntf().size(), 1u) << "an interface that went kept its reactor";
  EXPECT_EQ(sm->pimIntf().begin()->first, Knet::IntfId("eth3"));
}

// Each row: one event and the entries it must move (interface, type, subtype -> rx valid count);
// every other entry stays absent.
TEST(IOSm, UpdateCounterMovesTotalsInterfaceAndSubtype) {
  const struct {
    const char* name;
    Knet::PimMessageType type;
    Packet::MessageSubtype subtype;
    const char* intf;
    std::vector<CounterKey> moved;
  } rows[] = {
      {"a Hello on eth1", Knet::pimHello(), 255, "eth1", {{Knet::IntfId(), 0, 255}, {Knet::IntfId("eth1"), 0, 255}}},
      {"a DF election Winner on eth1", Knet::pimDfElection(), 2, "eth1",
       {{Knet::IntfId(), 10, 255}, {Knet::IntfId(), 10, 2}, {Knet::IntfId("eth1"), 10, 255}, {Knet::IntfId("eth1"), 10, 2}}},
      {"an unknown interface", Knet::pimJoinPrune(), 255, "", {{Knet::IntfId(), 3, 255}}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    Agent a;
    auto sm = a.sm();
    clearMessageCounters(a.counters);
    const U32 before = a.manager->rxPamCounter()->processed();
    sm->updateCounter(rx, r.type, r.subtype, Knet::IntfId(r.intf), valid);
    std::vector<MessageCounterData> expected;
    for (const CounterKey& k : r.moved) expected.push_back({k, 0, 0, 1, 0, 0, 0});
    std::sort(expected.begin(), expected.end(), [](const auto& x, const auto& y) { return x.key < y.key; });
    EXPECT_EQ(a.counters->msgCounters(), expected);
    EXPECT_EQ(a.manager->rxPamCounter()->processed(), before + 1);
    // Once the table is cleared, the next count makes its entries again.
    clearMessageCounters(a.counters);
    sm->updateCounter(rx, r.type, r.subtype, Knet::IntfId(r.intf), valid);
    EXPECT_EQ(a.counters->msgCounters(), expected);
  }
}

TEST(IOSm, IncCounterCountsByDirectionAndType) {
  Agent a;
  const CounterKey k{Knet::IntfId("eth1"), 5, 255};
  const std::tuple<MessageCounterDirection, MessageCounterType> events[] = {
      {MessageCounterDirection::directionTx, MessageCounterType::counterInvalid},
      {MessageCounterDirection::directionTx, MessageCounterType::counterFiltered},
      {MessageCounterDirection::directionTx, MessageCounterType::counterFiltered},
      {rx, MessageCounterType::counterInvalid},
      {rx, valid}};
  for (const auto& [dir, ct] : events) IOSm::incCounter(dir, ct, a.counters, k);
  EXPECT_EQ(a.counters->msgCounter(k), (MessageCounterData{k, 1, 0, 1, 1, 2, 0}));
  a.counters->msgCounterIs({k, 0, 0, 0xffffffff});
  IOSm::incCounter(rx, valid, a.counters, k);
  EXPECT_EQ(a.counters->msgCounter(k).rxValid, 0u) << "counts wrap";
  EXPECT_EQ(stringValue(MessageCounterType::counterFiltered) + " " + valueToStrep(rx), "counterFiltered directionRx");
}

}  // namespace
}  // namespace Routing::Pim::IO
