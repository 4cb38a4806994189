// Notifiees, the trace facility and named log messages.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>

#include "loom/Entity.h"
#include "loom/LogMessage.h"
#include "loom/Pool.h"
#include "loom/SmallVector.h"
#include "loom/Trace.h"

namespace Loom {
namespace {

// A small entity in the project's style, with one attribute and its notifiees.
class Value : public Entity {
 public:
  class Notifiee : public BaseNotifiee<Value> {
   public:
    virtual void onCount() {}
  };
  U32 count() const { return count_; }
  void countIs(U32 v) {
    if (v == count_) return;
    count_ = v;
    notifiees_.notify(&Notifiee::onCount);
  }
  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) { notifiees_.del(n); }
  size_t notifiees() const { return notifiees_.size(); }

 private:
  U32 count_ = 0;
  NotifieeList<Notifiee> notifiees_;
};

struct Recorder : Value::Notifiee {
  std::vector<U32> seen;
  std::function<void()> also;
  void onCount() override {
    seen.push_back(notifier()->count());
    if (also) also();
  }
};

TEST(Notifiee, CalledOnlyWhenTheValueChanges) {
  Ptr<Value> v = new Value;
  Recorder r;
  r.notifierIs(v);
  v->countIs(1);
  v->countIs(1);
  v->countIs(2);
  EXPECT_EQ(r.seen, (std::vector<U32>{1, 2}));
  r.hasNotificationActiveIs(false);
  v->countIs(3);
  EXPECT_EQ(r.seen.size(), 2u);
  r.notifierIs(nullptr);
  EXPECT_EQ(v->notifiees(), 0u);
}

TEST(Notifiee, DetachDuringNotificationIsSafe) {
  Ptr<Value> v = new Value;
  auto first = std::make_unique<Recorder>();
  auto second = std::make_unique<Recorder>();
  first->notifierIs(v);
  second->notifierIs(v);
  // The first notifiee destroys the second while the notification runs.
  first->also = [&] { second.reset(); };
  v->countIs(5);
  EXPECT_EQ(first->seen, std::vector<U32>{5});
  EXPECT_EQ(v->notifiees(), 1u);
  v->countIs(6);
  EXPECT_EQ(first->seen, (std::vector<U32>{5, 6}));
}

struct Expensive {
  int* formatted;
};
std::ostream& operator<<(std::ostream& os, const Expensive& e) {
  ++*e.formatted;
  return os << "expensive";
}

TraceUnit& testUnit() {
  static TraceUnit unit("LoomTest");
  return unit;
}

TEST(Trace, NothingIsFormattedWhenTheLevelIsOff) {
  int formatted = 0;
  traceLevelIs("LoomTest", 3);
  LOOM_TRACE(testUnit(), 4, "value " << Expensive{&formatted});
  EXPECT_EQ(formatted, 0);
  TraceCapture cap(3);
  LOOM_TRACE(testUnit(), 3, "value " << Expensive{&formatted});
  LOOM_TRACE(testUnit(), 4, "value " << Expensive{&formatted});
  EXPECT_EQ(formatted, 1);
  ASSERT_EQ(cap.lines().size(), 1u);
  const auto& line = cap.lines()[0];
  EXPECT_EQ(line.unit + "/" + std::to_string(line.level) + " " + line.function + ": " + line.text,
            "LoomTest/3 TestBody: value expensive");
}

TEST(Trace, CaptureRestoresLevelsAndNests) {
  traceLevelIs("LoomTest", 2);
  {
    TraceCapture outer(9);
    EXPECT_EQ(testUnit().level(), 9);
    {
      TraceCapture inner(1);
      LOOM_TRACE(testUnit(), 1, "inner");
      EXPECT_EQ(inner.texts(), std::vector<std::string>{"inner"});
    }
    LOOM_TRACE(testUnit(), 5, "outer");
    EXPECT_EQ(outer.texts(), std::vector<std::string>{"outer"});
    EXPECT_EQ(outer.texts(4).size(), 0u);
  }
  EXPECT_EQ(testUnit().level(), 2);
}

TEST(Trace, ConfigurationByNameAndForUnitsMadeLater) {
  EXPECT_TRUE(traceConfigIs("LoomTest=6, LaterUnit=8"));
  EXPECT_EQ(testUnit().level(), 6);
  static TraceUnit later("LaterUnit");
  EXPECT_EQ(later.level(), 8);
  EXPECT_EQ(traceLevel("LaterUnit"), 8);
  EXPECT_FALSE(traceConfigIs("LoomTest=x"));
  EXPECT_FALSE(traceConfigIs("LoomTest=10"));
  EXPECT_FALSE(traceConfigIs("=3"));
  EXPECT_EQ(testUnit().level(), 6);  // a bad list changes nothing
  traceLevelIs("LoomTest", 0);
}

TEST(Trace, WritesToAFileAndTheRingLog) {
  const std::string path = ::testing::TempDir() + "/loom_trace.txt";
  std::remove(path.c_str());
  traceFileIs(path);
  traceLevelIs("LoomTest", 5);
  RingLog::instance().clear();
  LOOM_TRACE(testUnit(), 5, "to the file " << 42);
  traceFileIs("");
  traceLevelIs("LoomTest", 0);
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "LoomTest/5 TestBody: to the file 42");
  EXPECT_EQ(RingLog::instance().lines(), std::vector<std::string>{"LoomTest/5 TestBody: to the file 42"});
}

TEST(RingLog, KeepsTheLastLinesInOrder) {
  auto& ring = RingLog::instance();
  ring.clear();
  const size_t n = ring.capacity() + 3;
  for (size_t i = 0; i < n; ++i) ring.write("U", 1, "f", std::to_string(i));
  auto lines = ring.lines();
  ASSERT_EQ(lines.size(), ring.capacity());
  EXPECT_EQ(lines.front(), "U/1 f: 3");
  EXPECT_EQ(lines.back(), "U/1 f: " + std::to_string(n - 1));
}

TEST(RingLog, BlockTimerCountsCallsWhileSwitchedOn) {
  auto timed = [] { LOOM_BLOCK_TIMER("LoomTest timed block"); };
  RingLog::timersEnabledIs(false);
  timed();
  RingLog::timersEnabledIs(true);
  timed();
  timed();
  RingLog::timersEnabledIs(false);
  const RingLog::TimerStat* stat = nullptr;
  for (auto* s : RingLog::timerStats()) {
    if (std::string(s->name) == "LoomTest timed block") stat = s;
  }
  ASSERT_NE(stat, nullptr);
  EXPECT_EQ(stat->calls, 2u);
}

LogMessage TEST_LOG_RATE("TEST_LOG_RATE", 6, "Peer %s said %s twice", "explanation", "action", 60.0);
LogMessage TEST_LOG_ALWAYS("TEST_LOG_ALWAYS", 4, "100%% of %s", "explanation", "action");

TEST(LogMessage, FormatsAndRateLimits) {
  double now = 1000.0;
  logClockIs([&] { return now; });
  LogCapture cap;
  EXPECT_TRUE(TEST_LOG_RATE.raise({"10.0.0.1", "hello"}));
  EXPECT_FALSE(TEST_LOG_RATE.raise({"10.0.0.2", "hello"}));  // within 60 seconds
  now += 59.9;
  EXPECT_FALSE(TEST_LOG_RATE.raise({"10.0.0.3", "hello"}));
  now += 0.2;
  EXPECT_TRUE(TEST_LOG_RATE.raise({"10.0.0.4", "hello"}));
  EXPECT_TRUE(TEST_LOG_ALWAYS.raise({"packets"}));
  EXPECT_TRUE(TEST_LOG_ALWAYS.raise({"packets"}));
  ASSERT_EQ(cap.messages().size(), 4u);
  EXPECT_EQ(cap.messages()[0].text, "Peer 10.0.0.1 said hello twice");
  EXPECT_EQ(cap.messages()[1].text, "Peer 10.0.0.4 said hello twice");
  EXPECT_EQ(cap.messages()[2].name, "TEST_LOG_ALWAYS");
  EXPECT_EQ(cap.messages()[2].text, "100% of packets");
  EXPECT_EQ(TEST_LOG_RATE.suppressed(), 2u);
  EXPECT_EQ(logMessage("TEST_LOG_RATE"), &TEST_LOG_RATE);
  EXPECT_EQ(logMessage("NO_SUCH_LOG"), nullptr);
  logClockIs(nullptr);
}

// Every operation, inline and on the heap, against std::vector as the reference; the element
// inserted is at times one of the vector's own (it must be copied before the storage moves).
TEST(SmallVector, BehavesAsAVectorAcrossTheInlineLimit) {
  struct Step {
    const char* name;
    std::function<void(SmallVector<int, 2>&, std::vector<int>&)> apply;
  };
  auto insertAt = [](size_t at, int v) {
    return [=](SmallVector<int, 2>& s, std::vector<int>& r) {
      s.insert(s.begin() + at, v);
      r.insert(r.begin() + static_cast<std::ptrdiff_t>(at), v);
    };
  };
  const Step steps[] = {
      {"push inline", [](auto& s, auto& r) { s.push_back(4), r.push_back(4); }},
      {"insert in front, inline", insertAt(0, 1)},
      {"erase inline", [](auto& s, auto& r) { s.erase(s.begin()), r.erase(r.begin()), s.insert(s.begin(), 1), r.insert(r.begin(), 1); }},
      {"insert past the inline room", insertAt(1, 2)},
      {"push own element", [](auto& s, auto& r) { s.push_back(s[0]), r.push_back(r[0]); }},
      {"insert own element", [](auto& s, auto& r) {
         s.insert(s.begin() + 2, s[3]);
         r.insert(r.begin() + 2, r[3]);
       }},
      {"erase a range", [](auto& s, auto& r) { s.erase(s.begin() + 1, s.begin() + 3), r.erase(r.begin() + 1, r.begin() + 3); }},
      {"reserve", [](auto& s, auto&) { s.reserve(40); }},
      {"clear", [](auto& s, auto& r) { s.clear(), r.clear(); }},
      {"refill", [](auto& s, auto& r) {
         for (int i = 0; i < 9; ++i) s.push_back(i), r.push_back(i);
       }},
  };
  SmallVector<int, 2> s;
  std::vector<int> r;
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    step.apply(s, r);
    EXPECT_EQ(s, r);
    EXPECT_EQ(s.size(), r.size());
    EXPECT_GE(s.capacity(), s.size());
    SmallVector<int, 2> copy(s);
    EXPECT_EQ(copy, r);
    SmallVector<int, 2> assigned{7, 7, 7};
    assigned = s;
    EXPECT_EQ(assigned, r);
    SmallVector<int, 2> moved(std::move(copy));
    EXPECT_EQ(moved, r);
    EXPECT_TRUE(copy.empty());
    copy = std::move(moved);
    EXPECT_EQ(copy, r);
  }
}

struct PooledThing : public Pooled<PooledThing> {
  char payload[48];
};
struct BiggerThing : public PooledThing {
  char more[64];
};

// A freed object's storage is handed to the next one made, on the same thread; a derived class of
// another size never takes a block of the pool.
TEST(Pooled, RecyclesFreedStorage) {
  const size_t before = PooledThing::pooledFree();
  auto* a = new PooledThing;
  auto* b = new PooledThing;
  delete a;
  EXPECT_EQ(PooledThing::pooledFree(), before + 1);
  auto* c = new PooledThing;
  EXPECT_EQ(static_cast<void*>(c), static_cast<void*>(a)) << "the freed block was not reused";
  EXPECT_EQ(PooledThing::pooledFree(), before);
  delete b;
  delete c;
  auto* big = new BiggerThing;
  EXPECT_EQ(PooledThing::pooledFree(), before + 2) << "a bigger object took a pooled block";
  delete big;
  EXPECT_EQ(PooledThing::pooledFree(), before + 2) << "a bigger object went into the pool";
}

}  // namespace
}  // namespace Loom
