#pragma once
// The DF election messages of bidirectional PIM (PIM type 10, RFC 5015 3.7): Offer, Winner,
// Backoff and Pass share the type and differ by a 4-bit subtype carried in the upper half of the
// header's reserved byte. All four carry an RP address and the sender's metric preference and
// metric; Backoff adds the offering router's, with an interval, and Pass the new winner's.
//
// The receive path chooses the class by the subtype before it reads; a subclass's read or write
// on a message of another subtype is a programming error and aborts.
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "PimData/MetricPref.h"
#include "PimMessage/Message.h"
#include "knet/Cursor.h"

namespace Routing::Pim::Packet {

// The rows of the DF election's text table: the common part's, then each subtype's.
enum class DfElectionText : U8 {
  headerParse,
  rpParse,
  rpFamily,
  rpInvalid,
  metricLength,
  writeHeader,
  headerSpace,
  family,
  rpWrite,
  metricSpace,
  offerRead,
  offerWrite,
  winnerRead,
  winnerWrite,
  backoffRead,
  offeringParse,
  offeringFamily,
  offeringInvalid,
  offeringLength,
  backoffHeaderSpace,
  backoffFamily,
  backoffRpWrite,
  backoffMetricSpace,
  offeringWrite,
  offeringTailSpace,
  backoffHeaderWrite,
  passRead,
  winningParse,
  winningFamily,
  winningInvalid,
  winningLength,
  passHeaderSpace,
  passFamily,
  passRpWrite,
  passMetricSpace,
  winningWrite,
  winningTailSpace,
  passHeaderWrite,
};
template <>
inline constexpr TextTable textTableOf<DfElectionText> = TextTable::dfElection;
std::string_view textOf(DfElectionText row);

enum class DfElectionMessageType : U8 {
  dfElectionOffer = 1,
  dfElectionWinner = 2,
  dfElectionBackoff = 3,
  dfElectionPass = 4,
};
constexpr DfElectionMessageType dfElectionOffer() { return DfElectionMessageType::dfElectionOffer; }
constexpr DfElectionMessageType dfElectionWinner() { return DfElectionMessageType::dfElectionWinner; }
constexpr DfElectionMessageType dfElectionBackoff() { return DfElectionMessageType::dfElectionBackoff; }
constexpr DfElectionMessageType dfElectionPass() { return DfElectionMessageType::dfElectionPass; }

// The subtype's name ("dfElectionOffer"); a value without a name is "dfElectionMessageType(N)".
std::ostream& operator<<(std::ostream& os, DfElectionMessageType t);
std::string valueToStrep(DfElectionMessageType t);
// The subtype of a number (1 to 4) or of a name; nullopt for anything else.
std::optional<DfElectionMessageType> dfElectionMessageTypeInstance(U32 value);
std::optional<DfElectionMessageType> dfElectionMessageTypeInstance(std::string_view name);

class DfElectionMessage : public Message {
 public:
  // The failures of a write of the common part; Backoff and Pass have their own.
  struct WriteRows {
    DfElectionText headerSpace;
    DfElectionText family;
    DfElectionText rpWrite;
    DfElectionText metricSpace;
  };

  DfElectionMessage();
  static const char* fwkType() { return "Routing::Pim::Packet::DfElectionMessage"; }

  const Knet::IpGenAddr& rpAddress() const { return rpAddress_; }
  void rpAddressIs(const Knet::IpGenAddr& v) { rpAddress_ = v; }
  const Routing::MetricPref& senderMetricPref() const { return senderMetricPref_; }
  void senderMetricPrefIs(const Routing::MetricPref& v) { senderMetricPref_ = v; }
  // The upper 4 bits of the header's reserved byte. Setting it writes the whole byte, the lower
  // 4 bits as 0.
  DfElectionMessageType dfElectionMessageType() const { return static_cast<DfElectionMessageType>(reserved() >> 4); }
  void dfElectionMessageTypeIs(DfElectionMessageType t) { reservedIs(static_cast<U8>(static_cast<U8>(t) << 4)); }

  // The part all four share: header, RP address, metric preference and metric. Bytes behind the
  // metric are not looked at. Returns the bytes up to the end of the metric, or 0.
  U32 readDfElectionMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  U32 writeDfElectionMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);

  void print(std::ostream& os) const override;

 protected:
  // Sets the subtype and the header's messageSubtype.
  void subtypeIs(DfElectionMessageType t);
  // The header's room and, behind it, the RP address and the sender's metric under the cursor
  // (which starts at the header), checked as the common write checks them, with the rows of one
  // message kind; false after the failure is recorded.
  bool writeCommon(Knet::PktWriter& w, const WriteRows& t, const Knet::IpGenAddr* extra = nullptr,
                   const char* extraName = nullptr);

 private:
  Knet::IpGenAddr rpAddress_;
  Routing::MetricPref senderMetricPref_;
};
Loom::Ptr<DfElectionMessage> dfElectionMessageFactory();

class DfElectionOfferMessage : public DfElectionMessage {
 public:
  DfElectionOfferMessage() { initDfElectionOfferMessage(); }
  static const char* fwkType() { return "Routing::Pim::Packet::DfElectionOfferMessage"; }
  void initDfElectionOfferMessage() { subtypeIs(dfElectionOffer()); }
  U32 readDfElectionOfferMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  U32 writeDfElectionOfferMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
};
Loom::Ptr<DfElectionOfferMessage> dfElectionOfferMessageFactory();

class DfElectionWinnerMessage : public DfElectionMessage {
 public:
  DfElectionWinnerMessage() { initDfElectionWinnerMessage(); }
  static const char* fwkType() { return "Routing::Pim::Packet::DfElectionWinnerMessage"; }
  void initDfElectionWinnerMessage() { subtypeIs(dfElectionWinner()); }
  U32 readDfElectionWinnerMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  U32 writeDfElectionWinnerMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
};
Loom::Ptr<DfElectionWinnerMessage> dfElectionWinnerMessageFactory();

class DfElectionBackoffMessage : public DfElectionMessage {
 public:
  DfElectionBackoffMessage() { initDfElectionBackoffMessage(); }
  static const char* fwkType() { return "Routing::Pim::Packet::DfElectionBackoffMessage"; }
  void initDfElectionBackoffMessage() { subtypeIs(dfElectionBackoff()); }

  const Knet::IpGenAddr& offeringAddress() const { return offeringAddress_; }
  void offeringAddressIs(const Knet::IpGenAddr& v) { offeringAddress_ = v; }
  const Routing::MetricPref& offeringMetricPref() const { return offeringMetricPref_; }
  void offeringMetricPrefIs(const Routing::MetricPref& v) { offeringMetricPref_ = v; }
  // Milliseconds.
  U16 interval() const { return interval_; }
  void intervalIs(U16 v) { interval_ = v; }

  U32 readDfElectionBackoffMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  U32 writeDfElectionBackoffMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);

  void print(std::ostream& os) const override;

 private:
  Knet::IpGenAddr offeringAddress_;
  Routing::MetricPref offeringMetricPref_;
  U16 interval_ = 0;
};
Loom::Ptr<DfElectionBackoffMessage> dfElectionBackoffMessageFactory();

class DfElectionPassMessage : public DfElectionMessage {
 public:
  DfElectionPassMessage() { initDfElectionPassMessage(); }
  static const char* fwkType() { return "Routing::Pim::Packet::DfElectionPassMessage"; }
  void initDfElectionPassMessage() { subtypeIs(dfElectionPass()); }

  const Knet::IpGenAddr& winningAddress() const { return winningAddress_; }
  void winningAddressIs(const Knet::IpGenAddr& v) { winningAddress_ = v; }
  const Routing::MetricPref& winningMetricPref() const { return winningMetricPref_; }
  void winningMetricPrefIs(const Routing::MetricPref& v) { winningMetricPref_ = v; }

  U32 readDfElectionPassMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  U32 writeDfElectionPassMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);

  void print(std::ostream& os) const override;

 private:
  Knet::IpGenAddr winningAddress_;
  Routing::MetricPref winningMetricPref_;
};
Loom::Ptr<DfElectionPassMessage> dfElectionPassMessageFactory();

std::ostream& operator<<(std::ostream& os, const DfElectionMessage* m);
std::ostream& operator<<(std::ostream& os, const DfElectionOfferMessage* m);
std::ostream& operator<<(std::ostream& os, const DfElectionWinnerMessage* m);
std::ostream& operator<<(std::ostream& os, const DfElectionBackoffMessage* m);
std::ostream& operator<<(std::ostream& os, const DfElectionPassMessage* m);

}  // namespace Routing::Pim::Packet
