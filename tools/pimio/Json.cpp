#include "tools/pimio/Json.h"

#include "loom/Exception.h"

namespace Pimio::Cli {

using Routing::Pim::Packet::HelloMessage;
using Routing::Pim::Packet::HelloPropagationDelay;
using Routing::Pim::Packet::Message;

// ---- Packet ----

Json packetJson(U32 frame, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst) {
  Json out;
  out["frame"] = frame;
  if (src.isSet()) {
    out["family"] = src.af() == Knet::AddressFamily::ipv6 ? 6 : 4;
    out["src"] = src.str();
    out["dst"] = dst.str();
  }
  return out;
}

// ---- Values ----

Json jsonOf(bool v) { return v; }

Json jsonOf(const Knet::IpGenAddr& a) { return a.isSet() ? Json(a.str()) : Json(nullptr); }

Json jsonOf(std::span<const Knet::IpGenAddr> list) {
  Json out = Json::array();
  for (const Knet::IpGenAddr& a : list) out.push_back(a.str());
  return out;
}

Json jsonOf(HelloPropagationDelay d) { return d.value(); }

bool valueOf(const Json& j, bool& out, std::string& error) {
  if (!j.is_boolean()) {
    error = "expected true or false, got " + j.dump();
    return false;
  }
  out = j.get<bool>();
  return true;
}

bool valueOf(const Json& j, Knet::IpGenAddr& out, std::string& error) {
  if (j.is_null()) {
    out = Knet::IpGenAddr();
    return true;
  }
  const auto parsed = j.is_string() ? Knet::IpGenAddr::parse(j.get<std::string>()) : std::nullopt;
  if (!parsed) {
    error = "expected an IPv4 or IPv6 address or null, got " + j.dump();
    return false;
  }
  out = *parsed;
  return true;
}

bool valueOf(const Json& j, std::vector<Knet::IpGenAddr>& out, std::string& error) {
  if (!j.is_array()) {
    error = "expected a list of addresses, got " + j.dump();
    return false;
  }
  out.clear();
  for (const Json& item : j) {
    Knet::IpGenAddr a;
    if (!valueOf(item, a, error)) return false;
    if (!a.isSet()) {
      error = "expected an IPv4 or IPv6 address, got null";
      return false;
    }
    out.push_back(a);
  }
  return true;
}

// The library's own range check decides what a propagation delay may be.
bool valueOf(const Json& j, HelloPropagationDelay& out, std::string& error) {
  U64 v = 0;
  if (!valueOf(j, v, error)) return false;
  try {
    out = HelloPropagationDelay::fromString(std::to_string(v));
  } catch (const Loom::RangeException& e) {
    error = e.what();
    return false;
  }
  return true;
}

// ---- Hello ----

namespace {

template <auto Get, auto Set>
constexpr Attribute<HelloMessage> hello(const char* name, const char* viewOf = nullptr) {
  return attribute<HelloMessage, Get, Set>(name, viewOf);
}

// The address list is a set with its own writers.
constexpr Attribute<HelloMessage> secondaryAddrAttribute{
    "secondaryAddr", [](const HelloMessage& m) { return jsonOf(std::span(m.secondaryAddr().begin(), m.secondaryAddr().end())); },
    [](const Json& j, HelloMessage& m, std::string& error) {
      std::vector<Knet::IpGenAddr> list;
      if (!valueOf(j, list, error)) return false;
      m.secondaryAddrDelAll();
      for (const Knet::IpGenAddr& a : list) m.secondaryAddrIs(a);
      return true;
    }};

const auto helloTable = std::to_array<Attribute<HelloMessage>>({
    hello<&Message::reserved, &Message::reservedIs>("reserved"),
    hello<&HelloMessage::holdTimeOption, &HelloMessage::holdTimeOptionIs>("holdTimeOption"),
    hello<&HelloMessage::holdTime, &HelloMessage::holdTimeIs>("holdTime"),
    hello<&HelloMessage::lanPruneDelayOption, &HelloMessage::lanPruneDelayOptionIs>("lanPruneDelayOption"),
    hello<&HelloMessage::implPropagationDelay, &HelloMessage::implPropagationDelayIs>("implPropagationDelay"),
    hello<&HelloMessage::tBit, &HelloMessage::tBitIs>("tBit", "implPropagationDelay"),
    hello<&HelloMessage::propagationDelay, &HelloMessage::propagationDelayIs>("propagationDelay",
                                                                              "implPropagationDelay"),
    hello<&HelloMessage::overrideInterval, &HelloMessage::overrideIntervalIs>("overrideInterval"),
    hello<&HelloMessage::drPriorityOption, &HelloMessage::drPriorityOptionIs>("drPriorityOption"),
    hello<&HelloMessage::drPriority, &HelloMessage::drPriorityIs>("drPriority"),
    hello<&HelloMessage::generationIdOption, &HelloMessage::generationIdOptionIs>("generationIdOption"),
    hello<&HelloMessage::generationId, &HelloMessage::generationIdIs>("generationId"),
    hello<&HelloMessage::bidirectionalCapable, &HelloMessage::bidirectionalCapableIs>("bidirectionalCapable"),
    secondaryAddrAttribute,
    hello<&HelloMessage::tcpConnectionOption, &HelloMessage::tcpConnectionOptionIs>("tcpConnectionOption"),
    hello<&HelloMessage::tcpConnectionId, &HelloMessage::tcpConnectionIdIs>("tcpConnectionId"),
    hello<&HelloMessage::sctpConnectionOption, &HelloMessage::sctpConnectionOptionIs>("sctpConnectionOption"),
    hello<&HelloMessage::sctpConnectionId, &HelloMessage::sctpConnectionIdIs>("sctpConnectionId"),
    hello<&HelloMessage::interfaceIdOption, &HelloMessage::interfaceIdOptionIs>("interfaceIdOption"),
    hello<&HelloMessage::interfaceId, &HelloMessage::interfaceIdIs>("interfaceId"),
    hello<&HelloMessage::routerId, &HelloMessage::routerIdIs>("routerId"),
});

}  // namespace

std::span<const Attribute<HelloMessage>> helloAttributes() { return helloTable; }

}  // namespace Pimio::Cli
