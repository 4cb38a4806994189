#pragma once
// Recycled storage for objects that are made and freed by the hundred per packet (a Join/Prune
// message holds up to 255 groups). A class that derives from Pooled<T> takes its storage from a
// per-thread free list of blocks of sizeof(T); a freed block goes back to the list, up to a bound,
// instead of to malloc, whose bins for objects of a few hundred bytes are slow to refill.
#include <cstddef>
#include <new>

namespace Loom {

template <class T, size_t MaxFree = 4096>
class Pooled {
 public:
  static void* operator new(size_t size) {
    static_assert(sizeof(Block) <= sizeof(T));
    if (size == sizeof(T)) {
      FreeList& l = list_;
      if (Block* b = l.head) {
        l.head = b->next;
        --l.size;
        return b;
      }
    }
    return ::operator new(size);
  }
  static void operator delete(void* p, size_t size) noexcept {
    if (p == nullptr) return;
    FreeList& l = list_;
    if (size == sizeof(T) && l.size < MaxFree && !l.gone) {
      if (!l.reaperArmed) {
        l.reaperArmed = true;
        reaper_.arm();
      }
      l.head = new (p) Block{l.head};
      ++l.size;
      return;
    }
    ::operator delete(p);
  }

  // Blocks waiting on this thread's list.
  static size_t pooledFree() { return list_.size; }

 private:
  struct Block {
    Block* next;
  };
  // Trivially destructible and constant-initialised, so that reaching it costs no guard; the
  // reaper gives its blocks back at thread exit.
  struct FreeList {
    Block* head = nullptr;
    size_t size = 0;
    bool reaperArmed = false;
    bool gone = false;  // the thread is exiting: blocks freed from now on go back to malloc
  };
  struct Reaper {
    void arm() {}
    ~Reaper() {
      FreeList& l = list_;
      while (Block* b = l.head) {
        l.head = b->next;
        ::operator delete(b);
      }
      l.size = 0;
      l.gone = true;
    }
  };
  static inline thread_local constinit FreeList list_{};
  static inline thread_local Reaper reaper_;
};

}  // namespace Loom
