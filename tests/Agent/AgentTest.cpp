// The agent-side objects: the access-list walk, the multicast boundary evaluator, and the
// notifications that the I/O state machine relies on, watched as it watches them (const).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Agent/Acl.h"
#include "Agent/IntfStatusDir.h"
#include "Agent/IpIntfStatus.h"  // plain attributes: compiled here, nothing to decide
#include "Agent/McastBoundary.h"
#include "Agent/PimAttrLogSm.h"
#include "Agent/PimConfig.h"  // plain attributes: compiled here, nothing to decide
#include "Agent/PimStatus.h"

namespace {

using Knet::IntfId;
using Knet::IpGenAddr;
using Knet::IpGenPrefix;

IpGenAddr addr(const char* text) { return *IpGenAddr::parse(text); }
IpGenPrefix prefix(const char* text) { return *IpGenPrefix::parse(text); }

// ---- Access lists ----

struct Rule {
  U32 seq;
  Acl::AclAction action;
  const char* source;  // nullptr: the filter's default (any source)
};

constexpr auto permit = Acl::AclAction::permit;
constexpr auto deny = Acl::AclAction::deny;

TEST(Acl, FirstRuleInSequenceOrderDecides) {
  struct Case {
    const char* name;
    Acl::AclType type;
    std::vector<Rule> rules;  // in insertion order, which is not sequence order
    const char* src;
    Acl::AclVerdict want;
  };
  using V = Acl::AclVerdict;
  const Case cases[] = {
      {"lower sequence wins though added later", Acl::AclType::ipv4,
       {{20, permit, "10.0.0.0/8"}, {10, deny, "10.1.2.0/24"}}, "10.1.2.3", V::deny},
      {"first rule misses, second holds", Acl::AclType::ipv4,
       {{10, deny, "10.1.2.0/24"}, {20, permit, "10.0.0.0/8"}}, "10.9.0.1", V::permit},
      {"no rule holds: implicit deny", Acl::AclType::ipv4, {{10, permit, "10.0.0.0/8"}}, "192.0.2.1", V::implicitDeny},
      {"empty list: implicit deny", Acl::AclType::ipv4, {}, "10.0.0.1", V::implicitDeny},
      {"default source holds any", Acl::AclType::ipv4, {{5, permit, nullptr}}, "198.51.100.7", V::permit},
      {"prefix bits beyond a byte", Acl::AclType::ipv4, {{10, deny, "10.0.0.0/9"}}, "10.128.0.1", V::implicitDeny},
      {"IPv6 rule match", Acl::AclType::ipv6, {{10, deny, "fe80::/10"}}, "fe80::1", V::deny},
      {"IPv6 any source", Acl::AclType::ipv6, {{10, permit, nullptr}}, "2001:db8::1", V::permit},
      {"IPv4 address in an IPv6 list", Acl::AclType::ipv6, {{10, permit, nullptr}}, "10.0.0.1", V::implicitDeny},
      {"IPv6 address in an IPv4 list", Acl::AclType::ipv4, {{10, permit, nullptr}}, "fe80::1", V::implicitDeny},
  };
  for (const Case& c : cases) {
    auto acls = Acl::aclTypeConfigFactory();
    auto list = acls->aclConfigIs("nbr", c.type);
    for (const Rule& r : c.rules) {
      if (c.type == Acl::AclType::ipv4) {
        list->ipRuleConfigIs(r.seq, {r.action, r.source ? Acl::IpFilter(prefix(r.source)) : Acl::IpFilter()});
      } else {
        list->ip6RuleConfigIs(r.seq, {r.action, r.source ? Acl::Ip6Filter(prefix(r.source)) : Acl::Ip6Filter()});
      }
    }
    EXPECT_EQ(acls->aclConfig("nbr")->sourceVerdict(addr(c.src)), c.want) << c.name;
  }
}

TEST(Acl, ListsByNameAndType) {
  auto acls = Acl::aclTypeConfigFactory();
  EXPECT_FALSE(acls->aclConfig("nbr"));
  auto v4 = acls->aclConfigIs("nbr", Acl::AclType::ipv4);
  v4->ipRuleConfigIs(10, {permit, Acl::IpFilter()});
  EXPECT_EQ(acls->aclConfigIs("nbr", Acl::AclType::ipv4), v4);
  // The same name as an IPv6 list is a new, empty list: the IPv4 rules could not apply.
  auto v6 = acls->aclConfigIs("nbr", Acl::AclType::ipv6);
  EXPECT_NE(v6, v4);
  EXPECT_EQ(v6->af(), Knet::AddressFamily::ipv6);
  EXPECT_EQ(v6->ruleCount(), 0u);
}

// ---- Multicast boundary ----

// eth1 and eth3 hold boundaries, eth2 none. A row's group is an address (filtered) or a range
// (filteredPrefix).
TEST(McastBoundary, FilteredByInterfaceFamilyAndGroup) {
  auto status = Routing::McastBoundary::statusFactory();
  const std::pair<const char*, std::vector<std::pair<const char*, bool>>> rules[] = {
      {"eth1", {{"239.1.0.0/16", true}, {"239.0.0.0/8", false}, {"224.0.0.0/4", true}, {"ff05::/16", false}}},
      {"eth3", {{"239.1.0.0/16", true}, {"239.1.2.0/24", false}, {"224.0.0.0/4", true}}},
  };
  for (const auto& [intf, list] : rules) {
    for (const auto& [p, permit] : list) status->softwareBoundaryStatusIs(intf)->ruleIs(prefix(p), permit);
  }
  auto eval = Routing::Pim::Boundary::mcastBoundaryFactory("PimIO", status);
  EXPECT_EQ(eval->name(), "PimIO");
  struct Case {
    const char* intf;
    const char* group;
    bool want;
  };
  const Case cases[] = {
      {"eth1", "239.2.0.1", true},
      {"eth1", "ff05::1", true},        // the IPv6 rules apply to IPv6 groups
      {"eth3", "ff0e::1", false},       // an IPv4-only boundary says nothing about IPv6 groups
      {"eth2", "239.2.0.1", false},     // no boundary on the interface
      {"eth1", "239.1.0.0/16", false},  // held whole by the permit
      {"eth1", "239.2.0.0/16", true},   // held whole by the deny
      {"eth1", "239.0.0.0/8", true},    // the first rule holding it whole denies
      {"eth1", "224.0.0.0/4", true},    // the deny of 239/8 lies inside it
      {"eth2", "239.0.0.0/8", false},
      {"eth3", "239.0.0.0/8", false},   // the deny inside is behind an earlier permit of all its groups
      {"eth3", "0.0.0.0/0", true},      // nothing denied inside, no rule holds it whole
  };
  for (const Case& c : cases) {
    const bool range = std::string(c.group).find('/') != std::string::npos;
    EXPECT_EQ(range ? eval->filteredPrefix(IntfId(c.intf), prefix(c.group)) : eval->filtered(IntfId(c.intf), addr(c.group)),
              c.want) << c.intf << " " << c.group;
  }
  EXPECT_FALSE(eval->intfBoundary(IntfId("eth3"), Knet::AddressFamily::ipv6));
  // The codec's boundary is a copy: changing it leaves the status alone.
  auto copy = eval->intfBoundary(IntfId("eth1"), Knet::AddressFamily::ipv4);
  ASSERT_TRUE(copy);
  EXPECT_TRUE(copy->filtered(addr("239.9.9.9")));
  copy->ruleDelAll();
  EXPECT_TRUE(eval->filtered(IntfId("eth1"), addr("239.9.9.9")));
  // Without a status nothing is filtered.
  auto none = Routing::Pim::Boundary::mcastBoundaryFactory("PimIO", nullptr);
  EXPECT_FALSE(none->filtered(IntfId("eth1"), addr("239.9.9.9")));
}

// ---- Notifications ----

struct StatusWatch : Routing::Pim::Status::Notifiee {
  std::vector<std::pair<std::string, bool>> seen;  // id, present in the collection at the call
  void onPimIntf(const IntfId& id) override { seen.emplace_back(id.name(), bool(notifier()->pimIntf(id))); }
};

TEST(PimStatus, OnPimIntfOnAddAndRemoveWithTheCollectionChanged) {
  auto status = Routing::Pim::statusFactory("red");
  EXPECT_EQ(status->vrfName(), "red");
  StatusWatch w;
  w.notifierIs(Loom::Ptr<const Routing::Pim::Status>(status));
  auto eth1 = status->pimIntfIs(IntfId("eth1"));
  EXPECT_EQ(status->pimIntfIs(IntfId("eth1")), eth1);  // found, not made again
  status->pimIntfIs(IntfId("eth2"));
  status->pimIntfDel(IntfId("eth3"));  // absent: nothing happens
  status->pimIntfDel(IntfId("eth1"));
  status->pimIntfIs(IntfId("eth4"));
  status->pimIntfDelAll();
  const std::vector<std::pair<std::string, bool>> want = {
      {"eth1", true}, {"eth2", true}, {"eth1", false}, {"eth4", true}, {"eth2", false}, {"eth4", false}};
  EXPECT_EQ(w.seen, want);
}

struct NeighborWatch : Routing::Pim::Intf::Notifiee {
  std::vector<IpGenAddr> seen;
  void onActiveNeighbor(const IpGenAddr& a) override { seen.push_back(a); }
};

TEST(PimIntf, OnActiveNeighborOnlyWhenANeighborBecomesActive) {
  struct Step {
    const char* addr;
    bool active;  // the call is neighborIs(addr, active)
    bool notified;
  };
  const Step steps[] = {
      {"10.0.0.2", false, false},  // known, not active
      {"10.0.0.2", true, true},    // becomes active
      {"10.0.0.2", true, false},   // stays active
      {"10.0.0.3", true, true},    // new and active at once
      {"10.0.0.3", false, false},  // no longer active
      {"10.0.0.3", true, true},    // active again
  };
  auto intf = Routing::Pim::intfFactory(IntfId("eth1"));
  NeighborWatch w;
  w.notifierIs(Loom::Ptr<const Routing::Pim::Intf>(intf));
  for (const Step& s : steps) {
    const size_t before = w.seen.size();
    intf->neighborIs(addr(s.addr), s.active);
    EXPECT_EQ(w.seen.size() - before, s.notified ? 1u : 0u) << s.addr << " " << s.active;
    if (s.notified && !w.seen.empty()) {
      EXPECT_EQ(w.seen.back(), addr(s.addr));
    }
    EXPECT_TRUE(intf->neighbor(addr(s.addr)));
    EXPECT_EQ(intf->neighborActive(addr(s.addr)), s.active);
  }
  intf->neighborDel(addr("10.0.0.2"));
  EXPECT_FALSE(intf->neighbor(addr("10.0.0.2")));
  EXPECT_FALSE(intf->neighborActive(addr("10.0.0.2")));
}

struct DirWatch : Interface::DeviceIntfStatusDir::Notifiee {
  std::vector<std::pair<std::string, U32>> seen;  // id, index the directory shows at the call
  void onIntfStatusAndDeviceName(const IntfId& id) override {
    seen.emplace_back(id.name(), notifier()->intfStatusAndDeviceName(id).ifIndex);
  }
};

TEST(DeviceIntfStatusDir, NotifiesRealChangesOnly) {
  struct Step {
    const char* id;
    U32 ifIndex;  // 0 with no name: the empty record (the device is gone)
    const char* device;
    bool notified;
  };
  const Step steps[] = {
      {"eth1", 0, "", false},     // already without a device
      {"eth1", 7, "veth1", true},
      {"eth1", 7, "veth1", false},
      {"eth1", 8, "veth1", true},  // new kernel index
      {"eth1", 8, "veth9", true},  // renamed device
      {"eth2", 9, "veth2", true},
      {"eth1", 0, "", true},       // device gone
  };
  auto dir = Interface::deviceIntfStatusDirFactory();
  DirWatch w;
  w.notifierIs(Loom::Ptr<const Interface::DeviceIntfStatusDir>(dir));
  for (const Step& s : steps) {
    const size_t before = w.seen.size();
    dir->intfStatusAndDeviceNameIs(IntfId(s.id), {s.ifIndex, s.device});
    ASSERT_EQ(w.seen.size() - before, s.notified ? 1u : 0u) << s.id << " " << s.ifIndex << " " << s.device;
    if (s.notified) {
      EXPECT_EQ(w.seen.back(), std::make_pair(std::string(s.id), s.ifIndex));
    }
  }
  EXPECT_TRUE(dir->intfStatusAndDeviceName(IntfId("eth1")).isEmpty());
  dir->intfStatusAndDeviceNameDelAll();
  EXPECT_EQ(w.seen.back(), std::make_pair(std::string("eth2"), 0u));
  EXPECT_TRUE(dir->intfStatusAndDeviceName().empty());
}

// ---- Attribute-log back-pressure ----

TEST(PimAttrLogSm, CloggedWhileTheOutputHoldsItsLimit) {
  auto log = Routing::Pim::pimAttrLogSmFactory();
  log->outLimitIs(3);
  log->outPendingInc(2);
  EXPECT_FALSE(log->isAttrLogOutClogged());
  log->outPendingInc();
  EXPECT_TRUE(log->isAttrLogOutClogged());
  log->outPendingDec();
  EXPECT_FALSE(log->isAttrLogOutClogged());
  log->outPendingDec(10);
  EXPECT_EQ(log->outPending(), 0u);
}

}  // namespace
