#pragma once
// The IP status of the router's interfaces: per interface its IP MTU and its addresses, a primary
// and any number of secondaries in each family. The transmit path sends from the primary address
// of the message's family when PIM has none of its own, and sizes Join/Prune packets to the MTU.
#include <array>
#include <map>
#include <set>

#include "knet/Address.h"
#include "loom/Assert.h"
#include "loom/Entity.h"

namespace IpGen {

class IpIntf : public Loom::Entity {
 public:
  static constexpr U32 mtuDefault = 1500;

  explicit IpIntf(Knet::IntfId id) : intfId_(std::move(id)) {}
  const Knet::IntfId& intfId() const { return intfId_; }
  U32 mtu() const { return mtu_; }
  void mtuIs(U32 v) { mtu_ = v; }

  // The primary address of a family with its prefix length; an unset prefix when there is none.
  const Knet::IpGenPrefix& primaryAddr(Knet::AddressFamily af) const { return primary_[slot(af)]; }
  void primaryAddrIs(const Knet::IpGenPrefix& p) { primary_[slot(p.af())] = p; }
  void primaryAddrDel(Knet::AddressFamily af) { primary_[slot(af)] = Knet::IpGenPrefix(); }
  const std::set<Knet::IpGenPrefix>& secondaryAddr(Knet::AddressFamily af) const { return secondary_[slot(af)]; }
  void secondaryAddrIs(const Knet::IpGenPrefix& p) { secondary_[slot(p.af())].insert(p); }
  void secondaryAddrDel(const Knet::IpGenPrefix& p) { secondary_[slot(p.af())].erase(p); }

 private:
  static size_t slot(Knet::AddressFamily af) {
    LOOM_ASSERT(af == Knet::AddressFamily::ipv4 || af == Knet::AddressFamily::ipv6, "IP address of no family");
    return af == Knet::AddressFamily::ipv4 ? 0 : 1;
  }
  const Knet::IntfId intfId_;
  U32 mtu_ = mtuDefault;
  std::array<Knet::IpGenPrefix, 2> primary_;
  std::array<std::set<Knet::IpGenPrefix>, 2> secondary_;
};

class IntfStatus : public Loom::Entity {
 public:
  const std::map<Knet::IntfId, Loom::Ptr<IpIntf>>& ipIntf() const { return ipIntf_; }
  // The IP interface of the id; null when the interface has no IP configuration.
  Loom::Ptr<IpIntf> ipIntf(const Knet::IntfId& id) const {
    const auto it = ipIntf_.find(id);
    return it == ipIntf_.end() ? nullptr : it->second;
  }
  Loom::Ptr<IpIntf> ipIntfIs(const Knet::IntfId& id) {
    auto [it, made] = ipIntf_.try_emplace(id);
    if (made) it->second = new IpIntf(id);
    return it->second;
  }
  void ipIntfDel(const Knet::IntfId& id) { ipIntf_.erase(id); }
  void ipIntfDelAll() { ipIntf_.clear(); }

 private:
  std::map<Knet::IntfId, Loom::Ptr<IpIntf>> ipIntf_;
};

inline Loom::Ptr<IntfStatus> intfStatusFactory() { return new IntfStatus; }

}  // namespace IpGen
