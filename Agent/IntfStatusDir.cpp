#include "Agent/IntfStatusDir.h"

namespace Interface {

const IntfStatusAndDeviceName& DeviceIntfStatusDir::intfStatusAndDeviceName(const Knet::IntfId& id) const {
  const auto it = status_.find(id);
  return it == status_.end() ? IntfStatusAndDeviceName::empty() : it->second;
}

void DeviceIntfStatusDir::intfStatusAndDeviceNameIs(const Knet::IntfId& id, const IntfStatusAndDeviceName& v) {
  const Knet::IntfId key = id;  // the caller's id may be the key that is erased
  const auto it = status_.find(key);
  if (v.isEmpty()) {
    if (it == status_.end()) return;
    status_.erase(it);
  } else if (it == status_.end()) {
    status_.emplace(key, v);
  } else {
    if (it->second == v) return;
    it->second = v;
  }
  notifiees_.notify(&Notifiee::onIntfStatusAndDeviceName, key);
}

void DeviceIntfStatusDir::intfStatusAndDeviceNameDelAll() {
  while (!status_.empty()) intfStatusAndDeviceNameDel(status_.begin()->first);
}

Loom::Ptr<DeviceIntfStatusDir> deviceIntfStatusDirFactory() { return new DeviceIntfStatusDir; }

}  // namespace Interface
