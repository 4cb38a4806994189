#pragma once
// Timers and the wheel that fires them.
//
// A Timer is due at timeMin() (timeInfinity when disarmed); timeMinIs() arms, re-arms or, with
// timeInfinity, disarms it. TimerWheel::advance() fires every timer due at the clock's now, in due
// order, ties in the order they were armed. A timer is disarmed before its notifiees hear onTime(),
// so that they may arm it again; a timer armed while an advance runs fires at the next advance at
// the earliest, even when its due time has passed. A timer that dies (last reference dropped) or is
// disarmed, even by a notifiee of another timer in the same advance, does not fire.
//
// The wheel is a binary min-heap of the armed timers, each timer knowing its own index in it. Arm,
// re-arm and disarm are O(log n) and a dead timer leaves at once. Lazy deletion would keep stale
// entries (and their timers, or a handle table to find whether they live) until they reach the top;
// a hashed wheel would need a tick size, which a library serving both millisecond and hour-long
// timers has no good value for. The heap needs neither.
#include <cstddef>
#include <vector>

#include "keel/Clock.h"
#include "loom/Entity.h"
#include "loom/Types.h"

namespace Keel {

class TimerWheel;

class Timer : public Loom::Entity {
 public:
  class Notifiee : public Loom::BaseNotifiee<Timer> {
   public:
    virtual void onTime() {}
  };

  Time timeMin() const { return timeMin_; }
  void timeMinIs(Time t);
  TimerWheel* timerWheel() const { return wheel_.ptr(); }

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) { notifiees_.del(n); }

 private:
  friend class TimerWheel;
  enum class Place : unsigned char { none, heap, firing };
  explicit Timer(TimerWheel* wheel) : wheel_(wheel) {}
  ~Timer() override;

  Loom::Ptr<TimerWheel> wheel_;
  Time timeMin_ = timeInfinity;
  U64 armOrder_ = 0;   // breaks ties between timers due at the same time
  size_t slot_ = 0;    // index in the wheel's heap or in the batch being fired
  Place place_ = Place::none;
  Loom::NotifieeList<Notifiee> notifiees_;
};

class TimerWheel : public Loom::Entity {
 public:
  class Notifiee : public Loom::BaseNotifiee<TimerWheel> {
   public:
    virtual void onTimeMin() {}
  };

  const Clock& clock() const { return clock_; }
  // The earliest due time of the armed timers, timeInfinity if none. While an advance runs it
  // keeps its value from before; it is brought up to date (one notification) when the advance ends.
  Time timeMin() const { return timeMin_; }
  size_t timersArmed() const { return heap_.size() + firingArmed_; }

  // A new disarmed timer bound to this wheel.
  Loom::Ptr<Timer> timerNew() { return new Timer(this); }
  // Fires the timers due at clock().now(); returns how many fired.
  size_t advance();

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) { notifiees_.del(n); }

 private:
  friend class Timer;
  friend Loom::Ptr<TimerWheel> timerWheelFactory(const Clock& clock);
  explicit TimerWheel(const Clock& clock) : clock_(clock) {}

  void timerAdd(Timer* t);
  void timerDel(Timer* t);
  void timeMinUpdate();
  static bool earlier(const Timer* a, const Timer* b) {
    return a->timeMin_ < b->timeMin_ || (a->timeMin_ == b->timeMin_ && a->armOrder_ < b->armOrder_);
  }
  void heapPlace(size_t i, Timer* t) {
    heap_[i] = t;
    t->slot_ = i;
  }
  void siftUp(size_t i);
  void siftDown(size_t i);

  const Clock& clock_;
  Time timeMin_ = timeInfinity;
  U64 armOrderNext_ = 0;
  std::vector<Timer*> heap_;
  // The timers taken off the heap by the running advance, in firing order; a slot is cleared when
  // its timer is disarmed, re-armed or dies before its turn.
  std::vector<Timer*> firing_;
  size_t firingArmed_ = 0;
  bool advancing_ = false;
  Loom::NotifieeList<Notifiee> notifiees_;
};

// The clock must outlive the wheel.
Loom::Ptr<TimerWheel> timerWheelFactory(const Clock& clock);

}  // namespace Keel
