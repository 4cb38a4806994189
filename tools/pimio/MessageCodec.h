#pragma once
// The JSON side of the codec's message classes. The library's table (PimMessage/MessageTable.h)
// chooses a message's class, reader and writer; this one adds, per class, how its attributes go
// into and out of JSON, and what Join/Prune needs to be decoded from a capture and encoded into
// several packets. Adding a message class to the tool means adding its row here (and its
// attribute table in Json.h).
#include <string>
#include <string_view>

#include "PimMessage/MessageTable.h"
#include "tools/pimio/Json.h"

namespace Pimio::Cli {

struct MessageCodec {
  const Routing::Pim::Packet::MessageClass* cls = nullptr;
  // The message's attributes as JSON members, and back.
  void (*toJson)(const Routing::Pim::Packet::Message&, Json& out) = nullptr;
  bool (*fromJson)(const Json& in, Routing::Pim::Packet::Message&, std::string& error) = nullptr;

  // ---- Optional, for types that need them (null otherwise) ----

  // The message that a line is encoded from, when it needs more than the class's defaults
  // (Join/Prune: the tree that the line fills).
  Loom::Ptr<Routing::Pim::Packet::Message> (*createForLine)() = nullptr;

  // The decoder works in a mode that the packet does not state (Join/Prune: bidirectional or
  // not). Given the outcome of a read, switches the message to the other mode and returns true
  // when the read should be done again in it.
  bool (*readAgain)(Routing::Pim::Packet::Message&, U32 read) = nullptr;
  // One message may take several packets (Join/Prune). Called after each successful write:
  // true when the encoder left more to send, with `where` set to the point where it stopped
  // (a write that stops at the same point as the one before has made no progress).
  bool (*more)(const Routing::Pim::Packet::Message&, std::string& where) = nullptr;
  // The failure with which a write after the first says that nothing was left to write.
  Routing::Pim::Packet::Failure drained;

  // The name of the type in JSON lines ("hello", "dfElection").
  const char* name() const { return cls->type.name(); }
  U32 read(Routing::Pim::Packet::Message& m, const Loom::Ptr<Knet::Pkt>& pkt) const {
    return cls->read(m, pkt, 0, nullptr);
  }
  U32 write(Routing::Pim::Packet::Message& m, const Loom::Ptr<Knet::Pkt>& pkt) const {
    return cls->write(m, pkt, 0, nullptr);
  }
};

// The row of a library class.
const MessageCodec& codecFor(const Routing::Pim::Packet::MessageClass& cls);
// The row for a JSON line of the named type; a DF election line names its subtype with
// "reserved" or, when that is absent, with "dfElectionType". Null when there is none, with
// `error` saying why.
const MessageCodec* codecForLine(std::string_view type, const Json& attributes, std::string& error);

}  // namespace Pimio::Cli
