#pragma once
// Multicast boundaries. McastBoundary::Status is the agent's boundary configuration status: per
// interface name, the ordered permit/deny group prefixes of its software boundary, kept apart by
// family (an IPv4 boundary says nothing about IPv6 groups). Boundary::McastBoundary is the
// evaluator that the I/O library makes over that status to ask whether a group, or a whole group
// range, is kept out on an interface.
#include <array>
#include <map>
#include <string>

#include "PimData/IntfBoundary.h"
#include "knet/Address.h"
#include "loom/Entity.h"

namespace Routing::McastBoundary {

class SoftwareBoundaryStatus : public Loom::Entity {
 public:
  explicit SoftwareBoundaryStatus(std::string intfName) : intfName_(std::move(intfName)) {}
  const std::string& intfName() const { return intfName_; }

  // Appends a rule after the rules of its family.
  void ruleIs(const Knet::IpGenPrefix& group, bool permit);
  void ruleDelAll() { boundary_ = {}; }
  // The boundary of a family, read in place; null when the interface has no rule of the family.
  const Loom::Ptr<Pim::Boundary::IntfBoundary>& boundary(Knet::AddressFamily af) const {
    return boundary_[slot(af)];
  }
  // A new boundary holding the rules of the family, for a reader that takes its own; null when
  // there are none.
  Loom::Ptr<Pim::Boundary::IntfBoundary> intfBoundary(Knet::AddressFamily af) const;

 private:
  static size_t slot(Knet::AddressFamily af);
  const std::string intfName_;
  std::array<Loom::Ptr<Pim::Boundary::IntfBoundary>, 2> boundary_;
};

class Status : public Loom::Entity {
 public:
  const std::map<std::string, Loom::Ptr<SoftwareBoundaryStatus>>& softwareBoundaryStatus() const { return status_; }
  // The boundary of the interface name; null when the interface has none.
  Loom::Ptr<SoftwareBoundaryStatus> softwareBoundaryStatus(const std::string& intfName) const;
  Loom::Ptr<SoftwareBoundaryStatus> softwareBoundaryStatusIs(const std::string& intfName);
  void softwareBoundaryStatusDel(const std::string& intfName) { status_.erase(intfName); }
  void softwareBoundaryStatusDelAll() { status_.clear(); }

 private:
  std::map<std::string, Loom::Ptr<SoftwareBoundaryStatus>> status_;
};

Loom::Ptr<Status> statusFactory();

}  // namespace Routing::McastBoundary

namespace Routing::Pim::Boundary {

class McastBoundary : public Loom::Entity {
 public:
  McastBoundary(std::string name, Loom::Ptr<const Routing::McastBoundary::Status> status)
      : name_(std::move(name)), status_(std::move(status)) {}
  // Who made the evaluator, for traces.
  const std::string& name() const { return name_; }
  const Loom::Ptr<const Routing::McastBoundary::Status>& status() const { return status_; }

  // True when the interface's boundary keeps the group out.
  bool filtered(const Knet::IntfId& intf, const Knet::IpGenAddr& group) const;
  // True when the boundary keeps some group of the range out: the first rule that holds the
  // whole range decides, unless a deny rule inside the range comes first and no earlier permit
  // covers it. A range that no rule holds is kept out by the implicit deny.
  bool filteredPrefix(const Knet::IntfId& intf, const Knet::IpGenPrefix& range) const;
  // A new boundary of the interface for the family, as the Join/Prune codec takes it; null when
  // the interface has no boundary in that family.
  Loom::Ptr<IntfBoundary> intfBoundary(const Knet::IntfId& intf, Knet::AddressFamily af) const;

 private:
  const IntfBoundary* boundary(const Knet::IntfId& intf, Knet::AddressFamily af) const;
  const std::string name_;
  const Loom::Ptr<const Routing::McastBoundary::Status> status_;
};

Loom::Ptr<McastBoundary> mcastBoundaryFactory(const std::string& name,
                                              const Loom::Ptr<const Routing::McastBoundary::Status>& status);

}  // namespace Routing::Pim::Boundary
