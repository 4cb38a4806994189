#pragma once
// The agent's PIM interface: the part of the agent's PIM status that the I/O library reads about
// one interface. It belongs to the agent, not to the library; the library only holds references.
// The library watches it through a const pointer, so notifiees attach to a const interface.
#include <map>

#include "knet/Address.h"
#include "loom/Entity.h"

namespace Routing::Pim {

class Intf : public Loom::Entity {
 public:
  class Notifiee : public Loom::BaseNotifiee<const Intf> {
   public:
    // A neighbor became active: newly added as active, or known and now active.
    virtual void onActiveNeighbor(const Knet::IpGenAddr&) {}
  };

  explicit Intf(Knet::IntfId id) : intfId_(std::move(id)) {}
  const Knet::IntfId& intfId() const { return intfId_; }

  // The address PIM speaks from on this interface; unset when PIM has none yet.
  const Knet::IpGenAddr& addr() const { return addr_; }
  void addrIs(const Knet::IpGenAddr& v) { addr_ = v; }

  // Multicast border router: the interface faces another multicast domain. With no border
  // neighbor mode (0) the receive path keeps the domain's link-local control messages out.
  bool mbr() const { return mbr_; }
  void mbrIs(bool v) { mbr_ = v; }
  U32 mbrNeighborMode() const { return mbrNeighborMode_; }
  void mbrNeighborModeIs(U32 v) { mbrNeighborMode_ = v; }
  bool mbrFiltersControl() const { return mbr_ && mbrNeighborMode_ == 0; }

  // Neighbors by address. A known neighbor has sent a Hello; it is active once the agent has
  // taken it up, which is when the packets it sent before that may be handed over.
  bool neighbor(const Knet::IpGenAddr& a) const { return neighbor_.contains(a); }
  bool neighborActive(const Knet::IpGenAddr& a) const {
    const auto it = neighbor_.find(a);
    return it != neighbor_.end() && it->second;
  }
  size_t neighborCount() const { return neighbor_.size(); }
  // Adds the neighbor or sets its active flag; notifies only a change to active.
  void neighborIs(const Knet::IpGenAddr& a, bool active) {
    auto [it, made] = neighbor_.try_emplace(a, active);
    if (!made) {
      if (it->second == active) return;
      it->second = active;
    }
    if (active) notifiees_.notify(&Notifiee::onActiveNeighbor, a);
  }
  void neighborDel(const Knet::IpGenAddr& a) { neighbor_.erase(a); }
  void neighborDelAll() { neighbor_.clear(); }

  void notifieeAdd(Notifiee* n) const { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) const { notifiees_.del(n); }

 private:
  const Knet::IntfId intfId_;
  Knet::IpGenAddr addr_;
  bool mbr_ = false;
  U32 mbrNeighborMode_ = 0;
  std::map<Knet::IpGenAddr, bool> neighbor_;
  mutable Loom::NotifieeList<Notifiee> notifiees_;
};

inline Loom::Ptr<Intf> intfFactory(const Knet::IntfId& id) { return new Intf(id); }

}  // namespace Routing::Pim
