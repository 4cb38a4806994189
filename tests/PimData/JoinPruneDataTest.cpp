// The sorted set the join/prune tree is built on, the flag bytes and the interface boundary. The
// tree and its maps are tested through the codec, which fills and drains them.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "PimData/IntfBoundary.h"
#include "PimData/JoinPruneData.h"
#include "PimData/PimFlags.h"

namespace Routing::Pim {
namespace {

Knet::IpGenAddr ip(const char* text) { return Knet::IpGenAddr::parse(text).value(); }
Knet::IpGenPrefix prefix(const char* text) { return Knet::IpGenPrefix::parse(text).value(); }

// Sets on a plain vector and sets that keep their first keys inline must behave alike.
template <class Set>
class FlatSetStorage : public ::testing::Test {};
using SetStorages = ::testing::Types<Loom::FlatSet<int>, Loom::FlatSet<int, 1>, Loom::FlatSet<int, 3>>;
TYPED_TEST_SUITE(FlatSetStorage, SetStorages);

// The encoder deletes the entries it wrote with a range erase; a removed prefix only moves the
// start of the set. Whatever the set does inside, what it holds must be as if erased one by one;
// after each case every key is looked up, inserted and erased.
TYPED_TEST(FlatSetStorage, RangeErase) {
  using Set = TypeParam;
  struct Case {
    const char* name;
    std::vector<int> held;
    size_t from, to;  // positions of the range
    bool (*pred)(const int&);
    std::function<void(Set&)> then;  // later operations
    std::vector<int> left;
  };
  auto all = [](const int&) { return true; };
  auto even = [](const int& k) { return k % 2 == 0; };
  auto nothing = [](Set&) {};
  const Case cases[] = {
      {"keys out of order, twice", {5, 1, 9, 3, 9, 7}, 0, 0, all, [](Set& s) { s.eraseSorted({0, 1, 2, 3, 9}); }, {5, 7}},
      {"prefix, then a key at the end", {1, 2, 3, 4, 5, 6}, 0, 2, all, [](Set& s) { s.insert(9); }, {3, 4, 5, 6, 9}},
      {"prefix, then erase", {1, 2, 3, 4, 5, 6}, 0, 2, all, [](Set& s) { s.erase(2), s.erase(5); }, {3, 4, 6}},
      {"prefix, then a sorted erase", {1, 2, 3, 4, 5, 6}, 0, 2, all, [](Set& s) { s.eraseSorted({1, 3, 6}); }, {4, 5}},
      {"prefix twice", {1, 2, 3, 4, 5, 6}, 0, 1, all,
       [](Set& s) { s.eraseIf(s.begin(), s.begin() + 1, [](const int&) { return true; }); }, {3, 4, 5, 6}},
      {"most of the set", {1, 2, 3, 4}, 0, 3, all, [](Set& s) { s.insert(9); }, {4, 9}},
      {"the whole set", {1, 2, 3}, 0, 3, all, [](Set& s) { s.insert(2); }, {2}},
      {"an empty range", {1, 2, 3}, 1, 1, all, nothing, {1, 2, 3}},
      {"a prefix not all erased", {1, 2, 3, 4, 5}, 0, 4, even, nothing, {1, 3, 5}},
      {"the middle", {1, 2, 3, 4, 5, 6}, 1, 5, even, nothing, {1, 3, 5, 6}},
      {"the tail", {1, 2, 3, 4, 5, 6}, 3, 6, all, [](Set& s) { s.insert(5); }, {1, 2, 3, 5}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Set s;
    for (int k : c.held) s.insert(k);
    s.eraseIf(s.begin() + static_cast<std::ptrdiff_t>(c.from), s.begin() + static_cast<std::ptrdiff_t>(c.to), c.pred);
    c.then(s);
    EXPECT_EQ(std::vector<int>(s.begin(), s.end()), c.left);
    EXPECT_EQ(s.size(), c.left.size());
    EXPECT_EQ(s.empty(), c.left.empty());
    for (int k = -1; k <= 10; ++k) {
      const bool in = std::find(c.left.begin(), c.left.end(), k) != c.left.end();
      EXPECT_EQ(s.contains(k), in) << k;
      EXPECT_EQ(s.insert(k), !in) << "insert " << k;
      s.erase(k);
      if (in) s.insert(k);
    }
    Set fresh;
    for (int k : c.left) fresh.insert(k);
    EXPECT_TRUE(s == fresh);
    EXPECT_EQ(s.lowerBound(4) - s.begin(), std::lower_bound(c.left.begin(), c.left.end(), 4) - c.left.begin());
  }
}

// The map made and drained in one pass: a present key is not made again; the sorted erase walks
// its list past the keys the map does not hold.
TEST(FlatContainers, MapFindOrInsertAndSortedErase) {
  Loom::FlatMap<int, int> m;
  for (int k : {4, 2, 2, 8, 6}) m.findOrInsert(k, [&] { return int(m.size()); });  // value: the order made
  m.eraseSorted({0, 1, 2, 6});
  EXPECT_EQ((std::vector<std::pair<int, int>>(m.begin(), m.end())), (std::vector<std::pair<int, int>>{{4, 0}, {8, 2}}));
}

// Group flag texts are in the message text tests.
TEST(PimFlags, EntryKindsAndText) {
  const std::tuple<U8, const char*, const char*> cases[] = {  // flags, entry kind, text
      {0x07, "*G", "0x07(S,W,R)"}, {0x03, "*G", "0x03(W,R)"}, {0x05, "SGrpt", "0x05(S,R)"}, {0x01, "SGrpt", "0x01(R)"},
      {0x04, "SG", "0x04(S)"},     {0x00, "SG", "0x00"},      {0x06, "", "0x06(S,W)"},  // WC without RPT: no kind
  };
  for (const auto& [value, kind, str] : cases) {
    const SourceFlags f(value);
    EXPECT_EQ(std::string(f.isStarG() ? "*G" : "") + (f.isSgRpt() ? "SGrpt" : "") + (f.isSg() ? "SG" : ""), kind) << str;
    std::ostringstream os;
    os << f;
    EXPECT_EQ(os.str(), str);
  }
  EXPECT_FALSE(GroupFlags(0x80).zone());
  EXPECT_FALSE(GroupFlags(0x7f).bidir());
}

TEST(IntfBoundary, FirstMatchingRuleDecides) {
  const std::tuple<std::vector<std::pair<const char*, bool>>, const char*, bool> cases[] = {
      {{}, "225.1.1.1", false},                                                // no rules: no boundary
      {{{"225.1.1.0/24", true}, {"225.0.0.0/8", false}}, "225.1.1.5", false},  // a permit before a wider deny
      {{{"0.0.0.0/0", true}}, "ff0e::1", true},  // an IPv4 rule never holds an IPv6 group
  };
  for (const auto& [rules, group, filtered] : cases) {
    auto b = Boundary::intfBoundaryFactory();
    for (const auto& [p, permit] : rules) b->ruleIs(prefix(p), permit);
    EXPECT_EQ(b->filtered(ip(group)), filtered) << group;
  }
  auto b = Boundary::intfBoundaryFactory();
  b->ruleIs(prefix("239.0.0.0/8"), true);
  EXPECT_TRUE(b->filtered(ip("225.1.1.1"))) << "implicit deny";
  b->ruleDelAll();
  EXPECT_FALSE(b->filtered(ip("225.1.1.1"))) << "removing every rule removes the boundary";
}

}  // namespace
}  // namespace Routing::Pim
