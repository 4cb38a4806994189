#include "loom/Trace.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#else
#include <chrono>
#endif

namespace Loom {
namespace {

struct TraceRegistry {
  std::vector<TraceUnit*> units;
  std::vector<std::pair<std::string, int>> pending;  // levels named before their unit existed
  int defaultLevel = 0;
  std::unique_ptr<std::ofstream> file;
  TraceCapture* capture = nullptr;
  bool envRead = false;
};

TraceRegistry& registry() {
  static TraceRegistry r;
  return r;
}

bool parseConfig(std::string_view config, std::vector<std::pair<std::string, int>>& out) {
  size_t pos = 0;
  while (pos < config.size()) {
    size_t end = config.find_first_of(", ", pos);
    if (end == std::string_view::npos) end = config.size();
    std::string_view item = config.substr(pos, end - pos);
    pos = end + 1;
    if (item.empty()) continue;
    size_t eq = item.find('=');
    if (eq == std::string_view::npos || eq == 0) return false;
    int level = 0;
    std::string_view num = item.substr(eq + 1);
    auto [p, ec] = std::from_chars(num.data(), num.data() + num.size(), level);
    if (ec != std::errc() || p != num.data() + num.size() || level < 0 || level > 9) return false;
    out.emplace_back(std::string(item.substr(0, eq)), level);
  }
  return true;
}

void applyLevel(TraceRegistry& r, std::string_view unit, int level) {
  if (unit == "*") {
    r.defaultLevel = level;
    for (auto* u : r.units) u->levelIs(level);
    r.pending.clear();
    return;
  }
  bool found = false;
  for (auto* u : r.units) {
    if (unit == u->name()) {
      u->levelIs(level);
      found = true;
    }
  }
  if (!found) {
    std::erase_if(r.pending, [&](auto& p) { return p.first == unit; });
    r.pending.emplace_back(std::string(unit), level);
  }
}

void readEnvironment(TraceRegistry& r) {
  if (r.envRead) return;
  r.envRead = true;
  if (const char* file = std::getenv("PIMIO_TRACE_FILE"); file && *file) {
    r.file = std::make_unique<std::ofstream>(file, std::ios::app);
  }
  if (const char* timers = std::getenv("PIMIO_BLOCK_TIMERS"); timers && std::strcmp(timers, "1") == 0) {
    RingLog::timersEnabledIs(true);
  }
  if (const char* cfg = std::getenv("PIMIO_TRACE"); cfg && *cfg) {
    std::vector<std::pair<std::string, int>> items;
    if (parseConfig(cfg, items)) {
      for (auto& [unit, level] : items) applyLevel(r, unit, level);
    } else {
      std::fprintf(stderr, "PIMIO_TRACE: cannot parse \"%s\" (expected unit=level,...)\n", cfg);
    }
  }
}

}  // namespace

TraceUnit::TraceUnit(const char* name) : name_(name) {
  auto& r = registry();
  readEnvironment(r);
  // The level the unit has outside any capture: the default or a level named for it earlier.
  int level = r.capture ? r.capture->outermost()->savedDefault() : r.defaultLevel;
  for (auto& [unit, named] : r.pending) {
    if (unit == name) level = named;
  }
  // A unit made while captures are alive takes their level, and gets its own back when they end.
  std::vector<TraceCapture*> chain;
  for (TraceCapture* c = r.capture; c; c = c->outer()) chain.insert(chain.begin(), c);
  for (TraceCapture* c : chain) level = c->adopt(this, level);
  level_ = level;
  r.units.push_back(this);
}

void traceLevelIs(std::string_view unit, int level) {
  auto& r = registry();
  readEnvironment(r);
  applyLevel(r, unit, level);
}

int traceLevel(std::string_view unit) {
  auto& r = registry();
  for (auto* u : r.units) {
    if (unit == u->name()) return u->level();
  }
  for (auto& [name, level] : r.pending) {
    if (unit == name) return level;
  }
  return r.defaultLevel;
}

bool traceConfigIs(std::string_view config) {
  std::vector<std::pair<std::string, int>> items;
  if (!parseConfig(config, items)) return false;
  auto& r = registry();
  readEnvironment(r);
  for (auto& [unit, level] : items) applyLevel(r, unit, level);
  return true;
}

void traceFileIs(const std::string& path) {
  auto& r = registry();
  readEnvironment(r);
  if (path.empty()) {
    r.file.reset();
  } else {
    r.file = std::make_unique<std::ofstream>(path, std::ios::app);
  }
}

void traceWrite(const TraceUnit& unit, int level, const char* function, const std::string& text) {
  auto& r = registry();
  RingLog::instance().write(unit.name(), level, function, text);
  if (r.capture) {
    r.capture->add(TraceLine{unit.name(), level, function, text});
    return;
  }
  std::ostream& out = r.file ? static_cast<std::ostream&>(*r.file) : std::cerr;
  out << unit.name() << '/' << level << ' ' << function << ": " << text << '\n';
}

int TraceCapture::adopt(TraceUnit* unit, int levelBefore) {
  saved_.emplace_back(unit, levelBefore);
  return level_;
}

const TraceCapture* TraceCapture::outermost() const {
  const TraceCapture* c = this;
  while (c->outer_) c = c->outer_;
  return c;
}

TraceCapture::TraceCapture(int level) : level_(level) {
  auto& r = registry();
  readEnvironment(r);
  for (auto* u : r.units) {
    saved_.emplace_back(u, u->level());
    u->levelIs(level);
  }
  savedDefault_ = r.defaultLevel;
  r.defaultLevel = level;
  outer_ = r.capture;
  r.capture = this;
}

TraceCapture::~TraceCapture() {
  auto& r = registry();
  for (auto& [u, level] : saved_) u->levelIs(level);
  r.defaultLevel = savedDefault_;
  r.capture = outer_;
}

std::vector<std::string> TraceCapture::texts(int maxLevel) const {
  std::vector<std::string> out;
  for (auto& l : lines_) {
    if (l.level <= maxLevel) out.push_back(l.text);
  }
  return out;
}

bool TraceCapture::contains(std::string_view text) const {
  return std::any_of(lines_.begin(), lines_.end(), [&](auto& l) { return l.text == text; });
}

RingLog::RingLog() : ring_(4096) {}

RingLog& RingLog::instance() {
  static RingLog log;
  return log;
}

void RingLog::write(std::string_view unit, int level, const char* function, std::string_view text) {
  std::string& slot = ring_[next_];
  slot.clear();
  slot.append(unit).append("/").append(std::to_string(level)).append(" ");
  slot.append(function).append(": ").append(text);
  if (++next_ == ring_.size()) {
    next_ = 0;
    wrapped_ = true;
  }
}

std::vector<std::string> RingLog::lines() const {
  std::vector<std::string> out;
  if (wrapped_) out.insert(out.end(), ring_.begin() + next_, ring_.end());
  out.insert(out.end(), ring_.begin(), ring_.begin() + next_);
  return out;
}

void RingLog::clear() {
  next_ = 0;
  wrapped_ = false;
}

namespace {
std::vector<RingLog::TimerStat*>& timerRegistry() {
  static std::vector<RingLog::TimerStat*> stats;
  return stats;
}
}  // namespace

RingLog::TimerStat::TimerStat(const char* n) : name(n) { timerRegistry().push_back(this); }

const std::vector<RingLog::TimerStat*>& RingLog::timerStats() { return timerRegistry(); }

U64 RingLog::BlockTimer::now() {
#if defined(__x86_64__) || defined(__i386__)
  return __rdtsc();
#else
  return std::chrono::steady_clock::now().time_since_epoch().count();
#endif
}

}  // namespace Loom
