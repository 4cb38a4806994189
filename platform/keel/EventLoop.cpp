#include "keel/EventLoop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

#include "loom/Assert.h"
#include "loom/Trace.h"

namespace Keel {
namespace {

Loom::TraceUnit& keelTrace() {
  static Loom::TraceUnit unit("Keel");
  return unit;
}

constexpr int maxEventsPerRound = 64;

// An absolute expiry for timerfd_settime, rounded up so that the timer never expires before
// `at`; never all zero, which would disarm it.
timespec expiryOf(Time at) {
  constexpr Time latest = 1e12;  // far beyond any uptime, and within time_t
  if (!(at > 0)) return {0, 1};
  if (at > latest) at = latest;
  Time sec = std::floor(at);
  long nsec = static_cast<long>(std::ceil((at - sec) * 1e9));
  if (nsec >= 1000000000L) {
    sec += 1;
    nsec -= 1000000000L;
  }
  if (sec == 0 && nsec == 0) nsec = 1;
  return {static_cast<time_t>(sec), nsec};
}

int waitMillis(Time maxWait) {
  if (maxWait == timeInfinity) return -1;
  if (!(maxWait > 0)) return 0;
  const Time ms = std::ceil(maxWait * 1e3);
  return ms >= INT_MAX ? INT_MAX : static_cast<int>(ms);
}

}  // namespace

EventLoop::EventLoop(const Loom::Ptr<TimerWheel>& wheel) : wheel_(wheel) {
  LOOM_ASSERT(wheel_, "an event loop needs a timer wheel");
  epollFd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) errorsInc("epoll_create1", -1, errno);
  timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (timerFd_ < 0) errorsInc("timerfd_create", -1, errno);
  if (epollFd_ >= 0 && timerFd_ >= 0) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = timerFd_;
    if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, timerFd_, &ev) != 0) errorsInc("epoll_ctl add timerfd", timerFd_, errno);
  }
  wheelReactor_.notifierIs(wheel_);
  timerFdArm();  // catch up with the timers armed before the loop existed
}

EventLoop::~EventLoop() {
  wheelReactor_.notifierIs(nullptr);
  if (timerFd_ >= 0) close(timerFd_);
  if (epollFd_ >= 0) close(epollFd_);
}

void EventLoop::errorsInc(const char* call, int fd, int err) {
  ++errors_;
  LOOM_TRACE(keelTrace(), 1, call << " fd " << fd << ": " << std::strerror(err));
}

void EventLoop::fdWatchIs(int fd, FdWatch* watch) {
  if (!watch) {
    fdWatchDel(fd);
    return;
  }
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = fd;
  // EEXIST: a new watch for a watched descriptor. The add is tried even then, because a
  // descriptor closed without fdWatchDel left the epoll set and its number may be a new file.
  if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0 && !(errno == EEXIST && fdWatch(fd))) {
    errorsInc("epoll_ctl add", fd, errno);
    return;
  }
  if (static_cast<size_t>(fd) >= watches_.size()) watches_.resize(fd + 1, nullptr);
  watches_[fd] = watch;
}

void EventLoop::fdWatchDel(int fd) {
  if (!fdWatch(fd)) return;
  watches_[fd] = nullptr;
  // A descriptor closed first has left the epoll set already (EBADF), and its number may belong to
  // a file never added (ENOENT): neither is a failure. Sockets close before they tell who watches.
  if (epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr) != 0 && errno != EBADF && errno != ENOENT) {
    errorsInc("epoll_ctl del", fd, errno);
  }
}

// The wheel's clock need not be CLOCK_MONOTONIC (tests drive a manual one): the expiry is the
// wheel's timeMin moved by the offset between the two clocks, which is nil for a MonotonicClock.
void EventLoop::timerFdArm() {
  if (timerFd_ < 0) return;
  itimerspec setting{};
  const Time due = wheel_->timeMin();
  if (due != timeInfinity) setting.it_value = expiryOf(due - wheel_->clock().now() + monotonicNow());
  if (timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &setting, nullptr) != 0) errorsInc("timerfd_settime", timerFd_, errno);
}

void EventLoop::timerFdExpired() {
  U64 expirations = 0;
  // EAGAIN: the timer was re-armed after epoll saw it expire; advancing is then merely early.
  if (read(timerFd_, &expirations, sizeof expirations) < 0 && errno != EAGAIN) {
    errorsInc("read timerfd", timerFd_, errno);
  }
  wheel_->advance();
  // The timerfd is one-shot: arm it again even if the wheel's timeMin did not change.
  timerFdArm();
}

int EventLoop::round(Time maxWait) {
  if (epollFd_ < 0) return -1;
  Loom::Ptr<EventLoop> self = this;  // a handler may drop the last reference
  epoll_event events[maxEventsPerRound];
  const int n = epoll_wait(epollFd_, events, maxEventsPerRound, waitMillis(maxWait));
  if (n < 0) {
    if (errno == EINTR) return 0;
    errorsInc("epoll_wait", epollFd_, errno);
    return -1;
  }
  int handled = 0;
  for (int i = 0; i < n; ++i) {
    const int fd = events[i].data.fd;
    if (fd == timerFd_) {
      timerFdExpired();
      ++handled;
    } else if (FdWatch* watch = fdWatch(fd)) {  // null if deleted earlier in this round
      watch->onFdReadable();
      ++handled;
    }
  }
  return handled;
}

size_t EventLoop::runOnce(Time maxWait) {
  const int handled = round(maxWait);
  return handled < 0 ? 0 : static_cast<size_t>(handled);
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_ && round(timeInfinity) >= 0) {
  }
}

Loom::Ptr<EventLoop> eventLoopFactory(const Loom::Ptr<TimerWheel>& wheel) { return new EventLoop(wheel); }

}  // namespace Keel
