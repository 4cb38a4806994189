#pragma once
// Access lists: named lists of rules, each list of one address type, each rule with a sequence
// number, an action and a filter on the source prefix. A list answers for a source address with
// the action of the first rule, in sequence order, whose source prefix holds it, or with the
// implicit deny at the end of every list when none does. What a caller does with a missing list
// or a list of the other family is the caller's policy, not the list's.
#include <map>
#include <optional>
#include <string>

#include "knet/Address.h"
#include "loom/Entity.h"

namespace Acl {

enum class AclType : U8 { ipv4 = 1, ipv6 = 2 };
enum class AclAction : U8 { deny, permit };
// permit and deny come from a rule; implicitDeny means that no rule holds the address.
enum class AclVerdict : U8 { permit, deny, implicitDeny };

// The part of an IPv4 or IPv6 filter that a source match reads. The source defaults to the
// whole family (any source).
class IpFilterBase {
 public:
  const Knet::IpGenPrefix& source() const { return source_; }
  // A prefix of the other family is a programming error.
  void sourceIs(const Knet::IpGenPrefix& p);
  Knet::AddressFamily af() const { return af_; }

 protected:
  explicit IpFilterBase(Knet::AddressFamily af);

 private:
  Knet::AddressFamily af_;
  Knet::IpGenPrefix source_;
};

class IpFilter : public IpFilterBase {
 public:
  IpFilter() : IpFilterBase(Knet::AddressFamily::ipv4) {}
  explicit IpFilter(const Knet::IpGenPrefix& source) : IpFilter() { sourceIs(source); }
};

class Ip6Filter : public IpFilterBase {
 public:
  Ip6Filter() : IpFilterBase(Knet::AddressFamily::ipv6) {}
  explicit Ip6Filter(const Knet::IpGenPrefix& source) : Ip6Filter() { sourceIs(source); }
};

struct IpRuleConfig {
  AclAction action = AclAction::deny;
  IpFilter filter;
};

struct Ip6RuleConfig {
  AclAction action = AclAction::deny;
  Ip6Filter filter;
};

class AclConfig : public Loom::Entity {
 public:
  AclConfig(std::string name, AclType type) : name_(std::move(name)), type_(type) {}
  const std::string& name() const { return name_; }
  AclType type() const { return type_; }
  Knet::AddressFamily af() const { return static_cast<Knet::AddressFamily>(type_); }

  // Rules by sequence number. A rule of the other family than the list's is a programming error.
  const std::map<U32, IpRuleConfig>& ipRuleConfig() const { return ipRule_; }
  void ipRuleConfigIs(U32 seq, const IpRuleConfig& rule);
  const std::map<U32, Ip6RuleConfig>& ip6RuleConfig() const { return ip6Rule_; }
  void ip6RuleConfigIs(U32 seq, const Ip6RuleConfig& rule);
  void ruleDel(U32 seq);
  void ruleDelAll();
  size_t ruleCount() const { return ipRule_.size() + ip6Rule_.size(); }

  // The list's answer for a source address; an address of the other family matches no rule.
  AclVerdict sourceVerdict(const Knet::IpGenAddr& src) const;

 private:
  const std::string name_;
  const AclType type_;
  std::map<U32, IpRuleConfig> ipRule_;
  std::map<U32, Ip6RuleConfig> ip6Rule_;
};

class AclTypeConfig : public Loom::Entity {
 public:
  const std::map<std::string, Loom::Ptr<AclConfig>>& aclConfig() const { return aclConfig_; }
  // The list of the name; null when there is none.
  Loom::Ptr<AclConfig> aclConfig(const std::string& name) const;
  // Finds the list of the name, or creates it empty. A list of the name but of the other type is
  // replaced by an empty one: its rules could not apply.
  Loom::Ptr<AclConfig> aclConfigIs(const std::string& name, AclType type);
  void aclConfigDel(const std::string& name) { aclConfig_.erase(name); }
  void aclConfigDelAll() { aclConfig_.clear(); }

 private:
  std::map<std::string, Loom::Ptr<AclConfig>> aclConfig_;
};

Loom::Ptr<AclTypeConfig> aclTypeConfigFactory();

}  // namespace Acl
