#pragma once
// Named log messages: what the operator must know about. Each has a name, a severity (syslog
// priority 0..7), a printf-style format whose %s are filled in order, an explanation, a
// recommended action and an optional rate interval (seconds; 0 = every time). Raised messages go
// to syslog as "%NAME: text"; while a LogCapture is alive they are collected by it instead.
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "loom/Types.h"

namespace Loom {

class LogMessage {
 public:
  LogMessage(const char* name, int severity, const char* format, const char* explanation,
             const char* recommendedAction, double intervalSeconds = 0.0);
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  const char* name() const { return name_; }
  int severity() const { return severity_; }
  const char* format() const { return format_; }
  const char* explanation() const { return explanation_; }
  const char* recommendedAction() const { return recommendedAction_; }
  double interval() const { return interval_; }
  U64 raised() const { return raised_; }
  U64 suppressed() const { return suppressed_; }

  // Formats and emits the message, unless the last emission lies within the rate interval.
  // Returns true if it was emitted.
  bool raise(std::initializer_list<std::string_view> args);
  // The text that raise() would emit for these arguments.
  std::string text(std::initializer_list<std::string_view> args) const;

 private:
  const char* name_;
  int severity_;
  const char* format_;
  const char* explanation_;
  const char* recommendedAction_;
  double interval_;
  double lastEmitted_ = -1.0;
  U64 raised_ = 0;
  U64 suppressed_ = 0;
};

// Every log message defined in the process, in definition order.
const std::vector<LogMessage*>& logMessages();
const LogMessage* logMessage(std::string_view name);

// Seconds on a monotonic clock; tests replace it to step through rate intervals.
void logClockIs(std::function<double()> clock);

struct LoggedMessage {
  std::string name;
  int severity;
  std::string text;
};

// Collects raised log messages instead of sending them to syslog, for tests and tools.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  const std::vector<LoggedMessage>& messages() const { return messages_; }
  void add(LoggedMessage m) { messages_.push_back(std::move(m)); }

 private:
  std::vector<LoggedMessage> messages_;
  LogCapture* outer_;
};

}  // namespace Loom
