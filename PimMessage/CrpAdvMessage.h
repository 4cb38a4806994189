#pragma once
// The Candidate-RP Advertisement (PIM type 8, RFC 5059 3.2), sent by unicast from a candidate RP
// to the BSR: the RP's address, priority and holdtime and the group ranges it serves. The decoder
// requires as many ranges as the prefix count says; a range with the admin-scope zone flag is
// accepted and logged. The encoder refuses a message whose ranges mix scopes, whose prefix count
// is 0 or whose prefix count disagrees with its ranges. The ranges are the records of
// PimData/CrpAdvData.h.
#include <ostream>
#include <string_view>

#include "PimData/CrpAdvData.h"
#include "PimData/PimFlags.h"
#include "PimMessage/Message.h"
#include "knet/Cursor.h"

namespace Routing::Pim::Packet {

using Routing::Pim::CrpGroupData;
using Routing::Pim::CrpGroupInfo;
using Routing::Pim::crpGroupDataFactory;

// The rows of the Candidate-RP Advertisement's text table: the failures of a read or write.
enum class CrpAdvText : U8 {
  headerParse,
  parse,
  rpParse,
  rpFamily,
  rpInvalid,
  mallocFailure,
  groupParse,
  groupFamily,
  groupInvalid,
  groupDuplicate,
  countMismatch,
  cleaningUp,
  headerSpace,
  fixedSpace,
  prefixCount,
  prefixCountMismatch,
  writeFamily,
  rpWrite,
  invalidScope,
  groupWrite,
  headerWrite,
};
template <>
inline constexpr TextTable textTableOf<CrpAdvText> = TextTable::crpAdv;
std::string_view textOf(CrpAdvText row);

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
  bool readRanges(Knet::PktReader& r, CrpGroupData& data);

  U8 prefixCount_ = 0;
  U8 priority_ = 0;
  U16 holdtime_ = 0;
  Knet::IpGenAddr rpAddress_;
  Loom::Ptr<CrpGroupData> groupData_;
};
Loom::Ptr<CrpAdvMessage> crpAdvMessageFactory();
std::ostream& operator<<(std::ostream& os, const CrpAdvMessage* m);

}  // namespace Routing::Pim::Packet
