// The attribute tables of Register, Register-Stop and Assert, and the values they need.
#include <stdexcept>

#include "loom/Exception.h"
#include "tools/pimio/Json.h"

namespace Pimio::Cli {

using Routing::Pim::GroupFlags;
using Routing::Pim::Packet::AssertMessage;
using Routing::Pim::Packet::AssertMetricPreference;
using Routing::Pim::Packet::Message;
using Routing::Pim::Packet::RegisterImplFlags;
using Routing::Pim::Packet::RegisterMessage;
using Routing::Pim::Packet::RegisterStopMessage;

// ---- Values ----

Json jsonOf(GroupFlags f) { return f.value(); }

Json jsonOf(AssertMetricPreference p) { return p.value(); }

bool valueOf(const Json& j, GroupFlags& out, std::string& error) {
  U8 v = 0;
  if (!valueOf(j, v, error)) return false;
  out = GroupFlags(v);
  return true;
}

// The library's own range check decides what a metric preference may be.
bool valueOf(const Json& j, AssertMetricPreference& out, std::string& error) {
  U64 v = 0;
  if (!valueOf(j, v, error)) return false;
  try {
    out = AssertMetricPreference::fromString(std::to_string(v));
  } catch (const Loom::RangeException& e) {
    error = e.what();
    return false;
  }
  return true;
}

std::string hexOf(std::span<const U8> bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * bytes.size());
  for (U8 b : bytes) {
    out += digits[b >> 4];
    out += digits[b & 0x0f];
  }
  return out;
}

bool bytesOfHex(const Json& j, std::vector<U8>& out, std::string& error) {
  const auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  const std::string text = j.is_string() ? j.get<std::string>() : std::string();
  if (!j.is_string() || text.size() % 2 != 0) {
    error = "expected an even number of hex digits, got " + j.dump();
    return false;
  }
  out.clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    const int hi = nibble(text[i]), lo = nibble(text[i + 1]);
    if (hi < 0 || lo < 0) {
      error = "expected hex digits, got " + j.dump();
      return false;
    }
    out.push_back(static_cast<U8>(hi << 4 | lo));
  }
  return true;
}

namespace {

// ---- Register ----

template <auto Get, auto Set>
constexpr Attribute<RegisterMessage> reg(const char* name, const char* viewOf = nullptr) {
  return attribute<RegisterMessage, Get, Set>(name, viewOf);
}

constexpr Attribute<RegisterMessage> registerFlagsAttribute{
    "implRegisterFlags", [](const RegisterMessage& m) -> Json { return m.implRegisterFlags().value(); },
    [](const Json& j, RegisterMessage& m, std::string& error) {
      U32 v = 0;
      if (!valueOf(j, v, error)) return false;
      m.implRegisterFlagsU32Is(v);
      return true;
    }};

// The packet a data Register carries, from its inner IP header on.
constexpr Attribute<RegisterMessage> innerAttribute{
    "inner",
    [](const RegisterMessage& m) -> Json { return m.rcvdPkt() ? Json(hexOf(m.rcvdPkt()->bytes())) : Json(nullptr); },
    [](const Json& j, RegisterMessage& m, std::string& error) {
      if (j.is_null()) {
        m.rcvdPktIs(nullptr);
        return true;
      }
      std::vector<U8> bytes;
      if (!bytesOfHex(j, bytes, error)) return false;
      m.rcvdPktIs(Knet::pktFactory(bytes));
      return true;
    }};

const auto registerTable = std::to_array<Attribute<RegisterMessage>>({
    reg<&Message::reserved, &Message::reservedIs>("reserved"),
    registerFlagsAttribute,
    reg<&RegisterMessage::borderFlag, &RegisterMessage::borderFlagIs>("border", "implRegisterFlags"),
    reg<&RegisterMessage::nullFlag, &RegisterMessage::nullFlagIs>("null", "implRegisterFlags"),
    reg<&RegisterMessage::encapsulatedSrc, &RegisterMessage::encapsulatedSrcIs>("innerSrc"),
    reg<&RegisterMessage::encapsulatedDst, &RegisterMessage::encapsulatedDstIs>("innerGroup"),
    innerAttribute,
});

// ---- Register-Stop ----

template <auto Get, auto Set>
constexpr Attribute<RegisterStopMessage> stop(const char* name) {
  return attribute<RegisterStopMessage, Get, Set>(name);
}

const auto registerStopTable = std::to_array<Attribute<RegisterStopMessage>>({
    stop<&Message::reserved, &Message::reservedIs>("reserved"),
    stop<&RegisterStopMessage::group, &RegisterStopMessage::groupIs>("group"),
    stop<&RegisterStopMessage::groupFlags, &RegisterStopMessage::groupFlagsIs>("groupFlags"),
    stop<&RegisterStopMessage::source, &RegisterStopMessage::sourceIs>("source"),
});

// ---- Assert ----

template <auto Get, auto Set>
constexpr Attribute<AssertMessage> assertion(const char* name, const char* viewOf = nullptr) {
  return attribute<AssertMessage, Get, Set>(name, viewOf);
}

const auto assertTable = std::to_array<Attribute<AssertMessage>>({
    assertion<&Message::reserved, &Message::reservedIs>("reserved"),
    assertion<&AssertMessage::group, &AssertMessage::groupIs>("group"),
    assertion<&AssertMessage::groupFlags, &AssertMessage::groupFlagsIs>("groupFlags"),
    assertion<&AssertMessage::source, &AssertMessage::sourceIs>("source"),
    assertion<&AssertMessage::implMetricPreference, &AssertMessage::implMetricPreferenceIs>("implMetricPreference"),
    assertion<&AssertMessage::rpt, &AssertMessage::rptIs>("rpt", "implMetricPreference"),
    assertion<&AssertMessage::metricPreference, &AssertMessage::metricPreferenceIs>("metricPreference",
                                                                                     "implMetricPreference"),
    assertion<&AssertMessage::metric, &AssertMessage::metricIs>("metric"),
});

}  // namespace

std::span<const Attribute<RegisterMessage>> registerAttributes() { return registerTable; }
std::span<const Attribute<RegisterStopMessage>> registerStopAttributes() { return registerStopTable; }
std::span<const Attribute<AssertMessage>> assertAttributes() { return assertTable; }

}  // namespace Pimio::Cli
