// The join/prune tree, the sorted containers it is built on, the flag bytes and the interface
// boundary.
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

Knet::IpGenAddr ip(const char* text) {
  auto a = Knet::IpGenAddr::parse(text);
  EXPECT_TRUE(a.has_value()) << text;
  return a.value_or(Knet::IpGenAddr());
}

Knet::IpGenPrefix prefix(const char* text) {
  auto p = Knet::IpGenPrefix::parse(text);
  EXPECT_TRUE(p.has_value()) << text;
  return p.value_or(Knet::IpGenPrefix());
}

template <class Set>
std::vector<std::string> texts(const Set& set) {
  std::vector<std::string> out;
  for (const auto& a : set) out.push_back(a.str());
  return out;
}

// One source collection of a group, reached through its own accessors.
struct SourceCollection {
  const char* name;
  std::function<bool(JoinPruneGroupData&, const Knet::IpGenAddr&)> add;
  std::function<bool(JoinPruneGroupData&, const Knet::IpGenAddr&)> del;
  std::function<void(JoinPruneGroupData&)> delAll;
  std::function<size_t(const JoinPruneGroupData&)> count;
  std::function<bool(const JoinPruneGroupData&, const Knet::IpGenAddr&)> has;
  bool isRoute;  // counted by routes()
};

std::vector<SourceCollection> sourceCollections() {
  using G = JoinPruneGroupData;
  using A = Knet::IpGenAddr;
  return {
      {"joined", [](G& g, const A& a) { return g.joinedSourceIs(a); },
       [](G& g, const A& a) { return g.joinedSourceDel(a); }, [](G& g) { g.joinedSourceDelAll(); },
       [](const G& g) { return g.joinedSources(); },
       [](const G& g, const A& a) { return g.joinedSource().contains(a); }, true},
      {"joinedRpt", [](G& g, const A& a) { return g.joinedRptSourceIs(a); },
       [](G& g, const A& a) { return g.joinedRptSourceDel(a); }, [](G& g) { g.joinedRptSourceDelAll(); },
       [](const G& g) { return g.joinedRptSources(); },
       [](const G& g, const A& a) { return g.joinedRptSource().contains(a); }, true},
      {"pruned", [](G& g, const A& a) { return g.prunedSourceIs(a); },
       [](G& g, const A& a) { return g.prunedSourceDel(a); }, [](G& g) { g.prunedSourceDelAll(); },
       [](const G& g) { return g.prunedSources(); },
       [](const G& g, const A& a) { return g.prunedSource().contains(a); }, true},
      {"prunedRpt",
       [](G& g, const A& a) {
         const bool had = g.prunedRptSourceHas(a);
         g.prunedRptSourceIs(a);
         return !had;
       },
       [](G& g, const A& a) {
         const bool had = g.prunedRptSourceHas(a);
         g.prunedRptSourceDel(a);
         return had;
       },
       [](G& g) { g.prunedRptSourceDelAll(); }, [](const G& g) { return g.prunedRptSources(); },
       [](const G& g, const A& a) { return g.prunedRptSourceHas(a); }, true},
      // Suppression marks say which joins to leave out; they are not entries of their own.
      {"joinSuppress", [](G& g, const A& a) { return g.joinSuppressSourceIs(a); },
       [](G& g, const A& a) { return g.joinSuppressSourceDel(a); }, [](G& g) { g.joinSuppressSourceDelAll(); },
       [](const G& g) { return g.joinSuppressSource().size(); },
       [](const G& g, const A& a) { return g.joinSuppressSource().contains(a); }, false},
  };
}

TEST(JoinPruneGroupData, SourceCollectionsAreSets) {
  const auto s1 = ip("10.0.0.1"), s2 = ip("10.0.0.2"), s3 = ip("10.0.0.3");
  for (const SourceCollection& c : sourceCollections()) {
    SCOPED_TRACE(c.name);
    JoinPruneGroupData g(ip("225.1.1.1"));
    EXPECT_TRUE(c.add(g, s2));
    EXPECT_TRUE(c.add(g, s1));
    EXPECT_FALSE(c.add(g, s2)) << "added twice";
    EXPECT_EQ(c.count(g), 2u);
    EXPECT_EQ(g.routes(), c.isRoute ? 2u : 0u);
    EXPECT_EQ(g.empty(), !c.isRoute);
    EXPECT_FALSE(c.del(g, s3)) << "deleting what is not there";
    EXPECT_TRUE(c.del(g, s1));
    EXPECT_FALSE(c.has(g, s1));
    EXPECT_TRUE(c.has(g, s2));
    EXPECT_EQ(c.count(g), 1u);
    c.add(g, s3);
    c.delAll(g);
    EXPECT_EQ(c.count(g), 0u);
    EXPECT_TRUE(g.empty());
  }
}

TEST(JoinPruneGroupData, RoutesCountEveryKindOfEntry) {
  JoinPruneGroupData g(ip("225.1.1.1"));
  EXPECT_TRUE(g.empty());
  EXPECT_EQ(g.routes(), 0u);
  g.wcSourceDataIs(ip("10.1.1.1"), true);
  EXPECT_EQ(g.routes(), 1u);
  EXPECT_FALSE(g.empty());
  g.joinedSourceIs(ip("10.0.0.1"));
  g.joinedSourceIs(ip("10.0.0.2"));
  g.joinedRptSourceIs(ip("10.0.0.3"));
  g.prunedSourceIs(ip("10.0.0.4"));
  g.prunedRptSourceIs(ip("10.0.0.5"));
  g.prunedRptSourceIs(ip("10.0.0.6"));
  g.joinSuppressSourceIs(ip("10.0.0.1"));  // a mark on a join, not a further entry
  auto packed = Loom::Ptr<RptPrunedGroupData>(new RptPrunedGroupData);
  packed->prunedRptSourceIs(ip("10.0.0.7"), true);
  g.periodicPrunedRptGroupDataIs(packed);  // what the encoder packed last: not an entry either
  EXPECT_EQ(g.routes(), 7u);
  // A (*,G) prune is one entry like a join; replacing the entry does not add one.
  g.wcSourceDataIs(ip("10.1.1.2"), false);
  EXPECT_EQ(g.routes(), 7u);
  g.wcSourceDataDel();
  EXPECT_EQ(g.routes(), 6u);

  g.wcSourceDataIs(ip("10.1.1.1"), true);
  g.entriesDelAll();
  EXPECT_TRUE(g.empty());
  EXPECT_FALSE(g.wcSourceData().has_value());
  EXPECT_TRUE(g.joinSuppressSource().empty());
  EXPECT_EQ(g.periodicPrunedRptGroupData(), packed) << "the packed prunes are the encoder's, not entries";
}

TEST(JoinPruneGroupData, WildcardEntry) {
  JoinPruneGroupData g(ip("225.1.1.1"));
  g.wcSuppressedIs(true);  // no (*,G) entry: nothing to mark
  EXPECT_FALSE(g.wcSourceData().has_value());
  g.wcSourceDataIs(ip("10.1.1.1"), true);
  g.wcSuppressedIs(true);
  ASSERT_TRUE(g.wcSourceData().has_value());
  EXPECT_EQ(g.wcSourceData()->rp, ip("10.1.1.1"));
  EXPECT_TRUE(g.wcSourceData()->join);
  EXPECT_TRUE(g.wcSourceData()->wcSuppressed);
  // A new (*,G) entry starts unsuppressed.
  g.wcSourceDataIs(ip("10.1.1.2"), false);
  EXPECT_EQ(g.wcSourceData()->rp, ip("10.1.1.2"));
  EXPECT_FALSE(g.wcSourceData()->join);
  EXPECT_FALSE(g.wcSourceData()->wcSuppressed);
}

TEST(JoinPruneGroupData, RptPrunesAreMadeOnFirstUse) {
  JoinPruneGroupData g(ip("225.1.1.1"));
  EXPECT_FALSE(g.rptPrunedGroupData());
  EXPECT_FALSE(g.prunedRptSourceHas(ip("10.0.0.1")));
  g.prunedRptSourceDel(ip("10.0.0.1"));
  g.prunedRptSourceDelAll();
  g.prunedRptSourceDel(std::vector<Knet::IpGenAddr>{ip("10.0.0.1")});
  EXPECT_FALSE(g.rptPrunedGroupData()) << "deleting made the set";
  g.prunedRptSourceIs(ip("10.0.0.9"));
  g.prunedRptSourceIs(ip("10.0.0.1"));
  g.prunedRptSourceIs(ip("10.0.0.5"));
  ASSERT_TRUE(g.rptPrunedGroupData());
  std::vector<std::string> order;
  for (const auto& [s, flag] : g.rptPrunedGroupData()->prunedRptSource()) {
    order.push_back(s.str());
    EXPECT_TRUE(flag);
  }
  EXPECT_EQ(order, (std::vector<std::string>{"10.0.0.1", "10.0.0.5", "10.0.0.9"}));
  g.prunedRptSourceDel(std::vector<Knet::IpGenAddr>{ip("10.0.0.1"), ip("10.0.0.9")});
  EXPECT_EQ(g.prunedRptSources(), 1u);
  EXPECT_TRUE(g.prunedRptSourceHas(ip("10.0.0.5")));
}

// The encoder deletes what it wrote with one sorted list per collection.
TEST(JoinPruneGroupData, DeletingASortedList) {
  struct Case {
    std::vector<const char*> held;
    std::vector<const char*> deleted;
    std::vector<std::string> left;
  };
  const Case cases[] = {
      {{"10.0.0.1", "10.0.0.2", "10.0.0.3"}, {"10.0.0.1", "10.0.0.3"}, {"10.0.0.2"}},
      {{"10.0.0.1", "10.0.0.2"}, {"10.0.0.0", "10.0.0.2", "10.0.0.9"}, {"10.0.0.1"}},
      {{"10.0.0.1", "10.0.0.2"}, {}, {"10.0.0.1", "10.0.0.2"}},
      {{"10.0.0.1", "10.0.0.2"}, {"10.0.0.1", "10.0.0.2"}, {}},
      {{"10.0.0.5", "2001:db8::1"}, {"2001:db8::1"}, {"10.0.0.5"}},
  };
  for (const Case& c : cases) {
    JoinPruneGroupData g(ip("225.1.1.1"));
    for (auto s : c.held) {
      g.joinedSourceIs(ip(s));
      g.joinedRptSourceIs(ip(s));
      g.prunedSourceIs(ip(s));
    }
    std::vector<Knet::IpGenAddr> del;
    for (auto s : c.deleted) del.push_back(ip(s));
    g.joinedSourceDel(del);
    g.joinedRptSourceDel(del);
    g.prunedSourceDel(del);
    EXPECT_EQ(texts(g.joinedSource()), c.left);
    EXPECT_EQ(texts(g.joinedRptSource()), c.left);
    EXPECT_EQ(texts(g.prunedSource()), c.left);
  }
}

TEST(JoinPruneData, GroupsInAddressOrder) {
  JoinPruneData d(ip("10.0.0.2"));
  for (auto g : {"239.1.1.1", "ff0e::1", "225.1.1.2", "225.1.1.1", "ff05::1", "232.0.0.1"}) {
    d.joinPruneGroupDataIs(ip(g));
  }
  std::vector<std::string> order;
  for (const auto& [addr, group] : d.joinPruneGroupData()) {
    EXPECT_EQ(addr, group->group());
    order.push_back(addr.str());
  }
  // IPv4 groups before IPv6 groups, each by address.
  EXPECT_EQ(order,
            (std::vector<std::string>{"225.1.1.1", "225.1.1.2", "232.0.0.1", "239.1.1.1", "ff05::1", "ff0e::1"}));

  JoinPruneGroupData& g = d.joinPruneGroupDataIs(ip("225.1.1.2"));
  g.joinedSourceIs(ip("10.0.0.1"));
  EXPECT_EQ(&d.joinPruneGroupDataIs(ip("225.1.1.2")), &g) << "a second Is made a new group";
  EXPECT_EQ(d.joinPruneGroupData(ip("225.1.1.2")), &g);
  EXPECT_EQ(d.joinPruneGroupData(ip("225.9.9.9")), nullptr);
  EXPECT_EQ(d.joinPruneGroupData().size(), 6u);
  d.joinPruneGroupDataDel(ip("225.1.1.2"));
  d.joinPruneGroupDataDel(ip("225.9.9.9"));
  EXPECT_EQ(d.joinPruneGroupData().size(), 5u);
  EXPECT_EQ(d.joinPruneGroupData(ip("225.1.1.2")), nullptr);
  d.joinPruneGroupDataDelAll();
  EXPECT_TRUE(d.joinPruneGroupData().empty());
}

TEST(JoinPruneData, RoutesSumTheGroups) {
  JoinPruneData d(ip("10.0.0.2"));
  EXPECT_TRUE(d.empty());
  d.joinPruneGroupDataIs(ip("225.1.1.1"));  // an empty group holds no route
  EXPECT_TRUE(d.empty());
  d.joinPruneGroupDataIs(ip("225.1.1.1")).joinedSourceIs(ip("10.0.0.1"));
  auto& g2 = d.joinPruneGroupDataIs(ip("225.1.1.2"));
  g2.wcSourceDataIs(ip("10.1.1.1"), true);
  g2.prunedRptSourceIs(ip("10.0.0.3"));
  EXPECT_EQ(d.routes(), 3u);
  EXPECT_FALSE(d.empty());
  g2.entriesDelAll();
  d.joinPruneGroupDataIs(ip("225.1.1.1")).joinedSourceDelAll();
  EXPECT_TRUE(d.empty());
  EXPECT_EQ(d.joinPruneGroupData().size(), 2u) << "emptied groups stay until deleted";
}

TEST(JoinPruneData, Bookmark) {
  JoinPruneData d(ip("10.0.0.2"));
  EXPECT_FALSE(d.bookmark());
  JoinPruneData::Bookmark& b = d.bookmarkIs();
  EXPECT_FALSE(b.group.isSet());
  EXPECT_FALSE(b.source.isSet());
  EXPECT_TRUE(b.join);
  EXPECT_EQ(b.collection, SourceFlags());
  b.group = ip("225.1.1.1");
  b.source = ip("10.0.0.5");
  b.collection = SourceFlags(SourceFlags::rptBit);
  b.join = false;
  EXPECT_EQ(&d.bookmarkIs(), &b) << "bookmarkIs replaced the bookmark";
  EXPECT_EQ(d.bookmark()->source, ip("10.0.0.5"));
  Loom::Ptr<JoinPruneData::Bookmark> held = d.bookmark();
  d.bookmarkDel();
  EXPECT_FALSE(d.bookmark());
  EXPECT_EQ(held->group, ip("225.1.1.1")) << "a holder keeps the bookmark alive";
  EXPECT_NE(&d.bookmarkIs(), held.ptr());
  EXPECT_FALSE(d.bookmark()->group.isSet());
}

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
  auto make = [&] {
    ++made;
    return std::string("v") + std::to_string(made);
  };
  m.findOrInsert(4, make);
  m.findOrInsert(2, make);
  m.findOrInsert(8, make);
  EXPECT_EQ(m.findOrInsert(2, make), "v2");
  EXPECT_EQ(made, 3) << "a present key was made again";
  std::vector<int> keys;
  for (const auto& [k, v] : m) keys.push_back(k);
  EXPECT_EQ(keys, (std::vector<int>{2, 4, 8}));
  EXPECT_EQ(m.lowerBound(5)->first, 8);
  EXPECT_EQ(m.lowerBound(9), m.end());
  EXPECT_EQ(m.find(5), m.end());
  EXPECT_TRUE(m.contains(4));
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
      {"prefix", {1, 2, 3, 4, 5, 6}, 0, 2, all, nothing, {3, 4, 5, 6}},
      {"prefix, then a key in front", {1, 2, 3, 4, 5, 6}, 0, 2, all, [](Set& s) { s.insert(2); }, {2, 3, 4, 5, 6}},
      {"prefix, then a known key and one in front", {1, 2, 3, 4, 5, 6}, 0, 2, all,
       [](Set& s) {
         s.insert(4);
         s.insert(0);
       },
       {0, 3, 4, 5, 6}},
      {"prefix, then a key at the end", {1, 2, 3, 4, 5, 6}, 0, 2, all, [](Set& s) { s.insert(9); }, {3, 4, 5, 6, 9}},
      {"prefix, then erase", {1, 2, 3, 4, 5, 6}, 0, 2, all,
       [](Set& s) {
         s.erase(2);
         s.erase(5);
       },
       {3, 4, 6}},
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
  EXPECT_TRUE(GroupFlags(0x80).bidir());
  EXPECT_FALSE(GroupFlags(0x80).zone());
  EXPECT_TRUE(GroupFlags(0x81).zone());
  EXPECT_FALSE(GroupFlags(0x7f).bidir());
  std::ostringstream os;
  os << GroupFlags(0x81) << " " << GroupFlags(0x00);
  EXPECT_EQ(os.str(), "0x81(B,Z) 0x00");
  JoinPruneGroupData g(ip("225.1.1.1"));
  g.groupFlagsIs(0x81);
  EXPECT_TRUE(g.bidir());
  g.groupFlagsIs(0x01);
  EXPECT_FALSE(g.bidir());
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
      {"no rules, IPv6", {}, "ff0e::1", false},
      {"denied range", {{"225.1.1.0/24", false}, {"224.0.0.0/4", true}}, "225.1.1.1", true},
      {"outside the denied range", {{"225.1.1.0/24", false}, {"224.0.0.0/4", true}}, "225.1.2.1", false},
      {"permit before a wider deny", {{"225.1.1.0/24", true}, {"225.0.0.0/8", false}}, "225.1.1.5", false},
      {"the wider deny", {{"225.1.1.0/24", true}, {"225.0.0.0/8", false}}, "225.2.1.1", true},
      {"deny before a wider permit wins", {{"225.1.1.1/32", false}, {"225.1.1.0/24", true}}, "225.1.1.1", true},
      {"host neighbour passes", {{"225.1.1.1/32", false}, {"225.1.1.0/24", true}}, "225.1.1.2", false},
      {"implicit deny", {{"239.0.0.0/8", true}}, "225.1.1.1", true},
      {"implicit deny after a deny", {{"239.0.0.0/8", false}}, "225.1.1.1", true},
      {"permit everything", {{"0.0.0.0/0", true}}, "225.1.1.1", false},
      {"IPv6 permitted", {{"ff3e::/16", true}}, "ff3e::8000:1", false},
      {"IPv6 implicit deny", {{"ff3e::/16", true}}, "ff0e::1", true},
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
