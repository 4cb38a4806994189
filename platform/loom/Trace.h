#pragma once
// Text trace with numeric levels per source unit (1 errors ... 9 most detail; 0 is off).
//
// Each source unit (such as "PimMessage") owns a TraceUnit. Levels are set at run time through
// traceLevelIs()/traceConfigIs() or, at start, from the environment variable PIMIO_TRACE, e.g.
// PIMIO_TRACE="PimMessage=4,*=1". Lines go to stderr, or to the file named by PIMIO_TRACE_FILE
// (or traceFileIs()), and always to the RingLog with the same text. While a TraceCapture is
// alive, lines go to it instead of the stream.
//
// LOOM_TRACE builds the line only when the level is on: a call whose level is off costs one load
// and one compare.
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "loom/Types.h"

namespace Loom {

class TraceUnit {
 public:
  explicit TraceUnit(const char* name);
  TraceUnit(const TraceUnit&) = delete;
  TraceUnit& operator=(const TraceUnit&) = delete;

  const char* name() const { return name_; }
  int level() const { return level_; }
  void levelIs(int level) { level_ = level; }
  bool enabled(int level) const { return level <= level_; }

 private:
  const char* name_;
  int level_ = 0;
};

struct TraceLine {
  std::string unit;
  int level = 0;
  std::string function;
  std::string text;
};

// Sets the level of one unit by name; "*" sets every unit and the level of units made later.
void traceLevelIs(std::string_view unit, int level);
int traceLevel(std::string_view unit);
// Applies a list such as "PimMessage=4,*=1" (entries separated by ',' or ' ').
// Returns false, changing nothing, if the list does not parse.
bool traceConfigIs(std::string_view config);
// Sends lines to the named file (appended), or to stderr for an empty name.
void traceFileIs(const std::string& path);
// Writes one line; called by LOOM_TRACE once the level test has passed.
void traceWrite(const TraceUnit& unit, int level, const char* function, const std::string& text);

// Collects trace lines instead of writing them out, and raises the level of every unit to
// `level` for its lifetime (levels are restored afterwards). Captures nest; the innermost wins.
class TraceCapture {
 public:
  explicit TraceCapture(int level = 9);
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  const std::vector<TraceLine>& lines() const { return lines_; }
  // Texts of the lines whose level is at most maxLevel.
  std::vector<std::string> texts(int maxLevel = 9) const;
  bool contains(std::string_view text) const;
  void clear() { lines_.clear(); }
  void add(TraceLine line) { lines_.push_back(std::move(line)); }

  // For units made while the capture is alive: remembers the unit's level to restore and
  // returns the capture's level.
  int adopt(TraceUnit* unit, int levelBefore);
  TraceCapture* outer() const { return outer_; }
  const TraceCapture* outermost() const;
  int savedDefault() const { return savedDefault_; }

 private:
  int level_;
  std::vector<TraceLine> lines_;
  std::vector<std::pair<TraceUnit*, int>> saved_;
  int savedDefault_ = 0;
  TraceCapture* outer_ = nullptr;
};

// The ring-buffer trace: the last `capacity` trace lines, kept in memory whatever the output, and
// per-site block timers.
class RingLog {
 public:
  static RingLog& instance();
  void write(std::string_view unit, int level, const char* function, std::string_view text);
  // Lines oldest first, each as "unit/level function: text".
  std::vector<std::string> lines() const;
  size_t capacity() const { return ring_.size(); }
  void clear();

  // Time spent in a named block, counted in CPU timestamp ticks.
  struct TimerStat {
    explicit TimerStat(const char* name);
    const char* name;
    U64 calls = 0;
    U64 ticks = 0;
  };
  static const std::vector<TimerStat*>& timerStats();

  // Block timers are off unless switched on (timersEnabledIs, or PIMIO_BLOCK_TIMERS=1 at start):
  // reading the time stamp counter twice costs more than decoding a small message.
  static bool timersEnabled() { return timersEnabled_; }
  static void timersEnabledIs(bool on) { timersEnabled_ = on; }

  class BlockTimer {
   public:
    explicit BlockTimer(TimerStat& stat) : stat_(timersEnabled_ ? &stat : nullptr), start_(stat_ ? now() : 0) {}
    ~BlockTimer() {
      if (!stat_) return;
      ++stat_->calls;
      stat_->ticks += now() - start_;
    }
    BlockTimer(const BlockTimer&) = delete;
    BlockTimer& operator=(const BlockTimer&) = delete;
    static U64 now();

   private:
    TimerStat* stat_;
    U64 start_;
  };

 private:
  RingLog();
  static inline bool timersEnabled_ = false;
  std::vector<std::string> ring_;
  size_t next_ = 0;
  bool wrapped_ = false;
};

}  // namespace Loom

#define LOOM_TRACE(unit, lvl, expr)                                         \
  do {                                                                      \
    if ((unit).enabled(lvl)) {                                              \
      std::ostringstream loomTraceOs_;                                      \
      loomTraceOs_ << expr;                                                 \
      ::Loom::traceWrite((unit), (lvl), __func__, loomTraceOs_.str());      \
    }                                                                       \
  } while (0)

// Times the enclosing block under a fixed name in the RingLog's block timers.
#define LOOM_BLOCK_TIMER(name)                                              \
  static ::Loom::RingLog::TimerStat loomTimerStat_(name);                   \
  ::Loom::RingLog::BlockTimer loomBlockTimer_(loomTimerStat_)
