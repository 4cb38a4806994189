#include "Agent/McastBoundary.h"

#include <algorithm>

#include "loom/Assert.h"

namespace Routing::McastBoundary {

size_t SoftwareBoundaryStatus::slot(Knet::AddressFamily af) {
  LOOM_ASSERT(af == Knet::AddressFamily::ipv4 || af == Knet::AddressFamily::ipv6, "boundary rule of no family");
  return af == Knet::AddressFamily::ipv4 ? 0 : 1;
}

void SoftwareBoundaryStatus::ruleIs(const Knet::IpGenPrefix& group, bool permit) {
  Loom::Ptr<Pim::Boundary::IntfBoundary>& b = boundary_[slot(group.af())];
  if (!b) b = Pim::Boundary::intfBoundaryFactory();
  b->ruleIs(group, permit);
}

Loom::Ptr<Pim::Boundary::IntfBoundary> SoftwareBoundaryStatus::intfBoundary(Knet::AddressFamily af) const {
  const auto& b = boundary(af);
  if (!b) return nullptr;
  auto copy = Pim::Boundary::intfBoundaryFactory();
  for (const auto& r : b->rule()) copy->ruleIs(r.prefix, r.permit);
  return copy;
}

Loom::Ptr<SoftwareBoundaryStatus> Status::softwareBoundaryStatus(const std::string& intfName) const {
  const auto it = status_.find(intfName);
  return it == status_.end() ? nullptr : it->second;
}

Loom::Ptr<SoftwareBoundaryStatus> Status::softwareBoundaryStatusIs(const std::string& intfName) {
  auto [it, made] = status_.try_emplace(intfName);
  if (made) it->second = new SoftwareBoundaryStatus(intfName);
  return it->second;
}

Loom::Ptr<Status> statusFactory() { return new Status; }

}  // namespace Routing::McastBoundary

namespace Routing::Pim::Boundary {

namespace {

// True when `outer` holds every address of `inner`.
bool covers(const Knet::IpGenPrefix& outer, const Knet::IpGenPrefix& inner) {
  return outer.length() <= inner.length() && outer.contains(inner.address());
}

}  // namespace

const IntfBoundary* McastBoundary::boundary(const Knet::IntfId& intf, Knet::AddressFamily af) const {
  if (!status_ || af == Knet::AddressFamily::ipUnknown) return nullptr;
  const auto s = status_->softwareBoundaryStatus(intf.name());
  return s ? s->boundary(af).ptr() : nullptr;
}

bool McastBoundary::filtered(const Knet::IntfId& intf, const Knet::IpGenAddr& group) const {
  const IntfBoundary* b = boundary(intf, group.af());
  return b && b->filtered(group);
}

bool McastBoundary::filteredPrefix(const Knet::IntfId& intf, const Knet::IpGenPrefix& range) const {
  const IntfBoundary* b = boundary(intf, range.af());
  if (!b) return false;
  const auto& rules = b->rule();
  for (auto r = rules.begin(); r != rules.end(); ++r) {
    if (covers(r->prefix, range)) return !r->permit;
    if (r->permit || !covers(range, r->prefix)) continue;
    // A deny inside the range: it keeps part of the range out unless an earlier permit already
    // let all of its groups through.
    const auto permits = [&](const IntfBoundary::Rule& e) { return e.permit && covers(e.prefix, r->prefix); };
    const bool shadowed = std::any_of(rules.begin(), r, permits);
    if (!shadowed) return true;
  }
  return true;  // no rule holds the whole range: the implicit deny
}

Loom::Ptr<IntfBoundary> McastBoundary::intfBoundary(const Knet::IntfId& intf, Knet::AddressFamily af) const {
  if (!status_ || af == Knet::AddressFamily::ipUnknown) return nullptr;
  const auto s = status_->softwareBoundaryStatus(intf.name());
  return s ? s->intfBoundary(af) : nullptr;
}

Loom::Ptr<McastBoundary> mcastBoundaryFactory(const std::string& name,
                                              const Loom::Ptr<const Routing::McastBoundary::Status>& status) {
  return new McastBoundary(name, status);
}

}  // namespace Routing::Pim::Boundary
