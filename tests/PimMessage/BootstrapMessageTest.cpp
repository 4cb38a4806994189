// The Bootstrap message: what the read accepts (golden packets written back byte for byte),
// every refusal of the read and the write (a cut at each part included) with the failure it
// records and the text it traces, and the records: the range queue, the fragments and their key.
#include "PimMessage/BootstrapMessage.h"

#include "PimMessage/EncodedAddress.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;
using T = BootstrapText;
using A = EncodedAddressText;

const Knet::IpGenAddr v4Src = ip("10.0.0.1"), v4Dst = ip("224.0.0.13"), v6Src = ip("fe80::1"), v6Dst = ip("ff02::d");
const std::string P = "Invalid Pim Bootstrap - ";

Bytes group4(U8 first, U8 mask, U8 flags = 0) { return {0x01, 0x00, flags, mask, first, 0, 0, 0}; }
// An RP of 10.0.0.<last> (or of the address), then its holdtime and priority.
Bytes rp(U8 last, U16 holdtime = 1, U8 priority = 1, const char* address = nullptr) {
  const std::string a = "10.0.0." + std::to_string(last);
  return concat({encodedUnicastBytes(address ? address : a.c_str()), {U8(holdtime >> 8), U8(holdtime), priority, 0}});
}

const Bytes fixed4 = {0x12, 0x34, 30, 64};  // fragment tag 4660, hash mask length 30, BSR priority 64
const Bytes bsr4 = encodedUnicastBytes("10.0.0.1");
const Bytes g239 = concat({fixed4, bsr4, group4(239, 8)});
const Bytes none = {0, 0, 0, 0};  // RP counts 0/0
// Two ranges: 224.0.0.0/4 with RPs 10.0.0.2 and 10.0.0.3, 239.0.0.0/8 with RP 10.0.0.2.
const Bytes body4 = concat({fixed4, bsr4, group4(224, 4), {2, 2, 0, 0}, rp(2, 150, 192), rp(3, 150, 1), group4(239, 8),
                            {1, 1, 0, 0}, rp(2, 150, 192)});

Bytes bootstrap(const Bytes& body, bool isV6 = false, U8 reserved = 0) {
  Bytes b = concat({{0x24, reserved, 0, 0}, body});
  fixChecksum(b, isV6 ? v6Src : v4Src, isV6 ? v6Dst : v4Dst);
  return b;
}

Loom::Ptr<BootstrapMessage> message(bool isV6 = false) {
  Loom::Ptr<BootstrapMessage> m = bootstrapMessageFactory();
  m->srcIpIs(isV6 ? v6Src : v4Src);
  m->dstIpIs(isV6 ? v6Dst : v4Dst);
  return m;
}

// A read message as text: its fixed fields, then each range ("239.0.0.0/8 0x00 2/2 [10.0.0.2 150 192, ...]").
std::vector<std::string> fieldsOf(const BootstrapMessage& m) {
  std::ostringstream os;
  os << m.fragmentTag() << "/" << +m.hashMaskLen() << "/" << +m.bsrPriority() << " " << m.bsrAddress()
     << (m.noForward() ? " no-forward" : "");
  std::vector<std::string> out = {os.str()};
  for (const auto& [i, g] : m.groupRpData() ? m.groupRpData()->groupData() : BootstrapOptionalData::GroupDataQueue()) {
    os.str("");
    os << g->prefix() << " " << GroupFlags(g->groupFlags()) << " " << +g->rpCount() << "/" << +g->fragRpCount() << " [";
    for (const BootstrapRpData& r : g->rpList()) {
      os << (&r == g->rpList().begin() ? "" : ", ") << r.address() << " " << r.holdtime() << " " << +r.priority();
    }
    out.push_back(os.str() + "]");
  }
  return out;
}

TEST(Bootstrap, ReadAcceptsAndGoldenPacketsWriteBack) {
  const std::string head = "4660/30/64 10.0.0.1", six = "239.0.0.0/8 0x00 6/2 [10.0.0.2 1 1, 10.0.0.3 1 1, ";
  const Bytes ranges3 = concat({g239, none, group4(224, 4), none, group4(239, 16)});  // out of order, one address twice
  const Bytes body6 = concat({{0x00, 0x07, 126, 10}, encodedUnicastBytes("2001:db8::1"),
                              encodedGroupBytes("ff00::", 8, 1), {1, 1, 0, 0}, rp(0, 75, 0, "2001:db8::2")});
  const struct {
    Bytes bytes;
    std::vector<std::string> fields;
    bool golden = false;  // written back byte for byte
    bool isV6 = false;
  } cases[] = {
      {bootstrap(body4),
       {head, "224.0.0.0/4 0x00 2/2 [10.0.0.2 150 192, 10.0.0.3 150 1]", "239.0.0.0/8 0x00 1/1 [10.0.0.2 150 192]"},
       true},
      {bootstrap(body6, true, 0x80), {"7/126/10 2001:db8::1 no-forward", "ff00::/8 0x01(Z) 1/1 [2001:db8::2 75 0]"},
       true, true},
      {bootstrap(g239), {head, "239.0.0.0/8 0x00 0/0 []"}},  // a range without counts ends the message
      {bootstrap(ranges3),
       {head, "239.0.0.0/8 0x00 0/0 []", "224.0.0.0/4 0x00 0/0 []", "239.0.0.0/16 0x00 0/0 []"}},
      {bootstrap(concat({g239, {6, 2, 0, 0}, rp(2), rp(3), rp(4), rp(5), rp(6), rp(7)})),
       {head, six + "10.0.0.4 1 1, 10.0.0.5 1 1, 10.0.0.6 1 1, 10.0.0.7 1 1]"}},
      {bootstrap(concat({g239, {1, 1, 0, 0}, rp(0, 1, 2, "2001:db8::2")})),  // an RP of the other family
       {head, "239.0.0.0/8 0x00 1/1 [2001:db8::2 1 2]"}},
      {bootstrap(concat({{0, 0, 128, 0}, bsr4})), {"0/128/0 10.0.0.1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fields.back());
    auto m = message(c.isV6);
    Loom::TraceCapture cap(1);
    ASSERT_EQ(m->readBootstrapMessage(pkt(c.bytes), 0), c.bytes.size()) << firstError(cap);
    EXPECT_EQ(fieldsOf(*m), c.fields);
    EXPECT_FALSE(m->failure());
    if (!c.golden) continue;
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(5 + c.bytes.size(), 0xee));
    ASSERT_EQ(m->writeBootstrapMessage(out, 5), c.bytes.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + 5, out->data() + out->size()), c.bytes);
  }
}

// The message's own text is the last trace (an encoded address traces its failure first); the
// failure recorded is the first, the address's own where it failed.
TEST(Bootstrap, ReadRejectTable) {
  const Bytes bad = {0x01, 0x04, 10, 0, 0, 2}, rp2 = rp(2), counts = {1, 1, 0, 0};
  std::vector<RecordedReject> rows = {
      {"3 bytes", {0x12, 0x34, 30}, T::parse, P + "Parse Error"},
      {"BSR encoding", concat({fixed4, bad}), A::unicastInvalidEncoding, P + "BSR Address - Parse Error"},
      {"ipv6 BSR", concat({fixed4, encodedUnicastBytes("2001:db8::1")}), T::bsrFamily,
       P + "BSR Address - Invalid Family - Family: ipv4BSR Address: 2001:db8::1"},
      {"multicast BSR", concat({fixed4, encodedUnicastBytes("224.0.0.1")}), A::unicastNotUnicast,
       P + "BSR Address - Invalid Address - 224.0.0.1"},
      {"range encoding", concat({fixed4, bsr4, {0x01, 0x02, 0, 8, 239, 0, 0, 0}}), A::groupInvalidEncoding,
       P + "Group Address - Parse Error"},
      {"ipv6 range", concat({fixed4, bsr4, encodedGroupBytes("ff00::", 8)}), T::groupFamily,
       P + "Group Address - Invalid Family - Family: ipv4Group Address: ff00::/8"},
      {"unicast range", concat({fixed4, bsr4, group4(10, 8)}), A::groupNotMulticast,
       P + "Group Address - Invalid Prefix: 10.0.0.0/8"},
      {"mask 33", concat({fixed4, bsr4, group4(239, 33)}), A::groupPrefixRange,
       P + "Group Address - Invalid Prefix: 0.0.0.0/0"},
      {"repeated range", concat({g239, none, group4(224, 4), none, group4(239, 8)}), T::groupDuplicate,
       P + "Group Address - Duplicate group - Group Address: 239.0.0.0/8"},
      {"zone flag on range 2", concat({g239, none, group4(238, 8, 0x01)}), T::zoneNotFirst,
       P + "Zone bit set on group other than first Group Address: 238.0.0.0/8"},
      {"fragment RPs > RPs", concat({g239, {2, 3, 0, 0}, rp2, rp(3)}), T::rpCounts,
       "Invalid Pim Bootstrap data - RP count \x02 is less than fragRp count \x03"},
      {"RP encoding", concat({g239, counts, bad, {0, 1, 1, 0}}), A::unicastInvalidEncoding,
       P + "RP Address - Parse Error"},
      {"multicast RP", concat({g239, counts, rp(0, 1, 1, "239.0.0.2")}), A::unicastNotUnicast,
       P + "RP Address - Invalid Address - 239.0.0.2"},
      {"repeated RP", concat({g239, {2, 2, 0, 0}, rp2, rp2}), T::rpDuplicate,
       P + "RP Address - Duplicate - RP Address: 10.0.0.2"},
      {"3 RPs counted, 2 carried", concat({g239, {3, 2, 0, 0}, rp2, rp(3)}), T::rpMissing,
       P + "Parse Error - RP count remaining \x01 but no more data."},
      {"2 bytes of counts", concat({g239, {1, 1}}), T::parse, P + "Parse Error"},
      {"an RP without its holdtime", concat({g239, counts, encodedUnicastBytes("10.0.0.2"), {0, 1}}), T::parse,
       P + "Parse Error"},
  };
  for (RecordedReject& r : rows) r.bytes = concat({{0x24, 0, 0, 0}, r.bytes});
  rows.push_back({"2 bytes", {0x24, 0}, HeaderText::missingHeader, P + "Header - Parse Error"});
  checkRecordedRejects(rows, v4Src, v4Dst, [](const Loom::Ptr<Knet::Pkt>& p) {
    auto m = message();
    const U32 n = m->readBootstrapMessage(p, 0);
    EXPECT_FALSE(m->groupRpData()) << "a refused message keeps no range";
    return RecordedOutcome{n, m->failure()};
  }, Trace::last);
}

// A write into `room` bytes of a message built by hand: the BSR and the ranges (prefix, flags,
// RP count, fragment RP count, RPs).
using Range = std::tuple<const char*, U8, U8, U8, std::vector<const char*>>;
std::function<RecordedOutcome()> writing(std::vector<Range> ranges, U32 room = 99, const char* bsr = "10.0.0.1") {
  auto m = message();
  m->bsrAddressIs(ip(bsr));
  if (!ranges.empty()) m->groupRpDataIs(bootstrapOptionalDataFactory());
  for (const auto& [prefix, flags, rpCount, fragRpCount, rps] : ranges) {
    Loom::Ptr<BootstrapGroupData> g = bootstrapGroupDataFactory(*Knet::IpGenPrefix::parse(prefix));
    g->groupFlagsIs(flags);
    g->rpCountIs(rpCount);
    g->fragRpCountIs(fragRpCount);
    for (const char* r : rps) g->rpListIs(ip(r)).holdtimeIs(150);
    m->groupRpData()->groupDataEnq(g);
  }
  return [=] { return RecordedOutcome{m->writeBootstrapMessage(pkt(Bytes(room)), 0), m->failure()}; };
}

TEST(Bootstrap, WriteFailures) {
  auto one = [](const char* range, const char* rp) { return Range{range, 0, 1, 1, {rp}}; };
  const Range r239 = one("239.0.0.0/8", "10.0.0.2"), zoned = {"238.0.0.0/8", 1, 0, 0, {}};
  const std::string family = P + "Invalid Family - Family: ipv6 ";
  const std::string passed = "Invalid Pim Bootstrap data passed - RP count ";
  checkRecordedWriteFailures(
      {{"header room", writing({}, 3), T::headerSpace, P + "Header - Unavailable Space - Remaining: 3"},
       {"fixed room", writing({}, 6), T::fixedSpace,
        P + "Fixed Fields - Unavailable Space - Remaining: 2 Expected: 4"},
       {"ipv6 BSR", writing({}, 99, "2001:db8::1"), T::writeFamily, family + "BSR Address: 2001:db8::1"},
       {"multicast BSR", writing({}, 99, "224.0.0.1"), A::unicastNotUnicast, P + "BSR Address - Write Error"},
       {"ipv6 range", writing({one("ff00::/8", "10.0.0.2")}), T::writeFamily, family + "Group Address: ff00::/8"},
       {"zone flag on range 2", writing({r239, zoned}), T::zoneNotFirst,
        P + "Zone bit set on group other than first Group Address: 238.0.0.0/8"},
       {"same range twice", writing({r239, r239}), T::writeDuplicate,
        P + "Duplicate Group present Group Address: 239.0.0.0/8"},
       {"unicast range", writing({one("10.0.0.0/8", "10.0.0.2")}), A::groupNotMulticast,
        P + "Group Address - Write Error"},
       {"range room", writing({r239}, 14), A::groupFamilyLength, P + "Group Address - Write Error"},
       {"fragment RPs > RPs", writing({{"239.0.0.0/8", 0, 1, 2, {"10.0.0.2", "10.0.0.3"}}}), T::passedCounts,
        passed + "\x01 is less than fragRp count \x02"},
       {"fragment RPs != list", writing({{"239.0.0.0/8", 0, 3, 2, {"10.0.0.2"}}}), T::passedMismatch,
        passed + "in BSM\x02 does not match RP records count 1"},
       {"counts room", writing({r239}, 24), T::countsSpace,
        P + "RP Counts - Unavailable Space - Remaining: 2 Expected: 4"},
       {"ipv6 RP", writing({one("239.0.0.0/8", "2001:db8::2")}), T::writeFamily, family + "RP Address: 2001:db8::2"},
       {"multicast RP", writing({one("239.0.0.0/8", "239.0.0.9")}), A::unicastNotUnicast,
        P + "RP Address - Write Error"},
       {"holdtime room", writing({r239}, 32), T::rpTailSpace,
        P + "RP Holdtime - Unavailable Space - Remaining: 0 Expected: 4"}},
      Trace::last);
}

// The No-Forward bit is the reserved byte's top bit; setting it clears the others. The range
// queue gives each range a position of its own, never one twice.
TEST(Bootstrap, NoForwardBitAndRangeQueue) {
  auto m = message();
  m->reservedIs(0x0f);
  m->noForwardIs(true);
  EXPECT_EQ(m->reserved(), 0x80);
  auto d = bootstrapOptionalDataFactory();
  auto a = bootstrapGroupDataFactory(*Knet::IpGenPrefix::parse("224.0.0.0/4"));
  EXPECT_EQ(d->groupDataEnq(a) + d->groupDataEnq(a), 1u);
  d->groupDataDel(1);
  EXPECT_EQ(d->groupDataDeq(), a);
  EXPECT_EQ(d->groupDataEnq(a), 2u);
  d->groupDataIs(7, a);
  EXPECT_EQ(d->groupDataEnq(a), 8u);
  EXPECT_EQ((d->groupDataMetadata()), (BootstrapOptionalData::GroupDataMetadata{2, 9, 3}));
}

// The text form of a key reads back as the key (so it shows every field); texts that are not
// keys are refused.
TEST(BootstrapRpFragmentKey, TextFormRoundTrips) {
  const BootstrapRpFragmentKey key{*Knet::IpGenPrefix::parse("239.0.0.0/8"), ip("10.0.0.1")};
  const BootstrapRpFragmentKey full{*Knet::IpGenPrefix::parse("ff05::/128"), {}, 0x81, true, 65535, 128, 255, 255, ~0u};
  for (const BootstrapRpFragmentKey& k : {BootstrapRpFragmentKey(), key, full}) {
    EXPECT_EQ(bootstrapRpFragmentKeyFromStrep(valueToStrep(k)), k) << valueToStrep(k);
  }
  const std::string good = valueToStrep(key);
  EXPECT_EQ(good,
            "Value('Routing::Pim::Packet::BootstrapRpFragmentKey', ** {'prefix': 239.0.0.0/8, 'bsrAddress': 10.0.0.1, "
            "'groupFlags': 0, 'noForward': False, 'fragmentTag': 0, 'hashMaskLen': 0, 'bsrPriority': 0, "
            "'rpCount': 0, 'hash': 0})");
  for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
           {"0/8", "0/33"}, {"10.0.0.1", "10.0.0"}, {"'groupFlags': 0", "'groupFlags': 256"}, {"False", "false"},
           {"'hash': 0", "'hash': -1"}, {"})", "}"}, {"})", "}) "}}) {
    std::string bad = good;
    EXPECT_FALSE(bootstrapRpFragmentKeyFromStrep(bad.replace(bad.find(from), from.size(), to))) << bad;
  }
}

// A fragment per key; its RPs keep the order they came in and their fields, past the few that
// the list keeps inside itself.
TEST(BootstrapRpFragments, FragmentsByKeyAndTheirRps) {
  BootstrapRpFragments all;
  const BootstrapRpFragmentKey k{*Knet::IpGenPrefix::parse("239.0.0.0/8"), ip("10.0.0.1")};
  EXPECT_TRUE(!BootstrapRpFragmentKey() && !!k);
  BootstrapRpFragment& f = all.fragmentsIs(k);
  EXPECT_EQ(&all.fragmentsIs(k), &f) << "a known key made a second fragment";
  for (U8 i = 9; i >= 3; --i) f.rpListIs(Knet::IpGenAddr::ipv4(0x0a000000 + i)).priorityIs(i);
  f.rpListIs(ip("10.0.0.9")).holdtimeIs(7);
  f.rpListDel(ip("10.0.0.8"));
  std::string order;
  for (const BootstrapRpData& r : f.rpList()) order += text(r.address()) + "/" + std::to_string(r.priority()) + " ";
  EXPECT_EQ(order, "10.0.0.9/9 10.0.0.7/7 10.0.0.6/6 10.0.0.5/5 10.0.0.4/4 10.0.0.3/3 ");
  EXPECT_EQ(f.rpList(ip("10.0.0.9"))->holdtime(), 7);
  all.fragmentsDel(k);
  EXPECT_EQ(all.fragments(k), nullptr);
}

}  // namespace
}  // namespace Routing::Pim::Packet
