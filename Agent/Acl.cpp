#include "Agent/Acl.h"

#include "loom/Assert.h"

namespace Acl {

IpFilterBase::IpFilterBase(Knet::AddressFamily af)
    : af_(af), source_(Knet::IpGenAddr::fromBytes(af, Knet::IpGenAddr().bytes()), 0) {}

void IpFilterBase::sourceIs(const Knet::IpGenPrefix& p) {
  LOOM_ASSERT(p.af() == af_, "access-list filter source of the other family");
  source_ = p;
}

void AclConfig::ipRuleConfigIs(U32 seq, const IpRuleConfig& rule) {
  LOOM_ASSERT(type_ == AclType::ipv4, "IPv4 rule in an IPv6 access list");
  ipRule_[seq] = rule;
}

void AclConfig::ip6RuleConfigIs(U32 seq, const Ip6RuleConfig& rule) {
  LOOM_ASSERT(type_ == AclType::ipv6, "IPv6 rule in an IPv4 access list");
  ip6Rule_[seq] = rule;
}

void AclConfig::ruleDel(U32 seq) {
  ipRule_.erase(seq);
  ip6Rule_.erase(seq);
}

void AclConfig::ruleDelAll() {
  ipRule_.clear();
  ip6Rule_.clear();
}

namespace {

// The rules of one family in sequence order: the first whose source prefix holds src decides.
template <class Rules>
AclVerdict firstMatch(const Rules& rules, const Knet::IpGenAddr& src) {
  for (const auto& [seq, rule] : rules) {
    const IpFilterBase& filter = rule.filter;
    if (filter.source().contains(src)) return rule.action == AclAction::permit ? AclVerdict::permit : AclVerdict::deny;
  }
  return AclVerdict::implicitDeny;
}

}  // namespace

AclVerdict AclConfig::sourceVerdict(const Knet::IpGenAddr& src) const {
  return type_ == AclType::ipv4 ? firstMatch(ipRule_, src) : firstMatch(ip6Rule_, src);
}

Loom::Ptr<AclConfig> AclTypeConfig::aclConfig(const std::string& name) const {
  const auto it = aclConfig_.find(name);
  return it == aclConfig_.end() ? nullptr : it->second;
}

Loom::Ptr<AclConfig> AclTypeConfig::aclConfigIs(const std::string& name, AclType type) {
  Loom::Ptr<AclConfig>& slot = aclConfig_[name];
  if (!slot || slot->type() != type) slot = new AclConfig(name, type);
  return slot;
}

Loom::Ptr<AclTypeConfig> aclTypeConfigFactory() { return new AclTypeConfig; }

}  // namespace Acl
