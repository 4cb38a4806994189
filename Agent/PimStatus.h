#pragma once
// The agent's PIM status of one instance: its VRF and the interfaces on which PIM is enabled.
// The I/O library watches the set of PIM interfaces through a const pointer.
#include <map>
#include <string>

#include "Agent/PimIntf.h"

namespace Routing::Pim {

class Status : public Loom::Entity {
 public:
  class Notifiee : public Loom::BaseNotifiee<const Status> {
   public:
    // An interface was added or removed; the collection already shows the change.
    virtual void onPimIntf(const Knet::IntfId&) {}
  };

  explicit Status(std::string vrfName) : vrfName_(std::move(vrfName)) {}
  const std::string& vrfName() const { return vrfName_; }

  const std::map<Knet::IntfId, Loom::Ptr<Intf>>& pimIntf() const { return pimIntf_; }
  // The interface of the id, null when PIM is not enabled on it.
  Loom::Ptr<Intf> pimIntf(const Knet::IntfId& id) const;
  // Finds or creates the interface of the id.
  Loom::Ptr<Intf> pimIntfIs(const Knet::IntfId& id);
  void pimIntfDel(const Knet::IntfId& id);
  void pimIntfDelAll();

  void notifieeAdd(Notifiee* n) const { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) const { notifiees_.del(n); }

 private:
  const std::string vrfName_;
  std::map<Knet::IntfId, Loom::Ptr<Intf>> pimIntf_;
  mutable Loom::NotifieeList<Notifiee> notifiees_;
};

Loom::Ptr<Status> statusFactory(const std::string& vrfName);

}  // namespace Routing::Pim
