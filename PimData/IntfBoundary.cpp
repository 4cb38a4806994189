#include "PimData/IntfBoundary.h"

namespace Routing::Pim::Boundary {

bool IntfBoundary::filtered(const Knet::IpGenAddr& group) const {
  for (const Rule& r : rules_) {
    if (r.prefix.contains(group)) return !r.permit;
  }
  return !rules_.empty();
}

Loom::Ptr<IntfBoundary> intfBoundaryFactory() { return new IntfBoundary; }

}  // namespace Routing::Pim::Boundary
