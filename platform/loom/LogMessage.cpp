#include "loom/LogMessage.h"

#include <syslog.h>

#include <chrono>

namespace Loom {
namespace {

struct LogRegistry {
  std::vector<LogMessage*> messages;
  std::function<double()> clock;
  LogCapture* capture = nullptr;
  bool opened = false;
};

LogRegistry& registry() {
  static LogRegistry r;
  return r;
}

double now() {
  auto& r = registry();
  if (r.clock) return r.clock();
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

LogMessage::LogMessage(const char* name, int severity, const char* format, const char* explanation,
                       const char* recommendedAction, double intervalSeconds)
    : name_(name),
      severity_(severity),
      format_(format),
      explanation_(explanation),
      recommendedAction_(recommendedAction),
      interval_(intervalSeconds) {
  registry().messages.push_back(this);
}

std::string LogMessage::text(std::initializer_list<std::string_view> args) const {
  std::string out;
  auto arg = args.begin();
  for (const char* p = format_; *p; ++p) {
    if (p[0] == '%' && p[1] == 's') {
      if (arg != args.end()) out.append(*arg++);
      ++p;
    } else if (p[0] == '%' && p[1] == '%') {
      out.push_back('%');
      ++p;
    } else {
      out.push_back(*p);
    }
  }
  return out;
}

bool LogMessage::raise(std::initializer_list<std::string_view> args) {
  ++raised_;
  double t = now();
  if (interval_ > 0 && lastEmitted_ >= 0 && t - lastEmitted_ < interval_) {
    ++suppressed_;
    return false;
  }
  lastEmitted_ = t;
  std::string body = text(args);
  auto& r = registry();
  if (r.capture) {
    r.capture->add(LoggedMessage{name_, severity_, body});
    return true;
  }
  if (!r.opened) {
    openlog("pimio", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    r.opened = true;
  }
  syslog(severity_ & 7, "%%%s: %s", name_, body.c_str());
  return true;
}

const std::vector<LogMessage*>& logMessages() { return registry().messages; }

const LogMessage* logMessage(std::string_view name) {
  for (auto* m : registry().messages) {
    if (name == m->name()) return m;
  }
  return nullptr;
}

void logClockIs(std::function<double()> clock) { registry().clock = std::move(clock); }

LogCapture::LogCapture() : outer_(registry().capture) { registry().capture = this; }
LogCapture::~LogCapture() { registry().capture = outer_; }

}  // namespace Loom
