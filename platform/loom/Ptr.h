#pragma once
// Intrusive reference counting. An object that derives from PtrInterface carries its own count;
// Loom::Ptr holds one reference. Everything runs on one thread, so the count is a plain integer.
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "loom/Types.h"

namespace Loom {

class PtrInterface {
 public:
  void newRef() const noexcept { ++references_; }
  void deleteRef() const noexcept {
    if (--references_ == 0) delete this;
  }
  U32 references() const noexcept { return references_; }

 protected:
  PtrInterface() = default;
  PtrInterface(const PtrInterface&) noexcept : references_(0) {}
  PtrInterface& operator=(const PtrInterface&) noexcept { return *this; }
  virtual ~PtrInterface() = default;

 private:
  mutable U32 references_ = 0;
};

template <class T>
class Ptr {
 public:
  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) {
    if (p_) p_->newRef();
  }
  Ptr(const Ptr& o) noexcept : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& o) noexcept : Ptr(o.ptr()) {}
  ~Ptr() {
    if (p_) p_->deleteRef();
  }

  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.p_ == b.p_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }

 private:
  T* p_ = nullptr;
};

// Down-cast of a Ptr; null when the object is not a T.
template <class T, class U>
Ptr<T> ptr_cast(const Ptr<U>& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

}  // namespace Loom

template <class T>
struct std::hash<Loom::Ptr<T>> {
  size_t operator()(const Loom::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
