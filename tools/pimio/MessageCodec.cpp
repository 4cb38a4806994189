#include "tools/pimio/MessageCodec.h"

#include <array>
#include <functional>
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
using Routing::Pim::Packet::AssertMessage;
using Routing::Pim::Packet::BootstrapMessage;
using Routing::Pim::Packet::CrpAdvMessage;
using Routing::Pim::Packet::DfElectionBackoffMessage;
using Routing::Pim::Packet::DfElectionMessage;
using Routing::Pim::Packet::DfElectionOfferMessage;
using Routing::Pim::Packet::DfElectionPassMessage;
using Routing::Pim::Packet::DfElectionWinnerMessage;
using Routing::Pim::Packet::HelloMessage;
using Routing::Pim::Packet::JoinPruneMessage;
using Routing::Pim::Packet::Message;
using Routing::Pim::Packet::RegisterMessage;
using Routing::Pim::Packet::RegisterStopMessage;

namespace {

using PktPtr = const Loom::Ptr<Knet::Pkt>&;

// The row of message class M from its read and write operations (members of M, or functions
// taking an M first) and its attribute table. The rows hand each function a message that their
// own create() made, hence the plain casts.
template <class M, auto Read, auto Write, std::span<const Attribute<M>> (*Attributes)()>
MessageCodec codec(Knet::PimMessageType type) {
  return {
      type,
      []() -> Loom::Ptr<Message> { return new M; },
      [](Message& m, PktPtr pkt) -> U32 { return std::invoke(Read, static_cast<M&>(m), pkt, 0); },
      [](Message& m, PktPtr pkt) -> U32 { return std::invoke(Write, static_cast<M&>(m), pkt, 0); },
      [](const Message& m, Json& out) { attributesToJson(Attributes(), static_cast<const M&>(m), out); },
      [](const Json& in, Message& m, std::string& error) {
        return attributesFromJson(Attributes(), in, static_cast<M&>(m), error);
      },
  };
}

// ---- Join/Prune ----

// A capture does not tell the multicast boundary of the interface: none.
U32 readJoinPrune(JoinPruneMessage& m, PktPtr pkt, U32 offset) { return m.readJoinPruneMessage(pkt, offset, nullptr); }
U32 writeJoinPrune(JoinPruneMessage& m, PktPtr pkt, U32 offset) { return m.writeJoinPruneMessage(pkt, offset, nullptr); }

constexpr std::string_view kBidirFilter = "Pim Join/Prune - Bidirectional Filter - Filtered Group Address: ";

// A message read in sparse mode that kept no group, having dropped one for its B flag, holds
// bidirectional groups: it is read again in bidirectional mode.
bool joinPruneReadAgain(Message& m, U32 read, const PacketTrace& trace) {
  auto& jp = static_cast<JoinPruneMessage&>(m);
  const bool keptNone = jp.joinPruneData() && jp.joinPruneData()->joinPruneGroupData().empty();
  if (read != 0 || jp.bidir() || !keptNone || !trace.traced(kBidirFilter)) return false;
  jp.bidirIs(true);
  return true;
}

// The decoder's level-1 texts about groups and entries that it drops while it goes on reading:
// the address checks of groups and sources (a group that fails them is filtered, a source
// skipped), conflict resolution, and the counters it traces before "Zero Valid Num Groups"
// ("0, 1, 2").
constexpr std::string_view kJoinPruneNotes[] = {
    "Invalid Encoded Group Address - Incorrect Prefix Range - ",
    "Invalid Encoded Group Address - Unsupported Address Family - ",
    "Invalid Encoded Group Address - Not Multicast - ",
    "Invalid Encoded Source Address - Incorrect Prefix Range - ",
    "Invalid Encoded Source Address - Not Unicast - ",
    "Invalid Encoded Source Address - All Zeros - ",
    "Invalid Encoded Source Address - Not Host Prefix - ",
    "Invalid Pim Join/Prune Source - ",
    "Invalid Pim Join/Prune - WC set, RPT cleared",
    "Invalid Pim Join/Prune - Zero Num Sources In Group ",
};

bool joinPruneNote(std::string_view text) {
  for (std::string_view note : kJoinPruneNotes) {
    if (text.starts_with(note)) return true;
  }
  return !text.empty() && text.find_first_not_of("0123456789, ") == std::string_view::npos;
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
  MessageCodec c = codec<JoinPruneMessage, readJoinPrune, writeJoinPrune, joinPruneAttributes>(Knet::pimJoinPrune());
  // Encoding fills the tree that the message is made with; decoding replaces it.
  c.create = []() -> Loom::Ptr<Message> {
    Loom::Ptr<JoinPruneMessage> m = Routing::Pim::Packet::joinPruneMessageFactory();
    m->joinPruneDataIs(new JoinPruneData(Knet::IpGenAddr()));
    return m;
  };
  c.readAgain = joinPruneReadAgain;
  c.isNote = joinPruneNote;
  c.more = joinPruneMore;
  c.drained = "Invalid Pim Join/Prune - Zero Num Groups";
  return c;
}

// ---- DF election ----

// The class of a subtype; a subtype without one reads and writes the common part only.
Loom::Ptr<Message> dfElectionFor(U8 reserved) {
  switch (reserved >> 4) {
    case 1: return new DfElectionOfferMessage;
    case 2: return new DfElectionWinnerMessage;
    case 3: return new DfElectionBackoffMessage;
    case 4: return new DfElectionPassMessage;
    default: {
      Loom::Ptr<DfElectionMessage> m = new DfElectionMessage;
      m->reservedIs(reserved);
      return m;
    }
  }
}

// A line names its subtype with "reserved" or, when that is absent, with "dfElectionType".
Loom::Ptr<Message> dfElectionForLine(const Json& in) {
  if (in.contains("reserved") && in["reserved"].is_number_unsigned() && in["reserved"].get<U64>() <= 0xff) {
    return dfElectionFor(static_cast<U8>(in["reserved"].get<U64>()));
  }
  if (in.contains("dfElectionType") && in["dfElectionType"].is_string()) {
    if (const auto t = Routing::Pim::Packet::dfElectionMessageTypeInstance(in["dfElectionType"].get<std::string>())) {
      return dfElectionFor(static_cast<U8>(static_cast<U8>(*t) << 4));
    }
  }
  return new DfElectionMessage;
}

// Each class reads and writes with its own operations and has its own attribute table.
U32 readDfElection(Message& m, PktPtr pkt) {
  if (auto* o = dynamic_cast<DfElectionOfferMessage*>(&m)) return o->readDfElectionOfferMessage(pkt, 0);
  if (auto* w = dynamic_cast<DfElectionWinnerMessage*>(&m)) return w->readDfElectionWinnerMessage(pkt, 0);
  if (auto* b = dynamic_cast<DfElectionBackoffMessage*>(&m)) return b->readDfElectionBackoffMessage(pkt, 0);
  if (auto* p = dynamic_cast<DfElectionPassMessage*>(&m)) return p->readDfElectionPassMessage(pkt, 0);
  return static_cast<DfElectionMessage&>(m).readDfElectionMessage(pkt, 0);
}

U32 writeDfElection(Message& m, PktPtr pkt) {
  if (auto* o = dynamic_cast<DfElectionOfferMessage*>(&m)) return o->writeDfElectionOfferMessage(pkt, 0);
  if (auto* w = dynamic_cast<DfElectionWinnerMessage*>(&m)) return w->writeDfElectionWinnerMessage(pkt, 0);
  if (auto* b = dynamic_cast<DfElectionBackoffMessage*>(&m)) return b->writeDfElectionBackoffMessage(pkt, 0);
  if (auto* p = dynamic_cast<DfElectionPassMessage*>(&m)) return p->writeDfElectionPassMessage(pkt, 0);
  return static_cast<DfElectionMessage&>(m).writeDfElectionMessage(pkt, 0);
}

MessageCodec dfElectionCodec() {
  return {
      Knet::pimDfElection(),
      []() -> Loom::Ptr<Message> { return new DfElectionMessage; },
      readDfElection,
      writeDfElection,
      [](const Message& m, Json& out) {
        if (auto* b = dynamic_cast<const DfElectionBackoffMessage*>(&m)) {
          attributesToJson(dfElectionBackoffAttributes(), *b, out);
        } else if (auto* p = dynamic_cast<const DfElectionPassMessage*>(&m)) {
          attributesToJson(dfElectionPassAttributes(), *p, out);
        } else {
          attributesToJson(dfElectionAttributes(), static_cast<const DfElectionMessage&>(m), out);
        }
      },
      [](const Json& in, Message& m, std::string& error) {
        if (auto* b = dynamic_cast<DfElectionBackoffMessage*>(&m)) {
          return attributesFromJson(dfElectionBackoffAttributes(), in, *b, error);
        }
        if (auto* p = dynamic_cast<DfElectionPassMessage*>(&m)) {
          return attributesFromJson(dfElectionPassAttributes(), in, *p, error);
        }
        return attributesFromJson(dfElectionAttributes(), in, static_cast<DfElectionMessage&>(m), error);
      },
      nullptr,
      nullptr,
      nullptr,
      {},
      dfElectionFor,
      dfElectionForLine,
  };
}

const std::array codecs{
    codec<HelloMessage, &HelloMessage::readHelloMessage, &HelloMessage::writeHelloMessage, helloAttributes>(
        Knet::pimHello()),
    codec<RegisterMessage, &RegisterMessage::readRegisterMessage, &RegisterMessage::writeRegisterMessage,
          registerAttributes>(Knet::pimRegister()),
    codec<RegisterStopMessage, &RegisterStopMessage::readRegisterStopMessage,
          &RegisterStopMessage::writeRegisterStopMessage, registerStopAttributes>(Knet::pimRegisterStop()),
    joinPruneCodec(),
    codec<BootstrapMessage, &BootstrapMessage::readBootstrapMessage, &BootstrapMessage::writeBootstrapMessage,
          bootstrapAttributes>(Knet::pimBootstrap()),
    codec<AssertMessage, &AssertMessage::readAssertMessage, &AssertMessage::writeAssertMessage, assertAttributes>(
        Knet::pimAssert()),
    codec<CrpAdvMessage, &CrpAdvMessage::readCrpAdvMessage, &CrpAdvMessage::writeCrpAdvMessage, crpAdvAttributes>(
        Knet::pimCandidateRpAdvertisement()),
    dfElectionCodec(),
};

}  // namespace

const MessageCodec* codecFor(Knet::PimMessageType type) {
  for (const MessageCodec& c : codecs) {
    if (c.type == type) return &c;
  }
  return nullptr;
}

const MessageCodec* codecFor(std::string_view name) {
  for (const MessageCodec& c : codecs) {
    if (name == c.name()) return &c;
  }
  return nullptr;
}

}  // namespace Pimio::Cli
