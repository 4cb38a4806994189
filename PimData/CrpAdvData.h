#pragma once
// The group ranges that a Candidate-RP Advertisement carries. The decoder fills them from a
// received message; the agent fills them for the encoder.
#include <vector>

#include "knet/Address.h"
#include "loom/Entity.h"

namespace Routing::Pim {

// One advertised group range.
class CrpGroupInfo : public Loom::Entity {
 public:
  explicit CrpGroupInfo(const Knet::IpGenPrefix& prefix) : prefix_(prefix) {}
  const Knet::IpGenPrefix& prefix() const { return prefix_; }
  // The encoded group's flags byte; bit 0 (0x01) is the zone (Z) flag of an admin-scoped range.
  U8 groupFlags() const { return groupFlags_; }
  void groupFlagsIs(U8 v) { groupFlags_ = v; }
  bool zone() const { return groupFlags_ & 0x01; }

 private:
  Knet::IpGenPrefix prefix_;
  U8 groupFlags_ = 0;
};

// The advertised ranges by prefix, in the order they were added (a received message's wire
// order, so that it is written back as it came).
class CrpGroupData : public Loom::Entity {
 public:
  using GroupInfo = std::vector<Loom::Ptr<CrpGroupInfo>>;
  static Loom::Ptr<CrpGroupData> CrpGroupDataIs();

  const GroupInfo& groupInfo() const { return groupInfo_; }
  // The range of the prefix, or null.
  CrpGroupInfo* groupInfo(const Knet::IpGenPrefix& prefix) const;
  // The range of the prefix, made if it is new.
  CrpGroupInfo& groupInfoIs(const Knet::IpGenPrefix& prefix);
  void groupInfoDel(const Knet::IpGenPrefix& prefix);
  void groupInfoDelAll() { groupInfo_.clear(); }

 private:
  GroupInfo groupInfo_;
};
Loom::Ptr<CrpGroupData> crpGroupDataFactory();

}  // namespace Routing::Pim
