// The sorted containers the join/prune tree is built on, the flag bytes and the interface
// boundary. The tree itself is tested through the codec, which fills and drains it.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
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

TYPED_TEST(FlatSetStorage, OrderLookupAndErase) {
  TypeParam s;
  for (int k : {5, 1, 9, 3, 9, 7}) s.insert(k);
  EXPECT_EQ(std::vector<int>(s.begin(), s.end()), (std::vector<int>{1, 3, 5, 7, 9}));
  EXPECT_EQ(*s.lowerBound(4), 5);
  EXPECT_EQ(*s.lowerBound(5), 5);
  EXPECT_EQ(s.lowerBound(10), s.end());
  EXPECT_FALSE(s.insert(3));
  EXPECT_TRUE(s.erase(3));
  EXPECT_FALSE(s.erase(3));
  s.eraseSorted({0, 1, 8, 9, 11});
  EXPECT_EQ(std::vector<int>(s.begin(), s.end()), (std::vector<int>{5, 7}));
  TypeParam copy = s;
  s.insert(6);
  EXPECT_EQ(std::vector<int>(copy.begin(), copy.end()), (std::vector<int>{5, 7})) << "a copy shares storage";
  TypeParam moved = std::move(s);
  EXPECT_EQ(std::vector<int>(moved.begin(), moved.end()), (std::vector<int>{5, 6, 7}));
}

TEST(FlatContainers, MapOrderLookupAndErase) {
  Loom::FlatMap<int, std::string> m;
  int made = 0;
  auto make = [&] { return "v" + std::to_string(++made); };
  for (int k : {4, 2, 8}) m.findOrInsert(k, make);
  EXPECT_EQ(m.findOrInsert(2, make), "v2");
  EXPECT_EQ(made, 3) << "a present key was made again";
  std::vector<int> keys;
  for (const auto& [k, v] : m) keys.push_back(k);
  EXPECT_EQ(keys, (std::vector<int>{2, 4, 8}));
  EXPECT_EQ(m.lowerBound(5)->first, 8);
  EXPECT_EQ(m.find(5), m.end());
  m[6] = "six";
  EXPECT_EQ(m.find(6)->second, "six");
  EXPECT_TRUE(m.erase(4));
  EXPECT_FALSE(m.erase(4));
  m.eraseSorted({2, 3, 6});
  ASSERT_EQ(m.size(), 1u);
  EXPECT_EQ(m.begin()->first, 8);
}

// The encoder deletes the entries it wrote with a range erase; a removed prefix only moves the
// start of the set. Whatever the set does inside, what it holds must be as if erased one by one.
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
    auto lb = s.lowerBound(4);
    auto expected = std::lower_bound(c.left.begin(), c.left.end(), 4);
    EXPECT_EQ(lb - s.begin(), expected - c.left.begin());
  }
}

TEST(PimFlags, EntryKindsAndText) {
  struct Case {
    U8 value;
    bool starG, sgRpt, sg;
    const char* text;
  };
  const Case cases[] = {
      {0x07, true, false, false, "0x07(S,W,R)"}, {0x03, true, false, false, "0x03(W,R)"},
      {0x05, false, true, false, "0x05(S,R)"},   {0x01, false, true, false, "0x01(R)"},
      {0x04, false, false, true, "0x04(S)"},     {0x00, false, false, true, "0x00"},
      {0x06, false, false, false, "0x06(S,W)"},  // WC without RPT is no kind at all
  };
  for (const Case& c : cases) {
    const SourceFlags f(c.value);
    EXPECT_EQ(f.isStarG(), c.starG) << int(c.value);
    EXPECT_EQ(f.isSgRpt(), c.sgRpt) << int(c.value);
    EXPECT_EQ(f.isSg(), c.sg) << int(c.value);
    std::ostringstream os;
    os << f;
    EXPECT_EQ(os.str(), c.text);
  }
  std::ostringstream os;
  os << GroupFlags(0x81) << " " << GroupFlags(0x00);
  EXPECT_EQ(os.str(), "0x81(B,Z) 0x00");
  EXPECT_FALSE(GroupFlags(0x80).zone());
  EXPECT_FALSE(GroupFlags(0x7f).bidir());
}

TEST(IntfBoundary, FirstMatchingRuleDecides) {
  struct Rule {
    const char* prefix;
    bool permit;
  };
  struct Case {
    const char* name;
    std::vector<Rule> rules;
    const char* group;
    bool filtered;
  };
  const Case cases[] = {
      {"no rules: no boundary", {}, "225.1.1.1", false},
      {"denied range", {{"225.1.1.0/24", false}, {"224.0.0.0/4", true}}, "225.1.1.1", true},
      {"permit before a wider deny", {{"225.1.1.0/24", true}, {"225.0.0.0/8", false}}, "225.1.1.5", false},
      {"the wider deny", {{"225.1.1.0/24", true}, {"225.0.0.0/8", false}}, "225.2.1.1", true},
      {"deny before a wider permit wins", {{"225.1.1.1/32", false}, {"225.1.1.0/24", true}}, "225.1.1.1", true},
      {"implicit deny", {{"239.0.0.0/8", true}}, "225.1.1.1", true},
      {"IPv6 denied", {{"ff0e::/16", false}, {"ff00::/8", true}}, "ff0e::1", true},
      {"an IPv4 rule never holds an IPv6 group", {{"0.0.0.0/0", true}}, "ff0e::1", true},
  };
  for (const Case& c : cases) {
    auto b = Boundary::intfBoundaryFactory();
    for (const Rule& r : c.rules) b->ruleIs(prefix(r.prefix), r.permit);
    EXPECT_EQ(b->filtered(ip(c.group)), c.filtered) << c.name;
  }
  auto b = Boundary::intfBoundaryFactory();
  b->ruleIs(prefix("239.0.0.0/8"), true);
  EXPECT_TRUE(b->filtered(ip("225.1.1.1")));
  b->ruleDelAll();
  EXPECT_FALSE(b->filtered(ip("225.1.1.1"))) << "removing every rule removes the boundary";
}

}  // namespace
}  // namespace Routing::Pim
