#pragma once
// The message types that the tool can decode and encode, one row per type. A type without a row
// is reported as unsupported; adding a message class to the tool means adding its row (and its
// attribute table in Json.h).
#include <string>
#include <string_view>

#include "PimMessage/Message.h"
#include "tools/pimio/Json.h"
#include "tools/pimio/PacketTrace.h"

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

  // ---- Optional, for types that need them (null or empty otherwise) ----

  // The decoder works in a mode that the packet does not state (Join/Prune: bidirectional or
  // not). Given the outcome and trace of a read, switches the message to the other mode and
  // returns true when the read should be done again in it.
  bool (*readAgain)(Routing::Pim::Packet::Message&, U32 read, const PacketTrace& trace) = nullptr;
  // Level-1 texts that the decoder traces about entries it drops while the message as a whole
  // is still read (Join/Prune conflict resolution). They are never the reason of a failure.
  bool (*isNote)(std::string_view text) = nullptr;
  // One message may take several packets (Join/Prune). Called after each successful write:
  // true when the encoder left more to send, with `where` set to the point where it stopped
  // (a write that stops at the same point as the one before has made no progress).
  bool (*more)(const Routing::Pim::Packet::Message&, std::string& where) = nullptr;
  // The failure text with which a write after the first says that nothing was left to write.
  std::string_view drained = {};
  // The message class depends on what the header's reserved byte holds (DF election: the
  // subtype). The message to read a packet with that byte into, and the message to encode a line
  // into.
  Loom::Ptr<Routing::Pim::Packet::Message> (*createForReserved)(U8 reserved) = nullptr;
  Loom::Ptr<Routing::Pim::Packet::Message> (*createForLine)(const Json& attributes) = nullptr;

  // The name of the type in JSON lines ("hello").
  const char* name() const { return type.name(); }
};

// The row of a PIM message type (the whole first header byte), or null if the tool has none.
const MessageCodec* codecFor(Knet::PimMessageType type);
// The row of a type by its JSON name, or null.
const MessageCodec* codecFor(std::string_view name);

}  // namespace Pimio::Cli
