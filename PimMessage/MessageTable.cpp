#include "PimMessage/MessageTable.h"

#include <array>

#include "PimMessage/AssertMessage.h"
#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/CrpAdvMessage.h"
#include "PimMessage/DfElectionMessage.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/RegisterMessage.h"

namespace Routing::Pim::Packet {
namespace {

using PktPtr = const Loom::Ptr<Knet::Pkt>&;
using BoundaryPtr = const Loom::Ptr<Boundary::IntfBoundary>&;

// The row of class M from its member reader and writer. The table hands them only messages that
// its own create() made, hence the plain casts.
template <class M, U32 (M::*Read)(PktPtr, U32), U32 (M::*Write)(PktPtr, U32)>
constexpr MessageClass row(Knet::PimMessageType type, std::string_view name, U8 subtype = noSubtype) {
  return {
      type,
      subtype,
      name,
      []() -> Loom::Ptr<Message> { return new M; },
      [](Message& m, PktPtr pkt, U32 offset, BoundaryPtr) { return (static_cast<M&>(m).*Read)(pkt, offset); },
      [](Message& m, PktPtr pkt, U32 offset, BoundaryPtr) { return (static_cast<M&>(m).*Write)(pkt, offset); },
  };
}

template <class M, DfElectionMessageType Subtype, U32 (M::*Read)(PktPtr, U32), U32 (M::*Write)(PktPtr, U32)>
constexpr MessageClass dfElectionRow(std::string_view name) {
  return row<M, Read, Write>(Knet::pimDfElection(), name, static_cast<U8>(Subtype));
}

// Join/Prune reads and writes under the interface's multicast boundary.
constexpr MessageClass joinPruneRow{
    Knet::pimJoinPrune(),
    noSubtype,
    "joinPrune",
    []() -> Loom::Ptr<Message> { return joinPruneMessageFactory(); },
    [](Message& m, PktPtr pkt, U32 offset, BoundaryPtr boundary) {
      return static_cast<JoinPruneMessage&>(m).readJoinPruneMessage(pkt, offset, boundary);
    },
    [](Message& m, PktPtr pkt, U32 offset, BoundaryPtr boundary) {
      return static_cast<JoinPruneMessage&>(m).writeJoinPruneMessage(pkt, offset, boundary);
    },
};

const std::array classes{
    row<HelloMessage, &HelloMessage::readHelloMessage, &HelloMessage::writeHelloMessage>(Knet::pimHello(), "hello"),
    row<RegisterMessage, &RegisterMessage::readRegisterMessage, &RegisterMessage::writeRegisterMessage>(
        Knet::pimRegister(), "register"),
    row<RegisterStopMessage, &RegisterStopMessage::readRegisterStopMessage,
        &RegisterStopMessage::writeRegisterStopMessage>(Knet::pimRegisterStop(), "registerStop"),
    joinPruneRow,
    row<BootstrapMessage, &BootstrapMessage::readBootstrapMessage, &BootstrapMessage::writeBootstrapMessage>(
        Knet::pimBootstrap(), "bootstrap"),
    row<AssertMessage, &AssertMessage::readAssertMessage, &AssertMessage::writeAssertMessage>(Knet::pimAssert(),
                                                                                             "assert"),
    row<CrpAdvMessage, &CrpAdvMessage::readCrpAdvMessage, &CrpAdvMessage::writeCrpAdvMessage>(
        Knet::pimCandidateRpAdvertisement(), "candidateRpAdv"),
    dfElectionRow<DfElectionOfferMessage, DfElectionMessageType::dfElectionOffer,
                  &DfElectionOfferMessage::readDfElectionOfferMessage,
                  &DfElectionOfferMessage::writeDfElectionOfferMessage>("dfElectionOffer"),
    dfElectionRow<DfElectionWinnerMessage, DfElectionMessageType::dfElectionWinner,
                  &DfElectionWinnerMessage::readDfElectionWinnerMessage,
                  &DfElectionWinnerMessage::writeDfElectionWinnerMessage>("dfElectionWinner"),
    dfElectionRow<DfElectionBackoffMessage, DfElectionMessageType::dfElectionBackoff,
                  &DfElectionBackoffMessage::readDfElectionBackoffMessage,
                  &DfElectionBackoffMessage::writeDfElectionBackoffMessage>("dfElectionBackoff"),
    dfElectionRow<DfElectionPassMessage, DfElectionMessageType::dfElectionPass,
                  &DfElectionPassMessage::readDfElectionPassMessage,
                  &DfElectionPassMessage::writeDfElectionPassMessage>("dfElectionPass"),
};

}  // namespace

std::span<const MessageClass> messageClasses() { return classes; }

const MessageClass* messageClass(Knet::PimMessageType type, U8 subtype) {
  for (const MessageClass& c : classes) {
    if (c.type == type && c.subtype == subtype) return &c;
  }
  return nullptr;
}

MessageClassLookup messageClassOf(Knet::PimMessageType type, U8 reserved) {
  using Outcome = MessageClassLookup::Outcome;
  if (type == Knet::pimDfElection()) {
    const MessageClass* c = messageClass(type, static_cast<U8>(reserved >> 4));
    return {c ? Outcome::found : Outcome::unsupportedDfElectionType, c};
  }
  const MessageClass* c = messageClass(type);
  return {c ? Outcome::found : Outcome::unsupportedType, c};
}

}  // namespace Routing::Pim::Packet
