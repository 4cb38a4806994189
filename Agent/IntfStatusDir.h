#pragma once
// The kernel's view of the router's interfaces. DeviceIntfStatusDir gives, per interface id, the
// kernel index and device name of the interface's device, or the empty record while it has no
// device; the I/O library watches it to keep its interface tables and group memberships in step.
// AllIntfStatusDir gives the operational state of every interface.
#include <map>
#include <string>

#include "knet/Address.h"
#include "loom/Entity.h"

namespace Interface {

struct IntfStatusAndDeviceName {
  U32 ifIndex = 0;
  std::string deviceName;

  static const IntfStatusAndDeviceName& empty() {
    static const IntfStatusAndDeviceName e;
    return e;
  }
  bool isEmpty() const { return ifIndex == 0 && deviceName.empty(); }
  friend bool operator==(const IntfStatusAndDeviceName&, const IntfStatusAndDeviceName&) = default;
};

class DeviceIntfStatusDir : public Loom::Entity {
 public:
  class Notifiee : public Loom::BaseNotifiee<const DeviceIntfStatusDir> {
   public:
    // The record of the id changed; the directory already shows the new record.
    virtual void onIntfStatusAndDeviceName(const Knet::IntfId&) {}
  };

  // Every interface with a device, in id order.
  const std::map<Knet::IntfId, IntfStatusAndDeviceName>& intfStatusAndDeviceName() const { return status_; }
  // The record of the id; the empty record when the interface has no device.
  const IntfStatusAndDeviceName& intfStatusAndDeviceName(const Knet::IntfId& id) const;
  // Sets the record of the id; the empty record removes it. Notifies only a change.
  void intfStatusAndDeviceNameIs(const Knet::IntfId& id, const IntfStatusAndDeviceName& v);
  void intfStatusAndDeviceNameDel(const Knet::IntfId& id) { intfStatusAndDeviceNameIs(id, {}); }
  void intfStatusAndDeviceNameDelAll();

  void notifieeAdd(Notifiee* n) const { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) const { notifiees_.del(n); }

 private:
  std::map<Knet::IntfId, IntfStatusAndDeviceName> status_;
  mutable Loom::NotifieeList<Notifiee> notifiees_;
};

Loom::Ptr<DeviceIntfStatusDir> deviceIntfStatusDirFactory();

enum class OperStatus : U8 { unknown, up, down, notPresent };

class AllIntfStatusDir : public Loom::Entity {
 public:
  const std::map<Knet::IntfId, OperStatus>& operStatus() const { return operStatus_; }
  // unknown for an interface the directory does not hold.
  OperStatus operStatus(const Knet::IntfId& id) const {
    const auto it = operStatus_.find(id);
    return it == operStatus_.end() ? OperStatus::unknown : it->second;
  }
  void operStatusIs(const Knet::IntfId& id, OperStatus v) { operStatus_[id] = v; }
  void operStatusDel(const Knet::IntfId& id) { operStatus_.erase(id); }
  void operStatusDelAll() { operStatus_.clear(); }

 private:
  std::map<Knet::IntfId, OperStatus> operStatus_;
};

inline Loom::Ptr<AllIntfStatusDir> allIntfStatusDirFactory() { return new AllIntfStatusDir; }

}  // namespace Interface
