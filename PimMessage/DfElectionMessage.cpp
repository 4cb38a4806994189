#include "PimMessage/DfElectionMessage.h"

#include <array>
#include <sstream>

#include "PimMessage/EncodedAddress.h"
#include "knet/Cursor.h"
#include "loom/Assert.h"

namespace Routing::Pim::Packet {
namespace {

using T = DfElectionText;

constexpr std::array<TextRow<DfElectionText>, 38> texts{{
    {T::headerParse, "Invalid Pim DF Election - Header - Parse Error"},
    {T::rpParse, "Invalid Pim DF Election - RP Address - Parse Error"},
    {T::rpFamily, "Invalid Pim DF Election - RP Address - Invalid Family - Family: "},
    {T::rpInvalid, "Invalid Pim DF Election - RP Address - Invalid Address - "},
    {T::metricLength, "Invalid Pim DF Election - Metric and Metric Preference Length - Remaining: "},
    {T::writeHeader, "Invalid Pim DF Election - Header - Write Error"},
    {T::headerSpace, "Invalid Pim DF Election - Header - Unavailable Space - Remaining: "},
    {T::family, "Invalid Pim DF Election - Invalid Family - Family: "},
    {T::rpWrite, "Invalid Pim DF Election - RP Address - Write Error"},
    {T::metricSpace, "Invalid Pim DF Election - Metric and Metric Preference - Unavailable Space - Remaining: "},
    {T::offerRead, "Invalid Pim DF Election Offer - Read Error"},
    {T::offerWrite, "Invalid Pim DF Election Offer - Write Error"},
    {T::winnerRead, "Invalid Pim DF Election Winner - Read Error"},
    {T::winnerWrite, "Invalid Pim DF Election Winner - Write Error"},
    {T::backoffRead, "Invalid Pim DF Election Backoff - Read Error"},
    {T::offeringParse, "Invalid Pim DF Election Backoff - Offering Address - Parse Error"},
    {T::offeringFamily, "Invalid Pim DF Election Backoff - Offering Address - Invalid Family - Family: "},
    {T::offeringInvalid, "Invalid Pim DF Election Backoff - Offering Address - Invalid Address - "},
    {T::offeringLength, "Invalid Pim DF Election Backoff - Offering Metric and Metric Preference Length - Remaining: "},
    {T::backoffHeaderSpace, "Invalid Pim DF Election Backoff - Header - Unavailable Space - Remaining: "},
    {T::backoffFamily, "Invalid Pim DF Election Backoff - Invalid Family - Family: "},
    {T::backoffRpWrite, "Invalid Pim DF Election Backoff - RP Address - Write Error"},
    {T::backoffMetricSpace,
     "Invalid Pim DF Election Backoff - Metric and Metric Preference - Unavailable Space - Remaining: "},
    {T::offeringWrite, "Invalid Pim DF Election Backoff - Offering Address - Write Error"},
    {T::offeringTailSpace,
     "Invalid Pim DF Election Backoff - Offering Metric and Metric Preference - Unavailable Space - Remaining: "},
    {T::backoffHeaderWrite, "Invalid Pim DF Election Backoff - Header - Write Error"},
    {T::passRead, "Invalid Pim DF Election Pass - Read Error"},
    {T::winningParse, "Invalid Pim DF Election Pass - New Winning Address - Parse Error"},
    {T::winningFamily, "Invalid Pim DF Election Pass - New Winning Address - Invalid Family - Family: "},
    // The Pass's invalid-address text names Backoff.
    {T::winningInvalid, "Invalid Pim DF Election Backoff - New Winning Address - Invalid Address - "},
    {T::winningLength, "Invalid Pim DF Election Pass - New Winning Metric and Metric Preference Length - Remaining: "},
    {T::passHeaderSpace, "Invalid Pim DF Election Pass - Header - Unavailable Space - Remaining: "},
    {T::passFamily, "Invalid Pim DF Election Pass - Invalid Family - Family: "},
    {T::passRpWrite, "Invalid Pim DF Election Pass - RP Address - Write Error"},
    {T::passMetricSpace, "Invalid Pim DF Election Pass - Metric and Metric Preference - Unavailable Space - Remaining: "},
    {T::winningWrite, "Invalid Pim DF Election Pass - Winning Address - Write Error"},
    {T::winningTailSpace,
     "Invalid Pim DF Election Pass - Winning Metric and Metric Preference - Unavailable Space - Remaining: "},
    {T::passHeaderWrite, "Invalid Pim DF Election Pass - Header - Write Error"},
}};
static_assert(rowsInOrder(texts));

constexpr DfElectionMessage::WriteRows commonWriteRows{T::headerSpace, T::family, T::rpWrite, T::metricSpace};
constexpr DfElectionMessage::WriteRows backoffWriteRows{T::backoffHeaderSpace, T::backoffFamily, T::backoffRpWrite,
                                                        T::backoffMetricSpace};
constexpr DfElectionMessage::WriteRows passWriteRows{T::passHeaderSpace, T::passFamily, T::passRpWrite,
                                                     T::passMetricSpace};

// The address and metric that Backoff and Pass carry behind the common part.
struct Extension {
  T readError;
  T parse;
  T family;
  const char* familyName;
  T invalid;
  T length;
  U32 tail;  // bytes behind the address: the metric preference, the metric (and the interval)
  T addressWrite;
  T tailSpace;
  T headerWrite;
};
constexpr Extension backoffExtension{T::backoffRead,     T::offeringParse,  T::offeringFamily,
                                     "Offering Address: ", T::offeringInvalid, T::offeringLength,
                                     10,                 T::offeringWrite,  T::offeringTailSpace,
                                     T::backoffHeaderWrite};
constexpr Extension passExtension{T::passRead,     T::winningParse, T::winningFamily,   "New Winning Address: ",
                                  T::winningInvalid, T::winningLength, 8,               T::winningWrite,
                                  T::winningTailSpace, T::passHeaderWrite};

// Reads the extension's address under the cursor into `address` and checks the room for its
// tail; false after the failure is recorded on the message.
bool readExtensionAddress(const Message& m, const Extension& e, Knet::PktReader& r, Knet::IpGenAddr& address) {
  EncodedUnicastAddress enc;
  if (enc.read(r) == 0) {
    m.failureIs(enc.failure());
    return m.PIM_FAIL(e.parse);
  }
  if (enc.address().af() != m.af()) return m.PIM_FAIL(e.family, m.af(), e.familyName, enc.address());
  if (!enc.valid()) {
    m.failureIs(enc.failure());
    return m.PIM_FAIL(e.invalid, enc.address());
  }
  address = enc.address();
  if (r.remaining() < S64(e.tail)) return m.PIM_FAIL(e.length, r.remaining(), " Expected: ", e.tail);
  return true;
}

// Writes the extension's address under the cursor and checks the room for its tail; false after
// the failure is recorded on the message.
bool writeExtensionAddress(const Message& m, const Extension& e, Knet::PktWriter& w, const Knet::IpGenAddr& address) {
  EncodedUnicastAddress enc;
  enc.addressIs(address);
  if (enc.write(w) == 0) {
    m.failureIs(enc.failure());
    return m.PIM_FAIL(e.addressWrite);
  }
  if (w.remaining() < S64(e.tail)) return m.PIM_FAIL(e.tailSpace, w.remaining(), " Expected: ", e.tail);
  return true;
}

Routing::MetricPref readMetricPref(Knet::PktReader& r) {
  Routing::MetricPref p;
  p.metricPreference = r.readU32Be();
  p.metric = r.readU32Be();
  return p;
}

void writeMetricPref(Knet::PktWriter& w, const Routing::MetricPref& p) {
  w.writeU32Be(p.metricPreference);
  w.writeU32Be(p.metric);
}

constexpr const char* kTypeNames[] = {nullptr, "dfElectionOffer", "dfElectionWinner", "dfElectionBackoff",
                                      "dfElectionPass"};

}  // namespace

std::string_view textOf(DfElectionText row) { return texts[static_cast<size_t>(row)].text; }

// ======================================================================== subtype

std::ostream& operator<<(std::ostream& os, DfElectionMessageType t) {
  const unsigned v = static_cast<unsigned>(t);
  if (v >= 1 && v <= 4) return os << kTypeNames[v];
  return os << "dfElectionMessageType(" << v << ")";
}

std::string valueToStrep(DfElectionMessageType t) {
  std::ostringstream os;
  os << t;
  return os.str();
}

std::optional<DfElectionMessageType> dfElectionMessageTypeInstance(U32 value) {
  if (value < 1 || value > 4) return std::nullopt;
  return static_cast<DfElectionMessageType>(value);
}

std::optional<DfElectionMessageType> dfElectionMessageTypeInstance(std::string_view name) {
  for (U32 v = 1; v <= 4; ++v) {
    if (name == kTypeNames[v]) return static_cast<DfElectionMessageType>(v);
  }
  return std::nullopt;
}

// ======================================================================== common part

DfElectionMessage::DfElectionMessage() : Message(Knet::pimDfElection()) {}

Loom::Ptr<DfElectionMessage> dfElectionMessageFactory() { return new DfElectionMessage; }

void DfElectionMessage::subtypeIs(DfElectionMessageType t) {
  dfElectionMessageTypeIs(t);
  messageSubtypeIs(static_cast<U8>(t));
}

U32 DfElectionMessage::readDfElectionMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  if (readHeader(pkt, offset) == 0) return PIM_FAIL(T::headerParse);
  Knet::PktReader r(pkt, offset + 4);
  EncodedUnicastAddress rp;
  if (rp.read(r) == 0) {
    failureIs(rp.failure());
    return PIM_FAIL(T::rpParse);
  }
  if (rp.address().af() != af()) return PIM_FAIL(T::rpFamily, af(), "RP Address: ", rp.address());
  if (!rp.valid()) {
    failureIs(rp.failure());
    return PIM_FAIL(T::rpInvalid, rp.address());
  }
  rpAddress_ = rp.address();
  if (r.remaining() <= 7) return PIM_FAIL(T::metricLength, r.remaining(), " Expected: ", 8);
  senderMetricPref_ = readMetricPref(r);
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return r.offset() - offset;
}

bool DfElectionMessage::writeCommon(Knet::PktWriter& w, const WriteRows& t, const Knet::IpGenAddr* extra,
                                    const char* extraName) {
  if (w.remaining() <= 3) return PIM_FAIL(t.headerSpace, w.remaining());
  const Knet::AddressFamily family = af();
  if (rpAddress_.af() != family) return PIM_FAIL(t.family, rpAddress_.af(), " RP Address: ", rpAddress_);
  if (extra && extra->af() != family) return PIM_FAIL(t.family, extra->af(), extraName, *extra);
  w.skip(4);
  EncodedUnicastAddress rp;
  rp.addressIs(rpAddress_);
  if (rp.write(w) == 0) {
    failureIs(rp.failure());
    return PIM_FAIL(t.rpWrite);
  }
  if (w.remaining() <= 7) return PIM_FAIL(t.metricSpace, w.remaining(), " Expected: ", 8);
  writeMetricPref(w, senderMetricPref_);
  return true;
}

U32 DfElectionMessage::writeDfElectionMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  failureClear();
  Knet::PktWriter w(pkt, offset);
  if (!writeCommon(w, commonWriteRows)) return 0;
  lengthIs(w.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return PIM_FAIL(T::writeHeader);
  return length();
}

// ======================================================================== Offer and Winner

Loom::Ptr<DfElectionOfferMessage> dfElectionOfferMessageFactory() { return new DfElectionOfferMessage; }
Loom::Ptr<DfElectionWinnerMessage> dfElectionWinnerMessageFactory() { return new DfElectionWinnerMessage; }

U32 DfElectionOfferMessage::readDfElectionOfferMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const U32 n = readDfElectionMessage(pkt, offset);
  if (n == 0) return PIM_FAIL(T::offerRead);
  LOOM_ASSERT(dfElectionMessageType() == dfElectionOffer(), "dfElectionMessageType() == dfElectionOffer()");
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return n;
}

U32 DfElectionOfferMessage::writeDfElectionOfferMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_ASSERT(dfElectionMessageType() == dfElectionOffer(), "dfElectionMessageType() == dfElectionOffer()");
  const U32 n = writeDfElectionMessage(pkt, offset);
  if (n == 0) return PIM_FAIL(T::offerWrite);
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return n;
}

U32 DfElectionWinnerMessage::readDfElectionWinnerMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const U32 n = readDfElectionMessage(pkt, offset);
  if (n == 0) return PIM_FAIL(T::winnerRead);
  LOOM_ASSERT(dfElectionMessageType() == dfElectionWinner(), "dfElectionMessageType() == dfElectionWinner()");
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return n;
}

U32 DfElectionWinnerMessage::writeDfElectionWinnerMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_ASSERT(dfElectionMessageType() == dfElectionWinner(), "dfElectionMessageType() == dfElectionWinner()");
  const U32 n = writeDfElectionMessage(pkt, offset);
  if (n == 0) return PIM_FAIL(T::winnerWrite);
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return n;
}

// ======================================================================== Backoff

Loom::Ptr<DfElectionBackoffMessage> dfElectionBackoffMessageFactory() { return new DfElectionBackoffMessage; }

U32 DfElectionBackoffMessage::readDfElectionBackoffMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const Extension& e = backoffExtension;
  const U32 n = readDfElectionMessage(pkt, offset);
  if (n == 0) return PIM_FAIL(e.readError);
  LOOM_ASSERT(dfElectionMessageType() == dfElectionBackoff(), "dfElectionMessageType() == dfElectionBackoff()");
  Knet::PktReader r(pkt, offset + n);
  if (!readExtensionAddress(*this, e, r, offeringAddress_)) return 0;
  offeringMetricPref_ = readMetricPref(r);
  interval_ = r.readU16Be();
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return r.offset() - offset;
}

U32 DfElectionBackoffMessage::writeDfElectionBackoffMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_ASSERT(dfElectionMessageType() == dfElectionBackoff(), "dfElectionMessageType() == dfElectionBackoff()");
  const Extension& e = backoffExtension;
  failureClear();
  Knet::PktWriter w(pkt, offset);
  if (!writeCommon(w, backoffWriteRows, &offeringAddress_, " Offering Address: ")) return 0;
  if (!writeExtensionAddress(*this, e, w, offeringAddress_)) return 0;
  writeMetricPref(w, offeringMetricPref_);
  w.writeU16Be(interval_);
  lengthIs(w.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return PIM_FAIL(e.headerWrite);
  return length();
}

// ======================================================================== Pass

Loom::Ptr<DfElectionPassMessage> dfElectionPassMessageFactory() { return new DfElectionPassMessage; }

U32 DfElectionPassMessage::readDfElectionPassMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const Extension& e = passExtension;
  const U32 n = readDfElectionMessage(pkt, offset);
  if (n == 0) return PIM_FAIL(e.readError);
  LOOM_ASSERT(dfElectionMessageType() == dfElectionPass(), "dfElectionMessageType() == dfElectionPass()");
  Knet::PktReader r(pkt, offset + n);
  if (!readExtensionAddress(*this, e, r, winningAddress_)) return 0;
  winningMetricPref_ = readMetricPref(r);
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return r.offset() - offset;
}

U32 DfElectionPassMessage::writeDfElectionPassMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_ASSERT(dfElectionMessageType() == dfElectionPass(), "dfElectionMessageType() == dfElectionPass()");
  const Extension& e = passExtension;
  failureClear();
  Knet::PktWriter w(pkt, offset);
  if (!writeCommon(w, passWriteRows, &winningAddress_, " Winning Address: ")) return 0;
  if (!writeExtensionAddress(*this, e, w, winningAddress_)) return 0;
  writeMetricPref(w, winningMetricPref_);
  lengthIs(w.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return PIM_FAIL(e.headerWrite);
  return length();
}

}  // namespace Routing::Pim::Packet
