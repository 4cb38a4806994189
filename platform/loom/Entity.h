#pragma once
// Entities and notifiees. An entity is a reference-counted object with typed attributes; a
// notifiee registers with one entity and is called back (onX) when attribute X changes. Writers
// call notify() only when the value really changes. A reactor is a notifiee owned by the object
// that reacts.
#include <cstddef>
#include <utility>
#include <vector>

#include "loom/Ptr.h"

namespace Loom {

class Entity : public PtrInterface {
 protected:
  Entity() = default;
};

// The notifiees of one entity. Notifiees may detach (or attach others) while a notification runs:
// a detached slot is cleared and the list is compacted once the outermost notification ends.
template <class N>
class NotifieeList {
 public:
  void add(N* n) { list_.push_back(n); }
  void del(N* n) {
    for (auto& slot : list_) {
      if (slot == n) slot = nullptr;
    }
    if (depth_ == 0) compact();
  }
  size_t size() const {
    size_t n = 0;
    for (auto* s : list_) n += s != nullptr;
    return n;
  }
  bool empty() const { return size() == 0; }

  // An attribute writer: stores v in `field` and, when that changed it, calls `hook` on every
  // notifiee.
  template <class T, class Fn>
  void change(T& field, const T& v, Fn hook) {
    if (field == v) return;
    field = v;
    notify(hook);
  }

  // Calls fn(args...) on every active notifiee registered when the call began.
  template <class Fn, class... Args>
  void notify(Fn fn, Args&&... args) {
    if (list_.empty()) return;  // the common case of an attribute nobody watches
    ++depth_;
    const size_t end = list_.size();
    for (size_t i = 0; i < end; ++i) {
      N* n = list_[i];
      if (n && n->hasNotificationActive()) (n->*fn)(args...);
    }
    if (--depth_ == 0) compact();
  }

 private:
  void compact() {
    std::erase(list_, nullptr);
  }
  std::vector<N*> list_;
  int depth_ = 0;
};

// Base of every notifiee of entity E. E must offer notifieeAdd(Notifiee*) and
// notifieeDel(Notifiee*); E::Notifiee derives from this class.
template <class E>
class BaseNotifiee {
 public:
  using Notifier = E;
  BaseNotifiee() = default;
  BaseNotifiee(const BaseNotifiee&) = delete;
  BaseNotifiee& operator=(const BaseNotifiee&) = delete;
  virtual ~BaseNotifiee() {
    if (notifier_) notifier_->notifieeDel(attached_);
  }

  const Ptr<E>& notifier() const { return notifier_; }
  // Attaches to (or, with null, detaches from) an entity. Keeps a reference to it.
  void notifierIs(const Ptr<E>& e) {
    if (notifier_ == e) return;
    if (notifier_) notifier_->notifieeDel(attached_);
    notifier_ = e;
    attached_ = static_cast<typename E::Notifiee*>(this);
    if (notifier_) notifier_->notifieeAdd(attached_);
  }
  bool hasNotificationActive() const { return active_; }
  void hasNotificationActiveIs(bool v) { active_ = v; }

 private:
  Ptr<E> notifier_;
  // This object as the entity's list holds it, taken while the object is whole, so that the
  // destructor can detach without casting a half-destroyed object.
  typename E::Notifiee* attached_ = nullptr;
  bool active_ = true;
};

}  // namespace Loom
