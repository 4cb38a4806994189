#pragma once
// An interface's multicast boundary: an ordered list of group prefixes, each permitted or denied,
// read like an access list. The first rule whose prefix holds the group decides; a group that no
// rule holds is denied once the list has any rule (the implicit deny at the end of a list). An
// interface without rules has no boundary.
#include <vector>

#include "knet/Address.h"
#include "loom/Entity.h"

namespace Routing::Pim::Boundary {

class IntfBoundary : public Loom::Entity {
 public:
  struct Rule {
    Knet::IpGenPrefix prefix;
    bool permit = false;
  };

  const std::vector<Rule>& rule() const { return rules_; }
  void ruleIs(const Knet::IpGenPrefix& prefix, bool permit) { rules_.push_back(Rule{prefix, permit}); }
  void ruleDelAll() { rules_.clear(); }

  // True when the boundary keeps the group out.
  bool filtered(const Knet::IpGenAddr& group) const;

 private:
  std::vector<Rule> rules_;
};

Loom::Ptr<IntfBoundary> intfBoundaryFactory();

}  // namespace Routing::Pim::Boundary
