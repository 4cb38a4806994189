#pragma once
// The codec's dispatch table: one row per message class, found by the PIM type and, for DF
// election, by the subtype in the upper half of the header's reserved byte. The receive path,
// the command line and the fuzzers all choose a message's class, reader and writer here.
#include <span>
#include <string_view>

#include "PimData/IntfBoundary.h"
#include "PimMessage/Message.h"

namespace Routing::Pim::Packet {

// The receive path's text for a DF election message whose subtype has no class.
inline constexpr std::string_view unsupportedDfElectionTypeText = "RX: Error - Unsupported Pim DF Election Type";

struct MessageClass {
  using Read = U32 (*)(Message&, const Loom::Ptr<Knet::Pkt>&, U32 offset,
                       const Loom::Ptr<Boundary::IntfBoundary>& boundary);
  using Write = Read;

  Knet::PimMessageType type;
  // DF election's subtype (1 Offer to 4 Pass); `noSubtype` for the other types.
  U8 subtype;
  // The class's name in traces and tools ("hello", "dfElectionOffer").
  std::string_view name;
  // A message of the class with every attribute at its default.
  Loom::Ptr<Message> (*create)();
  // The class's reader and writer on a message that create() made, at the PIM header's offset.
  // The interface's multicast boundary (may be null) matters to Join/Prune only.
  Read read;
  Write write;
};

inline constexpr U8 noSubtype = 255;

// Every row, in type order and, within DF election, in subtype order.
std::span<const MessageClass> messageClasses();

// What the first two header bytes of a received message say of its class.
struct MessageClassLookup {
  enum class Outcome {
    found,                     // `row` is the class
    unsupportedType,           // a version other than 2, or a type without a class
    unsupportedDfElectionType  // a DF election of a subtype other than 1 to 4
  };
  Outcome outcome = Outcome::unsupportedType;
  const MessageClass* row = nullptr;
};
MessageClassLookup messageClassOf(Knet::PimMessageType type, U8 reserved);

// The row of a type and subtype (`noSubtype` for the types without one); null if none.
const MessageClass* messageClass(Knet::PimMessageType type, U8 subtype = noSubtype);

}  // namespace Routing::Pim::Packet
