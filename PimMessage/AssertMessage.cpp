#include "PimMessage/AssertMessage.h"

#include "PimMessage/GroupSourceCodec.h"
#include "knet/Cursor.h"

namespace Routing::Pim::Packet {
namespace {

constexpr GroupSource::ReadTexts readTexts{
    "Invalid Pim Assert - Header - Parse Error",
    "Invalid Pim Assert - Group Address - Parse Error",
    "Invalid Pim Assert - Group Address - Invalid Family - Family: ",
    "Group Address: ",
    "Invalid Pim Assert - Group Address - Invalid Prefix - ",
    "Invalid Pim Assert - Source Address - Parse Error",
    "Invalid Pim Assert - Source Address - Invalid Family - Family: ",
    "Source Address: ",
    "Invalid Pim Assert - Source Address - Invalid Address - ",
};
constexpr GroupSource::WriteTexts writeTexts{
    "Invalid Pim Assert - Header - Unavailable Space - Remaining: ",
    "Invalid Pim Assert - Invalid Family - Family: ",
    "Invalid Pim Assert - Group Address - Write Error",
    "Invalid Pim Assert - Source Address - Write Error",
};
constexpr const char* kPreferenceLength = "Invalid Pim Assert - Metric Preference Length - Remaining: ";
constexpr const char* kMetricLength = "Invalid Pim Assert - Metric Length - Remaining: ";
constexpr const char* kEndOfMessage = "Invalid Pim Assert - End of Message - Remaining: ";
constexpr const char* kMetricSpace = "Invalid Pim Assert - Metric - Unavailable Space - Remaining: ";
constexpr const char* kWriteHeader = "Invalid Pim Assert - Header - Write Error";

}  // namespace

AssertMetricPreference AssertMetricPreference::fromString(std::string_view text) {
  return AssertMetricPreference(static_cast<U32>(boundedValueFromString(
      text, max, "AssertMetricPreference::value < AssertMetricPreference::min or > AssertMetricPreference::max not allowed",
      "AssertMetricPreference")));
}

AssertMessage::AssertMessage() : Message(Knet::pimAssert()) {}

Loom::Ptr<AssertMessage> assertMessageFactory() { return new AssertMessage; }

U32 AssertMessage::readAssertMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  GroupSource::Body body;
  const U32 at = GroupSource::read(*this, readTexts, pkt, offset, body);
  if (at == 0) return 0;
  group_ = body.group.address;
  groupFlags_ = body.group.flags;
  source_ = body.source;
  const S64 rest = S64(pkt->size()) - S64(at);
  if (rest <= 3) {
    PIM_TRACE(traceError, kPreferenceLength << rest << " Expected: " << 4);
    return 0;
  }
  Knet::PktReader r(pkt, at);
  implMetricPreference_ = r.readU32Be();
  if (rest - 4 < 4) {
    PIM_TRACE(traceError, kMetricLength << rest - 4 << " Expected: " << 4);
    return 0;
  }
  metric_ = r.readU32Be();
  if (rest != 8) {
    PIM_TRACE(traceError, kEndOfMessage << rest - 8);
    return 0;
  }
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return at + 8 - offset;
}

U32 AssertMessage::writeAssertMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const U32 at = GroupSource::write(*this, writeTexts, pkt, offset, GroupSource::Body{{group_, groupFlags_}, source_});
  if (at == 0) return 0;
  const S64 room = S64(pkt->size()) - S64(at);
  if (room <= 7) {
    PIM_TRACE(traceError, kMetricSpace << room << " Expected: " << 8);
    return 0;
  }
  Knet::PktWriter w(pkt, at);
  w.writeU32Be(implMetricPreference_);
  w.writeU32Be(metric_);
  lengthIs(at + 8 - offset);
  if (writeHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kWriteHeader);
    return 0;
  }
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return length();
}

}  // namespace Routing::Pim::Packet
