// The shared-memory table and the message counters on it, on real POSIX shared-memory objects;
// readers in a forked process where it matters.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <sstream>

#include "PimIO/MessageCounters.h"
#include "loom/Trace.h"

namespace Routing::Pim::Cask {
namespace {

using Knet::AddressFamily;
using Knet::IntfId;

// A VRF name of its own for each table, whose objects are removed when the test ends, failed or not.
struct TestVrf {
  std::string vrf;
  TestVrf() {
    static int next = 0;
    vrf = "test-" + std::to_string(::getpid()) + "-" + std::to_string(next++);
  }
  ~TestVrf() { ::shm_unlink(name().c_str()); }
  std::string name() const { return counterTableName(vrf, AddressFamily::ipv4); }
};

MessageCounterData counts(const CounterKey& key, U32 v) { return {key, v, v, v, v, v, v}; }

// Rewrites the header of an existing object in place, as a bad writer or a stray process would; the
// slots follow the header in the mapping.
void headerEdit(const std::string& name, const std::function<void(::Cask::ShmHeader&)>& edit) {
  const int fd = ::shm_open(name.c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0);
  const off_t size = ::lseek(fd, 0, SEEK_END);
  void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  ASSERT_NE(p, MAP_FAILED);
  edit(*static_cast<::Cask::ShmHeader*>(p));
  ::munmap(p, size);
}

TEST(CounterTableName, NamesByVrfAndFamily) {
  EXPECT_EQ(counterTableName("", AddressFamily::ipv4), "/pimio-default-ipv4");
  EXPECT_EQ(counterTableName("red", AddressFamily::ipv6), "/pimio-red-ipv6");
  std::ostringstream os;
  os << CounterKey{IntfId(), 1, CounterKey::anySubtype} << "; " << CounterKey{IntfId("eth0"), 10, 2};
  EXPECT_EQ(os.str(), "all type 1 subtype all; eth0 type 10 subtype 2");
}

// Thousands of random writes, deletes and clears on a table a little larger than the key set, checked
// against a std::map both from the writer and from a reader of the same object. Deleted keys come back
// all the time: without reusing tombstones the table would run out of empty slots and refuse keys.
TEST(ShmTable, RandomOperationsMatchAMap) {
  TestVrf vrf;
  constexpr U32 capacity = 64;
  auto writer = messageCountersFactory(vrf.vrf, AddressFamily::ipv4, capacity);
  auto reader = messageCountersReader(vrf.vrf, AddressFamily::ipv4);
  ASSERT_TRUE(writer->usable() && reader->usable());
  std::vector<CounterKey> keys;
  for (int i = 0; i < 6; ++i) {
    for (U8 t = 0; t < 8; ++t) keys.push_back({i ? IntfId("eth" + std::to_string(i)) : IntfId(), t, U8(t * 3)});
  }
  std::map<CounterKey, MessageCounterData> ref;
  std::mt19937 rng(7);
  U32 mostTombstones = 0;
  for (int op = 0; op < 5000; ++op) {
    const CounterKey& key = keys[rng() % keys.size()];
    const U32 r = rng() % 100;
    if (r < 55) {
      const MessageCounterData d{key, U32(rng()), U32(rng()), U32(rng()), 1, 2, U32(op)};
      writer->msgCounterIs(d);
      ref[key] = d;
    } else if (r < 99) {
      writer->msgCounterDel(key);
      ref.erase(key);
    } else {
      clearMessageCounters(writer);
      ref.clear();
    }
    const auto it = ref.find(key);
    const MessageCounterData expected = it == ref.end() ? MessageCounterData{} : it->second;
    ASSERT_EQ(writer->msgCounter(key), expected) << "op " << op;
    ASSERT_EQ(reader->msgCounter(key), expected) << "op " << op;
    ASSERT_EQ(writer->table().entryCount(), ref.size());
    mostTombstones = std::max(mostTombstones, writer->table().tombstones());
    if (op % 250 == 0) {
      std::vector<MessageCounterData> all;
      for (auto& [k, d] : ref) all.push_back(d);
      ASSERT_EQ(reader->msgCounters(), all) << "op " << op;
    }
  }
  EXPECT_GT(mostTombstones, 0u);
  EXPECT_EQ(writer->table().refused(), 0u);
  EXPECT_FALSE(reader->corruptionDetected());
}

// A full table refuses a new key (traced, counted) and goes on counting its keys; an interface name
// one byte too long for the stored key is refused the same way, never cut.
TEST(ShmTable, FullTableRefusesNewKeys) {
  TestVrf vrf;
  auto c = messageCountersFactory(vrf.vrf, AddressFamily::ipv4, 4);
  for (U8 t = 0; t < 4; ++t) c->msgCounterIs(counts({IntfId("eth0"), t, 0}, 1));
  Loom::TraceCapture cap(1);
  c->msgCounterIs(counts({IntfId("eth1"), 0, 0}, 1));
  EXPECT_TRUE(cap.contains(vrf.name() + ": full with 4 entries, new key refused"));
  EXPECT_EQ(c->table().refused(), 1u);
  EXPECT_EQ(c->msgCounter({IntfId("eth1"), 0, 0}), MessageCounterData{});
  c->msgCounterIs(counts({IntfId("eth0"), 2, 0}, 9));
  EXPECT_EQ(c->msgCounter({IntfId("eth0"), 2, 0}).rxValid, 9u);

  c->msgCounterDel({IntfId("eth0"), 0, 0});
  const std::string longest(maxCounterIntfName, 'x');
  c->msgCounterIs(counts({IntfId(longest + "y"), 1, 1}, 5));
  EXPECT_TRUE(cap.contains(vrf.name() + ": interface name of 48 bytes is longer than 47, counter refused"));
  EXPECT_EQ(c->longNamesRefused(), 1u);
  c->msgCounterIs(counts({IntfId(longest), 1, 1}, 5));
  EXPECT_EQ(c->msgCounter({IntfId(longest), 1, 1}), counts({IntfId(longest), 1, 1}, 5));
}

// A second writer on the same name reattaches to the counts of the first, unless the header was
// changed in between: then it makes a new, empty table and says why.
TEST(ShmTable, WriterReattachesOrRebuilds) {
  struct Row {
    const char* name;
    std::function<void(::Cask::ShmHeader&)> edit;
    U32 capacity;
    const char* trace;  // null when the counts are kept
  };
  const Row rows[] = {
      {"same layout", [](auto&) {}, 16, nullptr},
      {"entry count lost", [](auto& h) { h.entryCount = 0; }, 16, nullptr},
      {"writer stopped inside a write",
       [](auto& h) {
         for (U32 i = 0; i < h.capacity; ++i) {
           auto* slot = reinterpret_cast<::Cask::ShmSlotHead*>(reinterpret_cast<U8*>(&h + 1) + i * h.entrySize);
           slot->seq |= 1;
         }
       },
       16, nullptr},
      {"other layout version", [](auto& h) { ++h.layoutVersion; }, 16,
       ": rebuilt: the existing object has other layout version"},
      {"bad magic", [](auto& h) { h.magic = 0; }, 16, ": rebuilt: the existing object has bad magic"},
      {"other entry size", [](auto& h) { h.entrySize += 8; }, 16,
       ": rebuilt: the existing object has other entry size"},
      {"other capacity", [](auto&) {}, 32, ": rebuilt: the existing object has other capacity"},
  };
  const CounterKey key{IntfId("eth0"), 0, 255};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TestVrf vrf;
    messageCountersFactory(vrf.vrf, AddressFamily::ipv4, 16)->msgCounterIs(counts(key, 42));
    headerEdit(vrf.name(), row.edit);
    Loom::TraceCapture cap(1);
    auto again = messageCountersFactory(vrf.vrf, AddressFamily::ipv4, row.capacity);
    ASSERT_TRUE(again->usable());
    EXPECT_EQ(again->table().reattached(), row.trace == nullptr);
    EXPECT_EQ(again->msgCounter(key), row.trace ? MessageCounterData{} : counts(key, 42));
    EXPECT_EQ(again->table().entryCount(), row.trace ? 0u : 1u);
    if (row.trace) {
      EXPECT_TRUE(cap.contains(vrf.name() + row.trace));
    }
    again->msgCounterIs(counts(key, 43));  // the new table counts
    EXPECT_EQ(messageCountersReader(vrf.vrf, AddressFamily::ipv4)->msgCounter(key), counts(key, 43));
  }
}

// A reader of a header that does not describe this layout, or whose capacity does not fit the object,
// reports corruption and reads nothing.
TEST(ShmTable, ReaderReportsCorruptHeader) {
  struct Row {
    const char* name;
    std::function<void(::Cask::ShmHeader&)> edit;
    const char* trace;  // null for the intact header
  };
  const Row rows[] = {
      {"intact", [](auto&) {}, nullptr},
      {"bad magic", [](auto& h) { h.magic = 1; }, ": corrupt: bad magic"},
      {"layout version", [](auto& h) { h.layoutVersion = 9; }, ": corrupt: other layout version"},
      {"entry size", [](auto& h) { h.entrySize = 96; }, ": corrupt: other entry size"},
      {"capacity vs size", [](auto& h) { h.capacity = 17; }, ": corrupt: capacity does not match the object's size"},
  };
  const CounterKey key{IntfId(), 1, 255};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TestVrf vrf;
    auto writer = messageCountersFactory(vrf.vrf, AddressFamily::ipv4, 16);
    writer->msgCounterIs(counts(key, 3));
    headerEdit(vrf.name(), row.edit);
    Loom::TraceCapture cap(1);
    auto reader = messageCountersReader(vrf.vrf, AddressFamily::ipv4);
    EXPECT_EQ(reader->corruptionDetected(), row.trace != nullptr);
    EXPECT_EQ(reader->msgCounter(key), row.trace ? MessageCounterData{} : counts(key, 3));
    EXPECT_EQ(reader->msgCounters().size(), row.trace ? 0u : 1u);
    if (row.trace) {
      EXPECT_TRUE(cap.contains(vrf.name() + row.trace));
    }
  }
}

// An object that cannot be opened leaves the table unusable and the process running: the failure is
// traced with its errno text, lookups give the default and writes are dropped and counted.
TEST(ShmTable, UnopenableObjectIsUnusable) {
  TestVrf vrf;
  Loom::TraceCapture cap(1);
  auto writer = messageCountersFactory("bad/name", AddressFamily::ipv4, 8);
  EXPECT_TRUE(cap.contains("/pimio-bad/name-ipv4: shm_open failed: Invalid argument"));
  auto reader = messageCountersReader(vrf.vrf, AddressFamily::ipv4);
  EXPECT_TRUE(cap.contains(vrf.name() + ": shm_open failed: No such file or directory"));
  for (auto* c : {writer.ptr(), reader.ptr()}) {
    EXPECT_FALSE(c->usable());
    EXPECT_EQ(c->table().callErrors(), 1u);
    EXPECT_EQ(c->msgCounter({IntfId(), 0, 255}), MessageCounterData{});
  }
  writer->msgCounterIs(counts({IntfId(), 0, 255}, 1));
  clearMessageCounters(writer);
  EXPECT_EQ(writer->table().droppedWrites(), 2u);
}

// A reader in another process copies one hot entry in a tight loop while the writer rewrites it about
// a million times, always with six equal counts: every copy the reader gets must have six equal counts.
TEST(ShmTable, ReaderInAnotherProcessNeverSeesATornEntry) {
  TestVrf vrf;
  const CounterKey hot{IntfId("eth0"), 0, 255};
  auto writer = messageCountersFactory(vrf.vrf, AddressFamily::ipv4, 16);
  for (U8 t = 1; t < 8; ++t) writer->msgCounterIs(counts({IntfId("eth0"), t, 255}, t));  // neighbors
  writer->msgCounterIs(counts(hot, 0));
  // The reader publishes how often it saw the value change, so that the writer goes on until the two
  // really ran side by side (on a busy machine they may first take turns on one core).
  auto* changesSeen = static_cast<std::atomic<U64>*>(
      ::mmap(nullptr, sizeof(std::atomic<U64>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(changesSeen, MAP_FAILED);
  changesSeen->store(0);
  int stop[2], result[2];
  ASSERT_EQ(::pipe(stop), 0);
  ASSERT_EQ(::pipe(result), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The reader: copies until told to stop (or for 5 s at most); reports copies, torn copies,
    // changes of value seen and reads given up (those find nothing, which is not a torn copy).
    auto reader = messageCountersReader(vrf.vrf, AddressFamily::ipv4);
    reader->msgCounter(hot);
    if (::write(result[1], "r", 1) != 1) ::_exit(1);  // ready: the writer starts now
    U64 report[4] = {};
    U32 last = ~0u;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (U64 i = 0;; ++i) {
      const MessageCounterData d = reader->msgCounter(hot);
      ++report[0];
      if (d.rxInvalid != d.rxFiltered || d.rxInvalid != d.rxValid || d.rxInvalid != d.txInvalid ||
          d.rxInvalid != d.txFiltered || d.rxInvalid != d.txValid) {
        ++report[1];
      }
      if (d.rxValid != last) changesSeen->store(++report[2], std::memory_order_relaxed);
      last = d.rxValid;
      if (i % 1024 == 0) {
        pollfd p{stop[0], POLLIN, 0};
        if (::poll(&p, 1, 0) > 0 || std::chrono::steady_clock::now() > deadline) break;
      }
    }
    report[3] = reader->table().readGiveUps();
    const bool ok = ::write(result[1], report, sizeof(report)) == sizeof(report);
    ::_exit(ok ? 0 : 1);
  }
  char ready = 0;
  pollfd r{result[0], POLLIN, 0};
  const bool started = ::poll(&r, 1, 3000) > 0 && ::read(result[0], &ready, 1) == 1;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  U32 v = 1;
  for (;; ++v) {
    writer->msgCounterIs(counts(hot, v));
    if (v % 4096 == 0 && ((v >= 1'000'000 && changesSeen->load() >= 20'000) ||
                          std::chrono::steady_clock::now() > deadline)) {
      break;
    }
  }
  ASSERT_EQ(::write(stop[1], "x", 1), 1);
  U64 report[4] = {};
  pollfd p{result[0], POLLIN, 0};
  const bool reported = ::poll(&p, 1, 6000) > 0 && ::read(result[0], report, sizeof(report)) == sizeof(report);
  if (!reported) ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  for (int fd : {stop[0], stop[1], result[0], result[1]}) ::close(fd);
  ::munmap(changesSeen, sizeof(std::atomic<U64>));
  ASSERT_TRUE(started && reported && WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_GT(v, 100'000u) << "the writer made few writes";
  EXPECT_GT(report[0], 1000u) << "the reader made few copies";
  EXPECT_GT(report[2], 10u) << "the reader never saw the writer at work";
  EXPECT_EQ(report[1], 0u) << "torn copies out of " << report[0] << " (" << v << " writes, " << report[3]
                            << " reads given up)";
}

}  // namespace
}  // namespace Routing::Pim::Cask
