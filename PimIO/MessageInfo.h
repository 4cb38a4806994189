#pragma once
// The hand-over record between the library and the agent. The packet access manager keeps one per
// receive slot and one for transmission: the receive path stores a decoded message and its
// interface and raises `count`; the agent does the same to have a message sent. `count` is the
// signal: a reactor reads `message` and `intfId` in its onCount, before the next message of the
// same slot replaces them.
#include "PimMessage/AssertMessage.h"
#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/CrpAdvMessage.h"
#include "PimMessage/DfElectionMessage.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/RegisterMessage.h"
#include "knet/Address.h"
#include "loom/Entity.h"

namespace Routing::Pim::IO {

using Packet::Message;

class MessageInfo : public Loom::Entity {
 public:
  class Notifiee : public Loom::BaseNotifiee<MessageInfo> {
   public:
    virtual void onMessage() {}
    virtual void onIntfId() {}
    virtual void onNeighborAddr() {}
    virtual void onCount() {}
  };

  const Loom::Ptr<Message>& message() const { return message_; }
  void messageIs(const Loom::Ptr<Message>& m) { notifiees_.change(message_, m, &Notifiee::onMessage); }
  const Knet::IntfId& intfId() const { return intfId_; }
  void intfIdIs(const Knet::IntfId& id) { notifiees_.change(intfId_, id, &Notifiee::onIntfId); }
  // Written by the agent only; the receive path never touches it.
  const Knet::IpGenAddr& neighborAddr() const { return neighborAddr_; }
  void neighborAddrIs(const Knet::IpGenAddr& a) { notifiees_.change(neighborAddr_, a, &Notifiee::onNeighborAddr); }
  U32 count() const { return count_; }
  void countIs(U32 n) { notifiees_.change(count_, n, &Notifiee::onCount); }
  // Adds n (modulo 2^32) and returns the new count; countInc(0) notifies nobody.
  U32 countInc(U32 n = 1) {
    countIs(count_ + n);
    return count_;
  }

  // Typed views: the message as its concrete class when its type byte (and, for the four DF
  // election classes, its subtype) is that class's; null otherwise, and never a failure.
  Loom::Ptr<Packet::HelloMessage> helloMessage() const { return view<Packet::HelloMessage>(Knet::pimHello()); }
  Loom::Ptr<Packet::RegisterMessage> registerMessage() const { return view<Packet::RegisterMessage>(Knet::pimRegister()); }
  Loom::Ptr<Packet::RegisterStopMessage> registerStopMessage() const {
    return view<Packet::RegisterStopMessage>(Knet::pimRegisterStop());
  }
  Loom::Ptr<Packet::JoinPruneMessage> joinPruneMessage() const {
    return view<Packet::JoinPruneMessage>(Knet::pimJoinPrune());
  }
  Loom::Ptr<Packet::BootstrapMessage> bootstrapMessage() const {
    return view<Packet::BootstrapMessage>(Knet::pimBootstrap());
  }
  Loom::Ptr<Packet::AssertMessage> assertMessage() const { return view<Packet::AssertMessage>(Knet::pimAssert()); }
  Loom::Ptr<Packet::CrpAdvMessage> crpAdvMessage() const {
    return view<Packet::CrpAdvMessage>(Knet::pimCandidateRpAdvertisement());
  }
  Loom::Ptr<Packet::DfElectionMessage> dfElectionMessage() const {
    return view<Packet::DfElectionMessage>(Knet::pimDfElection());
  }
  Loom::Ptr<Packet::DfElectionOfferMessage> dfElectionOfferMessage() const {
    return dfView<Packet::DfElectionOfferMessage>(Packet::dfElectionOffer());
  }
  Loom::Ptr<Packet::DfElectionWinnerMessage> dfElectionWinnerMessage() const {
    return dfView<Packet::DfElectionWinnerMessage>(Packet::dfElectionWinner());
  }
  Loom::Ptr<Packet::DfElectionBackoffMessage> dfElectionBackoffMessage() const {
    return dfView<Packet::DfElectionBackoffMessage>(Packet::dfElectionBackoff());
  }
  Loom::Ptr<Packet::DfElectionPassMessage> dfElectionPassMessage() const {
    return dfView<Packet::DfElectionPassMessage>(Packet::dfElectionPass());
  }

  // Typed mutators: a message of another type (or subtype) is a programming error and aborts.
  void helloMessageIs(const Loom::Ptr<Packet::HelloMessage>& m);
  void registerMessageIs(const Loom::Ptr<Packet::RegisterMessage>& m);
  void registerStopMessageIs(const Loom::Ptr<Packet::RegisterStopMessage>& m);
  void joinPruneMessageIs(const Loom::Ptr<Packet::JoinPruneMessage>& m);
  void bootstrapMessageIs(const Loom::Ptr<Packet::BootstrapMessage>& m);
  void assertMessageIs(const Loom::Ptr<Packet::AssertMessage>& m);
  void crpAdvMessageIs(const Loom::Ptr<Packet::CrpAdvMessage>& m);
  void dfElectionMessageIs(const Loom::Ptr<Packet::DfElectionMessage>& m);
  void dfElectionOfferMessageIs(const Loom::Ptr<Packet::DfElectionOfferMessage>& m);
  void dfElectionWinnerMessageIs(const Loom::Ptr<Packet::DfElectionWinnerMessage>& m);
  void dfElectionBackoffMessageIs(const Loom::Ptr<Packet::DfElectionBackoffMessage>& m);
  void dfElectionPassMessageIs(const Loom::Ptr<Packet::DfElectionPassMessage>& m);

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) { notifiees_.del(n); }

 private:
  template <class M>
  Loom::Ptr<M> view(Knet::PimMessageType t) const {
    return message_ && message_->pimMessageType() == t ? Loom::ptr_cast<M>(message_) : nullptr;
  }
  template <class M>
  Loom::Ptr<M> dfView(Packet::DfElectionMessageType subtype) const {
    const auto df = dfElectionMessage();
    return df && df->dfElectionMessageType() == subtype ? Loom::ptr_cast<M>(df) : nullptr;
  }

  Loom::Ptr<Message> message_;
  Knet::IntfId intfId_;
  Knet::IpGenAddr neighborAddr_;
  U32 count_ = 0;
  Loom::NotifieeList<Notifiee> notifiees_;
};

Loom::Ptr<MessageInfo> messageInfoFactory();

}  // namespace Routing::Pim::IO
