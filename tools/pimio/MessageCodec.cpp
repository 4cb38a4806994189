#include "tools/pimio/MessageCodec.h"

#include <array>
#include <sstream>

#include "PimMessage/AssertMessage.h"
#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/CrpAdvMessage.h"
#include "PimMessage/DfElectionMessage.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/RegisterMessage.h"

namespace Pimio::Cli {

using Routing::Pim::JoinPruneData;
using Routing::Pim::Packet::DfElectionBackoffMessage;
using Routing::Pim::Packet::DfElectionMessage;
using Routing::Pim::Packet::DfElectionMessageType;
using Routing::Pim::Packet::DfElectionPassMessage;
using Routing::Pim::Packet::JoinPruneMessage;
using Routing::Pim::Packet::JoinPruneText;
using Routing::Pim::Packet::Message;
using Routing::Pim::Packet::MessageClass;

namespace {

// The JSON row of class M with its attribute table, for the library row of `type` and `subtype`.
// The rows hand each function a message that the library row made, hence the plain casts.
template <class M, std::span<const Attribute<M>> (*Attributes)()>
MessageCodec codec(Knet::PimMessageType type, U8 subtype = Routing::Pim::Packet::noSubtype) {
  MessageCodec c;
  c.cls = Routing::Pim::Packet::messageClass(type, subtype);
  c.toJson = [](const Message& m, Json& out) { attributesToJson(Attributes(), static_cast<const M&>(m), out); };
  c.fromJson = [](const Json& in, Message& m, std::string& error) {
    return attributesFromJson(Attributes(), in, static_cast<M&>(m), error);
  };
  return c;
}

template <class M, std::span<const Attribute<M>> (*Attributes)()>
MessageCodec dfElection(DfElectionMessageType subtype) {
  return codec<M, Attributes>(Knet::pimDfElection(), static_cast<U8>(subtype));
}

// ---- Join/Prune ----

// A message read in sparse mode that kept no group, having dropped one for its B flag, holds
// bidirectional groups: it is read again in bidirectional mode. (A capture does not tell the
// interface's mode, nor its multicast boundary: none.)
bool joinPruneReadAgain(Message& m, U32 read) {
  auto& jp = static_cast<JoinPruneMessage&>(m);
  if (read != 0 || jp.bidir() || jp.failure() != JoinPruneText::zeroValidGroups) return false;
  if (jp.bidirFilteredGroups() == 0) return false;
  jp.bidirIs(true);
  return true;
}

bool joinPruneMore(const Message& m, std::string& where) {
  using Routing::Pim::Packet::operator<<;
  const auto& data = static_cast<const JoinPruneMessage&>(m).joinPruneData();
  if (!data || !data->bookmark()) return false;
  std::ostringstream os;
  os << data->bookmark().ptr() << " with " << data->routes() << " entries";
  where = os.str();
  return true;
}

MessageCodec joinPruneCodec() {
  MessageCodec c = codec<JoinPruneMessage, joinPruneAttributes>(Knet::pimJoinPrune());
  c.createForLine = []() -> Loom::Ptr<Message> {
    Loom::Ptr<JoinPruneMessage> m = Routing::Pim::Packet::joinPruneMessageFactory();
    m->joinPruneDataIs(new JoinPruneData(Knet::IpGenAddr()));
    return m;
  };
  c.readAgain = joinPruneReadAgain;
  c.more = joinPruneMore;
  c.drained = JoinPruneText::zeroGroups;
  return c;
}

const std::array codecs{
    codec<Routing::Pim::Packet::HelloMessage, helloAttributes>(Knet::pimHello()),
    codec<Routing::Pim::Packet::RegisterMessage, registerAttributes>(Knet::pimRegister()),
    codec<Routing::Pim::Packet::RegisterStopMessage, registerStopAttributes>(Knet::pimRegisterStop()),
    joinPruneCodec(),
    codec<Routing::Pim::Packet::BootstrapMessage, bootstrapAttributes>(Knet::pimBootstrap()),
    codec<Routing::Pim::Packet::AssertMessage, assertAttributes>(Knet::pimAssert()),
    codec<Routing::Pim::Packet::CrpAdvMessage, crpAdvAttributes>(Knet::pimCandidateRpAdvertisement()),
    dfElection<DfElectionMessage, dfElectionAttributes>(DfElectionMessageType::dfElectionOffer),
    dfElection<DfElectionMessage, dfElectionAttributes>(DfElectionMessageType::dfElectionWinner),
    dfElection<DfElectionBackoffMessage, dfElectionBackoffAttributes>(DfElectionMessageType::dfElectionBackoff),
    dfElection<DfElectionPassMessage, dfElectionPassAttributes>(DfElectionMessageType::dfElectionPass),
};

// The subtype that a DF election line names: "reserved" (its upper half) or "dfElectionType".
std::optional<U8> dfElectionSubtype(const Json& in) {
  if (in.contains("reserved") && in["reserved"].is_number_unsigned() && in["reserved"].get<U64>() <= 0xff) {
    return static_cast<U8>(in["reserved"].get<U64>() >> 4);
  }
  if (in.contains("dfElectionType") && in["dfElectionType"].is_string()) {
    if (const auto t = Routing::Pim::Packet::dfElectionMessageTypeInstance(in["dfElectionType"].get<std::string>())) {
      return static_cast<U8>(*t);
    }
  }
  return std::nullopt;
}

}  // namespace

const MessageCodec& codecFor(const MessageClass& cls) {
  for (const MessageCodec& c : codecs) {
    if (c.cls == &cls) return c;
  }
  // Every library row has a JSON row: a class without one is a bug of this file.
  std::abort();
}

const MessageCodec* codecForLine(std::string_view type, const Json& attributes, std::string& error) {
  const auto pimType = Knet::pimMessageTypeFromName(type);
  const MessageClass* cls = nullptr;
  if (pimType == Knet::pimDfElection()) {
    const std::optional<U8> subtype = dfElectionSubtype(attributes);
    if (subtype) cls = Routing::Pim::Packet::messageClass(*pimType, *subtype);
    if (!cls) {
      // The attribute table says what is wrong with a subtype it cannot read.
      Loom::Ptr<DfElectionMessage> common = Routing::Pim::Packet::dfElectionMessageFactory();
      if (attributesFromJson(dfElectionAttributes(), attributes, *common, error) || error.empty()) {
        error = "dfElection: expected \"reserved\" or \"dfElectionType\" naming a subtype of 1 to 4";
      }
      return nullptr;
    }
  } else if (pimType) {
    cls = Routing::Pim::Packet::messageClass(*pimType);
  }
  if (!cls) {
    error = "type: no encoder for \"" + std::string(type) + "\"";
    return nullptr;
  }
  return &codecFor(*cls);
}

}  // namespace Pimio::Cli
