#pragma once
// Ordered set and map kept as sorted vectors. Lookup is a binary search; iteration is in key
// order, contiguous and stable between calls, so a position can be resumed by its key. Adding
// keys in ascending order (the common case when a packet is decoded from a sorted sender) only
// appends.
#include <algorithm>
#include <utility>
#include <vector>

namespace Loom {

template <class K>
class FlatSet {
 public:
  using const_iterator = typename std::vector<K>::const_iterator;

  size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  const_iterator begin() const { return items_.begin(); }
  const_iterator end() const { return items_.end(); }
  void reserve(size_t n) { items_.reserve(n); }

  bool contains(const K& k) const { return std::binary_search(items_.begin(), items_.end(), k); }
  // The first key not less than k.
  const_iterator lowerBound(const K& k) const { return std::lower_bound(items_.begin(), items_.end(), k); }
  // Adds k; returns false if it was already there.
  bool insert(const K& k) {
    if (items_.empty() || items_.back() < k) {
      items_.push_back(k);
      return true;
    }
    auto it = std::lower_bound(items_.begin(), items_.end(), k);
    if (it != items_.end() && *it == k) return false;
    items_.insert(it, k);
    return true;
  }
  // Removes k; returns false if it was not there.
  bool erase(const K& k) {
    auto it = std::lower_bound(items_.begin(), items_.end(), k);
    if (it == items_.end() || !(*it == k)) return false;
    items_.erase(it);
    return true;
  }
  // Removes the keys of a sorted list, in one pass.
  void eraseSorted(const std::vector<K>& keys) {
    auto next = keys.begin();
    std::erase_if(items_, [&](const K& k) {
      while (next != keys.end() && *next < k) ++next;
      return next != keys.end() && *next == k;
    });
  }
  void clear() { items_.clear(); }
  friend bool operator==(const FlatSet&, const FlatSet&) = default;

 private:
  std::vector<K> items_;
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

  const_iterator find(const K& k) const {
    auto it = lowerBound(k);
    return it != items_.end() && it->first == k ? it : items_.end();
  }
  iterator find(const K& k) {
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
