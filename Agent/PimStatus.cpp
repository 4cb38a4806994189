#include "Agent/PimStatus.h"

namespace Routing::Pim {

Loom::Ptr<Intf> Status::pimIntf(const Knet::IntfId& id) const {
  const auto it = pimIntf_.find(id);
  return it == pimIntf_.end() ? nullptr : it->second;
}

Loom::Ptr<Intf> Status::pimIntfIs(const Knet::IntfId& id) {
  auto [it, made] = pimIntf_.try_emplace(id);
  if (!made) return it->second;
  it->second = intfFactory(id);
  Loom::Ptr<Intf> intf = it->second;  // a notifiee may remove it again
  notifiees_.notify(&Notifiee::onPimIntf, id);
  return intf;
}

void Status::pimIntfDel(const Knet::IntfId& id) {
  const auto it = pimIntf_.find(id);
  if (it == pimIntf_.end()) return;
  const Knet::IntfId gone = it->first;  // the caller's id may be the key that is erased
  pimIntf_.erase(it);
  notifiees_.notify(&Notifiee::onPimIntf, gone);
}

void Status::pimIntfDelAll() {
  while (!pimIntf_.empty()) pimIntfDel(pimIntf_.begin()->first);
}

Loom::Ptr<Status> statusFactory(const std::string& vrfName) { return new Status(vrfName); }

}  // namespace Routing::Pim
