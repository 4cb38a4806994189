#pragma once
// The Candidate-RP Advertisement (PIM type 8, RFC 5059 3.2), sent by unicast from a candidate RP
// to the BSR: the RP's address, priority and holdtime and the group ranges it serves. The decoder
// requires as many ranges as the prefix count says; a range with the admin-scope zone flag is
// accepted and logged. The encoder refuses a message whose ranges mix scopes, whose prefix count
// is 0 or whose prefix count disagrees with its ranges.
#include <ostream>
#include <vector>

#include "PimData/PimFlags.h"
#include "PimMessage/Message.h"

namespace Routing::Pim::Packet {

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

class CrpAdvMessage : public Message {
 public:
  CrpAdvMessage();
  static const char* fwkType() { return "Routing::Pim::Packet::CrpAdvMessage"; }

  U8 prefixCount() const { return prefixCount_; }
  void prefixCountIs(U8 v) { prefixCount_ = v; }
  U8 priority() const { return priority_; }
  void priorityIs(U8 v) { priority_ = v; }
  U16 holdtime() const { return holdtime_; }
  void holdtimeIs(U16 v) { holdtime_ = v; }
  const Knet::IpGenAddr& rpAddress() const { return rpAddress_; }
  void rpAddressIs(const Knet::IpGenAddr& v) { rpAddress_ = v; }
  const Loom::Ptr<CrpGroupData>& groupData() const { return groupData_; }
  void groupDataIs(const Loom::Ptr<CrpGroupData>& v) { groupData_ = v; }

  // Reads the message at offset: the bytes read, header included, or 0.
  U32 readCrpAdvMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  // Writes the message at offset: the bytes written, header included, or 0.
  U32 writeCrpAdvMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);

  void print(std::ostream& os) const override;

 private:
  U32 readRanges(const Loom::Ptr<Knet::Pkt>& pkt, U32 pos, CrpGroupData& data);

  U8 prefixCount_ = 0;
  U8 priority_ = 0;
  U16 holdtime_ = 0;
  Knet::IpGenAddr rpAddress_;
  Loom::Ptr<CrpGroupData> groupData_;
};
Loom::Ptr<CrpAdvMessage> crpAdvMessageFactory();
std::ostream& operator<<(std::ostream& os, const CrpAdvMessage* m);

}  // namespace Routing::Pim::Packet
