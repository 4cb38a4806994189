#pragma once
// A fixed-layout hash table in one POSIX shared-memory object, written by one thread of one process
// and read, without locks, by any number of other processes.
//
// Layout: a 64-byte ShmHeader, then `capacity` slots of `entrySize` bytes. A slot is its sequence
// counter (std::atomic<U32>), its state (empty, used, deleted) and the key and value bytes, padded to
// whole 8-byte words. Keys are found by a fixed hash of their bytes and linear probing; a deleted key
// leaves a tombstone, so that a reader's probe never stops short of a key behind it, and a later new
// key reuses the first tombstone on its probe path.
//
// Concurrency: one writer (the agent's event-loop thread). Writing a slot makes its sequence odd,
// stores the words, and makes it even again with a release store. A reader copies a slot between an
// acquire load of the sequence and a second load after an acquire fence, and keeps the copy only when
// both loads saw the same even value; otherwise it tries again, a bounded number of times, and when
// it gives up it counts that (readGiveUps()) and treats the slot as unreadable. The writer never
// waits for readers.
//
// Exit rule: the writer keeps the object when it closes or exits, so the last counts stay readable
// and a restarted writer reattaches to them (open() keeps an object whose header is valid and of the
// same layout and capacity). unlink() removes the object for good. A header that is not valid, or of
// another layout or capacity, is replaced by a new, empty object (traced); readers that hold the old
// one keep the copy they mapped and see the new one when they open again.
//
// Failures: failed system calls are counted in callErrors(), their errno kept in lastErrno() and
// traced at level 1 under the unit "Cask" with the errno text. A table that could not be opened is
// unusable: lookups find nothing, writes are dropped and counted in droppedWrites().
#include <atomic>
#include <cstddef>
#include <functional>
#include <string>

#include "loom/Assert.h"
#include "loom/Trace.h"
#include "loom/Types.h"

namespace Cask {

inline Loom::TraceUnit caskTraceUnit{"Cask"};

// "PIMCASK1" in memory order.
constexpr U64 shmMagic = 0x314b5341434d4950ULL;
// The version of the header and slot framing below; the key and value layout has its own version.
constexpr U32 shmFormatVersion = 1;

struct ShmHeader {
  std::atomic<U64> magic;        // written last when an object is made, so a half-made one is not valid
  U32 formatVersion;             // shmFormatVersion
  U32 layoutVersion;             // the version of the user's key and value layout
  U32 keySize;                   // bytes of a key
  U32 valueSize;                 // bytes of a value
  U32 entrySize;                 // bytes of a slot: 8 + key and value rounded up to whole words
  U32 capacity;                  // slots
  std::atomic<U32> entryCount;   // used slots
  std::atomic<U32> tombstones;   // deleted slots not yet reused
  std::atomic<U32> writerPid;    // the process that last opened the object for writing
  std::atomic<U32> attachCount;  // how many times a writer opened this object (1 when new)
  U8 reserved[16];
};
static_assert(std::atomic<U64>::is_always_lock_free && std::atomic<U32>::is_always_lock_free,
              "the header and slot counters must be lock-free to live in shared memory");
static_assert(sizeof(std::atomic<U32>) == 4 && sizeof(std::atomic<U64>) == 8);
static_assert(sizeof(ShmHeader) == 64, "the header layout is fixed");
static_assert(offsetof(ShmHeader, layoutVersion) == 12 && offsetof(ShmHeader, capacity) == 28 &&
              offsetof(ShmHeader, entryCount) == 32 && offsetof(ShmHeader, attachCount) == 44);

enum class SlotState : U32 { empty = 0, used = 1, deleted = 2 };

// The fixed head of every slot; the key words and then the value words follow it.
struct ShmSlotHead {
  std::atomic<U32> seq;  // odd while the writer rewrites the slot
  U32 state;             // a SlotState, read and written only inside the sequence
};
static_assert(sizeof(ShmSlotHead) == 8, "the slot head layout is fixed");

// What the user stores: fixed-size keys and values, and the version of their layout.
struct ShmLayout {
  U32 version = 0;
  U32 keySize = 0;
  U32 valueSize = 0;
  constexpr U32 entrySize() const {
    return static_cast<U32>(sizeof(ShmSlotHead)) + ((keySize + valueSize + 7) / 8) * 8;
  }
};

class ShmTable {
 public:
  // Tries a reader makes at one slot before it gives up on it.
  static constexpr U32 maxReadTries = 1 << 16;
  // The largest capacity open() accepts.
  static constexpr U32 maxCapacity = 1 << 24;
  // The most key and value words a slot holds.
  static constexpr U32 maxEntryWords = 64;

  ShmTable() = default;
  ~ShmTable();
  ShmTable(const ShmTable&) = delete;
  ShmTable& operator=(const ShmTable&) = delete;

  // Opens `name` ("/something") for writing with room for `capacity` keys: reattaches to an object of
  // the same layout and capacity, or makes a new one. Returns usable().
  bool open(const std::string& name, const ShmLayout& layout, U32 capacity);
  // Maps `name` read-only. A header that does not match `layout`, or a capacity that does not match the
  // object's size, sets corruptionDetected() and leaves the table unusable. Returns usable().
  bool openReader(const std::string& name, const ShmLayout& layout);
  // Unmaps the object and keeps it.
  void close();
  // Removes the object's name (the writer calls this when the table is gone for good), then closes.
  void unlink();

  const std::string& name() const { return name_; }
  bool usable() const { return header_ != nullptr; }
  bool writer() const { return writer_; }
  bool reattached() const { return reattached_; }
  bool rebuilt() const { return rebuilt_; }
  const ShmLayout& layout() const { return layout_; }
  U32 capacity() const { return capacity_; }
  U32 entryCount() const;
  U32 tombstones() const;
  const ShmHeader* header() const { return header_; }

  // The writer's side. Keys and values are layout().keySize and layout().valueSize bytes; keys are
  // compared and hashed as bytes, so padding in them must be zero.
  // Inserts or replaces the value of `key`; false when the table is unusable or full (refused()).
  bool entryIs(const void* key, const void* value);
  // Deletes `key`; false when it was absent.
  bool entryDel(const void* key);
  void entryDelAll();

  // The writer's handle on a key: the slot that holds it, made with `value` when the key is absent;
  // -1 when the table is unusable or full. A handle stays good while generation() is unchanged.
  long slotIs(const void* key, const void* value);
  // Adds `delta` (modulo 2^32) to the U32 that lies `offset` bytes into the value of the handle's
  // slot (a multiple of 4), in one sequenced write as entryIs makes them.
  [[gnu::always_inline]] void slotValueAdd(long slot, U32 offset, U32 delta) {
    LOOM_ASSERT(writer_ && static_cast<unsigned long>(slot) < capacity_ && offset % 4 == 0 &&
                    offset + 4 <= layout_.valueSize,
                "a slot handle or value offset out of the table");
    // The U32 is stored alone: a reader that copies its word while it changes finds the sequence
    // changed and copies again, as for any store of the writer.
    std::atomic_ref<U32> count(
        *reinterpret_cast<U32*>(slotAt(static_cast<U32>(slot)) + sizeof(ShmSlotHead) + layout_.keySize + offset));
    sequenced(static_cast<U32>(slot), [&] { count.store(count.load(std::memory_order_relaxed) + delta,
                                                        std::memory_order_relaxed); });
  }
  // Changes whenever a key is deleted (which may free the slot of a handle).
  U64 generation() const { return generation_; }

  // Either side. Copies the value of `key` into `value` and returns true when the key is there.
  bool entry(const void* key, void* value) const;
  // Calls fn(key, value) with a consistent copy of every used slot, in slot order.
  void forEach(const std::function<void(const U8* key, const U8* value)>& fn) const;

  U32 refused() const { return refused_; }

  U32 droppedWrites() const { return droppedWrites_; }
  U32 callErrors() const { return callErrors_; }
  int lastErrno() const { return lastErrno_; }
  U64 readGiveUps() const { return readGiveUps_; }
  bool corruptionDetected() const { return corruptionDetected_; }

 private:
  // One slot as a reader copied it.
  struct SlotCopy {
    U32 state = 0;
    U64 words[maxEntryWords];
  };
  // Where a probe for a key ended.
  struct Probe {
    long at = -1;        // the slot that holds the key, or -1
    long free = -1;      // the first empty or deleted slot on the way, or -1
    bool freeWasDeleted = false;
    SlotCopy copy;       // the slot `at` as it was read
  };

  void failed(const char* call);
  // Why the mapped header does not describe an object of this layout and capacity of `size` bytes;
  // null when it does. capacity 0 takes the header's.
  const char* headerProblem(const ShmHeader& h, size_t size, const ShmLayout& layout, U32 capacity) const;
  enum class Existing { attached, mismatch, error };
  Existing mapExisting(int fd, U32 capacity);
  bool create(U32 capacity);
  void repairAfterReattach();

  U8* slotAt(U32 index) const { return base_ + sizeof(ShmHeader) + static_cast<size_t>(index) * layout_.entrySize(); }
  ShmSlotHead* head(U32 index) const { return reinterpret_cast<ShmSlotHead*>(slotAt(index)); }
  U64* words(U32 index) const { return reinterpret_cast<U64*>(slotAt(index) + sizeof(ShmSlotHead)); }
  U32 dataWords() const { return (layout_.entrySize() - static_cast<U32>(sizeof(ShmSlotHead))) / 8; }
  U32 home(const void* key) const;
  // Copies slot `index` consistently; false when the reader gave up.
  bool read(U32 index, SlotCopy& out) const;
  void write(U32 index, SlotState state, const void* key, const void* value);
  // The writer's side of the sequence: `stores` (relaxed stores into slot `index`) run between the
  // odd sequence and the even one. The odd one is ordered before every store by the release fence,
  // so a reader whose copy holds one of them finds the sequence changed.
  template <class Stores>
  void sequenced(U32 index, const Stores& stores) {
    ShmSlotHead* h = head(index);
    const U32 seq = h->seq.load(std::memory_order_relaxed);  // only this thread writes it
    h->seq.store(seq + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    stores();
    h->seq.store(seq + 2, std::memory_order_release);
  }
  void begin(const std::string& name, const ShmLayout& layout, bool writer);
  bool keyEquals(const SlotCopy& c, const void* key) const;
  // Probes for `key` from its home slot until an empty slot or a whole round.
  void find(const void* key, Probe& p) const;
  void stateCorrupt(U32 index, U32 state) const;

  std::string name_;
  ShmLayout layout_;
  U32 capacity_ = 0;
  U8* base_ = nullptr;
  size_t size_ = 0;
  ShmHeader* header_ = nullptr;
  bool writer_ = false;
  bool reattached_ = false;
  bool rebuilt_ = false;
  U64 generation_ = 0;
  U32 refused_ = 0;
  U32 droppedWrites_ = 0;
  U32 callErrors_ = 0;
  int lastErrno_ = 0;
  mutable U64 readGiveUps_ = 0;
  mutable bool corruptionDetected_ = false;
};

}  // namespace Cask
