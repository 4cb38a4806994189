#pragma once
// Messages as JSON. Each message class has a table of its attributes, one row per attribute with
// its JSON name and how its value goes into and out of JSON. Decoding prints every attribute in
// table order; encoding sets the attributes that a line names and leaves the others at their
// defaults, so that what decoding prints encodes to the same message.
#include <algorithm>
#include <array>
#include <concepts>
#include <initializer_list>
#include <string_view>
#include <limits>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

#include "PimMessage/AssertMessage.h"
#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/CrpAdvMessage.h"
#include "PimMessage/DfElectionMessage.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/RegisterMessage.h"

namespace Pimio::Cli {

// Members keep the order in which they are added, so lines read like the attribute tables.
using Json = nlohmann::ordered_json;

// ---- The packet around the message ----

// The members that every line starts with: the frame number, then the IP layer's family (4 or
// 6), source and destination when they are known.
Json packetJson(U32 frame, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst);
// The members of a decoded line that describe the packet rather than the message's attributes.
constexpr std::array<const char*, 6> packetMembers{"frame", "family", "src", "dst", "type", "warnings"};

// ---- Attribute values as JSON ----

Json jsonOf(bool v);
template <std::unsigned_integral T>
Json jsonOf(T v) {
  return v;
}
// An address as text, or null when it is unset.
Json jsonOf(const Knet::IpGenAddr& a);
Json jsonOf(std::span<const Knet::IpGenAddr> list);
Json jsonOf(Routing::Pim::Packet::HelloPropagationDelay d);
Json jsonOf(Routing::Pim::GroupFlags f);
Json jsonOf(Routing::Pim::Packet::AssertMetricPreference p);
// A prefix as "addr/len".
Json jsonOf(const Knet::IpGenPrefix& p);
// Bytes as lower-case hex digits, and back.
std::string hexOf(std::span<const U8> bytes);
bool bytesOfHex(const Json& j, std::vector<U8>& out, std::string& error);

// The readers return false and say why when the JSON value has the wrong type or range.
bool valueOf(const Json& j, bool& out, std::string& error);
template <std::unsigned_integral T>
bool valueOf(const Json& j, T& out, std::string& error) {
  if (!j.is_number_unsigned() || j.get<U64>() > std::numeric_limits<T>::max()) {
    error = "expected an unsigned integer up to " + std::to_string(std::numeric_limits<T>::max()) + ", got " + j.dump();
    return false;
  }
  out = static_cast<T>(j.get<U64>());
  return true;
}
bool valueOf(const Json& j, Knet::IpGenAddr& out, std::string& error);
bool valueOf(const Json& j, std::vector<Knet::IpGenAddr>& out, std::string& error);
bool valueOf(const Json& j, Routing::Pim::Packet::HelloPropagationDelay& out, std::string& error);
bool valueOf(const Json& j, Routing::Pim::GroupFlags& out, std::string& error);
bool valueOf(const Json& j, Knet::IpGenPrefix& out, std::string& error);
bool valueOf(const Json& j, Routing::Pim::Packet::AssertMetricPreference& out, std::string& error);

// ---- Members of the objects inside a line ----

// Fails, saying why, on a member that is not one of `known`.
bool onlyKnownMembers(const Json& in, std::initializer_list<std::string_view> known, std::string& error);
// A member that must hold an address (not null).
bool addressMember(const Json& in, const char* name, Knet::IpGenAddr& out, std::string& error);
// A member that may be absent, in which case `out` keeps its value.
template <class T>
bool optionalMember(const Json& in, const char* name, T& out, std::string& error) {
  if (!in.contains(name)) return true;
  if (valueOf(in.at(name), out, error)) return true;
  error = std::string(name) + ": " + error;
  return false;
}

// ---- Attribute tables ----

template <class M>
struct Attribute {
  const char* name;
  // Null for an attribute that only encoding takes (the Join/Prune's mtu): decoding does not
  // print it.
  Json (*get)(const M&);
  bool (*set)(const Json&, M&, std::string& error);
  // Set for a view of another attribute (the T bit is a view of implPropagationDelay): the view
  // is applied only when the line does not name the attribute it views.
  const char* viewOf = nullptr;
};

// The row of an attribute that has a plain reader and writer (holdTime() and holdTimeIs()).
template <class M, auto Get, auto Set>
constexpr Attribute<M> attribute(const char* name, const char* viewOf = nullptr) {
  using T = std::remove_cvref_t<decltype((std::declval<const M&>().*Get)())>;
  return {name, [](const M& m) { return jsonOf((m.*Get)()); },
          [](const Json& j, M& m, std::string& error) {
            T v{};
            if (!valueOf(j, v, error)) return false;
            (m.*Set)(v);
            return true;
          },
          viewOf};
}

// Adds every attribute of `m` to `out`, in table order.
template <class M>
void attributesToJson(std::span<const Attribute<M>> table, const M& m, Json& out) {
  for (const Attribute<M>& a : table) {
    if (a.get) out[a.name] = a.get(m);
  }
}

// Sets the attributes that the members of `in` name. Fails, saying why, on a member that the
// table does not know or on a bad value.
template <class M>
bool attributesFromJson(std::span<const Attribute<M>> table, const Json& in, M& m, std::string& error) {
  for (const auto& member : in.items()) {
    const auto known = [&](const Attribute<M>& a) { return member.key() == a.name; };
    if (std::none_of(table.begin(), table.end(), known)) {
      error = "unknown attribute \"" + member.key() + "\"";
      return false;
    }
  }
  for (const bool views : {false, true}) {
    for (const Attribute<M>& a : table) {
      if ((a.viewOf != nullptr) != views || !in.contains(a.name)) continue;
      if (views && in.contains(a.viewOf)) continue;
      std::string why;
      if (!a.set(in.at(a.name), m, why)) {
        error = std::string(a.name) + ": " + why;
        return false;
      }
    }
  }
  return true;
}

// The Hello's attributes: the header's reserved byte, then the options in declaration order.
std::span<const Attribute<Routing::Pim::Packet::HelloMessage>> helloAttributes();

// The Join/Prune's attributes: the header's reserved byte, the message's mode, the tree (upstream
// neighbor, reserved byte, holdtime, groups) and the decoder's report; for encoding also the MTU
// and the periodic flag. A group is
//   {"group":ADDR,"groupFlags":N,"starG":{"rp":ADDR,"join":BOOL}|null,
//    "joinedRpt":[ADDR...],"joined":[...],"prunedRpt":[...],"pruned":[...]}
// and encoding also takes "joinSuppress":[ADDR...] in a group and "wcSuppressed":BOOL in starG.
std::span<const Attribute<Routing::Pim::Packet::JoinPruneMessage>> joinPruneAttributes();

// The Register's attributes: the header's reserved byte, the flags word with its B and N bits as
// views, the inner source and group, and for a data Register the inner packet as hex ("inner",
// null for a Null-Register). Encoding a data Register takes the inner packet; a Null-Register
// takes the inner source and group and gets this codec's own dummy header.
std::span<const Attribute<Routing::Pim::Packet::RegisterMessage>> registerAttributes();
// The Bootstrap's attributes: the header's reserved byte with the No-Forward bit as its view,
// the fixed fields, the BSR address and the group ranges, each
//   {"prefix":"224.0.0.0/4","groupFlags":N,"rpCount":N,"fragRpCount":N,"reserved":N,
//    "rps":[{"address":ADDR,"holdtime":N,"priority":N,"reserved":N},...]}
// in wire order ("groups":[] for a message without ranges).
std::span<const Attribute<Routing::Pim::Packet::BootstrapMessage>> bootstrapAttributes();
// The Candidate-RP Advertisement's attributes: reserved byte, prefix count, priority, holdtime,
// RP address and the ranges, each {"prefix":"239.0.0.0/8","groupFlags":N}, in wire order.
std::span<const Attribute<Routing::Pim::Packet::CrpAdvMessage>> crpAdvAttributes();
// The DF election's attributes: the header's reserved byte with the subtype as its view
// ("dfElectionType":"dfElectionOffer"), the RP address, the sender's metric preference and
// metric; a Backoff adds the offering router's address, metric preference and metric and the
// interval, a Pass the winning router's address, metric preference and metric.
std::span<const Attribute<Routing::Pim::Packet::DfElectionMessage>> dfElectionAttributes();
std::span<const Attribute<Routing::Pim::Packet::DfElectionBackoffMessage>> dfElectionBackoffAttributes();
std::span<const Attribute<Routing::Pim::Packet::DfElectionPassMessage>> dfElectionPassAttributes();
// The Register-Stop's attributes: reserved byte, group, group flags, source.
std::span<const Attribute<Routing::Pim::Packet::RegisterStopMessage>> registerStopAttributes();
// The Assert's attributes: reserved byte, group, group flags, source, the RPT bit and metric
// preference word with its two parts as views, the metric.
std::span<const Attribute<Routing::Pim::Packet::AssertMessage>> assertAttributes();

}  // namespace Pimio::Cli
