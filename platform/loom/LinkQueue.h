#pragma once
// An ordered queue of entities linked through themselves. Each entry carries its own sequence
// number and the reference to the next entry (it derives from LinkQueue<T>::Link), so a queue
// costs no allocation beyond its entries: parking an entry is one store of a reference, and
// dequeuing the oldest is one load. Numbers rise from head to tail; an entry may be put at a
// number of the caller's choice, or replace the entry of that number.
#include "loom/Assert.h"
#include "loom/Entity.h"
#include "loom/Types.h"

namespace Loom {

template <class T>
class LinkQueue {
 public:
  // The part of an entry that the queue owns.
  class Link {
   public:
    U32 linkIndex() const { return linkIndex_; }

   private:
    friend class LinkQueue;
    Ptr<T> linkNext_;
    U32 linkIndex_ = 0;
  };

  LinkQueue() = default;
  LinkQueue(const LinkQueue&) = delete;
  LinkQueue& operator=(const LinkQueue&) = delete;
  // Unlinks one entry at a time: a long queue never recurses through its references.
  ~LinkQueue() { delAll(); }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* head() const { return head_.ptr(); }
  T* tail() const { return tail_; }
  static T* next(const T* e) { return e->linkNext_.ptr(); }
  T* at(U32 index) const {
    for (T* e = head(); e && e->linkIndex_ <= index; e = next(e)) {
      if (e->linkIndex_ == index) return e;
    }
    return nullptr;
  }

  // Appends `e` (not in a queue) with the larger of the next number and the tail's number + 1.
  U32 enq(const Ptr<T>& e) {
    LOOM_ASSERT(e && !e->linkNext_ && e.ptr() != tail_, "a queue entry is in no queue");
    U32 index = nextIndex_;
    if (tail_ && tail_->linkIndex_ + 1 > index) index = tail_->linkIndex_ + 1;
    e->linkIndex_ = index;
    nextIndex_ = index + 1;
    if (tail_) {
      tail_->linkNext_ = e;
    } else {
      head_ = e;
    }
    tail_ = e.ptr();
    ++size_;
    return index;
  }

  // Removes and returns the oldest entry; null when empty.
  Ptr<T> deq() {
    Ptr<T> e = head_;
    if (!e) return e;
    head_ = std::move(e->linkNext_);
    if (!head_) tail_ = nullptr;
    --size_;
    return e;
  }

  // Puts `e` at `index`, in order, replacing the entry of that number if there is one.
  void is(U32 index, const Ptr<T>& e) {
    LOOM_ASSERT(e && !e->linkNext_ && e.ptr() != tail_, "a queue entry is in no queue");
    del(index);
    e->linkIndex_ = index;
    if (!head_ || index < head_->linkIndex_) {
      e->linkNext_ = std::move(head_);
      head_ = e;
      if (!tail_) tail_ = e.ptr();
    } else {
      T* before = head_.ptr();
      while (before->linkNext_ && before->linkNext_->linkIndex_ < index) before = before->linkNext_.ptr();
      e->linkNext_ = std::move(before->linkNext_);
      before->linkNext_ = e;
      if (before == tail_) tail_ = e.ptr();
    }
    if (index >= nextIndex_) nextIndex_ = index + 1;
    ++size_;
  }

  // Removes the entry of `index`; false when there is none.
  bool del(U32 index) {
    Ptr<T>* at = &head_;
    T* before = nullptr;
    while (*at && (*at)->linkIndex_ < index) {
      before = at->ptr();
      at = &(*at)->linkNext_;
    }
    if (!*at || (*at)->linkIndex_ != index) return false;
    Ptr<T> gone = std::move(*at);
    *at = std::move(gone->linkNext_);
    if (gone.ptr() == tail_) tail_ = before;
    --size_;
    return true;
  }

  void delAll() {
    while (head_) head_ = std::move(head_->linkNext_);
    tail_ = nullptr;
    size_ = 0;
  }

 private:
  Ptr<T> head_;
  T* tail_ = nullptr;
  size_t size_ = 0;
  U32 nextIndex_ = 0;
};

}  // namespace Loom
