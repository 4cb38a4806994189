#include "tools/pimio/MessageCodec.h"

#include <array>

#include "PimMessage/HelloMessage.h"

namespace Pimio::Cli {

using Routing::Pim::Packet::HelloMessage;
using Routing::Pim::Packet::Message;

namespace {

using PktPtr = const Loom::Ptr<Knet::Pkt>&;

// The row of message class M from its read and write operations and its attribute table. The
// rows hand each function a message that their own create() made, hence the plain casts.
template <class M, U32 (M::*Read)(PktPtr, U32), U32 (M::*Write)(PktPtr, U32),
          std::span<const Attribute<M>> (*Attributes)()>
MessageCodec codec(Knet::PimMessageType type) {
  return {
      type,
      []() -> Loom::Ptr<Message> { return new M; },
      [](Message& m, PktPtr pkt) { return (static_cast<M&>(m).*Read)(pkt, 0); },
      [](Message& m, PktPtr pkt) { return (static_cast<M&>(m).*Write)(pkt, 0); },
      [](const Message& m, Json& out) { attributesToJson(Attributes(), static_cast<const M&>(m), out); },
      [](const Json& in, Message& m, std::string& error) {
        return attributesFromJson(Attributes(), in, static_cast<M&>(m), error);
      },
  };
}

const std::array codecs{
    codec<HelloMessage, &HelloMessage::readHelloMessage, &HelloMessage::writeHelloMessage, helloAttributes>(
        Knet::pimHello()),
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
