#pragma once
// The event loop: epoll over the watched file descriptors and one timerfd for the timer wheel.
//
// The threading rule of the platform: one thread, the agent's event loop, runs every reactor,
// handler and timer. Nothing takes a lock, and entities are not thread-safe. Another thread may
// only read the shared memory tables.
//
// Readability is level-triggered: a watch is called every round while its descriptor has data,
// so a handler may read as much as it likes per call. The timerfd (CLOCK_MONOTONIC) is kept
// armed for the wheel's timeMin(); when it expires the loop advances the wheel. Failed system
// calls are traced (unit "Keel", with the errno text) and counted in errors(); none throws.
#include <cstddef>
#include <vector>

#include "keel/TimerWheel.h"
#include "loom/Entity.h"
#include "loom/Types.h"

namespace Keel {

// What the loop calls when a watched descriptor is readable.
class FdWatch {
 public:
  virtual ~FdWatch() = default;
  virtual void onFdReadable() = 0;
};

class EventLoop : public Loom::Entity {
 public:
  const Loom::Ptr<TimerWheel>& timerWheel() const { return wheel_; }

  // Watches fd for readability (replacing its watch if it has one); a null watch deletes it.
  // The watch must outlive its registration.
  void fdWatchIs(int fd, FdWatch* watch);
  // Stops watching fd. A watch deleted while a round is dispatched is not called in that round.
  void fdWatchDel(int fd);
  FdWatch* fdWatch(int fd) const {
    return fd >= 0 && static_cast<size_t>(fd) < watches_.size() ? watches_[fd] : nullptr;
  }

  // Waits at most maxWait seconds (timeInfinity: no limit) for events and dispatches them;
  // returns how many it handled (each readable watch, and the timerfd's expiry, count one).
  size_t runOnce(Time maxWait);
  // Runs rounds until stop() (which a handler or timer may call), or until waiting fails.
  void run();
  void stop() { stopped_ = true; }

  U64 errors() const { return errors_; }

 private:
  friend Loom::Ptr<EventLoop> eventLoopFactory(const Loom::Ptr<TimerWheel>& wheel);
  explicit EventLoop(const Loom::Ptr<TimerWheel>& wheel);
  ~EventLoop() override;

  class TimerWheelReactor : public TimerWheel::Notifiee {
   public:
    explicit TimerWheelReactor(EventLoop* loop) : loop_(loop) {}
    void onTimeMin() override { loop_->timerFdArm(); }

   private:
    EventLoop* loop_;
  };

  void timerFdArm();
  void timerFdExpired();
  void errorsInc(const char* call, int fd, int err);
  // Waits and dispatches one round; -1 if waiting failed for another reason than a signal.
  int round(Time maxWait);

  Loom::Ptr<TimerWheel> wheel_;
  int epollFd_ = -1;
  int timerFd_ = -1;
  std::vector<FdWatch*> watches_;  // indexed by descriptor
  U64 errors_ = 0;
  bool stopped_ = false;
  TimerWheelReactor wheelReactor_{this};
};

Loom::Ptr<EventLoop> eventLoopFactory(const Loom::Ptr<TimerWheel>& wheel);

}  // namespace Keel
