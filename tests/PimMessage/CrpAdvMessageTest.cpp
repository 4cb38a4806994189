// The Candidate-RP Advertisement: golden packets of both families, the admin-scoped range that is
// accepted and logged, the read's and the write's refusals with their texts, truncation at every
// length, the rendering.
#include "PimMessage/CrpAdvMessage.h"

#include <sstream>

#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;
using Routing::Pim::GroupFlags;

const Knet::IpGenAddr v4Src = ip("10.0.0.5");
const Knet::IpGenAddr v4Dst = ip("10.0.0.1");
const Knet::IpGenAddr v6Src = ip("2001:db8::5");
const Knet::IpGenAddr v6Dst = ip("2001:db8::1");


Bytes encoded(const char* a, U8 flags, U8 mask, bool group) {
  const Knet::IpGenAddr x = ip(a);
  Bytes b = {static_cast<U8>(x.af()), 0x00};
  if (group) b.insert(b.end(), {flags, mask});
  b.insert(b.end(), x.bytes(), x.bytes() + x.byteLength());
  return b;
}
Bytes unicast(const char* a) { return encoded(a, 0, 0, false); }
Bytes range(const char* a, U8 mask, U8 flags = 0) { return encoded(a, flags, mask, true); }

// Prefix count, priority 192, holdtime 150.
Bytes fixed(U8 count) { return {count, 192, 0x00, 0x96}; }

Bytes crpAdv(const Bytes& body, bool v6 = false) {
  Bytes b = concat({{0x28, 0x00, 0, 0}, body});
  fixChecksum(b, v6 ? v6Src : v4Src, v6 ? v6Dst : v4Dst);
  return b;
}

Loom::Ptr<CrpAdvMessage> message(bool v6 = false) {
  Loom::Ptr<CrpAdvMessage> m = crpAdvMessageFactory();
  m->srcIpIs(v6 ? v6Src : v4Src);
  m->dstIpIs(v6 ? v6Dst : v4Dst);
  return m;
}

std::vector<std::string> rangesOf(const CrpAdvMessage& m) {
  std::vector<std::string> out;
  if (!m.groupData()) return out;
  for (const auto& g : m.groupData()->groupInfo()) {
    std::ostringstream os;
    os << g->prefix() << " " << GroupFlags(g->groupFlags());
    out.push_back(os.str());
  }
  return out;
}

TEST(CrpAdv, GoldenPacketsReadAndWriteBack) {
  struct Case {
    const char* name;
    bool v6;
    Bytes bytes;
    std::vector<std::string> ranges;
  };
  const Case cases[] = {
      {"ipv4, two ranges", false,
       crpAdv(concat({fixed(2), unicast("10.0.0.5"), range("224.0.0.0", 4), range("239.255.0.0", 16, 0x80)})),
       {"224.0.0.0/4 0x00", "239.255.0.0/16 0x80(B)"}},
      {"ipv6, one admin-scoped range", true, crpAdv(concat({fixed(1), unicast("2001:db8::5"), range("ff05::", 16, 0x01)}), true),
       {"ff05::/16 0x01(Z)"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = message(c.v6);
    Loom::TraceCapture cap(1);
    Loom::LogCapture logs;
    ASSERT_EQ(m->readCrpAdvMessage(pkt(c.bytes), 0), c.bytes.size()) << firstError(cap);
    EXPECT_EQ(rangesOf(*m), c.ranges);
    EXPECT_EQ(m->priority(), 192);
    EXPECT_EQ(m->holdtime(), 150);
    EXPECT_EQ(m->rpAddress(), ip(c.v6 ? "2001:db8::5" : "10.0.0.5"));

    constexpr U32 offset = 2;
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(offset + c.bytes.size(), 0xee));
    ASSERT_EQ(m->writeCrpAdvMessage(out, offset), c.bytes.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + offset, out->data() + out->size()), c.bytes);
  }
}

// A range with the zone flag is unusual but valid: kept, traced and logged with the RP address.
TEST(CrpAdv, ZoneFlaggedRangeIsAcceptedAndLogged) {
  const Bytes b = crpAdv(concat({fixed(2), unicast("10.0.0.5"), range("239.1.0.0", 16, 0x01), range("239.2.0.0", 16, 0x01)}));
  double now = 1e9;  // later than any emission made on the real clock
  Loom::logClockIs([&] { return now; });
  auto m = message();
  Loom::TraceCapture cap(1);
  Loom::LogCapture logs;
  ASSERT_EQ(m->readCrpAdvMessage(pkt(b), 0), b.size());
  EXPECT_EQ(errors(cap), (std::vector<std::string>{
                             "Valid Pim CrpAdv - Group Address has Zone flag set - Group: 239.1.0.0/16 RP: 10.0.0.5",
                             "Valid Pim CrpAdv - Group Address has Zone flag set - Group: 239.2.0.0/16 RP: 10.0.0.5"}));
  // At most once per 60 seconds.
  ASSERT_EQ(logs.messages().size(), 1u);
  EXPECT_EQ(logs.messages()[0].name, "PIMBSR_CRPADV_ZONE_SET");
  EXPECT_EQ(logs.messages()[0].severity, 6);
  EXPECT_EQ(logs.messages()[0].text, "Received Candidate-RP Advertisements from C-RP 10.0.0.5 with Zone bit set");
  now += 61;
  ASSERT_EQ(message()->readCrpAdvMessage(pkt(b), 0), b.size());
  EXPECT_EQ(logs.messages().size(), 2u);
  Loom::logClockIs(nullptr);
}

TEST(CrpAdv, PrefixCountZeroWithoutRangesIsRead) {
  const Bytes b = crpAdv(concat({fixed(0), unicast("10.0.0.5")}));
  auto m = message();
  ASSERT_EQ(m->readCrpAdvMessage(pkt(b), 0), b.size());
  EXPECT_TRUE(rangesOf(*m).empty());
  // The encoder never makes one.
  Loom::TraceCapture cap(1);
  EXPECT_EQ(m->writeCrpAdvMessage(pkt(Bytes(64)), 0), 0u);
  EXPECT_EQ(firstError(cap), "Invalid Pim CrpAdv - Prefix Count ");
}

TEST(CrpAdv, ReadRejectTable) {
  struct Case {
    const char* name;
    Bytes body;
    std::vector<std::string> texts;  // the message's own texts, in order
  };
  const std::string cleaning = "Invalid Pim CrpAdv. Cleaning Up";
  const Case cases[] = {
      {"three bytes behind the header", {1, 2, 3}, {"Invalid Pim CrpAdv - Parse Error"}},
      {"an RP of a bad encoding", concat({fixed(1), {0x01, 0x04, 10, 0, 0, 5}}), {"Invalid Pim CrpAdv - RP Address - Parse Error"}},
      {"an ipv6 RP", concat({fixed(1), unicast("2001:db8::5")}),
       {"Invalid Pim CrpAdv - RP Address - Invalid Family - Family: ipv4RP Address: 2001:db8::5"}},
      {"a multicast RP", concat({fixed(1), unicast("224.0.0.5")}),
       {"Invalid Pim CrpAdv - RP Address - Invalid Address - 224.0.0.5"}},
      {"a range of a bad encoding", concat({fixed(1), unicast("10.0.0.5"), {0x01, 0x02, 0, 4, 224, 0, 0, 0}}),
       {"Invalid Pim CrpAdv - Group Address - Parse Error", cleaning}},
      {"an ipv6 range", concat({fixed(1), unicast("10.0.0.5"), range("ff05::", 16)}),
       {"Invalid Pim CrpAdv - Group Address - Invalid Family - Family: ipv4Group Address: ff05::/16", cleaning}},
      {"a unicast range", concat({fixed(1), unicast("10.0.0.5"), range("10.0.0.0", 8)}),
       {"Invalid Pim CrpAdv - Group Address - Invalid Prefix: 10.0.0.0/8", cleaning}},
      {"a repeated range", concat({fixed(2), unicast("10.0.0.5"), range("239.0.0.0", 8), range("239.0.0.0", 8)}),
       {"Invalid Pim CrpAdv - Group Address - Duplicate group - Group Address: 239.0.0.0/8", cleaning}},
      {"prefix count 2, three ranges",
       concat({fixed(2), unicast("10.0.0.5"), range("224.0.0.0", 4), range("239.0.0.0", 8), range("238.0.0.0", 8)}),
       {"Invalid Pim CrpAdv - Group Address count mismatch -  prefixCount: 2 numGroups: 3", cleaning}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = message();
    Loom::TraceCapture cap(1);
    EXPECT_EQ(m->readCrpAdvMessage(pkt(crpAdv(c.body)), 0), 0u);
    std::vector<std::string> own;
    for (const std::string& e : errors(cap)) {
      if (startsWith(e, "Invalid Pim CrpAdv")) own.push_back(e);
    }
    EXPECT_EQ(own, c.texts);
    EXPECT_FALSE(m->groupData());
  }
}

TEST(CrpAdv, TruncationAtEveryLength) {
  const Bytes full = crpAdv(concat({fixed(2), unicast("10.0.0.5"), range("224.0.0.0", 4), range("239.0.0.0", 8)}));
  const std::string cleaning = "Invalid Pim CrpAdv. Cleaning Up";
  checkTruncations(full,
                   {{4, "Invalid Pim CrpAdv - Header - Parse Error"},
                    {4, "Invalid Pim CrpAdv - Parse Error"},
                    {6, "Invalid Pim CrpAdv - RP Address - Parse Error"},
                    {8, cleaning},  // a range cut short, or too few ranges for the count
                    {8, cleaning}},
                   v4Src, v4Dst, [](const Loom::Ptr<Knet::Pkt>& p) { return message()->readCrpAdvMessage(p, 0); }, true);
}

// A message built by hand with the given ranges ("239.0.0.0/8" and its flags).
Loom::Ptr<CrpAdvMessage> built(U8 count, const char* rp, std::initializer_list<std::pair<const char*, U8>> ranges) {
  auto m = message();
  m->prefixCountIs(count);
  if (*rp) m->rpAddressIs(ip(rp));
  m->groupDataIs(crpGroupDataFactory());
  for (const auto& [prefix, flags] : ranges) m->groupData()->groupInfoIs(*Knet::IpGenPrefix::parse(prefix)).groupFlagsIs(flags);
  return m;
}

TEST(CrpAdv, WriteFailures) {
  struct Case {
    const char* name;
    Loom::Ptr<CrpAdvMessage> m;
    U32 room;
    std::string error;
  };
  const Case cases[] = {
      {"no room for the header", built(1, "10.0.0.5", {{"239.0.0.0/8", 0}}), 3,
       "Invalid Pim CrpAdv - Header - Unavailable Space - Remaining: 3"},
      {"no room for the fixed fields", built(1, "10.0.0.5", {{"239.0.0.0/8", 0}}), 7,
       "Invalid Pim CrpAdv - Fixed Fields - Unavailable Space - Remaining: 3 Expected: 4"},
      {"prefix count 0", built(0, "10.0.0.5", {}), 64, "Invalid Pim CrpAdv - Prefix Count "},
      {"prefix count 2, one range", built(2, "10.0.0.5", {{"239.0.0.0/8", 0}}), 64,
       "Invalid Pim CrpAdv - Prefix Count Mismatch"},
      {"an ipv6 RP", built(1, "2001:db8::5", {{"239.0.0.0/8", 0}}), 64,
       "Invalid Pim CrpAdv - Invalid Family - Family: ipv6 RP Address: 2001:db8::5"},
      {"no RP", built(1, "", {{"239.0.0.0/8", 0}}), 64,
       "Invalid Pim CrpAdv - Invalid Family - Family: ipUnknown(0) RP Address: unset"},
      {"a multicast RP", built(1, "224.0.0.5", {{"239.0.0.0/8", 0}}), 64, "Invalid Pim CrpAdv - RP Address - Write Error"},
      {"an ipv6 range", built(1, "10.0.0.5", {{"ff05::/16", 0}}), 64,
       "Invalid Pim CrpAdv - Invalid Family - Family: ipv6 Group Address: ff05::/16"},
      {"an admin range behind a global one", built(2, "10.0.0.5", {{"239.0.0.0/8", 0}, {"239.255.0.0/16", 1}}), 64,
       "Invalid Pim CrpAdv - Invalid Scope:  Group Scope: Admin Allowed Scope: global Group Address: 239.255.0.0/16"},
      {"a global range behind an admin one", built(2, "10.0.0.5", {{"239.255.0.0/16", 1}, {"239.0.0.0/8", 0}}), 64,
       "Invalid Pim CrpAdv - Invalid Scope:  Group Scope: global Allowed Scope: Admin Group Address: 239.0.0.0/8"},
      {"a unicast range", built(1, "10.0.0.5", {{"10.0.0.0/8", 0}}), 64, "Invalid Pim CrpAdv - Group Address - Write Error"},
      {"no room for a range", built(1, "10.0.0.5", {{"239.0.0.0/8", 0}}), 20, "Invalid Pim CrpAdv - Group Address - Write Error"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Loom::TraceCapture cap(1);
    EXPECT_EQ(c.m->writeCrpAdvMessage(pkt(Bytes(c.room)), 0), 0u);
    const std::vector<std::string> e = errors(cap);
    ASSERT_FALSE(e.empty());
    EXPECT_EQ(e.back(), c.error);
  }
}

}  // namespace
}  // namespace Routing::Pim::Packet
