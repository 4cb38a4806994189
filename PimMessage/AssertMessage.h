#pragma once
// The Assert message (PIM type 5, RFC 7761 4.9.6): a group, a source, the RPT bit, the metric
// preference and the metric with which the routers of a LAN elect its forwarder. The read is
// strict: the group must be a multicast host address of the message's family, the source of the
// same family and not multicast (zero for a (*,G) assert), and nothing may follow the metric.
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "PimData/PimFlags.h"
#include "PimMessage/Message.h"

namespace Routing::Pim::Packet {

// The rows of the Assert's text table.
enum class AssertText : U8 {
  headerParse,
  groupParse,
  groupFamily,
  groupPrefix,
  sourceParse,
  sourceFamily,
  sourceInvalid,
  preferenceLength,
  metricLength,
  endOfMessage,
  writeHeaderSpace,
  writeFamily,
  groupWrite,
  sourceWrite,
  metricSpace,
  writeHeader,
};
template <>
inline constexpr TextTable textTableOf<AssertText> = TextTable::assertMessage;
std::string_view textOf(AssertText row);

// A metric preference, 0 to 2^31 - 1.
class AssertMetricPreference {
 public:
  static constexpr U32 min = 0;
  static constexpr U32 max = 2147483647;
  constexpr AssertMetricPreference() = default;
  constexpr explicit AssertMetricPreference(U32 v) : value_(v) {}
  constexpr U32 value() const { return value_; }
  // Parses a decimal value; one outside min..max raises Loom::RangeException, anything that is
  // not a number std::invalid_argument.
  static AssertMetricPreference fromString(std::string_view text);
  friend constexpr bool operator==(AssertMetricPreference, AssertMetricPreference) = default;

 private:
  U32 value_ = 0;
};
std::ostream& operator<<(std::ostream& os, AssertMetricPreference p);
std::string valueToStrep(AssertMetricPreference p);

// The word on the wire: the R (RPT) bit in bit 31, the metric preference in bits 0 to 30.
using AssertImplMetricPreference = U32;

class AssertMessage : public Message {
 public:
  static constexpr U32 rptBit = 0x80000000u;

  AssertMessage();
  static const char* fwkType() { return "Routing::Pim::Packet::AssertMessage"; }

  const Knet::IpGenAddr& group() const { return group_; }
  void groupIs(const Knet::IpGenAddr& v) { group_ = v; }
  GroupFlags groupFlags() const { return groupFlags_; }
  void groupFlagsIs(GroupFlags v) { groupFlags_ = v; }
  // A zero address of the family for a (*,G) assert.
  const Knet::IpGenAddr& source() const { return source_; }
  void sourceIs(const Knet::IpGenAddr& v) { source_ = v; }
  AssertImplMetricPreference implMetricPreference() const { return implMetricPreference_; }
  void implMetricPreferenceIs(AssertImplMetricPreference v) { implMetricPreference_ = v; }
  U32 metric() const { return metric_; }
  void metricIs(U32 v) { metric_ = v; }

  bool rpt() const { return implMetricPreference_ & rptBit; }
  void rptIs(bool v) { implMetricPreference_ = (implMetricPreference_ & ~rptBit) | (v ? rptBit : 0); }
  AssertMetricPreference metricPreference() const { return AssertMetricPreference(implMetricPreference_ & ~rptBit); }
  // Keeps the low 31 bits of the value and the R bit as it was.
  void metricPreferenceIs(AssertMetricPreference p) {
    implMetricPreference_ = (implMetricPreference_ & rptBit) | (p.value() & ~rptBit);
  }

  // Reads the message at offset: the bytes read (header, both addresses, 8), or 0.
  U32 readAssertMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  // Writes the message at offset: the bytes written, or 0.
  U32 writeAssertMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);

  void print(std::ostream& os) const override;

 private:
  Knet::IpGenAddr group_;
  GroupFlags groupFlags_;
  Knet::IpGenAddr source_;
  AssertImplMetricPreference implMetricPreference_ = 0;
  U32 metric_ = 0;
};

Loom::Ptr<AssertMessage> assertMessageFactory();
std::ostream& operator<<(std::ostream& os, const AssertMessage* m);

}  // namespace Routing::Pim::Packet
