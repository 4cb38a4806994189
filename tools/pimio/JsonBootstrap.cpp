// The attribute tables of Bootstrap and Candidate-RP Advertisement.
#include "loom/Exception.h"
#include "tools/pimio/Json.h"

namespace Pimio::Cli {

using Routing::Pim::Packet::BootstrapGroupData;
using Routing::Pim::Packet::BootstrapMessage;
using Routing::Pim::Packet::BootstrapOptionalData;
using Routing::Pim::Packet::CrpAdvMessage;
using Routing::Pim::Packet::CrpGroupData;
using Routing::Pim::Packet::Message;

Json jsonOf(const Knet::IpGenPrefix& p) {
  std::ostringstream os;
  os << p;
  return os.str();
}

bool valueOf(const Json& j, Knet::IpGenPrefix& out, std::string& error) {
  try {
    const auto parsed = j.is_string() ? Knet::IpGenPrefix::parse(j.get<std::string>()) : std::nullopt;
    if (parsed) {
      out = *parsed;
      return true;
    }
  } catch (const Loom::RangeException& e) {
    error = e.what();
    return false;
  }
  error = "expected a prefix such as \"224.0.0.0/4\", got " + j.dump();
  return false;
}

namespace {

// A list member: an array whose items `item` reads.
template <class Item>
bool listOf(const Json& j, std::string& error, Item item) {
  if (!j.is_array()) {
    error = "expected a list, got " + j.dump();
    return false;
  }
  for (const Json& e : j) {
    if (!e.is_object()) {
      error = "expected an object, got " + e.dump();
      return false;
    }
    if (!item(e)) return false;
  }
  return true;
}

// A member that must be there.
template <class T>
bool requiredMember(const Json& in, const char* name, T& out, std::string& error) {
  if (!in.contains(name)) {
    error = std::string("missing \"") + name + "\"";
    return false;
  }
  return optionalMember(in, name, out, error);
}

// ---- Bootstrap ----

Json rangeJson(const BootstrapGroupData& g) {
  Json rps = Json::array();
  for (const auto& rp : g.rpList()) {
    rps.push_back(Json{{"address", jsonOf(rp.address())},
                       {"holdtime", rp.holdtime()},
                       {"priority", rp.priority()},
                       {"reserved", rp.reserved()}});
  }
  return Json{{"prefix", jsonOf(g.prefix())},     {"groupFlags", g.groupFlags()},
              {"rpCount", g.rpCount()},           {"fragRpCount", g.fragRpCount()},
              {"reserved", g.reserved()},         {"rps", rps}};
}

bool rangeFromJson(const Json& in, BootstrapOptionalData& data, std::string& error) {
  Knet::IpGenPrefix prefix;
  if (!onlyKnownMembers(in, {"prefix", "groupFlags", "rpCount", "fragRpCount", "reserved", "rps"}, error) ||
      !requiredMember(in, "prefix", prefix, error)) {
    return false;
  }
  Loom::Ptr<BootstrapGroupData> g = Routing::Pim::Packet::bootstrapGroupDataFactory(prefix);
  U8 flags = 0, rpCount = 0, fragRpCount = 0;
  U16 reserved = 0;
  if (!optionalMember(in, "groupFlags", flags, error) || !optionalMember(in, "rpCount", rpCount, error) ||
      !optionalMember(in, "fragRpCount", fragRpCount, error) || !optionalMember(in, "reserved", reserved, error)) {
    return false;
  }
  g->groupFlagsIs(flags);
  g->rpCountIs(rpCount);
  g->fragRpCountIs(fragRpCount);
  g->reservedIs(reserved);
  if (in.contains("rps")) {
    const bool ok = listOf(in.at("rps"), error, [&](const Json& rp) {
      Knet::IpGenAddr address;
      U16 holdtime = 0;
      U8 priority = 0, rpReserved = 0;
      if (!onlyKnownMembers(rp, {"address", "holdtime", "priority", "reserved"}, error) ||
          !addressMember(rp, "address", address, error) || !optionalMember(rp, "holdtime", holdtime, error) ||
          !optionalMember(rp, "priority", priority, error) || !optionalMember(rp, "reserved", rpReserved, error)) {
        return false;
      }
      if (g->rpList(address)) {
        error = "RP " + address.str() + " twice";
        return false;
      }
      auto& r = g->rpListIs(address);
      r.holdtimeIs(holdtime);
      r.priorityIs(priority);
      r.reservedIs(rpReserved);
      return true;
    });
    if (!ok) {
      error = "rps: " + error;
      return false;
    }
  }
  data.groupDataEnq(g);
  return true;
}

constexpr Attribute<BootstrapMessage> groupsAttribute{
    "groups",
    [](const BootstrapMessage& m) {
      Json out = Json::array();
      if (m.groupRpData()) {
        for (const auto& [index, g] : m.groupRpData()->groupData()) out.push_back(rangeJson(*g));
      }
      return out;
    },
    [](const Json& j, BootstrapMessage& m, std::string& error) {
      Loom::Ptr<BootstrapOptionalData> data = Routing::Pim::Packet::bootstrapOptionalDataFactory();
      if (!listOf(j, error, [&](const Json& g) { return rangeFromJson(g, *data, error); })) return false;
      m.groupRpDataIs(data->groupData().empty() ? nullptr : data);
      return true;
    }};

// The library's own bound decides what a hash mask length may be.
constexpr Attribute<BootstrapMessage> hashMaskLenAttribute{
    "hashMaskLen", [](const BootstrapMessage& m) -> Json { return m.hashMaskLen(); },
    [](const Json& j, BootstrapMessage& m, std::string& error) {
      U8 v = 0;
      if (!valueOf(j, v, error)) return false;
      try {
        m.hashMaskLenIs(v);
      } catch (const Loom::RangeException& e) {
        error = e.what();
        return false;
      }
      return true;
    }};

template <auto Get, auto Set>
constexpr Attribute<BootstrapMessage> bsm(const char* name, const char* viewOf = nullptr) {
  return attribute<BootstrapMessage, Get, Set>(name, viewOf);
}

const auto bootstrapTable = std::to_array<Attribute<BootstrapMessage>>({
    bsm<&Message::reserved, &Message::reservedIs>("reserved"),
    bsm<&BootstrapMessage::noForward, &BootstrapMessage::noForwardIs>("noForward", "reserved"),
    bsm<&BootstrapMessage::fragmentTag, &BootstrapMessage::fragmentTagIs>("fragmentTag"),
    hashMaskLenAttribute,
    bsm<&BootstrapMessage::bsrPriority, &BootstrapMessage::bsrPriorityIs>("bsrPriority"),
    bsm<&BootstrapMessage::bsrAddress, &BootstrapMessage::bsrAddressIs>("bsrAddress"),
    groupsAttribute,
});

// ---- Candidate-RP Advertisement ----

constexpr Attribute<CrpAdvMessage> rangesAttribute{
    "ranges",
    [](const CrpAdvMessage& m) {
      Json out = Json::array();
      if (m.groupData()) {
        for (const auto& g : m.groupData()->groupInfo()) {
          out.push_back(Json{{"prefix", jsonOf(g->prefix())}, {"groupFlags", g->groupFlags()}});
        }
      }
      return out;
    },
    [](const Json& j, CrpAdvMessage& m, std::string& error) {
      Loom::Ptr<CrpGroupData> data = Routing::Pim::Packet::crpGroupDataFactory();
      const bool ok = listOf(j, error, [&](const Json& g) {
        Knet::IpGenPrefix prefix;
        U8 flags = 0;
        if (!onlyKnownMembers(g, {"prefix", "groupFlags"}, error) || !requiredMember(g, "prefix", prefix, error) ||
            !optionalMember(g, "groupFlags", flags, error)) {
          return false;
        }
        if (data->groupInfo(prefix)) {
          error = "range " + jsonOf(prefix).get<std::string>() + " twice";
          return false;
        }
        data->groupInfoIs(prefix).groupFlagsIs(flags);
        return true;
      });
      if (!ok) return false;
      m.groupDataIs(data);
      return true;
    }};

template <auto Get, auto Set>
constexpr Attribute<CrpAdvMessage> crp(const char* name) {
  return attribute<CrpAdvMessage, Get, Set>(name);
}

const auto crpAdvTable = std::to_array<Attribute<CrpAdvMessage>>({
    crp<&Message::reserved, &Message::reservedIs>("reserved"),
    crp<&CrpAdvMessage::prefixCount, &CrpAdvMessage::prefixCountIs>("prefixCount"),
    crp<&CrpAdvMessage::priority, &CrpAdvMessage::priorityIs>("priority"),
    crp<&CrpAdvMessage::holdtime, &CrpAdvMessage::holdtimeIs>("holdtime"),
    crp<&CrpAdvMessage::rpAddress, &CrpAdvMessage::rpAddressIs>("rpAddress"),
    rangesAttribute,
});

}  // namespace

std::span<const Attribute<BootstrapMessage>> bootstrapAttributes() { return bootstrapTable; }
std::span<const Attribute<CrpAdvMessage>> crpAdvAttributes() { return crpAdvTable; }

}  // namespace Pimio::Cli
