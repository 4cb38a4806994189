#include "keel/TimerWheel.h"

#include <cmath>

#include "loom/Assert.h"

namespace Keel {

Timer::~Timer() {
  wheel_->timerDel(this);
  wheel_->timeMinUpdate();
}

void Timer::timeMinIs(Time t) {
  LOOM_ASSERT(!std::isnan(t), "a timer's due time is a number");
  if (t == timeMin_) return;
  wheel_->timerDel(this);
  timeMin_ = t;
  if (t != timeInfinity) wheel_->timerAdd(this);
  wheel_->timeMinUpdate();
}

void TimerWheel::timerAdd(Timer* t) {
  t->armOrder_ = armOrderNext_++;
  t->place_ = Timer::Place::heap;
  heap_.push_back(t);
  siftUp(heap_.size() - 1);
}

// Takes the timer out of the heap or out of the batch being fired, wherever it is.
void TimerWheel::timerDel(Timer* t) {
  if (t->place_ == Timer::Place::firing) {
    firing_[t->slot_] = nullptr;
    --firingArmed_;
  } else if (t->place_ == Timer::Place::heap) {
    const size_t i = t->slot_;
    Timer* last = heap_.back();
    heap_.pop_back();
    if (last != t) {
      heapPlace(i, last);
      siftUp(i);
      siftDown(last->slot_);
    }
  }
  t->place_ = Timer::Place::none;
}

void TimerWheel::siftUp(size_t i) {
  Timer* t = heap_[i];
  while (i > 0) {
    const size_t parent = (i - 1) / 2;
    if (!earlier(t, heap_[parent])) break;
    heapPlace(i, heap_[parent]);
    i = parent;
  }
  heapPlace(i, t);
}

void TimerWheel::siftDown(size_t i) {
  Timer* t = heap_[i];
  const size_t n = heap_.size();
  for (;;) {
    size_t child = 2 * i + 1;
    if (child >= n) break;
    if (child + 1 < n && earlier(heap_[child + 1], heap_[child])) ++child;
    if (!earlier(heap_[child], t)) break;
    heapPlace(i, heap_[child]);
    i = child;
  }
  heapPlace(i, t);
}

void TimerWheel::timeMinUpdate() {
  if (advancing_) return;
  const Time t = heap_.empty() ? timeInfinity : heap_[0]->timeMin_;
  if (t == timeMin_) return;
  timeMin_ = t;
  notifiees_.notify(&Notifiee::onTimeMin);
}

size_t TimerWheel::advance() {
  LOOM_ASSERT(!advancing_, "advance() called from a timer's notifiee");
  // A notifiee may drop the last references to timers and so to this wheel.
  Loom::Ptr<TimerWheel> self = this;
  const Time now = clock_.now();
  advancing_ = true;
  // The due timers leave the heap first, so that those armed by notifiees wait for the next advance.
  while (!heap_.empty() && heap_[0]->timeMin_ <= now) {
    Timer* t = heap_[0];
    timerDel(t);
    t->place_ = Timer::Place::firing;
    t->slot_ = firing_.size();
    firing_.push_back(t);
    ++firingArmed_;
  }
  size_t fired = 0;
  for (size_t i = 0; i < firing_.size(); ++i) {
    if (!firing_[i]) continue;
    Loom::Ptr<Timer> t = firing_[i];  // lives through its own notifiees
    timerDel(t.ptr());
    t->timeMin_ = timeInfinity;
    ++fired;
    t->notifiees_.notify(&Timer::Notifiee::onTime);
  }
  firing_.clear();
  advancing_ = false;
  timeMinUpdate();
  return fired;
}

Loom::Ptr<TimerWheel> timerWheelFactory(const Clock& clock) { return new TimerWheel(clock); }

}  // namespace Keel
