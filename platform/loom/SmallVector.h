#pragma once
// A vector that keeps its first N elements inside the object and moves to the heap only beyond
// them: lists that are nearly always short (a Hello's secondary addresses) cost no allocation.
// Elements are contiguous either way; T must be default-constructible and copyable.
#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

namespace Loom {

template <class T, size_t N>
class SmallVector {
 public:
  using value_type = T;
  using const_iterator = const T*;
  using iterator = T*;

  SmallVector() = default;
  SmallVector(std::initializer_list<T> items) {
    for (const T& t : items) push_back(t);
  }

  size_t size() const { return heap_.empty() ? size_ : heap_.size(); }
  bool empty() const { return size() == 0; }
  const T* data() const { return heap_.empty() ? inline_.data() : heap_.data(); }
  T* data() { return heap_.empty() ? inline_.data() : heap_.data(); }
  const T* begin() const { return data(); }
  const T* end() const { return data() + size(); }
  T* begin() { return data(); }
  T* end() { return data() + size(); }
  const T& operator[](size_t i) const { return data()[i]; }
  const T& front() const { return data()[0]; }
  const T& back() const { return data()[size() - 1]; }

  void push_back(const T& t) {
    if (heap_.empty() && size_ < N) {
      inline_[size_++] = t;
      return;
    }
    if (heap_.empty()) {
      heap_.reserve(2 * N);
      heap_.assign(inline_.begin(), inline_.begin() + size_);
      size_ = 0;
    }
    heap_.push_back(t);
  }
  void erase(const T* pos) {
    if (!heap_.empty()) {
      heap_.erase(heap_.begin() + (pos - heap_.data()));
      return;
    }
    T* p = inline_.data() + (pos - inline_.data());
    std::move(p + 1, inline_.data() + size_, p);
    --size_;
  }
  void clear() {
    heap_.clear();
    size_ = 0;
  }

  friend bool operator==(const SmallVector& a, const SmallVector& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }
  template <class Container>
  friend bool operator==(const SmallVector& a, const Container& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }

 private:
  std::array<T, N> inline_{};
  size_t size_ = 0;      // elements in inline_, while heap_ is empty
  std::vector<T> heap_;  // all elements, once there are more than N
};

}  // namespace Loom
