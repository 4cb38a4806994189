// The Candidate-RP Advertisement: what the read accepts (golden packets written back byte for
// byte; an admin-scoped range is accepted, traced and logged), every refusal of the read (a cut
// at each part included) and of the write with the failure it records and the texts it traces.
#include "PimMessage/CrpAdvMessage.h"

#include "PimMessage/EncodedAddress.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;
using T = CrpAdvText;
using A = EncodedAddressText;

const Knet::IpGenAddr v4Src = ip("10.0.0.5"), v4Dst = ip("10.0.0.1");
const Knet::IpGenAddr v6Src = ip("2001:db8::5"), v6Dst = ip("2001:db8::1");
const std::string P = "Invalid Pim CrpAdv - ", cleaning = " | Invalid Pim CrpAdv. Cleaning Up";

Bytes range(const char* a, U8 mask, U8 flags = 0) { return encodedGroupBytes(a, mask, flags); }
// Prefix count, priority 192, holdtime 150, then the RP address.
Bytes fixed(U8 count, const char* rp = "10.0.0.5") { return concat({{count, 192, 0, 150}, encodedUnicastBytes(rp)}); }

Loom::Ptr<CrpAdvMessage> message(bool isV6 = false) {
  Loom::Ptr<CrpAdvMessage> m = crpAdvMessageFactory();
  m->srcIpIs(isV6 ? v6Src : v4Src);
  m->dstIpIs(isV6 ? v6Dst : v4Dst);
  return m;
}

TEST(CrpAdv, ReadAcceptsAndGoldenPacketsWriteBack) {
  const struct {
    Bytes body;
    std::vector<std::string> fields;  // count, priority, holdtime, RP; then the ranges
    std::vector<std::string> traces;
    bool golden = true;  // written back byte for byte
    bool isV6 = false;
  } cases[] = {
      {concat({fixed(2), range("224.0.0.0", 4), range("239.255.0.0", 16, 0x80)}),
       {"2 192 150 10.0.0.5", "224.0.0.0/4 0x00", "239.255.0.0/16 0x80(B)"}, {}},
      {concat({fixed(1, "2001:db8::5"), range("ff05::", 16, 0x01)}), {"1 192 150 2001:db8::5", "ff05::/16 0x01(Z)"},
       {"Valid Pim CrpAdv - Group Address has Zone flag set - Group: ff05::/16 RP: 2001:db8::5"}, true, true},
      {fixed(0), {"0 192 150 10.0.0.5"}, {}, false},  // read, but never written: the encoder refuses a count of 0
  };
  Loom::logClockIs([] { return 1e9; });  // later than any log emission made on the real clock
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fields.front());
    Bytes b = concat({{0x28, 0, 0, 0}, c.body});
    fixChecksum(b, c.isV6 ? v6Src : v4Src, c.isV6 ? v6Dst : v4Dst);
    auto m = message(c.isV6);
    Loom::TraceCapture cap(1);
    Loom::LogCapture logs;
    ASSERT_EQ(m->readCrpAdvMessage(pkt(b), 0), b.size()) << firstError(cap);
    std::vector<std::string> fields = {text(+m->prefixCount()) + " " + text(+m->priority()) + " " +
                                       text(m->holdtime()) + " " + text(m->rpAddress())};
    for (const auto& g : m->groupData()->groupInfo()) {
      fields.push_back(text(g->prefix()) + " " + text(GroupFlags(g->groupFlags())));
    }
    EXPECT_EQ(fields, c.fields);
    EXPECT_EQ(errors(cap), c.traces);
    ASSERT_EQ(logs.messages().size(), c.traces.size());
    if (!c.traces.empty()) {
      EXPECT_EQ(logs.messages()[0].text,
                "Received Candidate-RP Advertisements from C-RP 2001:db8::5 with Zone bit set");
    }
    EXPECT_FALSE(m->failure());
    if (!c.golden) continue;
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(2 + b.size(), 0xee));
    ASSERT_EQ(m->writeCrpAdvMessage(out, 2), b.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + 2, out->data() + out->size()), b);
  }
  Loom::logClockIs(nullptr);
}

// Every text the read traces, in order; the failure recorded is the first, an encoded address's
// own where it failed.
TEST(CrpAdv, ReadRejectTable) {
  const std::string unicast = "Invalid Encoded Unicast Address - ", group = "Invalid Encoded Group Address - ";
  std::vector<RecordedReject> rows = {
      {"3 bytes", {1, 2, 3}, T::parse, P + "Parse Error"},
      {"RP encoding", {1, 192, 0, 150, 0x01, 0x04, 10, 0, 0, 5}, A::unicastInvalidEncoding,
       unicast + "Invalid Encoding - Value: \x04 | " + P + "RP Address - Parse Error"},
      {"ipv6 RP", fixed(1, "2001:db8::5"), T::rpFamily,
       P + "RP Address - Invalid Family - Family: ipv4RP Address: 2001:db8::5"},
      {"multicast RP", fixed(1, "224.0.0.5"), A::unicastNotUnicast,
       unicast + "Not Unicast - Address: 224.0.0.5 | " + P + "RP Address - Invalid Address - 224.0.0.5"},
      {"range encoding", concat({fixed(1), {0x01, 0x02, 0, 4, 224, 0, 0, 0}}), A::groupInvalidEncoding,
       group + "Invalid Encoding - Value: \x02 | " + P + "Group Address - Parse Error" + cleaning},
      {"range cut", concat({fixed(1), {0x01, 0x00, 0, 4, 224}}), A::groupIpLength,
       group + "Ip Address Length - Remaining: 1 Expected: 4 | " + P + "Group Address - Parse Error" + cleaning},
      {"ipv6 range", concat({fixed(1), range("ff05::", 16)}), T::groupFamily,
       P + "Group Address - Invalid Family - Family: ipv4Group Address: ff05::/16" + cleaning},
      {"unicast range", concat({fixed(1), range("10.0.0.0", 8)}), A::groupNotMulticast,
       group + "Not Multicast - Address: 10.0.0.0 | " + P + "Group Address - Invalid Prefix: 10.0.0.0/8" + cleaning},
      {"repeated range", concat({fixed(2), range("239.0.0.0", 8), range("239.0.0.0", 8)}), T::groupDuplicate,
       P + "Group Address - Duplicate group - Group Address: 239.0.0.0/8" + cleaning},
      {"count 3, 2 ranges", concat({fixed(3), range("224.0.0.0", 4), range("239.0.0.0", 8)}), T::countMismatch,
       P + "Group Address count mismatch -  prefixCount: 3 numGroups: 2" + cleaning},
  };
  for (RecordedReject& r : rows) r.bytes = concat({{0x28, 0, 0, 0}, r.bytes});
  rows.push_back({"2 bytes", {0x28, 0}, HeaderText::missingHeader,
                  "Invalid Pim Message - Missing Pim Header - Remaining: 2 | " + P + "Header - Parse Error"});
  checkRecordedRejects(rows, v4Src, v4Dst, [](const Loom::Ptr<Knet::Pkt>& p) {
    auto m = message();
    const U32 n = m->readCrpAdvMessage(p, 0);
    EXPECT_FALSE(m->groupData()) << "a refused message keeps no range";
    return RecordedOutcome{n, m->failure()};
  }, Trace::all);
}

// A write into `room` bytes of a message built by hand with a prefix count, an RP and ranges.
std::function<RecordedOutcome()> writing(U8 count, const char* rp, std::vector<std::pair<const char*, U8>> ranges,
                                 U32 room = 64) {
  auto m = message();
  m->prefixCountIs(count);
  if (*rp) m->rpAddressIs(ip(rp));
  m->groupDataIs(crpGroupDataFactory());
  for (const auto& [p, flags] : ranges) m->groupData()->groupInfoIs(*Knet::IpGenPrefix::parse(p)).groupFlagsIs(flags);
  return [=] { return RecordedOutcome{m->writeCrpAdvMessage(pkt(Bytes(room)), 0), m->failure()}; };
}

TEST(CrpAdv, WriteFailures) {
  const char* rp = "10.0.0.5";
  const std::pair<const char*, U8> g239 = {"239.0.0.0/8", 0}, admin = {"239.255.0.0/16", 1};
  const std::string family = P + "Invalid Family - Family: ", scope = P + "Invalid Scope:  Group Scope: ";
  checkRecordedWriteFailures(
      {{"header room", writing(1, rp, {g239}, 3), T::headerSpace, P + "Header - Unavailable Space - Remaining: 3"},
       {"fixed room", writing(1, rp, {g239}, 7), T::fixedSpace,
        P + "Fixed Fields - Unavailable Space - Remaining: 3 Expected: 4"},
       {"count 0", writing(0, rp, {}), T::prefixCount, P + "Prefix Count "},
       {"count 2, 1 range", writing(2, rp, {g239}), T::prefixCountMismatch, P + "Prefix Count Mismatch"},
       {"ipv6 RP", writing(1, "2001:db8::5", {g239}), T::writeFamily, family + "ipv6 RP Address: 2001:db8::5"},
       {"no RP", writing(1, "", {g239}), T::writeFamily, family + "ipUnknown(0) RP Address: unset"},
       {"multicast RP", writing(1, "224.0.0.5", {g239}), A::unicastNotUnicast, P + "RP Address - Write Error"},
       {"ipv6 range", writing(1, rp, {{"ff05::/16", 0}}), T::writeFamily, family + "ipv6 Group Address: ff05::/16"},
       {"admin behind global", writing(2, rp, {g239, admin}), T::invalidScope,
        scope + "Admin Allowed Scope: global Group Address: 239.255.0.0/16"},
       {"global behind admin", writing(2, rp, {admin, g239}), T::invalidScope,
        scope + "global Allowed Scope: Admin Group Address: 239.0.0.0/8"},
       {"unicast range", writing(1, rp, {{"10.0.0.0/8", 0}}), A::groupNotMulticast, P + "Group Address - Write Error"},
       {"range room", writing(1, rp, {g239}, 20), A::groupIpLength, P + "Group Address - Write Error"}},
      Trace::last);
}

}  // namespace
}  // namespace Routing::Pim::Packet
