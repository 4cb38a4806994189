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

// ---- Members of objects ----

bool onlyKnownMembers(const Json& in, std::initializer_list<std::string_view> known, std::string& error) {
  for (const auto& member : in.items()) {
    if (std::find(known.begin(), known.end(), member.key()) == known.end()) {
      error = "unknown member \"" + member.key() + "\"";
      return false;
    }
  }
  return true;
}

// A member that must hold an address (not null).
bool addressMember(const Json& in, const char* name, Knet::IpGenAddr& out, std::string& error) {
  if (!in.contains(name)) {
    error = std::string("missing \"") + name + "\"";
    return false;
  }
  if (!valueOf(in.at(name), out, error) || !out.isSet()) {
    error = std::string(name) + ": expected an IPv4 or IPv6 address, got " + in.at(name).dump();
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

// ---- Join/Prune ----

namespace {

using Routing::Pim::JoinPruneData;
using Routing::Pim::JoinPruneGroupData;
using Routing::Pim::Packet::JoinPruneMessage;

// The message's tree; a message made by the tool always has one.
JoinPruneData& treeOf(JoinPruneMessage& m) {
  if (!m.joinPruneData()) m.joinPruneDataIs(new JoinPruneData(Knet::IpGenAddr()));
  return *m.joinPruneData();
}

Json sourcesJson(const Routing::Pim::SourceSet& set) { return jsonOf(std::span(set.begin(), set.end())); }

Json groupJson(const JoinPruneGroupData& g) {
  Json out;
  out["group"] = jsonOf(g.group());
  out["groupFlags"] = jsonOf(g.groupFlags());
  if (const auto& wc = g.wcSourceData()) {
    out["starG"] = Json{{"rp", jsonOf(wc->rp)}, {"join", wc->join}};
  } else {
    out["starG"] = nullptr;
  }
  out["joinedRpt"] = sourcesJson(g.joinedRptSource());
  out["joined"] = sourcesJson(g.joinedSource());
  std::vector<Knet::IpGenAddr> prunedRpt;
  if (g.rptPrunedGroupData()) {
    for (const auto& [source, flag] : g.rptPrunedGroupData()->prunedRptSource()) prunedRpt.push_back(source);
  }
  out["prunedRpt"] = jsonOf(std::span<const Knet::IpGenAddr>(prunedRpt));
  out["pruned"] = sourcesJson(g.prunedSource());
  return out;
}

// Fails on a member of `in` that is not in `known`.
// The (*,G) entry: null, or {"rp":ADDR,"join":BOOL} ("join" true if absent), with "wcSuppressed"
// for a periodic message.
bool starGFromJson(const Json& in, JoinPruneGroupData& g, std::string& error) {
  if (in.is_null()) return true;
  if (!in.is_object()) {
    error = "expected {\"rp\":ADDR,\"join\":BOOL} or null, got " + in.dump();
    return false;
  }
  Knet::IpGenAddr rp;
  bool join = true;
  bool suppressed = false;
  if (!onlyKnownMembers(in, {"rp", "join", "wcSuppressed"}, error) || !addressMember(in, "rp", rp, error) ||
      !optionalMember(in, "join", join, error) || !optionalMember(in, "wcSuppressed", suppressed, error)) {
    return false;
  }
  g.wcSourceDataIs(rp, join);
  g.wcSuppressedIs(suppressed);
  return true;
}

bool groupFromJson(const Json& in, JoinPruneData& data, std::string& error) {
  if (!in.is_object()) {
    error = "expected a group object, got " + in.dump();
    return false;
  }
  Knet::IpGenAddr group;
  U8 flags = 0;
  std::vector<Knet::IpGenAddr> joinedRpt, joined, prunedRpt, pruned, joinSuppress;
  if (!onlyKnownMembers(in, {"group", "groupFlags", "starG", "joinedRpt", "joined", "prunedRpt", "pruned", "joinSuppress"},
                        error) ||
      !addressMember(in, "group", group, error) || !optionalMember(in, "groupFlags", flags, error) ||
      !optionalMember(in, "joinedRpt", joinedRpt, error) || !optionalMember(in, "joined", joined, error) ||
      !optionalMember(in, "prunedRpt", prunedRpt, error) || !optionalMember(in, "pruned", pruned, error) ||
      !optionalMember(in, "joinSuppress", joinSuppress, error)) {
    return false;
  }
  if (data.joinPruneGroupData(group)) {
    error = "group " + group.str() + " is listed twice";
    return false;
  }
  JoinPruneGroupData& g = data.joinPruneGroupDataIs(group);
  g.groupFlagsIs(flags);
  if (in.contains("starG") && !starGFromJson(in.at("starG"), g, error)) {
    error = "starG: " + error;
    return false;
  }
  for (const Knet::IpGenAddr& s : joinedRpt) g.joinedRptSourceIs(s);
  for (const Knet::IpGenAddr& s : joined) g.joinedSourceIs(s);
  for (const Knet::IpGenAddr& s : prunedRpt) g.prunedRptSourceIs(s);
  for (const Knet::IpGenAddr& s : pruned) g.prunedSourceIs(s);
  for (const Knet::IpGenAddr& s : joinSuppress) g.joinSuppressSourceIs(s);
  return true;
}

template <auto Get, auto Set>
constexpr Attribute<JoinPruneMessage> joinPrune(const char* name) {
  return attribute<JoinPruneMessage, Get, Set>(name);
}

// An attribute of the tree, with its plain reader and writer.
template <class T, T (JoinPruneData::*Get)() const, void (JoinPruneData::*Set)(T)>
constexpr Attribute<JoinPruneMessage> tree(const char* name) {
  return {name, [](const JoinPruneMessage& m) { return m.joinPruneData() ? jsonOf((*m.joinPruneData().*Get)()) : Json(); },
          [](const Json& j, JoinPruneMessage& m, std::string& error) {
            std::remove_cvref_t<T> v{};
            if (!valueOf(j, v, error)) return false;
            (treeOf(m).*Set)(v);
            return true;
          }};
}

constexpr Attribute<JoinPruneMessage> groupsAttribute{
    "groups",
    [](const JoinPruneMessage& m) {
      Json out = Json::array();
      if (m.joinPruneData()) {
        for (const auto& [address, group] : m.joinPruneData()->joinPruneGroupData()) out.push_back(groupJson(*group));
      }
      return out;
    },
    [](const Json& j, JoinPruneMessage& m, std::string& error) {
      if (!j.is_array()) {
        error = "expected a list of groups, got " + j.dump();
        return false;
      }
      JoinPruneData& data = treeOf(m);
      data.joinPruneGroupDataDelAll();
      for (size_t i = 0; i < j.size(); ++i) {
        std::string why;
        if (!groupFromJson(j[i], data, why)) {
          error = "group " + std::to_string(i + 1) + ": " + why;
          return false;
        }
      }
      return true;
    }};

// What the decoder kept, dropped in conflicts and filtered. Encoding checks its form and
// otherwise ignores it: the encoder makes its own.
constexpr Attribute<JoinPruneMessage> reportAttribute{
    "report",
    [](const JoinPruneMessage& m) {
      const JoinPruneMessage::Report& r = m.report();
      return Json{{"processed", r.processed}, {"suppressed", r.suppressed}, {"filtered", r.filtered}};
    },
    [](const Json& j, JoinPruneMessage&, std::string& error) {
      bool ok = j.is_object() && onlyKnownMembers(j, {"processed", "suppressed", "filtered"}, error);
      for (const char* counter : {"processed", "suppressed", "filtered"}) {
        U32 v = 0;
        ok = ok && optionalMember(j, counter, v, error);
      }
      if (!ok) error = "expected {\"processed\":N,\"suppressed\":N,\"filtered\":N}, got " + j.dump();
      return ok;
    }};

// Taken by encoding only.
constexpr Attribute<JoinPruneMessage> mtuAttribute{
    "mtu", nullptr, [](const Json& j, JoinPruneMessage& m, std::string& error) {
      U32 v = 0;
      if (!valueOf(j, v, error)) return false;
      m.mtuIs(v);
      return true;
    }};
constexpr Attribute<JoinPruneMessage> periodicAttribute{
    "periodic", nullptr, [](const Json& j, JoinPruneMessage& m, std::string& error) {
      bool v = false;
      if (!valueOf(j, v, error)) return false;
      treeOf(m).periodicIs(v);
      return true;
    }};

const auto joinPruneTable = std::to_array<Attribute<JoinPruneMessage>>({
    joinPrune<&Message::reserved, &Message::reservedIs>("reserved"),
    joinPrune<&JoinPruneMessage::bidir, &JoinPruneMessage::bidirIs>("bidir"),
    tree<const Knet::IpGenAddr&, &JoinPruneData::upstream, &JoinPruneData::upstreamIs>("upstream"),
    tree<U8, &JoinPruneData::reserved2, &JoinPruneData::reserved2Is>("reserved2"),
    tree<U16, &JoinPruneData::holdTime, &JoinPruneData::holdTimeIs>("holdTime"),
    groupsAttribute,
    reportAttribute,
    mtuAttribute,
    periodicAttribute,
});

}  // namespace

std::span<const Attribute<JoinPruneMessage>> joinPruneAttributes() { return joinPruneTable; }

}  // namespace Pimio::Cli
