#pragma once
// The agent's PIM configuration of one instance, per interface: what the I/O library reads of it
// is the name of the access list that filters the interface's neighbors.
#include <map>
#include <string>

#include "knet/Address.h"
#include "loom/Entity.h"

namespace Routing::Pim {

class IntfConfig : public Loom::Entity {
 public:
  explicit IntfConfig(Knet::IntfId id) : intfId_(std::move(id)) {}
  const Knet::IntfId& intfId() const { return intfId_; }
  // The access list of accepted neighbor addresses; empty: every neighbor is accepted.
  const std::string& neighborFilter() const { return neighborFilter_; }
  void neighborFilterIs(const std::string& v) { neighborFilter_ = v; }

 private:
  const Knet::IntfId intfId_;
  std::string neighborFilter_;
};

class ConfigColl : public Loom::Entity {
 public:
  const std::map<Knet::IntfId, Loom::Ptr<IntfConfig>>& intfConfig() const { return intfConfig_; }
  Loom::Ptr<IntfConfig> intfConfig(const Knet::IntfId& id) const {
    const auto it = intfConfig_.find(id);
    return it == intfConfig_.end() ? nullptr : it->second;
  }
  Loom::Ptr<IntfConfig> intfConfigIs(const Knet::IntfId& id) {
    auto [it, made] = intfConfig_.try_emplace(id);
    if (made) it->second = new IntfConfig(id);
    return it->second;
  }
  void intfConfigDel(const Knet::IntfId& id) { intfConfig_.erase(id); }
  void intfConfigDelAll() { intfConfig_.clear(); }

 private:
  std::map<Knet::IntfId, Loom::Ptr<IntfConfig>> intfConfig_;
};

inline Loom::Ptr<ConfigColl> configCollFactory() { return new ConfigColl; }

}  // namespace Routing::Pim
