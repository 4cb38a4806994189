#pragma once
// A vector that keeps its first N elements inside the object and moves to the heap only beyond
// them: lists that are nearly always short (a Hello's secondary addresses, a group's sources in a
// Join/Prune) cost no allocation. Elements are contiguous either way. T must be trivially
// copyable: elements are moved with memmove.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <new>
#include <type_traits>
#include <utility>

namespace Loom {

template <class T, size_t N>
class SmallVector {
  static_assert(N > 0, "a small vector keeps at least one element inline");
  static_assert(std::is_trivially_copyable_v<T>, "elements are moved with memmove");
  static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "heap storage comes from plain operator new");

 public:
  using value_type = T;
  using iterator = T*;
  using const_iterator = const T*;

  SmallVector() = default;
  SmallVector(std::initializer_list<T> items) {
    reserve(items.size());
    for (const T& t : items) push_back(t);
  }
  SmallVector(const SmallVector& o) { assign(o); }
  SmallVector(SmallVector&& o) noexcept { take(o); }
  SmallVector& operator=(const SmallVector& o) {
    if (this != &o) {
      size_ = 0;
      assign(o);
    }
    return *this;
  }
  SmallVector& operator=(SmallVector&& o) noexcept {
    if (this != &o) {
      release();
      take(o);
    }
    return *this;
  }
  ~SmallVector() {
    if (onHeap()) ::operator delete(data_);
  }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  size_t capacity() const { return capacity_; }
  const T* data() const { return data_; }
  T* data() { return data_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }
  const T* cbegin() const { return data_; }
  const T* cend() const { return data_ + size_; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T& operator[](size_t i) const { return data_[i]; }
  T& operator[](size_t i) { return data_[i]; }
  const T& front() const { return data_[0]; }
  const T& back() const { return data_[size_ - 1]; }

  void reserve(size_t n) {
    if (n > capacity_) grow(n);
  }
  void push_back(const T& t) {
    if (size_ == capacity_) [[unlikely]] {
      const T copy = t;  // t may live in this vector
      grow(2 * capacity_);
      data_[size_++] = copy;
      return;
    }
    data_[size_++] = t;
  }
  T* insert(const T* pos, const T& t) {
    const size_t at = static_cast<size_t>(pos - data_);
    const T copy = t;
    if (size_ == capacity_) grow(2 * capacity_);
    std::memmove(static_cast<void*>(data_ + at + 1), data_ + at, (size_ - at) * sizeof(T));
    data_[at] = copy;
    ++size_;
    return data_ + at;
  }
  T* erase(const T* pos) { return erase(pos, pos + 1); }
  T* erase(const T* first, const T* last) {
    T* f = data_ + (first - data_);
    const size_t tail = static_cast<size_t>(end() - last);
    std::memmove(static_cast<void*>(f), last, tail * sizeof(T));
    size_ -= static_cast<size_t>(last - first);
    return f;
  }
  // Keeps the storage, as std::vector does.
  void clear() { size_ = 0; }

  friend bool operator==(const SmallVector& a, const SmallVector& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }
  template <class Container>
  friend bool operator==(const SmallVector& a, const Container& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }

 private:
  bool onHeap() const { return data_ != inlineData(); }
  T* inlineData() { return std::launder(reinterpret_cast<T*>(inline_)); }
  const T* inlineData() const { return std::launder(reinterpret_cast<const T*>(inline_)); }

  void grow(size_t n) {
    n = std::max(n, 2 * N);
    T* p = static_cast<T*>(::operator new(n * sizeof(T)));
    std::memcpy(static_cast<void*>(p), data_, size_ * sizeof(T));
    release();
    data_ = p;
    capacity_ = n;
  }
  void release() {
    if (onHeap()) ::operator delete(data_);
    data_ = inlineData();
    capacity_ = N;
  }
  void assign(const SmallVector& o) {
    reserve(o.size_);
    std::memcpy(static_cast<void*>(data_), o.data_, o.size_ * sizeof(T));
    size_ = o.size_;
  }
  // Takes o's elements, leaving o empty and inline.
  void take(SmallVector& o) {
    if (o.onHeap()) {
      data_ = o.data_;
      capacity_ = o.capacity_;
      size_ = o.size_;
      o.data_ = o.inlineData();
      o.capacity_ = N;
    } else {
      data_ = inlineData();
      capacity_ = N;
      std::memcpy(static_cast<void*>(data_), o.data_, o.size_ * sizeof(T));
      size_ = o.size_;
    }
    o.size_ = 0;
  }

  T* data_ = inlineData();
  size_t size_ = 0;
  size_t capacity_ = N;
  alignas(T) unsigned char inline_[N * sizeof(T)];
};

}  // namespace Loom
