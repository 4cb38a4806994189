#include "tools/pimio/PacketTrace.h"

#include <algorithm>
#include <iostream>

#include "PimMessage/Message.h"

namespace Pimio::Cli {

namespace {

using Routing::Pim::Packet::traceWarning;

// writeHeader traces this at the error level whenever errors are traced; it reports nothing wrong.
bool isDiagnostic(const std::string& text) { return text.starts_with("writeHeader pkt bytes"); }

}  // namespace

// Warnings must be collected whatever the user's levels; a user who wants more detail than that
// gets it collected as well, to be passed on.
PacketTrace::PacketTrace(int level) {
  capture_.emplace(std::max({level, int(traceWarning), Routing::Pim::Packet::traceUnit().level()}));
}

PacketTrace::~PacketTrace() {
  const std::vector<Loom::TraceLine> lines = capture_->lines();
  capture_.reset();  // restores the user's levels
  for (const Loom::TraceLine& l : lines) {
    if (l.level <= Loom::traceLevel(l.unit)) {
      std::cerr << l.unit << '/' << l.level << ' ' << l.function << ": " << l.text << '\n';
    }
  }
}

std::vector<std::string> PacketTrace::texts(std::initializer_list<int> levels) const {
  std::vector<std::string> out;
  for (const Loom::TraceLine& l : capture_->lines()) {
    const bool wanted = std::find(levels.begin(), levels.end(), l.level) != levels.end();
    if (wanted && !isDiagnostic(l.text)) out.push_back(l.text);
  }
  return out;
}

std::vector<std::string> PacketTrace::logs() const {
  std::vector<std::string> out;
  for (const Loom::LoggedMessage& m : logCapture_.messages()) out.push_back("%" + m.name + ": " + m.text);
  return out;
}

std::string joined(const std::vector<std::string>& texts) {
  std::string out;
  for (const std::string& t : texts) out += (out.empty() ? "" : "; ") + t;
  return out;
}

}  // namespace Pimio::Cli
