// The message records: typed views and mutators of the hand-over record, its count, and the
// receive context's start and interface.
#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "PimIO/RxPktContext.h"
#include "PimMessage/MessageTable.h"

namespace Routing::Pim::IO {
namespace {

using namespace Packet;

struct CountWatch : MessageInfo::Notifiee {
  int calls = 0;
  void onCount() override { ++calls; }
};

// Every class of the codec's table in a record: only its own view (and, for a DF election
// subtype, the generic DF election view) sees it; an empty record shows none.
TEST(MessageInfo, TypedViewsSeeTheirOwnClassOnly) {
  const std::pair<const char*, std::function<bool(const MessageInfo&)>> views[] = {
      {"hello", [](const MessageInfo& i) { return bool(i.helloMessage()); }},
      {"register", [](const MessageInfo& i) { return bool(i.registerMessage()); }},
      {"registerStop", [](const MessageInfo& i) { return bool(i.registerStopMessage()); }},
      {"joinPrune", [](const MessageInfo& i) { return bool(i.joinPruneMessage()); }},
      {"bootstrap", [](const MessageInfo& i) { return bool(i.bootstrapMessage()); }},
      {"assert", [](const MessageInfo& i) { return bool(i.assertMessage()); }},
      {"candidateRpAdv", [](const MessageInfo& i) { return bool(i.crpAdvMessage()); }},
      {"dfElection", [](const MessageInfo& i) { return bool(i.dfElectionMessage()); }},
      {"dfElectionOffer", [](const MessageInfo& i) { return bool(i.dfElectionOfferMessage()); }},
      {"dfElectionWinner", [](const MessageInfo& i) { return bool(i.dfElectionWinnerMessage()); }},
      {"dfElectionBackoff", [](const MessageInfo& i) { return bool(i.dfElectionBackoffMessage()); }},
      {"dfElectionPass", [](const MessageInfo& i) { return bool(i.dfElectionPassMessage()); }},
  };
  auto info = messageInfoFactory();
  for (const auto& [view, sees] : views) EXPECT_FALSE(sees(*info)) << view << " on an empty record";
  for (const MessageClass& c : messageClasses()) {
    info->messageIs(c.create());
    const bool df = c.type == Knet::pimDfElection();
    for (const auto& [view, sees] : views) {
      EXPECT_EQ(sees(*info), view == c.name || (df && std::string_view(view) == "dfElection")) << c.name << " " << view;
    }
  }
  // A bare header of a type that has a class is not that class; an Offer relabelled as a Winner
  // is neither.
  info->messageIs(messageFactory(Knet::pimAssert()));
  EXPECT_FALSE(info->assertMessage());
  auto offer = dfElectionOfferMessageFactory();
  offer->dfElectionMessageTypeIs(dfElectionWinner());
  info->messageIs(offer);
  EXPECT_FALSE(info->dfElectionOfferMessage() || info->dfElectionWinnerMessage());
}

TEST(MessageInfo, CountNotifiesOnlyWhenItChanges) {
  auto info = messageInfoFactory();
  CountWatch w;
  w.notifierIs(info);
  EXPECT_EQ(info->countInc(0), 0u);
  EXPECT_EQ(w.calls, 0);
  info->countIs(std::numeric_limits<U32>::max());
  EXPECT_EQ(info->countInc(1), 0u);
  EXPECT_EQ(w.calls, 2);
  info->intfIdIs(Knet::IntfId("eth1"));
  info->intfIdIs(Knet::IntfId("eth1"));
  EXPECT_EQ(w.calls, 2);
}

using MessageInfoDeathTest = ::testing::Test;

TEST(MessageInfoDeathTest, MutatorOfAnotherTypeAborts) {
  auto info = messageInfoFactory();
  auto jp = joinPruneMessageFactory();
  jp->pimMessageTypeIs(Knet::pimHello());
  info->joinPruneMessageIs(joinPruneMessageFactory());
  EXPECT_DEATH(info->joinPruneMessageIs(jp), "msg->pimMessageType\\(\\) == Knet::pimJoinPrune\\(\\)");
  auto offer = dfElectionOfferMessageFactory();
  offer->dfElectionMessageTypeIs(dfElectionWinner());
  EXPECT_DEATH(info->dfElectionOfferMessageIs(offer), "msg->dfElectionMessageType\\(\\) == Pim::Packet::dfElectionOffer\\(\\)");
  auto crp = crpAdvMessageFactory();
  crp->pimMessageTypeIs(Knet::pimAssert());
  EXPECT_DEATH(info->crpAdvMessageIs(crp), "msg->pimMessageType\\(\\) == Knet::pimCrpAdvertisement\\(\\)");
}

TEST(RxPktContext, StartsAtThePacketAndKnowsItsInterfaceOnceSet) {
  auto empty = rxPktContextFactory(Knet::pktFactory(0));
  EXPECT_EQ(empty->remaining(), 0u);
  EXPECT_TRUE(empty->initialized());
  EXPECT_EQ(empty->intfId(), Knet::IntfId::empty());
  empty->remainingDec(1);
  EXPECT_EQ(empty->remaining(), 0xffff) << "16 bits, wraps";

  auto c = rxPktContextFactory(Knet::pktFactory(60));
  EXPECT_EQ(c->remaining(), 60u);
  Loom::Ptr<KernelIntf> k = new KernelIntf(7);
  k->intfIdIs(Knet::IntfId("eth7"));
  c->kIntfIs(k);
  EXPECT_EQ(c->intfId(), Knet::IntfId("eth7"));
  c->pimHdrIs(Knet::PimCommonHdr(c->pkt()->data() + 20, 40));
  EXPECT_EQ(c->pimHdr()->messageType(), Knet::PimMessageType(0));
  EXPECT_EQ(c->ipHdr(), nullptr);
}

}  // namespace
}  // namespace Routing::Pim::IO
