#pragma once
// Injectable time. Everything that schedules reads a Clock, so that tests can drive time by hand
// (ManualClock) while the agent reads CLOCK_MONOTONIC (MonotonicClock).
#include <limits>

namespace Keel {

// Seconds on a monotonic scale; only differences and order matter.
using Time = double;
inline constexpr Time timeInfinity = std::numeric_limits<Time>::infinity();

class Clock {
 public:
  Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
  virtual ~Clock() = default;
  virtual Time now() const = 0;
};

// CLOCK_MONOTONIC in seconds.
Time monotonicNow();

class MonotonicClock : public Clock {
 public:
  Time now() const override { return monotonicNow(); }
};

// A clock that moves only when told to, and never backwards.
class ManualClock : public Clock {
 public:
  explicit ManualClock(Time start = 0) : now_(start) {}
  Time now() const override { return now_; }
  void nowIs(Time t);
  void nowInc(Time dt) { nowIs(now_ + dt); }

 private:
  Time now_;
};

}  // namespace Keel
