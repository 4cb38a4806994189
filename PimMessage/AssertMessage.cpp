#include "PimMessage/AssertMessage.h"

#include <array>

#include "PimMessage/GroupSourceCodec.h"
#include "knet/Cursor.h"

namespace Routing::Pim::Packet {
namespace {

using T = AssertText;

constexpr std::array<TextRow<AssertText>, 16> texts{{
    {T::headerParse, "Invalid Pim Assert - Header - Parse Error"},
    {T::groupParse, "Invalid Pim Assert - Group Address - Parse Error"},
    {T::groupFamily, "Invalid Pim Assert - Group Address - Invalid Family - Family: "},
    {T::groupPrefix, "Invalid Pim Assert - Group Address - Invalid Prefix - "},
    {T::sourceParse, "Invalid Pim Assert - Source Address - Parse Error"},
    {T::sourceFamily, "Invalid Pim Assert - Source Address - Invalid Family - Family: "},
    {T::sourceInvalid, "Invalid Pim Assert - Source Address - Invalid Address - "},
    {T::preferenceLength, "Invalid Pim Assert - Metric Preference Length - Remaining: "},
    {T::metricLength, "Invalid Pim Assert - Metric Length - Remaining: "},
    {T::endOfMessage, "Invalid Pim Assert - End of Message - Remaining: "},
    {T::writeHeaderSpace, "Invalid Pim Assert - Header - Unavailable Space - Remaining: "},
    {T::writeFamily, "Invalid Pim Assert - Invalid Family - Family: "},
    {T::groupWrite, "Invalid Pim Assert - Group Address - Write Error"},
    {T::sourceWrite, "Invalid Pim Assert - Source Address - Write Error"},
    {T::metricSpace, "Invalid Pim Assert - Metric - Unavailable Space - Remaining: "},
    {T::writeHeader, "Invalid Pim Assert - Header - Write Error"},
}};
static_assert(rowsInOrder(texts));

constexpr GroupSource::ReadRows readRows{
    T::groupParse,  T::groupFamily,  "Group Address: ",  T::groupPrefix,
    T::sourceParse, T::sourceFamily, "Source Address: ", T::sourceInvalid,
};
constexpr GroupSource::WriteRows writeRows{T::writeHeaderSpace, T::writeFamily, T::groupWrite, T::sourceWrite};

}  // namespace

std::string_view textOf(AssertText row) { return texts[static_cast<size_t>(row)].text; }

AssertMetricPreference AssertMetricPreference::fromString(std::string_view text) {
  return AssertMetricPreference(static_cast<U32>(boundedValueFromString(
      text, max, "AssertMetricPreference::value < AssertMetricPreference::min or > AssertMetricPreference::max not allowed",
      "AssertMetricPreference")));
}

AssertMessage::AssertMessage() : Message(Knet::pimAssert()) {}

Loom::Ptr<AssertMessage> assertMessageFactory() { return new AssertMessage; }

U32 AssertMessage::readAssertMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  if (readHeader(pkt, offset) == 0) return PIM_FAIL(T::headerParse);
  Knet::PktReader r(pkt, offset + 4);
  GroupSource::Body body;
  if (!GroupSource::read(*this, readRows, r, body)) return 0;
  group_ = body.group.address;
  groupFlags_ = body.group.flags;
  source_ = body.source;
  if (r.remaining() <= 3) return PIM_FAIL(T::preferenceLength, r.remaining(), " Expected: ", 4);
  implMetricPreference_ = r.readU32Be();
  if (r.remaining() < 4) return PIM_FAIL(T::metricLength, r.remaining(), " Expected: ", 4);
  metric_ = r.readU32Be();
  if (!r.atEnd()) return PIM_FAIL(T::endOfMessage, r.remaining());
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return r.offset() - offset;
}

U32 AssertMessage::writeAssertMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  failureClear();
  Knet::PktWriter w(pkt, offset);
  if (!GroupSource::write(*this, writeRows, w, GroupSource::Body{{group_, groupFlags_}, source_})) return 0;
  if (w.remaining() <= 7) return PIM_FAIL(T::metricSpace, w.remaining(), " Expected: ", 8);
  w.writeU32Be(implMetricPreference_);
  w.writeU32Be(metric_);
  lengthIs(w.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return PIM_FAIL(T::writeHeader);
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return length();
}

}  // namespace Routing::Pim::Packet
