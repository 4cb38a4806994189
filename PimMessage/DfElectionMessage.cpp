#include "PimMessage/DfElectionMessage.h"

#include <sstream>

#include "PimMessage/EncodedAddress.h"
#include "knet/Cursor.h"
#include "loom/Assert.h"

namespace Routing::Pim::Packet {
namespace {

constexpr const char* kHeaderParse = "Invalid Pim DF Election - Header - Parse Error";
constexpr const char* kRpParse = "Invalid Pim DF Election - RP Address - Parse Error";
constexpr const char* kRpFamily = "Invalid Pim DF Election - RP Address - Invalid Family - Family: ";
constexpr const char* kRpInvalid = "Invalid Pim DF Election - RP Address - Invalid Address - ";
constexpr const char* kMetricLength = "Invalid Pim DF Election - Metric and Metric Preference Length - Remaining: ";
constexpr const char* kWriteHeader = "Invalid Pim DF Election - Header - Write Error";

constexpr DfElectionMessage::WriteTexts commonWriteTexts{
    "Invalid Pim DF Election - Header - Unavailable Space - Remaining: ",
    "Invalid Pim DF Election - Invalid Family - Family: ",
    "Invalid Pim DF Election - RP Address - Write Error",
    "Invalid Pim DF Election - Metric and Metric Preference - Unavailable Space - Remaining: ",
};
constexpr DfElectionMessage::WriteTexts backoffWriteTexts{
    "Invalid Pim DF Election Backoff - Header - Unavailable Space - Remaining: ",
    "Invalid Pim DF Election Backoff - Invalid Family - Family: ",
    "Invalid Pim DF Election Backoff - RP Address - Write Error",
    "Invalid Pim DF Election Backoff - Metric and Metric Preference - Unavailable Space - Remaining: ",
};
constexpr DfElectionMessage::WriteTexts passWriteTexts{
    "Invalid Pim DF Election Pass - Header - Unavailable Space - Remaining: ",
    "Invalid Pim DF Election Pass - Invalid Family - Family: ",
    "Invalid Pim DF Election Pass - RP Address - Write Error",
    "Invalid Pim DF Election Pass - Metric and Metric Preference - Unavailable Space - Remaining: ",
};

// The address and metric that Backoff and Pass carry behind the common part.
struct Extension {
  const char* readError;
  const char* parse;
  const char* family;
  const char* familyName;
  const char* invalid;
  const char* length;
  U32 tail;  // bytes behind the address: the metric preference, the metric (and the interval)
  const char* addressWrite;
  const char* tailSpace;
  const char* headerWrite;
};
constexpr Extension backoffExtension{
    "Invalid Pim DF Election Backoff - Read Error",
    "Invalid Pim DF Election Backoff - Offering Address - Parse Error",
    "Invalid Pim DF Election Backoff - Offering Address - Invalid Family - Family: ",
    "Offering Address: ",
    "Invalid Pim DF Election Backoff - Offering Address - Invalid Address - ",
    "Invalid Pim DF Election Backoff - Offering Metric and Metric Preference Length - Remaining: ",
    10,
    "Invalid Pim DF Election Backoff - Offering Address - Write Error",
    "Invalid Pim DF Election Backoff - Offering Metric and Metric Preference - Unavailable Space - Remaining: ",
    "Invalid Pim DF Election Backoff - Header - Write Error",
};
// The Pass's invalid-address text names Backoff.
constexpr Extension passExtension{
    "Invalid Pim DF Election Pass - Read Error",
    "Invalid Pim DF Election Pass - New Winning Address - Parse Error",
    "Invalid Pim DF Election Pass - New Winning Address - Invalid Family - Family: ",
    "New Winning Address: ",
    "Invalid Pim DF Election Backoff - New Winning Address - Invalid Address - ",
    "Invalid Pim DF Election Pass - New Winning Metric and Metric Preference Length - Remaining: ",
    8,
    "Invalid Pim DF Election Pass - Winning Address - Write Error",
    "Invalid Pim DF Election Pass - Winning Metric and Metric Preference - Unavailable Space - Remaining: ",
    "Invalid Pim DF Election Pass - Header - Write Error",
};

// Reads the extension's address at `at` into `address`; returns its size, or 0 after a trace.
U32 readExtensionAddress(const Message& m, const Extension& e, const Loom::Ptr<Knet::Pkt>& pkt, U32 at,
                         Knet::IpGenAddr& address) {
  EncodedUnicastAddress enc;
  const U32 n = enc.readUnicastAddress(pkt, at);
  if (n == 0) {
    PIM_TRACE(traceError, e.parse);
    return 0;
  }
  if (enc.address().af() != m.af()) {
    PIM_TRACE(traceError, e.family << m.af() << e.familyName << enc.address());
    return 0;
  }
  if (!enc.valid()) {
    PIM_TRACE(traceError, e.invalid << enc.address());
    return 0;
  }
  address = enc.address();
  const S64 remaining = S64(pkt->size()) - S64(at) - S64(n);
  if (remaining < S64(e.tail)) {
    PIM_TRACE(traceError, e.length << remaining << " Expected: " << e.tail);
    return 0;
  }
  return n;
}

// Writes the extension's address at `at` and checks the room for its tail: the address's size,
// or 0 after a trace.
U32 writeExtensionAddress(const Extension& e, const Loom::Ptr<Knet::Pkt>& pkt, U32 at, const Knet::IpGenAddr& address) {
  EncodedUnicastAddress enc;
  enc.addressIs(address);
  const U32 n = enc.writeUnicastAddress(pkt, at);
  if (n == 0) {
    PIM_TRACE(traceError, e.addressWrite);
    return 0;
  }
  const S64 remaining = S64(pkt->size()) - S64(at) - S64(n);
  if (remaining < S64(e.tail)) {
    PIM_TRACE(traceError, e.tailSpace << remaining << " Expected: " << e.tail);
    return 0;
  }
  return n;
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
  if (readHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kHeaderParse);
    return 0;
  }
  EncodedUnicastAddress rp;
  const U32 rpLen = rp.readUnicastAddress(pkt, offset + 4);
  if (rpLen == 0) {
    PIM_TRACE(traceError, kRpParse);
    return 0;
  }
  if (rp.address().af() != af()) {
    PIM_TRACE(traceError, kRpFamily << af() << "RP Address: " << rp.address());
    return 0;
  }
  if (!rp.valid()) {
    PIM_TRACE(traceError, kRpInvalid << rp.address());
    return 0;
  }
  rpAddress_ = rp.address();
  const S64 remaining = S64(pkt->size()) - S64(offset) - 4 - S64(rpLen);
  if (remaining <= 7) {
    PIM_TRACE(traceError, kMetricLength << remaining << " Expected: " << 8);
    return 0;
  }
  Knet::PktReader r(pkt, offset + 4 + rpLen);
  senderMetricPref_ = readMetricPref(r);
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return 4 + rpLen + 8;
}

U32 DfElectionMessage::writeCommon(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset, const WriteTexts& t,
                                   const Knet::IpGenAddr* extra, const char* extraName) {
  const S64 remaining = S64(pkt->size()) - S64(offset);
  if (remaining <= 3) {
    PIM_TRACE(traceError, t.headerSpace << remaining);
    return 0;
  }
  const Knet::AddressFamily family = af();
  if (rpAddress_.af() != family) {
    PIM_TRACE(traceError, t.family << rpAddress_.af() << " RP Address: " << rpAddress_);
    return 0;
  }
  if (extra && extra->af() != family) {
    PIM_TRACE(traceError, t.family << extra->af() << extraName << *extra);
    return 0;
  }
  EncodedUnicastAddress rp;
  rp.addressIs(rpAddress_);
  const U32 rpLen = rp.writeUnicastAddress(pkt, offset + 4);
  if (rpLen == 0) {
    PIM_TRACE(traceError, t.rpWrite);
    return 0;
  }
  const S64 room = remaining - 4 - S64(rpLen);
  if (room <= 7) {
    PIM_TRACE(traceError, t.metricSpace << room << " Expected: " << 8);
    return 0;
  }
  Knet::PktWriter w(pkt, offset + 4 + rpLen);
  writeMetricPref(w, senderMetricPref_);
  return 4 + rpLen + 8;
}

U32 DfElectionMessage::writeDfElectionMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const U32 n = writeCommon(pkt, offset, commonWriteTexts);
  if (n == 0) return 0;
  lengthIs(n);
  if (writeHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kWriteHeader);
    return 0;
  }
  return n;
}

// ======================================================================== Offer and Winner

Loom::Ptr<DfElectionOfferMessage> dfElectionOfferMessageFactory() { return new DfElectionOfferMessage; }
Loom::Ptr<DfElectionWinnerMessage> dfElectionWinnerMessageFactory() { return new DfElectionWinnerMessage; }

U32 DfElectionOfferMessage::readDfElectionOfferMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const U32 n = readDfElectionMessage(pkt, offset);
  if (n == 0) {
    PIM_TRACE(traceError, "Invalid Pim DF Election Offer - Read Error");
    return 0;
  }
  LOOM_ASSERT(dfElectionMessageType() == dfElectionOffer(), "dfElectionMessageType() == dfElectionOffer()");
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return n;
}

U32 DfElectionOfferMessage::writeDfElectionOfferMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_ASSERT(dfElectionMessageType() == dfElectionOffer(), "dfElectionMessageType() == dfElectionOffer()");
  const U32 n = writeDfElectionMessage(pkt, offset);
  if (n == 0) {
    PIM_TRACE(traceError, "Invalid Pim DF Election Offer - Write Error");
    return 0;
  }
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return n;
}

U32 DfElectionWinnerMessage::readDfElectionWinnerMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const U32 n = readDfElectionMessage(pkt, offset);
  if (n == 0) {
    PIM_TRACE(traceError, "Invalid Pim DF Election Winner - Read Error");
    return 0;
  }
  LOOM_ASSERT(dfElectionMessageType() == dfElectionWinner(), "dfElectionMessageType() == dfElectionWinner()");
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return n;
}

U32 DfElectionWinnerMessage::writeDfElectionWinnerMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_ASSERT(dfElectionMessageType() == dfElectionWinner(), "dfElectionMessageType() == dfElectionWinner()");
  const U32 n = writeDfElectionMessage(pkt, offset);
  if (n == 0) {
    PIM_TRACE(traceError, "Invalid Pim DF Election Winner - Write Error");
    return 0;
  }
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return n;
}

// ======================================================================== Backoff

Loom::Ptr<DfElectionBackoffMessage> dfElectionBackoffMessageFactory() { return new DfElectionBackoffMessage; }

U32 DfElectionBackoffMessage::readDfElectionBackoffMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const Extension& e = backoffExtension;
  const U32 n = readDfElectionMessage(pkt, offset);
  if (n == 0) {
    PIM_TRACE(traceError, e.readError);
    return 0;
  }
  LOOM_ASSERT(dfElectionMessageType() == dfElectionBackoff(), "dfElectionMessageType() == dfElectionBackoff()");
  const U32 addressLen = readExtensionAddress(*this, e, pkt, offset + n, offeringAddress_);
  if (addressLen == 0) return 0;
  Knet::PktReader r(pkt, offset + n + addressLen);
  offeringMetricPref_ = readMetricPref(r);
  interval_ = r.readU16Be();
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return n + addressLen + e.tail;
}

U32 DfElectionBackoffMessage::writeDfElectionBackoffMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_ASSERT(dfElectionMessageType() == dfElectionBackoff(), "dfElectionMessageType() == dfElectionBackoff()");
  const Extension& e = backoffExtension;
  const U32 n = writeCommon(pkt, offset, backoffWriteTexts, &offeringAddress_, " Offering Address: ");
  if (n == 0) return 0;
  const U32 addressLen = writeExtensionAddress(e, pkt, offset + n, offeringAddress_);
  if (addressLen == 0) return 0;
  Knet::PktWriter w(pkt, offset + n + addressLen);
  writeMetricPref(w, offeringMetricPref_);
  w.writeU16Be(interval_);
  lengthIs(n + addressLen + e.tail);
  if (writeHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, e.headerWrite);
    return 0;
  }
  return length();
}

// ======================================================================== Pass

Loom::Ptr<DfElectionPassMessage> dfElectionPassMessageFactory() { return new DfElectionPassMessage; }

U32 DfElectionPassMessage::readDfElectionPassMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  const Extension& e = passExtension;
  const U32 n = readDfElectionMessage(pkt, offset);
  if (n == 0) {
    PIM_TRACE(traceError, e.readError);
    return 0;
  }
  LOOM_ASSERT(dfElectionMessageType() == dfElectionPass(), "dfElectionMessageType() == dfElectionPass()");
  const U32 addressLen = readExtensionAddress(*this, e, pkt, offset + n, winningAddress_);
  if (addressLen == 0) return 0;
  Knet::PktReader r(pkt, offset + n + addressLen);
  winningMetricPref_ = readMetricPref(r);
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return n + addressLen + e.tail;
}

U32 DfElectionPassMessage::writeDfElectionPassMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_ASSERT(dfElectionMessageType() == dfElectionPass(), "dfElectionMessageType() == dfElectionPass()");
  const Extension& e = passExtension;
  const U32 n = writeCommon(pkt, offset, passWriteTexts, &winningAddress_, " Winning Address: ");
  if (n == 0) return 0;
  const U32 addressLen = writeExtensionAddress(e, pkt, offset + n, winningAddress_);
  if (addressLen == 0) return 0;
  Knet::PktWriter w(pkt, offset + n + addressLen);
  writeMetricPref(w, winningMetricPref_);
  lengthIs(n + addressLen + e.tail);
  if (writeHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, e.headerWrite);
    return 0;
  }
  return length();
}

}  // namespace Routing::Pim::Packet
