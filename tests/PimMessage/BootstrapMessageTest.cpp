// The Bootstrap message: golden packets of both families, what the read accepts and refuses
// (each refusal with its text), the write's refusals, truncation at every length, the No-Forward
// bit, the hash mask length bound, the group queue, the renderings, and the fragment key as
// properties over random keys.
#include "PimMessage/BootstrapMessage.h"

#include <random>
#include <set>
#include <sstream>

#include "loom/Exception.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;
using Routing::Pim::GroupFlags;

const Knet::IpGenAddr v4Src = ip("10.0.0.1");
const Knet::IpGenAddr v4Dst = ip("224.0.0.13");
const Knet::IpGenAddr v6Src = ip("fe80::1");
const Knet::IpGenAddr v6Dst = ip("ff02::d");


Bytes unicast4(U8 last) { return {0x01, 0x00, 10, 0, 0, last}; }
Bytes group4(U8 first, U8 mask, U8 flags = 0) { return {0x01, 0x00, flags, mask, first, 0, 0, 0}; }
Bytes unicast6(const char* a) {
  const Knet::IpGenAddr x = ip(a);
  Bytes b = {0x02, 0x00};
  b.insert(b.end(), x.bytes(), x.bytes() + 16);
  return b;
}
Bytes group6(const char* a, U8 mask, U8 flags = 0) {
  const Knet::IpGenAddr x = ip(a);
  Bytes b = {0x02, 0x00, flags, mask};
  b.insert(b.end(), x.bytes(), x.bytes() + 16);
  return b;
}
Bytes rpTail(U16 holdtime, U8 priority) { return {U8(holdtime >> 8), U8(holdtime), priority, 0}; }

const Bytes fixed4 = {0x12, 0x34, 30, 64};  // fragment tag 0x1234, hash mask length 30, BSR priority 64
const Bytes bsr4 = unicast4(1);             // 10.0.0.1

// Two ranges: 224.0.0.0/4 with RPs 10.0.0.2 and 10.0.0.3, 239.0.0.0/8 with RP 10.0.0.2.
const Bytes body4 = concat({fixed4, bsr4,                                                //
                            group4(224, 4), {2, 2, 0, 0},                                //
                            unicast4(2), rpTail(150, 192), unicast4(3), rpTail(150, 1),  //
                            group4(239, 8), {1, 1, 0, 0},                                //
                            unicast4(2), rpTail(150, 192)});

// One admin-scoped range ff00::/8 (Z flag on the first group) with RP 2001:db8::2.
const Bytes body6 = concat({{0x00, 0x07, 126, 10}, unicast6("2001:db8::1"), group6("ff00::", 8, 0x01), {1, 1, 0, 0},
                            unicast6("2001:db8::2"), rpTail(75, 0)});

Bytes bootstrap(const Bytes& body, bool v6 = false, U8 reserved = 0) {
  Bytes b = concat({{0x24, reserved, 0, 0}, body});
  fixChecksum(b, v6 ? v6Src : v4Src, v6 ? v6Dst : v4Dst);
  return b;
}

Loom::Ptr<BootstrapMessage> message(bool v6 = false) {
  Loom::Ptr<BootstrapMessage> m = bootstrapMessageFactory();
  m->srcIpIs(v6 ? v6Src : v4Src);
  m->dstIpIs(v6 ? v6Dst : v4Dst);
  return m;
}

// The ranges of a read message as text: "224.0.0.0/4 0x00 2/2 [10.0.0.2 150 192, ...]".
std::vector<std::string> rangesOf(const BootstrapMessage& m) {
  std::vector<std::string> out;
  if (!m.groupRpData()) return out;
  for (const auto& [index, g] : m.groupRpData()->groupData()) {
    std::ostringstream os;
    os << g->prefix() << " " << GroupFlags(g->groupFlags()) << " " << unsigned(g->rpCount()) << "/"
       << unsigned(g->fragRpCount()) << " [";
    const char* sep = "";
    for (const auto& rp : g->rpList()) {
      os << sep << rp.address() << " " << rp.holdtime() << " " << unsigned(rp.priority());
      sep = ", ";
    }
    os << "]";
    out.push_back(os.str());
  }
  return out;
}

TEST(Bootstrap, GoldenPacketsReadAndWriteBack) {
  struct Case {
    const char* name;
    bool v6;
    Bytes bytes;
    std::vector<std::string> ranges;
  };
  const Case cases[] = {
      {"ipv4, two ranges", false, bootstrap(body4),
       {"224.0.0.0/4 0x00 2/2 [10.0.0.2 150 192, 10.0.0.3 150 1]", "239.0.0.0/8 0x00 1/1 [10.0.0.2 150 192]"}},
      {"ipv6, an admin-scoped range, no-forward", true, bootstrap(body6, true, 0x80),
       {"ff00::/8 0x01(Z) 1/1 [2001:db8::2 75 0]"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = message(c.v6);
    Loom::TraceCapture cap(1);
    ASSERT_EQ(m->readBootstrapMessage(pkt(c.bytes), 0), c.bytes.size()) << firstError(cap);
    EXPECT_EQ(rangesOf(*m), c.ranges);
    EXPECT_EQ(bool(m->groupRpData()), !c.ranges.empty());
    EXPECT_EQ(m->noForward(), c.bytes[1] == 0x80);
    EXPECT_EQ(m->fragmentTag(), U16(c.bytes[4] << 8 | c.bytes[5]));
    EXPECT_EQ(m->hashMaskLen(), c.bytes[6]);
    EXPECT_EQ(m->bsrPriority(), c.bytes[7]);
    EXPECT_EQ(m->bsrAddress(), ip(c.v6 ? "2001:db8::1" : "10.0.0.1"));

    constexpr U32 offset = 5;
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(offset + c.bytes.size(), 0xee));
    ASSERT_EQ(m->writeBootstrapMessage(out, offset), c.bytes.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + offset, out->data() + out->size()), c.bytes);
  }
}

TEST(Bootstrap, AcceptedLayouts) {
  struct Case {
    const char* name;
    Bytes body;
    std::vector<std::string> ranges;
  };
  const Case cases[] = {
      {"a range that ends the message without counts", concat({fixed4, bsr4, group4(239, 8)}),
       {"239.0.0.0/8 0x00 0/0 []"}},
      {"the zone flag on the first range", concat({fixed4, bsr4, group4(239, 8, 0x01), {0, 0, 0, 0}}),
       {"239.0.0.0/8 0x01(Z) 0/0 []"}},
      {"one address with two masks", concat({fixed4, bsr4, group4(239, 8), {0, 0, 0, 0}, group4(239, 16), {0, 0, 0, 0}}),
       {"239.0.0.0/8 0x00 0/0 []", "239.0.0.0/16 0x00 0/0 []"}},
      {"a fragment: 1 of 3 RPs", concat({fixed4, bsr4, group4(239, 8), {3, 1, 0, 0}, unicast4(2), rpTail(1, 2),
                                         unicast4(3), rpTail(3, 4), unicast4(4), rpTail(5, 6)}),
       {"239.0.0.0/8 0x00 3/1 [10.0.0.2 1 2, 10.0.0.3 3 4, 10.0.0.4 5 6]"}},
      {"hash mask length 128", concat({{0, 0, 128, 0}, bsr4}), {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = message();
    Loom::TraceCapture cap(1);
    const Bytes b = bootstrap(c.body);
    EXPECT_EQ(m->readBootstrapMessage(pkt(b), 0), b.size()) << firstError(cap);
    EXPECT_EQ(rangesOf(*m), c.ranges);
  }
}

// Packets that fail, with the message's failure text (the last trace: an encoded address
// traces its own failure first); the message keeps no range.
TEST(Bootstrap, ReadRejectTable) {
  const Bytes rp2 = concat({unicast4(2), rpTail(150, 0)});
  const Bytes v6Bsr = unicast6("2001:db8::1");
  struct Case {
    const char* name;
    Bytes body;
    std::string error;
  };
  const Case cases[] = {
      {"an ipv6 BSR", concat({fixed4, v6Bsr}),
       "Invalid Pim Bootstrap - BSR Address - Invalid Family - Family: ipv4BSR Address: 2001:db8::1"},
      {"a multicast BSR", concat({fixed4, {0x01, 0x00, 224, 0, 0, 1}}),
       "Invalid Pim Bootstrap - BSR Address - Invalid Address - 224.0.0.1"},
      {"an ipv6 group", concat({fixed4, bsr4, group6("ff00::", 8)}),
       "Invalid Pim Bootstrap - Group Address - Invalid Family - Family: ipv4Group Address: ff00::/8"},
      {"a unicast group", concat({fixed4, bsr4, group4(10, 8)}),
       "Invalid Pim Bootstrap - Group Address - Invalid Prefix: 10.0.0.0/8"},
      {"a repeated range", concat({fixed4, bsr4, group4(239, 8), {0, 0, 0, 0}, group4(239, 8)}),
       "Invalid Pim Bootstrap - Group Address - Duplicate group - Group Address: 239.0.0.0/8"},
      {"the zone flag on the second range", concat({fixed4, bsr4, group4(239, 8), {0, 0, 0, 0}, group4(238, 8, 0x01)}),
       "Invalid Pim Bootstrap - Zone bit set on group other than first Group Address: 238.0.0.0/8"},
      {"more fragment RPs than RPs", concat({fixed4, bsr4, group4(239, 8), {2, 3, 0, 0}, rp2, rp2}),
       "Invalid Pim Bootstrap data - RP count \x02 is less than fragRp count \x03"},
      {"a multicast RP", concat({fixed4, bsr4, group4(239, 8), {1, 1, 0, 0}, {0x01, 0x00, 239, 0, 0, 2}, rpTail(1, 1)}),
       "Invalid Pim Bootstrap - RP Address - Invalid Address - 239.0.0.2"},
      {"a repeated RP", concat({fixed4, bsr4, group4(239, 8), {2, 2, 0, 0}, rp2, rp2}),
       "Invalid Pim Bootstrap - RP Address - Duplicate - RP Address: 10.0.0.2"},
      {"three RPs counted, two carried", concat({fixed4, bsr4, group4(239, 8), {3, 2, 0, 0}, rp2, unicast4(3), rpTail(1, 1)}),
       "Invalid Pim Bootstrap - Parse Error - RP count remaining \x01 but no more data."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = message();
    Loom::TraceCapture cap(1);
    EXPECT_EQ(m->readBootstrapMessage(pkt(bootstrap(c.body)), 0), 0u);
    const std::vector<std::string> e = errors(cap);
    ASSERT_FALSE(e.empty());
    EXPECT_EQ(e.back(), c.error);
    EXPECT_FALSE(m->groupRpData());
  }
}

// The bound is checked after the value is stored; a received value above it raises the same.
TEST(Bootstrap, HashMaskLengthAbove128Throws) {
  auto m = message();
  try {
    m->hashMaskLenIs(129);
    ADD_FAILURE() << "129 was accepted";
  } catch (const Loom::RangeException& e) {
    EXPECT_STREQ(e.what(), "BootstrapMessage::hashMaskLen < 0 or > 128 not allowed");
  }
  EXPECT_EQ(m->hashMaskLen(), 129);
  EXPECT_THROW(message()->readBootstrapMessage(pkt(bootstrap(concat({{0, 0, 129, 0}, bsr4}))), 0), Loom::RangeException);
}

TEST(Bootstrap, TruncationAtEveryLength) {
  const Bytes full = bootstrap(body4);
  const std::string parse = "Invalid Pim Bootstrap - Parse Error";
  const std::string rpParse = "Invalid Pim Bootstrap - RP Address - Parse Error";
  const std::string groupParse = "Invalid Pim Bootstrap - Group Address - Parse Error";
  checkTruncations(full,
                   {{4, "Invalid Pim Bootstrap - Header - Parse Error"},
                    {4, parse},
                    {6, "Invalid Pim Bootstrap - BSR Address - Parse Error"},
                    {8, groupParse, ""},  // a message may end before a range, or right behind one
                    {4, parse, ""},
                    {6, rpParse},
                    {4, parse},
                    {6, rpParse, "Invalid Pim Bootstrap - Parse Error - RP count remaining \x01 but no more data."},
                    {4, parse},
                    {8, groupParse, ""},
                    {4, parse, ""},
                    {6, rpParse},
                    {4, parse}},
                   v4Src, v4Dst, [](const Loom::Ptr<Knet::Pkt>& p) { return message()->readBootstrapMessage(p, 0); },
                   true);
}

// A message built by hand: the given ranges, each with RPs 10.0.0.<n>.
Loom::Ptr<BootstrapMessage> built(std::initializer_list<std::tuple<const char*, U8, U8, U8, std::vector<const char*>>> ranges) {
  auto m = message();
  m->bsrAddressIs(ip("10.0.0.1"));
  if (ranges.size() == 0) return m;
  m->groupRpDataIs(bootstrapOptionalDataFactory());
  for (const auto& [prefix, flags, rpCount, fragRpCount, rps] : ranges) {
    Loom::Ptr<BootstrapGroupData> g = bootstrapGroupDataFactory(*Knet::IpGenPrefix::parse(prefix));
    g->groupFlagsIs(flags);
    g->rpCountIs(rpCount);
    g->fragRpCountIs(fragRpCount);
    for (const char* rp : rps) g->rpListIs(ip(rp)).holdtimeIs(150);
    m->groupRpData()->groupDataEnq(g);
  }
  return m;
}

TEST(Bootstrap, WriteFailures) {
  struct Case {
    const char* name;
    Loom::Ptr<BootstrapMessage> m;
    U32 room;
    std::string error;
  };
  auto withBsr = [](const char* bsr) {
    auto m = built({});
    m->bsrAddressIs(bsr[0] ? ip(bsr) : Knet::IpGenAddr());
    return m;
  };
  const Case cases[] = {
      {"no room for the header", built({}), 3, "Invalid Pim Bootstrap - Header - Unavailable Space - Remaining: 3"},
      {"no room for the fixed fields", built({}), 6,
       "Invalid Pim Bootstrap - Fixed Fields - Unavailable Space - Remaining: 2 Expected: 4"},
      {"an ipv6 BSR", withBsr("2001:db8::1"), 100,
       "Invalid Pim Bootstrap - Invalid Family - Family: ipv6 BSR Address: 2001:db8::1"},
      {"a multicast BSR", withBsr("224.0.0.1"), 100, "Invalid Pim Bootstrap - BSR Address - Write Error"},
      {"an ipv6 range", built({{"ff00::/8", 0, 0, 0, {}}}), 100,
       "Invalid Pim Bootstrap - Invalid Family - Family: ipv6 Group Address: ff00::/8"},
      {"the zone flag on the second range", built({{"239.0.0.0/8", 0, 0, 0, {}}, {"238.0.0.0/8", 1, 0, 0, {}}}), 100,
       "Invalid Pim Bootstrap - Zone bit set on group other than first Group Address: 238.0.0.0/8"},
      {"a unicast range", built({{"10.0.0.0/8", 0, 0, 0, {}}}), 100, "Invalid Pim Bootstrap - Group Address - Write Error"},
      {"more fragment RPs than RPs", built({{"239.0.0.0/8", 0, 1, 2, {"10.0.0.2", "10.0.0.3"}}}), 100,
       "Invalid Pim Bootstrap data passed - RP count \x01 is less than fragRp count \x02"},
      {"a fragment RP count that is not the list's", built({{"239.0.0.0/8", 0, 3, 2, {"10.0.0.2"}}}), 100,
       "Invalid Pim Bootstrap data passed - RP count in BSM\x02 does not match RP records count 1"},
      {"an ipv6 RP", built({{"239.0.0.0/8", 0, 1, 1, {"2001:db8::2"}}}), 100,
       "Invalid Pim Bootstrap - Invalid Family - Family: ipv6 RP Address: 2001:db8::2"},
      {"a multicast RP", built({{"239.0.0.0/8", 0, 1, 1, {"239.0.0.9"}}}), 100,
       "Invalid Pim Bootstrap - RP Address - Write Error"},
      {"no room for the counts", built({{"239.0.0.0/8", 0, 1, 1, {"10.0.0.2"}}}), 24,
       "Invalid Pim Bootstrap - RP Counts - Unavailable Space - Remaining: 2 Expected: 4"},
      {"no room for an RP's holdtime", built({{"239.0.0.0/8", 0, 1, 1, {"10.0.0.2"}}}), 32,
       "Invalid Pim Bootstrap - RP Holdtime - Unavailable Space - Remaining: 0 Expected: 4"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Loom::TraceCapture cap(1);
    EXPECT_EQ(c.m->writeBootstrapMessage(pkt(Bytes(c.room)), 0), 0u);
    const std::vector<std::string> e = errors(cap);
    ASSERT_FALSE(e.empty());
    EXPECT_EQ(e.back(), c.error);
  }
  // The same range twice (the queue takes it, the encoder does not).
  auto m = built({{"239.0.0.0/8", 0, 0, 0, {}}, {"239.0.0.0/8", 0, 0, 0, {}}});
  Loom::TraceCapture cap(1);
  EXPECT_EQ(m->writeBootstrapMessage(pkt(Bytes(100)), 0), 0u);
  EXPECT_EQ(errors(cap).back(), "Invalid Pim Bootstrap - Duplicate Group present Group Address: 239.0.0.0/8");
}

// The No-Forward bit is the reserved byte's top bit; setting it clears the others.
TEST(Bootstrap, NoForwardBitAndGroupQueue) {
  auto m = message();
  m->reservedIs(0x0f);
  m->noForwardIs(true);
  EXPECT_EQ(m->reserved(), 0x80);
  m->forwardIs(true);
  EXPECT_EQ(m->reserved(), 0x00);
  // The range queue gives each range a position of its own, never one twice.
  auto d = bootstrapOptionalDataFactory();
  auto a = bootstrapGroupDataFactory(*Knet::IpGenPrefix::parse("224.0.0.0/4"));
  auto b = bootstrapGroupDataFactory(*Knet::IpGenPrefix::parse("239.0.0.0/8"));
  EXPECT_EQ(d->groupDataEnq(a), 0u);
  EXPECT_EQ(d->groupDataEnq(b), 1u);
  EXPECT_EQ(d->groupDataDeq(), a);
  d->groupDataDel(1);
  EXPECT_EQ((d->groupDataMetadata()), (BootstrapOptionalData::GroupDataMetadata{2, 2, 0}));
  EXPECT_EQ(d->groupDataEnq(a), 2u);
  d->groupDataIs(7, b);
  EXPECT_EQ((d->groupDataMetadata()), (BootstrapOptionalData::GroupDataMetadata{2, 8, 2}));
  EXPECT_EQ(d->groupDataDeq(), a);
  EXPECT_EQ(d->groupDataDeq(), b);
  EXPECT_EQ(d->groupDataDeq(), nullptr);
}

// ---- The fragment key ----

BootstrapRpFragmentKey randomKey(std::mt19937& rng) {
  auto pick = [&](U32 n) { return static_cast<U32>(rng() % n); };
  BootstrapRpFragmentKey k;
  const bool v6 = pick(2);
  U8 bytes[16];
  for (U8& b : bytes) b = static_cast<U8>(pick(3));  // few values, so that equal fields are common
  bytes[0] = v6 ? 0xff : 0xe0;
  const Knet::IpGenAddr group = Knet::IpGenAddr::fromBytes(v6 ? Knet::AddressFamily::ipv6 : Knet::AddressFamily::ipv4, bytes);
  k.prefix = Knet::IpGenPrefix(group, static_cast<U8>(pick(v6 ? 129 : 33)));
  if (pick(4)) k.bsrAddress = Knet::IpGenAddr::ipv4(0x0a000000 + pick(3));
  k.groupFlags = static_cast<U8>(pick(2) ? 0x80 : pick(2));
  k.noForward = pick(2);
  k.fragmentTag = static_cast<U16>(pick(2) ? pick(3) : rng());
  k.hashMaskLen = static_cast<U8>(pick(129));
  k.bsrPriority = static_cast<U8>(pick(256));
  k.rpCount = static_cast<U8>(pick(3));
  k.hash = pick(2) ? pick(3) : static_cast<U32>(rng());
  return k;
}

// The text form of a key reads back as the key; texts that are not keys are refused.
TEST(BootstrapRpFragmentKey, TextFormRoundTrips) {
  std::mt19937 rng(20261122);
  for (int i = 0; i < 2000; ++i) {
    const BootstrapRpFragmentKey k = randomKey(rng);
    const auto back = bootstrapRpFragmentKeyFromStrep(valueToStrep(k));
    ASSERT_TRUE(back.has_value()) << valueToStrep(k);
    EXPECT_EQ(*back, k) << valueToStrep(k);
  }
  const std::string good =
      valueToStrep(BootstrapRpFragmentKey{*Knet::IpGenPrefix::parse("239.0.0.0/8"), ip("10.0.0.1")});
  EXPECT_EQ(good,
            "Value('Routing::Pim::Packet::BootstrapRpFragmentKey', ** {'prefix': 239.0.0.0/8, 'bsrAddress': 10.0.0.1, "
            "'groupFlags': 0, 'noForward': False, 'fragmentTag': 0, 'hashMaskLen': 0, 'bsrPriority': 0, "
            "'rpCount': 0, 'hash': 0})");
  auto edited = [&](const std::string& from, const std::string& to) {
    std::string t = good;
    t.replace(t.find(from), from.size(), to);
    return t;
  };
  for (const std::string& bad :
       {edited("239.0.0.0/8", "239.0.0.0/33"), edited("10.0.0.1", "10.0.0"), edited("'groupFlags': 0", "'groupFlags': 256"),
        edited("False", "false"), edited("'hash': 0", "'hash': -1"), good.substr(0, good.size() - 1), good + " "}) {
    EXPECT_FALSE(bootstrapRpFragmentKeyFromStrep(bad)) << bad;
  }
}

// Equality compares every field, the order is total and agrees with it.
TEST(BootstrapRpFragmentKey, OrderAndEqualityOverRandomKeys) {
  std::mt19937 rng(7);
  std::vector<BootstrapRpFragmentKey> keys;
  for (int i = 0; i < 300; ++i) keys.push_back(randomKey(rng));
  keys.push_back(keys[5]);  // one key twice
  for (const auto& a : keys) {
    for (const auto& b : keys) {
      const bool less = a < b, greater = b < a, equal = a == b;
      EXPECT_EQ(int(less) + int(greater) + int(equal), 1) << valueToStrep(a) << " / " << valueToStrep(b);
      EXPECT_EQ(equal, valueToStrep(a) == valueToStrep(b));
    }
  }
  // Each field on its own makes keys differ.
  const BootstrapRpFragmentKey base = keys[0];
  std::vector<BootstrapRpFragmentKey> changed(9, base);
  changed[0].prefix = Knet::IpGenPrefix(base.prefix.address(), base.prefix.length() == 0 ? 1 : 0);
  changed[1].bsrAddress = ip("192.0.2.99");
  changed[2].groupFlags ^= 0x40;
  changed[3].noForward = !base.noForward;
  changed[4].fragmentTag ^= 1;
  changed[5].hashMaskLen ^= 1;
  changed[6].bsrPriority ^= 1;
  changed[7].rpCount ^= 1;
  changed[8].hash ^= 1;
  for (const auto& c : changed) {
    EXPECT_NE(c, base);
    EXPECT_TRUE(c < base || base < c);
    EXPECT_FALSE(!c && !base);
  }
}

TEST(BootstrapRpFragments, FragmentsByKeyAndTheirRps) {
  BootstrapRpFragments all;
  BootstrapRpFragmentKey k{*Knet::IpGenPrefix::parse("239.0.0.0/8"), ip("10.0.0.1")};
  BootstrapRpFragment& f = all.fragmentsIs(k);
  EXPECT_EQ(&all.fragmentsIs(k), &f) << "a known key made a second fragment";
  f.fragRpCountIs(250);
  f.fragRpCountInc(10);
  EXPECT_EQ(f.fragRpCount(), 4) << "the count wraps at 256";
  f.rpListIs(ip("10.0.0.3")).priorityIs(5);
  f.rpListIs(ip("10.0.0.2"));
  f.rpListIs(ip("10.0.0.3"));
  ASSERT_EQ(f.rpList().size(), 2u);
  EXPECT_EQ(f.rpList().begin()->priority(), 5) << "the RPs keep the order they came in, and their fields";
  all.fragmentsDel(k);
  EXPECT_EQ(all.fragments(k), nullptr);
}

}  // namespace
}  // namespace Routing::Pim::Packet
