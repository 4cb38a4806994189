// The timer wheel on a manual clock, and the event loop on real descriptors and real time.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <random>

#include "keel/EventLoop.h"
#include "loom/Trace.h"

namespace Keel {
namespace {

struct Firing : Timer::Notifiee {
  int id = 0;
  std::vector<int>* log = nullptr;
  std::function<void()> also;
  void onTime() override {
    log->push_back(id);
    if (also) also();
  }
};

// A wheel on a manual clock at 10 s with n disarmed timers, each logging its index when it fires.
struct Rig {
  ManualClock clock{10};
  Loom::Ptr<TimerWheel> wheel = timerWheelFactory(clock);
  std::vector<Loom::Ptr<Timer>> timers;
  std::vector<std::unique_ptr<Firing>> firings;
  std::vector<int> fired;
  explicit Rig(int n) {
    for (int i = 0; i < n; ++i) {
      timers.push_back(wheel->timerNew());
      firings.push_back(std::make_unique<Firing>());
      firings.back()->id = i;
      firings.back()->log = &fired;
      firings.back()->notifierIs(timers.back());
    }
  }
};

struct TimeMinLog : TimerWheel::Notifiee {
  std::vector<Time> seen;
  void onTimeMin() override { seen.push_back(notifier()->timeMin()); }
};

// Each row arms timers in order, advances once, and lists the timers fired and every value of the
// wheel's timeMin notified (only changes, one when the advance ends).
TEST(TimerWheel, FiresDueTimersInOrder) {
  constexpr Time inf = timeInfinity;
  struct Row {
    const char* name;
    std::vector<std::pair<int, Time>> arms;  // (timer, due time)
    Time advanceTo;
    std::vector<int> fired;
    std::vector<Time> timeMins;
  };
  const Row rows[] = {
      {"arm", {{0, 12}}, 12, {0}, {12, inf}},
      {"due order", {{0, 14}, {1, 12}, {2, 13}}, 20, {1, 2, 0}, {14, 12, inf}},
      {"re-arm earlier", {{0, 20}, {0, 11}}, 11, {0}, {20, 11, inf}},
      {"re-arm later", {{0, 11}, {0, 20}}, 15, {}, {11, 20}},
      {"disarm", {{0, 11}, {1, 12}, {0, inf}}, 15, {1}, {11, 12, inf}},
      {"ties in arming order", {{2, 12}, {0, 12}, {1, 12}}, 12, {2, 0, 1}, {12, inf}},
      {"re-armed to a tie goes last", {{0, 12}, {1, 12}, {0, 13}, {0, 12}}, 12, {1, 0}, {12, inf}},
      {"past fires at the next advance", {{0, 5}, {1, 10}}, 10, {0, 1}, {5, inf}},
      {"far future does not fire", {{0, 1e9}, {1, 11}}, 1e6, {1}, {1e9, 11, 1e9}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Rig rig(3);
    TimeMinLog log;
    log.notifierIs(rig.wheel);
    for (auto [i, t] : row.arms) rig.timers[i]->timeMinIs(t);
    rig.clock.nowIs(row.advanceTo);
    EXPECT_EQ(rig.wheel->advance(), row.fired.size());
    EXPECT_EQ(rig.fired, row.fired);
    EXPECT_EQ(log.seen, row.timeMins);
    for (int i : row.fired) EXPECT_EQ(rig.timers[i]->timeMin(), timeInfinity);
  }
}

// In one advance the first timer's notifiee re-arms it for the past (it waits for the next
// advance; the wheel's timeMin keeps its value until then), destroys the second timer and disarms
// the third; neither of those fires.
TEST(TimerWheel, NotifieesRearmDestroyAndDisarmDueTimers) {
  Rig rig(4);
  for (auto& t : rig.timers) t->timeMinIs(11);
  Time seenInside = 0, wheelSeen = 0;
  rig.firings[0]->also = [&] {
    if (!rig.timers[1]) return;  // fired the second time
    seenInside = rig.timers[0]->timeMin();
    rig.timers[0]->timeMinIs(rig.clock.now() - 1);
    wheelSeen = rig.wheel->timeMin();
    rig.firings[1].reset();
    rig.timers[1] = nullptr;  // its last reference
    rig.timers[2]->timeMinIs(timeInfinity);
  };
  rig.clock.nowIs(11);
  EXPECT_EQ(rig.wheel->advance(), 2u);
  EXPECT_EQ(seenInside, timeInfinity);
  EXPECT_EQ(wheelSeen, 11);
  EXPECT_EQ(rig.wheel->timeMin(), 10);
  EXPECT_EQ(rig.wheel->advance(), 1u);
  EXPECT_EQ(rig.fired, (std::vector<int>{0, 3, 0}));
  EXPECT_EQ(rig.wheel->timersArmed(), 0u);
}

// Random arm, re-arm and disarm of many timers; a multimap keeps equal keys in insertion order,
// which is the wheel's rule for ties.
TEST(TimerWheel, ManyTimersAgainstASortedMultimap) {
  constexpr int n = 100000;
  Rig rig(n);
  std::multimap<Time, int> model;
  std::vector<std::multimap<Time, int>::iterator> where(n, model.end());
  std::mt19937 rng(7);
  auto arm = [&](int i, Time t) {
    rig.timers[i]->timeMinIs(t);
    const Time before = where[i] == model.end() ? timeInfinity : where[i]->first;
    if (t == before) return;
    if (where[i] != model.end()) model.erase(where[i]);
    where[i] = t == timeInfinity ? model.end() : model.emplace(t, i);
  };
  auto randomTime = [&] {
    const int k = static_cast<int>(rng() % 440) - 20;  // quarter seconds, some in the past
    return k >= 400 ? timeInfinity : rig.clock.now() + k * 0.25;
  };
  for (int i = 0; i < n; ++i) arm(i, randomTime());
  for (int step = 0; step < 300; ++step) {
    for (int op = 0; op < 300; ++op) arm(static_cast<int>(rng() % n), randomTime());
    rig.clock.nowInc((rng() % 8) * 0.25);
    std::vector<int> expected;
    while (!model.empty() && model.begin()->first <= rig.clock.now()) {
      expected.push_back(model.begin()->second);
      where[model.begin()->second] = model.end();
      model.erase(model.begin());
    }
    rig.fired.clear();
    rig.wheel->advance();
    ASSERT_EQ(rig.fired, expected) << "step " << step;
    ASSERT_EQ(rig.wheel->timeMin(), model.empty() ? timeInfinity : model.begin()->first);
    ASSERT_EQ(rig.wheel->timersArmed(), model.size());
  }
}

struct Pipe {
  int fds[2] = {-1, -1};
  Pipe() { EXPECT_EQ(pipe(fds), 0); }
  ~Pipe() { close(fds[0]), close(fds[1]); }
  void write1() { EXPECT_EQ(write(fds[1], "x", 1), 1); }
};

struct Readable : FdWatch {
  int calls = 0;
  std::function<void()> also;
  void onFdReadable() override { ++calls, also ? also() : void(); }
};

TEST(EventLoop, TimerFiresThroughTheTimerFd) {
  MonotonicClock clock;
  auto loop = eventLoopFactory(timerWheelFactory(clock));
  Loom::Ptr<Timer> timer = loop->timerWheel()->timerNew();
  Firing firing;
  std::vector<int> fired;
  firing.log = &fired;
  firing.notifierIs(timer);
  const Time start = clock.now();
  timer->timeMinIs(start + 0.02);
  for (int i = 0; i < 100 && fired.empty(); ++i) loop->runOnce(0.05);
  EXPECT_EQ(fired.size(), 1u);
  EXPECT_LT(clock.now() - start, 2.0);
  EXPECT_EQ(loop->errors(), 0u);
}

// Two pipes made readable, whose watches delete each other: only the first called runs that round. Then
// a failed system call is counted and traced with its errno text.
TEST(EventLoop, WatchDeletedDuringDispatchIsNotCalled) {
  MonotonicClock clock;
  auto loop = eventLoopFactory(timerWheelFactory(clock));
  Pipe a, b;
  Readable ra, rb;
  ra.also = [&] { loop->fdWatchDel(b.fds[0]); };
  rb.also = [&] { loop->fdWatchDel(a.fds[0]); };
  loop->fdWatchIs(a.fds[0], &ra);
  loop->fdWatchIs(b.fds[0], &rb);
  EXPECT_EQ(loop->runOnce(0), 0u);
  a.write1(), b.write1();
  EXPECT_EQ(loop->runOnce(1), 1u);
  EXPECT_EQ(loop->runOnce(1), 1u);  // level-triggered: the survivor again, its byte unread
  EXPECT_EQ(ra.calls * rb.calls, 0);
  EXPECT_EQ(ra.calls + rb.calls, 2);
  EXPECT_EQ(loop->errors(), 0u);

  Loom::TraceCapture cap(1);
  loop->fdWatchIs(-1, &ra);
  EXPECT_EQ(loop->errors(), 1u);
  EXPECT_EQ(cap.texts(), std::vector<std::string>{"epoll_ctl add fd -1: Bad file descriptor"});
}

}  // namespace
}  // namespace Keel
