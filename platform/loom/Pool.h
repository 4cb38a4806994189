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
    if (size == sizeof(T) && !listGone()) {
      if (void* p = freeList().pop()) return p;
    }
    return ::operator new(size);
  }
  static void operator delete(void* p, size_t size) noexcept {
    if (p == nullptr) return;
    if (size == sizeof(T) && !listGone() && freeList().push(p)) return;
    ::operator delete(p);
  }

  // Blocks waiting on this thread's list.
  static size_t pooledFree() { return listGone() ? 0 : freeList().size; }

 private:
  struct Block {
    Block* next;
  };
  struct FreeList {
    Block* head = nullptr;
    size_t size = 0;
    void* pop() {
      Block* b = head;
      if (b) {
        head = b->next;
        --size;
      }
      return b;
    }
    bool push(void* p) {
      if (size >= MaxFree) return false;
      head = new (p) Block{head};
      ++size;
      return true;
    }
    ~FreeList() {
      while (void* p = pop()) ::operator delete(p);
      listGone() = true;
    }
  };
  // Set once the thread's list is destroyed at thread exit: objects freed later (by other
  // thread-local or static destructors) go straight back to malloc.
  static bool& listGone() {
    static thread_local bool gone = false;
    return gone;
  }
  static FreeList& freeList() {
    static thread_local FreeList list;
    return list;
  }
};

}  // namespace Loom
