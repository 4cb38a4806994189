#include "keel/Clock.h"

#include <time.h>

#include "loom/Assert.h"

namespace Keel {

Time monotonicNow() {
  timespec ts{};
  // CLOCK_MONOTONIC cannot fail with a valid pointer and clock id.
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<Time>(ts.tv_sec) + static_cast<Time>(ts.tv_nsec) * 1e-9;
}

void ManualClock::nowIs(Time t) {
  LOOM_ASSERT(t >= now_, "a monotonic clock does not go back");
  now_ = t;
}

}  // namespace Keel
