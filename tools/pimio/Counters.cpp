#include "tools/pimio/Counters.h"

#include <chrono>
#include <iomanip>
#include <sstream>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "PimIO/MessageCounters.h"
#include "PimMessage/DfElectionMessage.h"
#include "knet/Address.h"

namespace Pimio::Cli {

namespace {

using Routing::Pim::Cask::CounterKey;
using Routing::Pim::Cask::MessageCounterData;

std::string typeName(U8 type) { return Knet::PimMessageType(static_cast<U8>(0x20 | (type & 0x0f))).name(); }

// "all" for the all-subtypes total; a DF election's subtype by name, any other by number.
std::string subtypeName(const CounterKey& k) {
  if (k.subtype == CounterKey::anySubtype) return "all";
  if (k.messageType == Knet::pimDfElection().type()) {
    if (auto t = Routing::Pim::Packet::dfElectionMessageTypeInstance(U32(k.subtype))) {
      std::ostringstream os;
      os << *t;
      return os.str();
    }
  }
  return std::to_string(k.subtype);
}

std::string intfName(const CounterKey& k) { return k.intfId.isEmpty() ? "(all)" : k.intfId.name(); }

// The six counts in the order of the table and of the metric's labels.
struct Count {
  const char* direction;
  const char* kind;
  U32 MessageCounterData::*field;
};
constexpr Count counts[] = {
    {"rx", "valid", &MessageCounterData::rxValid},   {"rx", "filtered", &MessageCounterData::rxFiltered},
    {"rx", "invalid", &MessageCounterData::rxInvalid}, {"tx", "valid", &MessageCounterData::txValid},
    {"tx", "filtered", &MessageCounterData::txFiltered}, {"tx", "invalid", &MessageCounterData::txInvalid},
};

void printTable(const std::vector<MessageCounterData>& rows, std::ostream& out) {
  out << std::left << std::setw(16) << "INTERFACE" << std::setw(15) << "TYPE" << std::setw(18) << "SUBTYPE"
      << std::right;
  for (const Count& c : counts) out << std::setw(12) << (std::string(c.direction) + "-" + c.kind);
  out << '\n';
  for (const MessageCounterData& d : rows) {
    out << std::left << std::setw(16) << intfName(d.key) << std::setw(15) << typeName(d.key.messageType)
        << std::setw(18) << subtypeName(d.key) << std::right;
    for (const Count& c : counts) out << std::setw(12) << d.*c.field;
    out << '\n';
  }
}

void printJson(const CountersOptions& o, const std::string& table, const std::vector<MessageCounterData>& rows,
               std::ostream& out) {
  nlohmann::ordered_json counters = nlohmann::ordered_json::array();
  for (const MessageCounterData& d : rows) {
    nlohmann::ordered_json e = {{"interface", d.key.intfId.isEmpty() ? nullptr : nlohmann::ordered_json(d.key.intfId.name())},
                                {"type", typeName(d.key.messageType)},
                                {"subtype", subtypeName(d.key)}};
    for (const Count& c : counts) e[c.direction][c.kind] = d.*c.field;
    counters.push_back(e);
  }
  out << nlohmann::ordered_json{{"vrf", o.vrf.empty() ? "default" : o.vrf}, {"af", o.af}, {"table", table},
                                {"counters", counters}}
             .dump()
      << '\n';
}

// A label value with backslash, double quote and line feed escaped.
std::string label(const std::string& v) {
  std::string out;
  for (char c : v) out += c == '\\' ? "\\\\" : c == '"' ? "\\\"" : c == '\n' ? "\\n" : std::string(1, c);
  return out;
}

void printPrometheus(const CountersOptions& o, const std::vector<MessageCounterData>& rows, std::ostream& out) {
  out << "# HELP pimio_messages_total PIM messages counted by the pimio I/O library.\n"
      << "# TYPE pimio_messages_total counter\n";
  const std::string vrf = label(o.vrf.empty() ? "default" : o.vrf), af = o.af == 6 ? "ipv6" : "ipv4";
  for (const MessageCounterData& d : rows) {
    for (const Count& c : counts) {
      out << "pimio_messages_total{vrf=\"" << vrf << "\",af=\"" << af << "\",interface=\"" << label(intfName(d.key))
          << "\",type=\"" << typeName(d.key.messageType) << "\",subtype=\"" << subtypeName(d.key)
          << "\",direction=\"" << c.direction << "\",kind=\"" << c.kind << "\"} " << d.*c.field << '\n';
    }
  }
}

}  // namespace

int showCounters(const CountersOptions& o, std::ostream& out, std::ostream& err) {
  const Knet::AddressFamily af = o.af == 6 ? Knet::AddressFamily::ipv6 : Knet::AddressFamily::ipv4;
  for (int reading = 1;; ++reading) {
    const auto table = Routing::Pim::Cask::messageCountersReader(o.vrf, af);
    if (table->corruptionDetected()) {
      err << "pimio counters: the counter table " << table->name() << " is corrupt or of another layout\n";
      return 2;
    }
    if (!table->usable()) {
      err << "pimio counters: no counter table for VRF " << (o.vrf.empty() ? "default" : o.vrf) << " IPv" << o.af
          << " (" << table->name() << "): is the agent running?\n";
      return 1;
    }
    // Sorted by key: the totals (the empty interface) first.
    std::vector<MessageCounterData> rows;
    for (const MessageCounterData& d : table->msgCounters()) {
      if (!o.interface || d.key.intfId.name() == *o.interface) rows.push_back(d);
    }
    if (o.json) {
      printJson(o, table->name(), rows, out);
    } else if (o.prometheus) {
      printPrometheus(o, rows, out);
    } else {
      printTable(rows, out);
    }
    out.flush();
    if (o.watch <= 0 || (o.count > 0 && reading >= o.count)) return 0;
    std::this_thread::sleep_for(std::chrono::duration<double>(o.watch));
    if (!o.json && !o.prometheus) out << '\n';
  }
}

}  // namespace Pimio::Cli
