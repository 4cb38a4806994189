#pragma once
// Ordered set and map kept as sorted vectors. Lookup is a binary search; iteration is in key
// order, contiguous and stable between calls, so a position can be resumed by its key. Adding
// keys in ascending order (the common case when a packet is decoded from a sorted sender) only
// appends.
#include <algorithm>
#include <type_traits>
#include <utility>
#include <vector>

#include "loom/SmallVector.h"

namespace Loom {

// With Inline > 0, the first Inline keys live inside the set (see SmallVector): a set that
// usually holds one or two keys costs no allocation.
template <class K, size_t Inline = 0>
class FlatSet {
  using Storage = std::conditional_t<Inline == 0, std::vector<K>, SmallVector<K, Inline == 0 ? 1 : Inline>>;

 public:
  using const_iterator = typename Storage::const_iterator;

  size_t size() const { return items_.size() - head_; }
  bool empty() const { return size() == 0; }
  const_iterator begin() const { return items_.cbegin() + head_; }
  const_iterator end() const { return items_.cend(); }
  void reserve(size_t n) { items_.reserve(head_ + n); }

  bool contains(const K& k) const { return std::binary_search(begin(), end(), k); }
  const_iterator lowerBound(const K& k) const { return std::lower_bound(begin(), end(), k); }
  bool insert(const K& k) {
    if (empty()) [[unlikely]] clear();
    if (items_.empty() || items_.back() < k) [[likely]] {
      items_.push_back(k);
      return true;
    }
    return insertInside(k);
  }
  // Removes, from [first, last), the keys for which pred is true. A removed prefix costs nothing:
  // the set only moves its start, and compacts once half of its storage is behind it.
  template <class Pred>
  void eraseIf(const_iterator first, const_iterator last, Pred pred) {
    if (first == begin() && std::all_of(first, last, pred)) {
      head_ += static_cast<size_t>(last - first);
      if (head_ == items_.size()) {
        clear();
      } else if (head_ > items_.size() / 2) {
        compact();
      }
      return;
    }
    const auto from = first - begin(), to = last - begin();
    compact();
    auto f = items_.begin() + from;
    auto l = items_.begin() + to;
    items_.erase(std::remove_if(f, l, pred), l);
  }
  bool erase(const K& k) {
    compact();
    auto it = std::lower_bound(items_.begin(), items_.end(), k);
    if (it == items_.end() || !(*it == k)) return false;
    items_.erase(it);
    return true;
  }
  void eraseSorted(const std::vector<K>& keys) {
    compact();
    auto next = keys.begin();
    items_.erase(std::remove_if(items_.begin(), items_.end(),
                                [&](const K& k) {
                                  while (next != keys.end() && *next < k) ++next;
                                  return next != keys.end() && *next == k;
                                }),
                 items_.end());
  }
  void clear() {
    items_.clear();
    head_ = 0;
  }
  friend bool operator==(const FlatSet& a, const FlatSet& b) { return std::equal(a.begin(), a.end(), b.begin(), b.end()); }

 private:
  // Note: the position of a const_iterator is invalidated by compact() as by any erase.
  void compact() {
    if (head_ == 0) return;
    items_.erase(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(head_));
    head_ = 0;
  }
  [[gnu::noinline]] bool insertInside(const K& k) {
    compact();
    auto it = std::lower_bound(items_.begin(), items_.end(), k);
    if (it != items_.end() && *it == k) return false;
    items_.insert(it, k);
    return true;
  }
  Storage items_;
  size_t head_ = 0;
};

template <class K, class V>
class FlatMap {
 public:
  using value_type = std::pair<K, V>;
  using iterator = typename std::vector<value_type>::iterator;
  using const_iterator = typename std::vector<value_type>::const_iterator;

  size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  iterator begin() { return items_.begin(); }
  iterator end() { return items_.end(); }
  const_iterator begin() const { return items_.begin(); }
  const_iterator end() const { return items_.end(); }
  void reserve(size_t n) { items_.reserve(n); }

  // A key beyond the last (the next one of a sorted sender) is told absent without a search.
  const_iterator find(const K& k) const {
    if (items_.empty() || items_.back().first < k) return items_.end();
    auto it = lowerBound(k);
    return it != items_.end() && it->first == k ? it : items_.end();
  }
  iterator find(const K& k) {
    if (items_.empty() || items_.back().first < k) return items_.end();
    auto it = lowerBound(k);
    return it != items_.end() && it->first == k ? it : items_.end();
  }
  bool contains(const K& k) const { return find(k) != items_.end(); }
  const_iterator lowerBound(const K& k) const {
    return std::lower_bound(items_.begin(), items_.end(), k, [](const value_type& e, const K& key) { return e.first < key; });
  }
  iterator lowerBound(const K& k) {
    return std::lower_bound(items_.begin(), items_.end(), k, [](const value_type& e, const K& key) { return e.first < key; });
  }
  // The value of k, made with `make()` if k is new.
  template <class Make>
  V& findOrInsert(const K& k, Make make) {
    if (items_.empty() || items_.back().first < k) return items_.emplace_back(k, make()).second;
    auto it = lowerBound(k);
    if (it != items_.end() && it->first == k) return it->second;
    return items_.emplace(it, k, make())->second;
  }
  V& operator[](const K& k) {
    return findOrInsert(k, [] { return V(); });
  }
  bool erase(const K& k) {
    auto it = find(k);
    if (it == items_.end()) return false;
    items_.erase(it);
    return true;
  }
  // Removes the keys of a sorted list, in one pass.
  void eraseSorted(const std::vector<K>& keys) {
    auto next = keys.begin();
    std::erase_if(items_, [&](const value_type& e) {
      while (next != keys.end() && *next < e.first) ++next;
      return next != keys.end() && *next == e.first;
    });
  }
  void clear() { items_.clear(); }

 private:
  std::vector<value_type> items_;
};

}  // namespace Loom
