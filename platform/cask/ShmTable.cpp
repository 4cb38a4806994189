#include "cask/ShmTable.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "loom/Assert.h"

namespace Cask {

namespace {

static_assert(std::atomic_ref<U32>::is_always_lock_free && std::atomic_ref<U64>::is_always_lock_free,
              "slot words are read and written as lock-free atomics");

// Slot words are copied with relaxed atomic accesses: a reader may race with the writer, and the
// sequence tells it afterwards whether the copy is whole. A reader's mapping is read-only, which
// atomic loads of these sizes never write to.
U64 loadWord(const U64& w) { return std::atomic_ref<U64>(const_cast<U64&>(w)).load(std::memory_order_relaxed); }
U32 loadState(const U32& s) { return std::atomic_ref<U32>(const_cast<U32&>(s)).load(std::memory_order_relaxed); }

void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

size_t objectSize(const ShmLayout& layout, U32 capacity) {
  return sizeof(ShmHeader) + static_cast<size_t>(capacity) * layout.entrySize();
}

void layoutCheck(const ShmLayout& layout) {
  LOOM_ASSERT(layout.keySize > 0, "a shared-memory table needs a key");
  LOOM_ASSERT(layout.keySize + layout.valueSize <= ShmTable::maxEntryWords * 8, "shared-memory entry too large");
}

}  // namespace

ShmTable::~ShmTable() { close(); }

void ShmTable::failed(const char* call) {
  lastErrno_ = errno;
  ++callErrors_;
  LOOM_TRACE(caskTraceUnit, 1, name_ << ": " << call << " failed: " << std::strerror(lastErrno_));
}

const char* ShmTable::headerProblem(const ShmHeader& h, size_t size, const ShmLayout& layout, U32 capacity) const {
  if (h.magic.load(std::memory_order_acquire) != shmMagic) return "bad magic";
  if (h.formatVersion != shmFormatVersion) return "other format version";
  if (h.layoutVersion != layout.version) return "other layout version";
  if (h.keySize != layout.keySize || h.valueSize != layout.valueSize) return "other key or value size";
  if (h.entrySize != layout.entrySize()) return "other entry size";
  if (h.capacity == 0 || h.capacity > maxCapacity) return "bad capacity";
  if (capacity != 0 && h.capacity != capacity) return "other capacity";
  if (size != objectSize(layout, h.capacity)) return "capacity does not match the object's size";
  if (h.entryCount.load(std::memory_order_relaxed) > h.capacity) return "entry count above capacity";
  return nullptr;
}

// What opening for either side starts with: the previous object closed, the new name and layout.
void ShmTable::begin(const std::string& name, const ShmLayout& layout, bool writer) {
  layoutCheck(layout);
  close();
  name_ = name;
  layout_ = layout;
  writer_ = writer;
  reattached_ = rebuilt_ = false;
  corruptionDetected_ = false;
}

bool ShmTable::open(const std::string& name, const ShmLayout& layout, U32 capacity) {
  LOOM_ASSERT(capacity > 0 && capacity <= maxCapacity, "shared-memory table capacity out of range");
  begin(name, layout, true);
  const int fd = ::shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
  if (fd >= 0) {
    switch (mapExisting(fd, capacity)) {
      case Existing::attached:
        return true;
      case Existing::error:
        return false;
      case Existing::mismatch:
        // A new object under the same name: readers that mapped the old one are never cut short.
        if (::shm_unlink(name.c_str()) < 0) failed("shm_unlink");
        rebuilt_ = true;
        break;
    }
  } else if (errno != ENOENT) {
    failed("shm_open");
    return false;
  }
  return create(capacity);
}

ShmTable::Existing ShmTable::mapExisting(int fd, U32 capacity) {
  struct stat st {};
  if (::fstat(fd, &st) < 0) {
    failed("fstat");
    ::close(fd);
    return Existing::error;
  }
  const size_t size = static_cast<size_t>(st.st_size);
  if (size < sizeof(ShmHeader)) {
    ::close(fd);
    LOOM_TRACE(caskTraceUnit, 1, name_ << ": rebuilt: the existing object of " << size << " bytes has no header");
    return Existing::mismatch;
  }
  void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    failed("mmap");
    ::close(fd);
    return Existing::error;
  }
  ::close(fd);
  const char* problem = headerProblem(*static_cast<ShmHeader*>(p), size, layout_, capacity);
  if (problem) {
    LOOM_TRACE(caskTraceUnit, 1, name_ << ": rebuilt: the existing object has " << problem);
    if (::munmap(p, size) < 0) failed("munmap");
    return Existing::mismatch;
  }
  base_ = static_cast<U8*>(p);
  size_ = size;
  header_ = static_cast<ShmHeader*>(p);
  capacity_ = capacity;
  reattached_ = true;
  repairAfterReattach();
  LOOM_TRACE(caskTraceUnit, 3, name_ << ": reattached, " << entryCount() << " entries kept");
  return Existing::attached;
}

// A writer that stopped inside a write leaves that slot's sequence odd: it is made even (the slot keeps
// what was written), and the header's counts are taken again from the slots.
void ShmTable::repairAfterReattach() {
  U32 used = 0, deleted = 0;
  for (U32 i = 0; i < capacity_; ++i) {
    ShmSlotHead* h = head(i);
    const U32 s = h->seq.load(std::memory_order_relaxed);
    if (s & 1) {
      LOOM_TRACE(caskTraceUnit, 2, name_ << ": slot " << i << " was left in the middle of a write");
      h->seq.store(s + 1, std::memory_order_release);
    }
    const U32 state = loadState(h->state);
    if (state == static_cast<U32>(SlotState::used)) {
      ++used;
    } else if (state == static_cast<U32>(SlotState::deleted)) {
      ++deleted;
    } else if (state != static_cast<U32>(SlotState::empty)) {
      stateCorrupt(i, state);
      write(i, SlotState::deleted, nullptr, nullptr);
      ++deleted;
    }
  }
  header_->entryCount.store(used, std::memory_order_relaxed);
  header_->tombstones.store(deleted, std::memory_order_relaxed);
  header_->writerPid.store(static_cast<U32>(::getpid()), std::memory_order_relaxed);
  header_->attachCount.store(header_->attachCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

bool ShmTable::create(U32 capacity) {
  const int fd = ::shm_open(name_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    failed("shm_open");
    return false;
  }
  const size_t size = objectSize(layout_, capacity);
  if (::ftruncate(fd, static_cast<off_t>(size)) < 0) {
    failed("ftruncate");
    ::close(fd);
    return false;
  }
  void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    failed("mmap");
    ::close(fd);
    return false;
  }
  ::close(fd);
  // ftruncate gave zero bytes: every slot is empty with an even sequence.
  base_ = static_cast<U8*>(p);
  size_ = size;
  header_ = static_cast<ShmHeader*>(p);
  capacity_ = capacity;
  header_->formatVersion = shmFormatVersion;
  header_->layoutVersion = layout_.version;
  header_->keySize = layout_.keySize;
  header_->valueSize = layout_.valueSize;
  header_->entrySize = layout_.entrySize();
  header_->capacity = capacity;
  header_->writerPid.store(static_cast<U32>(::getpid()), std::memory_order_relaxed);
  header_->attachCount.store(1, std::memory_order_relaxed);
  header_->magic.store(shmMagic, std::memory_order_release);
  LOOM_TRACE(caskTraceUnit, 3, name_ << ": made with " << capacity << " slots of " << layout_.entrySize() << " bytes");
  return true;
}

bool ShmTable::openReader(const std::string& name, const ShmLayout& layout) {
  begin(name, layout, false);
  const int fd = ::shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) {
    failed("shm_open");
    return false;
  }
  struct stat st {};
  if (::fstat(fd, &st) < 0) {
    failed("fstat");
    ::close(fd);
    return false;
  }
  const size_t size = static_cast<size_t>(st.st_size);
  if (size < sizeof(ShmHeader)) {
    ::close(fd);
    corruptionDetected_ = true;
    LOOM_TRACE(caskTraceUnit, 1, name_ << ": corrupt: object of " << size << " bytes has no header");
    return false;
  }
  void* p = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  ::close(fd);
  if (p == MAP_FAILED) {
    failed("mmap");
    return false;
  }
  if (const char* problem = headerProblem(*static_cast<const ShmHeader*>(p), size, layout, 0)) {
    corruptionDetected_ = true;
    LOOM_TRACE(caskTraceUnit, 1, name_ << ": corrupt: " << problem);
    if (::munmap(p, size) < 0) failed("munmap");
    return false;
  }
  base_ = static_cast<U8*>(p);
  size_ = size;
  header_ = static_cast<ShmHeader*>(p);
  capacity_ = header_->capacity;
  return true;
}

void ShmTable::close() {
  if (!base_) return;
  if (::munmap(base_, size_) < 0) failed("munmap");
  base_ = nullptr;
  header_ = nullptr;
  size_ = 0;
  capacity_ = 0;
}

void ShmTable::unlink() {
  if (!name_.empty() && ::shm_unlink(name_.c_str()) < 0 && errno != ENOENT) failed("shm_unlink");
  close();
}

U32 ShmTable::entryCount() const { return header_ ? header_->entryCount.load(std::memory_order_relaxed) : 0; }
U32 ShmTable::tombstones() const { return header_ ? header_->tombstones.load(std::memory_order_relaxed) : 0; }

// FNV-1a of the key bytes: the same in every process and build, unlike std::hash.
U32 ShmTable::home(const void* key) const {
  U64 h = 0xcbf29ce484222325ULL;
  const U8* b = static_cast<const U8*>(key);
  for (U32 i = 0; i < layout_.keySize; ++i) h = (h ^ b[i]) * 0x100000001b3ULL;
  return static_cast<U32>((h ^ (h >> 32)) % capacity_);
}

bool ShmTable::read(U32 index, SlotCopy& out) const {
  const ShmSlotHead* h = head(index);
  const U64* w = words(index);
  const U32 n = dataWords();
  for (U32 tries = 0; tries < maxReadTries; ++tries) {
    const U32 before = h->seq.load(std::memory_order_acquire);
    if ((before & 1) == 0) {
      out.state = loadState(h->state);
      for (U32 i = 0; i < n; ++i) out.words[i] = loadWord(w[i]);
      // Orders the copy before the second look at the sequence: a copy that saw any word of a
      // newer write sees that write's odd sequence (or a later one) here.
      std::atomic_thread_fence(std::memory_order_acquire);
      if (h->seq.load(std::memory_order_relaxed) == before) return true;
    }
    // The writer is inside this slot: spin briefly, then let it run (it may share our core).
    if (tries < 64) {
      cpuRelax();
    } else {
      ::sched_yield();
    }
  }
  ++readGiveUps_;
  LOOM_TRACE(caskTraceUnit, 1, name_ << ": slot " << index << " kept changing, read given up after " << maxReadTries
                                    << " tries");
  return false;
}

void ShmTable::write(U32 index, SlotState state, const void* key, const void* value) {
  U64 buf[maxEntryWords] = {};
  if (key) std::memcpy(buf, key, layout_.keySize);
  if (value) std::memcpy(reinterpret_cast<U8*>(buf) + layout_.keySize, value, layout_.valueSize);
  U64* w = words(index);
  sequenced(index, [&] {
    std::atomic_ref<U32>(head(index)->state).store(static_cast<U32>(state), std::memory_order_relaxed);
    for (U32 i = 0, n = dataWords(); i < n; ++i) std::atomic_ref<U64>(w[i]).store(buf[i], std::memory_order_relaxed);
  });
}

bool ShmTable::keyEquals(const SlotCopy& c, const void* key) const {
  return std::memcmp(c.words, key, layout_.keySize) == 0;
}

void ShmTable::stateCorrupt(U32 index, U32 state) const {
  corruptionDetected_ = true;
  LOOM_TRACE(caskTraceUnit, 1, name_ << ": corrupt: slot " << index << " in state " << state);
}

void ShmTable::find(const void* key, Probe& p) const {
  U32 i = home(key);
  for (U32 n = 0; n < capacity_; ++n, i = i + 1 == capacity_ ? 0 : i + 1) {
    if (!read(i, p.copy)) continue;
    const auto state = static_cast<SlotState>(p.copy.state);
    if (state == SlotState::used) {
      if (keyEquals(p.copy, key)) {
        p.at = i;
        return;
      }
    } else if (state == SlotState::deleted) {
      if (p.free < 0) {
        p.free = i;
        p.freeWasDeleted = true;
      }
    } else if (state == SlotState::empty) {
      if (p.free < 0) p.free = i;
      return;
    } else {
      stateCorrupt(i, p.copy.state);
    }
  }
}

bool ShmTable::entryIs(const void* key, const void* value) {
  if (!usable()) {
    ++droppedWrites_;
    return false;
  }
  LOOM_ASSERT(writer_, "write to a shared-memory table opened for reading");
  Probe p;
  find(key, p);
  if (p.at >= 0) {
    write(static_cast<U32>(p.at), SlotState::used, key, value);
    return true;
  }
  if (p.free < 0) {
    ++refused_;
    LOOM_TRACE(caskTraceUnit, 1, name_ << ": full with " << capacity_ << " entries, new key refused");
    return false;
  }
  write(static_cast<U32>(p.free), SlotState::used, key, value);
  if (p.freeWasDeleted) header_->tombstones.store(tombstones() - 1, std::memory_order_relaxed);
  header_->entryCount.store(entryCount() + 1, std::memory_order_relaxed);
  return true;
}

bool ShmTable::entryDel(const void* key) {
  if (!usable()) {
    ++droppedWrites_;
    return false;
  }
  LOOM_ASSERT(writer_, "write to a shared-memory table opened for reading");
  Probe p;
  find(key, p);
  if (p.at < 0) return false;
  write(static_cast<U32>(p.at), SlotState::deleted, nullptr, nullptr);
  ++generation_;
  header_->entryCount.store(entryCount() - 1, std::memory_order_relaxed);
  header_->tombstones.store(tombstones() + 1, std::memory_order_relaxed);
  // With no key left no probe needs the tombstones any more.
  if (entryCount() == 0) entryDelAll();
  return true;
}

void ShmTable::entryDelAll() {
  if (!usable()) {
    ++droppedWrites_;
    return;
  }
  LOOM_ASSERT(writer_, "write to a shared-memory table opened for reading");
  ++generation_;
  for (U32 i = 0; i < capacity_; ++i) {
    if (loadState(head(i)->state) != static_cast<U32>(SlotState::empty)) write(i, SlotState::empty, nullptr, nullptr);
  }
  header_->entryCount.store(0, std::memory_order_relaxed);
  header_->tombstones.store(0, std::memory_order_relaxed);
}

long ShmTable::slotIs(const void* key, const void* value) {
  if (!usable()) {
    ++droppedWrites_;
    return -1;
  }
  Probe p;
  find(key, p);
  if (p.at >= 0) return p.at;
  if (!entryIs(key, value)) return -1;
  find(key, p);
  return p.at;
}

bool ShmTable::entry(const void* key, void* value) const {
  if (!usable()) return false;
  Probe p;
  find(key, p);
  if (p.at < 0) return false;
  std::memcpy(value, reinterpret_cast<const U8*>(p.copy.words) + layout_.keySize, layout_.valueSize);
  return true;
}

void ShmTable::forEach(const std::function<void(const U8* key, const U8* value)>& fn) const {
  if (!usable()) return;
  SlotCopy c;
  for (U32 i = 0; i < capacity_; ++i) {
    if (!read(i, c)) continue;
    if (c.state == static_cast<U32>(SlotState::used)) {
      const U8* bytes = reinterpret_cast<const U8*>(c.words);
      fn(bytes, bytes + layout_.keySize);
    } else if (c.state != static_cast<U32>(SlotState::empty) && c.state != static_cast<U32>(SlotState::deleted)) {
      stateCorrupt(i, c.state);
    }
  }
}

}  // namespace Cask
