// Text of messages and records in traces: one fixed layout per class so that traces can be read
// and compared.
#include <charconv>
#include <iomanip>
#include <sstream>

#include "PimMessage/AssertMessage.h"
#include "PimMessage/EncodedAddress.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/Message.h"
#include "PimMessage/RegisterMessage.h"

namespace Routing::Pim::Packet {

void Message::print(std::ostream& os) const { os << "type=" << pimMessageType_; }

std::ostream& operator<<(std::ostream& os, const Message* m) {
  m->print(os);
  return os;
}

std::ostream& operator<<(std::ostream& os, const HelloMessage* m) { return os << static_cast<const Message*>(m); }

// ---- Register and Register-Stop ----

std::ostream& operator<<(std::ostream& os, RegisterImplFlags f) {
  const auto saved = os.flags();
  os << "0x" << std::hex << std::setw(8) << std::setfill('0') << f.value();
  os.flags(saved);
  os << std::setfill(' ');
  if (f.border() && f.null()) return os << "(B,N)";
  if (f.border()) return os << "(B)";
  if (f.null()) return os << "(N)";
  return os;
}

std::string valueToStrep(RegisterImplFlags f) {
  std::ostringstream os;
  os << f;
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const RegisterMessage* m) { return os << static_cast<const Message*>(m); }

void RegisterMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " | null bit=" << int(nullFlag()) << ", border bit=" << int(borderFlag())
     << " | Encapsulated src=" << encapsulatedSrc_ << " dst=" << encapsulatedDst_ << " outer dst=" << dstIp()
     << " outer src=" << srcIp();
}

std::ostream& operator<<(std::ostream& os, const RegisterStopMessage* m) {
  return os << static_cast<const Message*>(m);
}

void RegisterStopMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " | source=" << source_ << ", group=( address=" << group_ << ", flags=" << groupFlags_ << " )"
     << " outer dst=" << dstIp() << " outer src=" << srcIp();
}

// ---- Assert ----

std::ostream& operator<<(std::ostream& os, AssertMetricPreference p) { return os << p.value(); }

std::string valueToStrep(AssertMetricPreference p) { return std::to_string(p.value()); }

std::ostream& operator<<(std::ostream& os, const AssertMessage* m) { return os << static_cast<const Message*>(m); }

void AssertMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " | source=" << source_ << ", group=( address=" << group_ << ", flags=" << groupFlags_ << " )"
     << ", rpt=" << int(rpt()) << ", preference=" << metricPreference() << ", metric=" << metric_;
}

void HelloMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " | ";
  const char* sep = "";
  auto next = [&]() -> std::ostream& {
    os << sep;
    sep = ", ";
    return os;
  };
  if (holdTimeOption_) next() << "Option: holdtime=" << holdTime_;
  if (lanPruneDelayOption_) {
    // The stream keeps the boolean-word setting afterwards.
    next() << "Option: tbit=" << std::boolalpha << tBit() << ", propagationDelay=" << propagationDelay()
           << ", override=" << overrideInterval_;
  }
  if (drPriorityOption_) next() << "Option: drPriority=" << drPriority_;
  if (generationIdOption_) next() << "Option: generationId=" << generationId_;
  if (!secondaryAddr_.empty()) {
    next() << "Option: secondary address=[ ";
    for (size_t i = 0; i < secondaryAddr_.size(); ++i) os << (i ? ", " : "") << secondaryAddr_[i];
    os << " ]";
  }
  if (bidirectionalCapable_) next() << "Option: bidirectional capable";
  if (tcpConnectionOption_) next() << "Option: sctpConnectionId = " << tcpConnectionId_;
  if (sctpConnectionOption_) next() << "Option: sctpConnectionId=" << sctpConnectionId_;
  if (interfaceIdOption_) next() << "Option: [ RouterId :" << routerId_ << " InterfaceId:" << interfaceId_ << "]";
}

std::ostream& operator<<(std::ostream& os, HelloPropagationDelay d) { return os << d.value(); }

std::string valueToStrep(HelloPropagationDelay d) { return std::to_string(d.value()); }

std::ostream& operator<<(std::ostream& os, const GroupAddress& g) {
  return os << "( address=" << g.address << ", flags=" << g.flags << ")";
}

std::ostream& operator<<(std::ostream& os, const SourceAddress& s) {
  return os << "( address=" << s.address << " flags=" << s.flags << ")";
}

std::string valueToStrep(const GroupAddress& g) {
  std::ostringstream os;
  os << "Value('Routing::Pim::Packet::GroupAddress', ** {'address': " << g.address << ", 'flags': " << g.flags
     << "})";
  return os.str();
}

std::string valueToStrep(const SourceAddress& s) {
  std::ostringstream os;
  os << "Value('Routing::Pim::Packet::SourceAddress', ** {'address': " << s.address << ", 'flags': " << s.flags
     << "})";
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const EncodedGroupAddress* g) {
  return os << "( address=" << g->prefix().address() << ", flags=" << g->flags() << ")";
}

std::ostream& operator<<(std::ostream& os, const EncodedSourceAddress* s) {
  return os << "( address=" << s->prefix().address() << " flags=" << s->flags() << ")";
}

}  // namespace Routing::Pim::Packet

// ---- Join/Prune ----

namespace Routing::Pim::Packet {

std::ostream& operator<<(std::ostream& os, const JoinPruneMessage* m) {
  m->print(os);
  return os;
}

void JoinPruneMessage::print(std::ostream& os) const {
  // A message without data renders as nothing at all.
  if (!joinPruneData_) return;
  Message::print(os);
  os << " | " << joinPruneData_.ptr();
}

std::ostream& operator<<(std::ostream& os, const JoinPruneData* d) {
  os << "upstream=" << d->upstream() << ", holdtime=" << d->holdTime()
     << ", numGroups=" << d->joinPruneGroupData().size() << ", groups=[ ";
  for (const auto& [addr, group] : d->joinPruneGroupData()) os << group.ptr();
  return os << " ]";
}

// The entries in the order the encoder packs them.
std::ostream& operator<<(std::ostream& os, const JoinPruneGroupData* g) {
  os << "\tgroup=( address=" << g->group() << ", flags=" << GroupFlags(g->groupFlags()) << " )" << std::endl;
  for (const auto& s : g->joinedRptSource()) os << "\t\tjoin=" << s << ", (S,G,rpt)" << std::endl;
  for (const auto& s : g->joinedSource()) os << "\t\tjoin=" << s << ", (S,G)" << std::endl;
  if (const auto& wc = g->wcSourceData()) {
    os << (wc->join ? "\t\tjoin= " : "\t\tprune= ") << wc->rp << ", (*,G)" << std::endl;
  }
  if (g->rptPrunedGroupData()) {
    for (const auto& [s, v] : g->rptPrunedGroupData()->prunedRptSource()) {
      os << "\t\tprune=" << s << ", (S,G,rpt)" << std::endl;
    }
  }
  for (const auto& s : g->prunedSource()) os << "\t\tprune=" << s << ", (S,G)" << std::endl;
  return os;
}

std::ostream& operator<<(std::ostream& os, const JoinPruneData::Bookmark* b) {
  os << "Bookmark: (" << b->group << ", " << b->source << ") " << "Collection: ";
  if (!b->source.isSet()) return os;
  const SourceFlags f = b->collection;
  os << (f.isStarG() ? "(*,G)" : f.isSgRpt() ? "(S,G,rpt)" : f.isSg() ? "(S,G)" : "unknown");
  return os << (b->join ? " Type: join" : " Type: prune");
}

namespace {
constexpr std::string_view reportPrefix = "Value('Routing::Pim::Packet::JoinPruneMessage::Report', ** {'processed': ";
}

std::string valueToStrep(const JoinPruneMessage::Report& r) {
  std::ostringstream os;
  os << reportPrefix << r.processed << ", 'suppressed': " << r.suppressed << ", 'filtered': " << r.filtered << "})";
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const JoinPruneMessage::Report& r) { return os << valueToStrep(r); }

std::optional<JoinPruneMessage::Report> reportFromStrep(std::string_view text) {
  JoinPruneMessage::Report r;
  auto number = [&](std::string_view before, U32& out) {
    if (!text.starts_with(before)) return false;
    text.remove_prefix(before.size());
    auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    if (ec != std::errc()) return false;
    text.remove_prefix(static_cast<size_t>(p - text.data()));
    return true;
  };
  if (number(reportPrefix, r.processed) && number(", 'suppressed': ", r.suppressed) &&
      number(", 'filtered': ", r.filtered) && text == "})") {
    return r;
  }
  return std::nullopt;
}

}  // namespace Routing::Pim::Packet
