// Text of messages and records in traces: one fixed layout per class so that traces can be read
// and compared.
#include <charconv>
#include <iomanip>
#include <limits>
#include <type_traits>
#include <sstream>

#include "PimMessage/AssertMessage.h"
#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/CrpAdvMessage.h"
#include "PimMessage/DfElectionMessage.h"
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

// ---- Bootstrap ----

std::ostream& operator<<(std::ostream& os, const BootstrapMessage* m) { return os << static_cast<const Message*>(m); }

void BootstrapMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " Forward=" << (forward() ? "True" : "False") << ", fragmentTag=" << fragmentTag_
     << ", hashMaskLen=" << unsigned(hashMaskLen_) << ", bsrPriority=" << unsigned(bsrPriority_)
     << " | bsrAddress=" << bsrAddress_;
  if (groupRpData_) os << " | " << groupRpData_.ptr();
}

std::ostream& operator<<(std::ostream& os, const BootstrapOptionalData* d) {
  os << " GroupData=[ ";
  const char* sep = "";
  for (const auto& [index, group] : d->groupData()) {
    os << sep << group.ptr();
    sep = ", ";
  }
  return os << " ]";
}

std::ostream& operator<<(std::ostream& os, const BootstrapGroupData* g) {
  os << "group=( prefix=" << g->prefix() << ", flags=" << GroupFlags(g->groupFlags())
     << ", rpCount=" << unsigned(g->rpCount()) << ", fragRpCount=" << unsigned(g->fragRpCount()) << ", RpList=[ ";
  const char* sep = "";
  for (const auto& rp : g->rpList()) {
    os << sep << &rp;
    sep = ", ";
  }
  return os << " ] )";
}

// The reserved byte is written as one raw character.
std::ostream& operator<<(std::ostream& os, const BootstrapRpData* r) {
  return os << "rp=( address=" << r->address() << ", Holdtime=" << r->holdtime()
            << ", Priority=" << unsigned(r->priority()) << ", reserved=" << static_cast<char>(r->reserved()) << " )";
}

namespace {
constexpr std::string_view fragmentKeyPrefix = "Value('Routing::Pim::Packet::BootstrapRpFragmentKey', ** {'prefix': ";
}  // namespace

std::ostream& operator<<(std::ostream& os, const BootstrapRpFragmentKey& k) {
  return os << fragmentKeyPrefix << k.prefix << ", 'bsrAddress': " << k.bsrAddress
            << ", 'groupFlags': " << unsigned(k.groupFlags) << ", 'noForward': " << (k.noForward ? "True" : "False")
            << ", 'fragmentTag': " << k.fragmentTag << ", 'hashMaskLen': " << unsigned(k.hashMaskLen)
            << ", 'bsrPriority': " << unsigned(k.bsrPriority) << ", 'rpCount': " << unsigned(k.rpCount)
            << ", 'hash': " << k.hash << "})";
}

std::string valueToStrep(const BootstrapRpFragmentKey& k) {
  std::ostringstream os;
  os << k;
  return os.str();
}

std::optional<BootstrapRpFragmentKey> bootstrapRpFragmentKeyFromStrep(std::string_view text) {
  BootstrapRpFragmentKey k;
  // Takes `before`, then the text up to `until`.
  auto field = [&](std::string_view before, std::string_view until, std::string_view& out) {
    if (!text.starts_with(before)) return false;
    text.remove_prefix(before.size());
    const size_t end = text.find(until);
    if (end == std::string_view::npos) return false;
    out = text.substr(0, end);
    text.remove_prefix(end);
    return true;
  };
  auto number = [](std::string_view t, auto& out) {
    U64 v = 0;
    auto [p, ec] = std::from_chars(t.data(), t.data() + t.size(), v);
    if (ec != std::errc() || p != t.data() + t.size() || t.empty() ||
        v > std::numeric_limits<std::remove_reference_t<decltype(out)>>::max()) {
      return false;
    }
    out = static_cast<std::remove_reference_t<decltype(out)>>(v);
    return true;
  };
  auto address = [](std::string_view t, Knet::IpGenAddr& out) {
    if (t == "unset") {
      out = Knet::IpGenAddr();
      return true;
    }
    const auto a = Knet::IpGenAddr::parse(t);
    if (a) out = *a;
    return a.has_value();
  };
  std::string_view prefix, bsr, flags, noForward, tag, mask, priority, rpCount, hash;
  if (!field(fragmentKeyPrefix, ", 'bsrAddress': ", prefix) || !field(", 'bsrAddress': ", ", 'groupFlags': ", bsr) ||
      !field(", 'groupFlags': ", ", 'noForward': ", flags) || !field(", 'noForward': ", ", 'fragmentTag': ", noForward) ||
      !field(", 'fragmentTag': ", ", 'hashMaskLen': ", tag) || !field(", 'hashMaskLen': ", ", 'bsrPriority': ", mask) ||
      !field(", 'bsrPriority': ", ", 'rpCount': ", priority) || !field(", 'rpCount': ", ", 'hash': ", rpCount) ||
      !field(", 'hash': ", "})", hash) || text != "})") {
    return std::nullopt;
  }
  // The prefix: "addr/len", or the empty key's "unset/0".
  const size_t slash = prefix.rfind('/');
  Knet::IpGenAddr prefixAddress;
  U8 length = 0;
  if (slash == std::string_view::npos || !address(prefix.substr(0, slash), prefixAddress) ||
      !number(prefix.substr(slash + 1), length) || length > Knet::IpGenPrefix::maxLength(prefixAddress.af())) {
    return std::nullopt;
  }
  k.prefix = Knet::IpGenPrefix(prefixAddress, length);
  if (noForward != "True" && noForward != "False") return std::nullopt;
  k.noForward = noForward == "True";
  if (!address(bsr, k.bsrAddress) || !number(flags, k.groupFlags) || !number(tag, k.fragmentTag) ||
      !number(mask, k.hashMaskLen) || !number(priority, k.bsrPriority) || !number(rpCount, k.rpCount) ||
      !number(hash, k.hash)) {
    return std::nullopt;
  }
  return k;
}

// ---- Candidate-RP Advertisement ----

std::ostream& operator<<(std::ostream& os, const CrpAdvMessage* m) { return os << static_cast<const Message*>(m); }

void CrpAdvMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " prefixCount=" << unsigned(prefixCount_) << ", priority=" << unsigned(priority_) << ", holdtime=" << holdtime_
     << " | rpAddress=" << rpAddress_ << " | GroupData=[ ";
  if (groupData_) {
    const char* sep = "";
    for (const auto& g : groupData_->groupInfo()) {
      os << sep << g->prefix() << ", groupFlags: " << GroupFlags(g->groupFlags());
      sep = ", ";
    }
  }
  os << " ]";
}

// ---- DF election ----

std::ostream& operator<<(std::ostream& os, const DfElectionMessage* m) { return os << static_cast<const Message*>(m); }
std::ostream& operator<<(std::ostream& os, const DfElectionOfferMessage* m) { return os << static_cast<const Message*>(m); }
std::ostream& operator<<(std::ostream& os, const DfElectionWinnerMessage* m) { return os << static_cast<const Message*>(m); }
std::ostream& operator<<(std::ostream& os, const DfElectionBackoffMessage* m) { return os << static_cast<const Message*>(m); }
std::ostream& operator<<(std::ostream& os, const DfElectionPassMessage* m) { return os << static_cast<const Message*>(m); }

void DfElectionMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " | type=" << dfElectionMessageType() << ", rpAddress=" << rpAddress_
     << ", senderMetricPreference=" << senderMetricPref_.metricPreference << ", senderMetric=" << senderMetricPref_.metric;
}

void DfElectionBackoffMessage::print(std::ostream& os) const {
  DfElectionMessage::print(os);
  os << ", offeringAddress=" << offeringAddress_ << ", offeringMetricPreference=" << offeringMetricPref_.metricPreference
     << ", offeringMetric=" << offeringMetricPref_.metric << ", interval=" << interval_;
}

void DfElectionPassMessage::print(std::ostream& os) const {
  DfElectionMessage::print(os);
  os << ", winningAddress=" << winningAddress_ << ", winningMetricPreference=" << winningMetricPref_.metricPreference
     << ", winningMetric=" << winningMetricPref_.metric;
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

std::string messageTextLine(const Message& m) {
  std::ostringstream os;  // a stream of its own: the message text may switch it to boolean words
  os << &m;
  std::string out;
  std::istringstream lines(os.str());
  for (std::string line; std::getline(lines, line);) {
    std::erase(line, '\t');
    if (line.find_first_not_of(' ') == std::string::npos) continue;
    // The list's closing bracket follows the last entry with a blank, as it does a group's line.
    if (!out.empty()) out += line.starts_with(" ]") ? "" : " / ";
    out += line;
  }
  return out;
}

}  // namespace Routing::Pim::Packet
