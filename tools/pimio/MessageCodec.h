#pragma once
// The message types that the tool can decode and encode, one row per type. A type without a row
// is reported as unsupported; adding a message class to the tool means adding its row (and its
// attribute table in Json.h).
#include <string_view>

#include "PimMessage/Message.h"
#include "tools/pimio/Json.h"

namespace Pimio::Cli {

struct MessageCodec {
  Knet::PimMessageType type;
  // A message of the type with every attribute at its default.
  Loom::Ptr<Routing::Pim::Packet::Message> (*create)();
  // Reads or writes the message at the start of `pkt`; the message's srcIp and dstIp must be
  // set first. Returns the byte count, 0 on failure (the codec traces why).
  U32 (*read)(Routing::Pim::Packet::Message&, const Loom::Ptr<Knet::Pkt>& pkt);
  U32 (*write)(Routing::Pim::Packet::Message&, const Loom::Ptr<Knet::Pkt>& pkt);
  // The message's attributes as JSON members, and back.
  void (*toJson)(const Routing::Pim::Packet::Message&, Json& out);
  bool (*fromJson)(const Json& in, Routing::Pim::Packet::Message&, std::string& error);

  // The name of the type in JSON lines ("hello").
  const char* name() const { return type.name(); }
};

// The row of a PIM message type (the whole first header byte), or null if the tool has none.
const MessageCodec* codecFor(Knet::PimMessageType type);
// The row of a type by its JSON name, or null.
const MessageCodec* codecFor(std::string_view name);

}  // namespace Pimio::Cli
