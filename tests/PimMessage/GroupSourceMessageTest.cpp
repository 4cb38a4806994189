// Register-Stop and Assert: both carry a group and a unicast source, with the same checks and
// their own texts; the Assert adds the RPT bit, the metric preference and the metric. Golden
// packets of both families, reject tables for the read and the write, truncation at every
// length, accessors and renderings.
#include "PimMessage/AssertMessage.h"
#include "PimMessage/RegisterMessage.h"
#include "loom/Exception.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;

const Knet::IpGenAddr v4Src = ip("10.99.0.1");
const Knet::IpGenAddr v4Dst = ip("10.99.0.2");
const Knet::IpGenAddr v6Src = ip("fe80::1");
const Knet::IpGenAddr v6Dst = ip("ff02::d");

const Bytes groupV4 = {0x01, 0x00, 0x00, 0x20, 0xef, 0x01, 0x02, 0x03};  // 239.1.2.3/32, no flags
const Bytes sourceV4 = {0x01, 0x00, 0x0a, 0x42, 0x00, 0x02};            // 10.66.0.2
const Bytes groupV6 = {0x02, 0x00, 0x00, 0x80, 0xff, 0x3e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0x02, 0, 0x03};
const Bytes sourceV6 = {0x02, 0x00, 0x20, 0x01, 0x0d, 0xb8, 0x00, 0x66, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02};
// R bit and metric preference 101, metric 20.
const Bytes metrics = {0x80, 0x00, 0x00, 0x65, 0x00, 0x00, 0x00, 0x14};

// One message kind: how to make it, read it, write it, and what it carries behind the source.
struct Kind {
  const char* name;
  U8 typeByte;
  Bytes tail;
  const char* text;  // the texts' message name: "Register Stop" or "Assert"
};
const Kind registerStop{"Register-Stop", 0x22, {}, "Register Stop"};
const Kind assertKind{"Assert", 0x25, metrics, "Assert"};

Bytes packetOf(const Kind& k, bool v6, const Bytes& group, const Bytes& source, const Bytes& extra = {}) {
  Bytes b = concat({{k.typeByte, 0x00, 0x00, 0x00}, group, source, k.tail, extra});
  fixChecksum(b, v6 ? v6Src : v4Src, v6 ? v6Dst : v4Dst);
  return b;
}

Loom::Ptr<Message> message(const Kind& k, bool v6) {
  Loom::Ptr<Message> m;
  if (k.typeByte == 0x22) {
    m = registerStopMessageFactory();
  } else {
    m = assertMessageFactory();
  }
  m->srcIpIs(v6 ? v6Src : v4Src);
  m->dstIpIs(v6 ? v6Dst : v4Dst);
  return m;
}

U32 read(const Loom::Ptr<Message>& m, const Loom::Ptr<Knet::Pkt>& p, U32 offset = 0) {
  if (auto s = Loom::ptr_cast<RegisterStopMessage>(m)) return s->readRegisterStopMessage(p, offset);
  return Loom::ptr_cast<AssertMessage>(m)->readAssertMessage(p, offset);
}

U32 write(const Loom::Ptr<Message>& m, const Loom::Ptr<Knet::Pkt>& p, U32 offset = 0) {
  if (auto s = Loom::ptr_cast<RegisterStopMessage>(m)) return s->writeRegisterStopMessage(p, offset);
  return Loom::ptr_cast<AssertMessage>(m)->writeAssertMessage(p, offset);
}

// Sets what the message carries.
void load(const Loom::Ptr<Message>& m, const Knet::IpGenAddr& group, const Knet::IpGenAddr& source) {
  if (auto s = Loom::ptr_cast<RegisterStopMessage>(m)) {
    s->groupIs(group);
    s->sourceIs(source);
    return;
  }
  auto a = Loom::ptr_cast<AssertMessage>(m);
  a->groupIs(group);
  a->sourceIs(source);
  a->rptIs(true);
  a->metricPreferenceIs(AssertMetricPreference(101));
  a->metricIs(20);
}

class GroupSourceMessage : public ::testing::TestWithParam<const Kind*> {
 protected:
  const Kind& kind() const { return *GetParam(); }
  std::string text(const std::string& rest) const { return std::string("Invalid Pim ") + kind().text + " - " + rest; }
};

TEST_P(GroupSourceMessage, GoldenPacketsReadAndWriteBack) {
  struct Case {
    const char* name;
    bool v6;
    Bytes group, source;
    const char* groupText;
    const char* sourceText;
  };
  const Bytes wildcard = {0x01, 0x00, 0, 0, 0, 0};
  const Bytes bidirGroup = {0x01, 0x00, 0x80, 0x20, 0xef, 0x01, 0x02, 0x03};
  const Case cases[] = {
      {"ipv4", false, groupV4, sourceV4, "239.1.2.3", "10.66.0.2"},
      {"ipv6", true, groupV6, sourceV6, "ff3e::1:2:3", "2001:db8:66::2"},
      {"ipv4 zero source, group flags kept", false, bidirGroup, wildcard, "239.1.2.3", "0.0.0.0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Bytes b = packetOf(kind(), c.v6, c.group, c.source);
    EXPECT_EQ(b.size(), (c.v6 ? 42u : 18u) + kind().tail.size());
    auto m = message(kind(), c.v6);
    Loom::TraceCapture cap(1);
    ASSERT_EQ(read(m, pkt(b)), b.size()) << firstError(cap);
    if (auto s = Loom::ptr_cast<RegisterStopMessage>(m)) {
      EXPECT_EQ(s->group(), ip(c.groupText));
      EXPECT_EQ(s->source(), ip(c.sourceText));
      EXPECT_EQ(s->groupFlags().value(), c.group[2]);
    } else {
      auto a = Loom::ptr_cast<AssertMessage>(m);
      EXPECT_EQ(a->group(), ip(c.groupText));
      EXPECT_EQ(a->source(), ip(c.sourceText));
      EXPECT_EQ(a->groupFlags().value(), c.group[2]);
      EXPECT_TRUE(a->rpt());
      EXPECT_EQ(a->metricPreference(), AssertMetricPreference(101));
      EXPECT_EQ(a->metric(), 20u);
    }
    // Written back at an offset, byte for byte.
    constexpr U32 offset = 3;
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(offset + b.size(), 0xee));
    ASSERT_EQ(write(m, out, offset), b.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + offset, out->data() + out->size()), b);
  }
}

TEST_P(GroupSourceMessage, ReadRejectTable) {
  const bool assert = kind().typeByte == 0x25;
  const Bytes badEncoding = {0x01, 0x07, 0x00, 0x20, 0xef, 0x01, 0x02, 0x03};
  const Bytes shortMask = {0x01, 0x00, 0x00, 0x18, 0xef, 0x01, 0x02, 0x00};
  const Bytes unicastGroup = {0x01, 0x00, 0x00, 0x20, 0x0a, 0x01, 0x02, 0x03};
  const Bytes multicastSource = {0x01, 0x00, 0xe0, 0x00, 0x00, 0x05};
  const Bytes badSourceEncoding = {0x01, 0x03, 0x0a, 0x42, 0x00, 0x02};
  struct Case {
    const char* name;
    Bytes bytes;
    std::string error;
  };
  std::vector<Case> cases = {
      {"group with a bad encoding", packetOf(kind(), false, badEncoding, sourceV4), text("Group Address - Parse Error")},
      {"ipv6 group", packetOf(kind(), false, groupV6, sourceV4),
       text("Group Address - Invalid Family - Family: ipv4") + (assert ? "Group Address: " : "Address: ") + "ff3e::1:2:3"},
      {"group of mask 24", packetOf(kind(), false, shortMask, sourceV4), text("Group Address - Invalid Prefix - 239.1.2.0/24")},
      {"unicast group", packetOf(kind(), false, unicastGroup, sourceV4), text("Group Address - Invalid Prefix - 10.1.2.3/32")},
      {"source with a bad encoding", packetOf(kind(), false, groupV4, badSourceEncoding), text("Source Address - Parse Error")},
      {"ipv6 source", packetOf(kind(), false, groupV4, sourceV6),
       text("Source Address - Invalid Family - Family: ipv4") + (assert ? "Source Address: " : "Address: ") + "2001:db8:66::2"},
      {"multicast source", packetOf(kind(), false, groupV4, multicastSource),
       text("Source Address - Invalid Address") + (assert ? " - " : ": ") + "224.0.0.5"},
      {"one trailing byte", packetOf(kind(), false, groupV4, sourceV4, {0}), text("End of Message - Remaining: 1")},
  };
  if (assert) {
    cases.push_back({"metric cut", concat({{0x25, 0, 0, 0}, groupV4, sourceV4, {0x80, 0, 0, 0x65, 0, 0}}),
                     text("Metric Length - Remaining: 2 Expected: 4")});
  }
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    fixChecksum(c.bytes, v4Src, v4Dst);
    Loom::TraceCapture cap(1);
    EXPECT_EQ(read(message(kind(), false), pkt(c.bytes)), 0u);
    // The group and source checks run after the encoded address's own checks, which trace first.
    const std::vector<std::string> e = errors(cap);
    EXPECT_NE(std::find(e.begin(), e.end(), c.error), e.end()) << "got: " << (e.empty() ? "" : e.back());
    EXPECT_EQ(e.back(), c.error);
  }
}

TEST_P(GroupSourceMessage, TruncationAtEveryLength) {
  std::vector<Fragment> fragments = {{4, text("Header - Parse Error")}, {8, text("Group Address - Parse Error")},
                                     {6, text("Source Address - Parse Error")}};
  if (kind().typeByte == 0x25) {
    fragments.push_back({4, text("Metric Preference Length - Remaining: ")});
    fragments.push_back({4, text("Metric Length - Remaining: ")});
  }
  // A read error of the encoded address comes first; the message's own text follows it.
  checkTruncations(packetOf(kind(), false, groupV4, sourceV4), fragments, v4Src, v4Dst,
                   [this](const Loom::Ptr<Knet::Pkt>& p) { return read(message(kind(), false), p); }, true);
}

TEST_P(GroupSourceMessage, WriteFailures) {
  struct Case {
    const char* name;
    const char* group;
    const char* source;
    U32 room;
    std::string error;
  };
  const bool assert = kind().typeByte == 0x25;
  std::vector<Case> cases = {
      {"no room for the header", "239.1.2.3", "10.66.0.2", 3, text("Header - Unavailable Space - Remaining: 3")},
      {"ipv6 group", "ff3e::1", "10.66.0.2", 64, text("Invalid Family - Family: ipv6 Group Address: ff3e::1")},
      {"unicast group", "10.1.2.3", "10.66.0.2", 64, text("Group Address - Write Error")},
      {"no room for the group", "239.1.2.3", "10.66.0.2", 10, text("Group Address - Write Error")},
      {"unset source", "239.1.2.3", "", 64, text("Invalid Family - Family: ipUnknown(0) Source Address: unset")},
      {"multicast source", "239.1.2.3", "224.0.0.5", 64, text("Source Address - Write Error")},
      {"no room for the source", "239.1.2.3", "10.66.0.2", 16, text("Source Address - Write Error")},
  };
  if (assert) cases.push_back({"no room for the metrics", "239.1.2.3", "10.66.0.2", 25, text("Metric - Unavailable Space - Remaining: 7 Expected: 8")});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = message(kind(), false);
    load(m, ip(c.group), *c.source ? ip(c.source) : Knet::IpGenAddr());
    Loom::TraceCapture cap(1);
    EXPECT_EQ(write(m, pkt(Bytes(c.room))), 0u);
    EXPECT_EQ(errors(cap).back(), c.error);
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, GroupSourceMessage, ::testing::Values(&registerStop, &assertKind),
                         [](const auto& info) { return info.param->typeByte == 0x22 ? "RegisterStop" : "Assert"; });

TEST(Assert, MetricPreferenceAccessorsKeepTheOtherBits) {
  auto m = assertMessageFactory();
  m->implMetricPreferenceIs(0x80000000u | 7);
  m->metricPreferenceIs(AssertMetricPreference(0xffffffffu));
  EXPECT_TRUE(m->rpt()) << "the R bit changed";
  EXPECT_EQ(m->metricPreference().value(), 0x7fffffffu) << "only the low 31 bits are kept";
  m->rptIs(false);
  EXPECT_EQ(m->implMetricPreference(), 0x7fffffffu);
  m->metricPreferenceIs(AssertMetricPreference(12));
  m->rptIs(true);
  EXPECT_EQ(m->implMetricPreference(), 0x8000000cu);
}

TEST(Assert, MetricPreferenceFromText) {
  EXPECT_EQ(AssertMetricPreference::fromString("2147483647"), AssertMetricPreference(2147483647));
  try {
    AssertMetricPreference::fromString("2147483648");
    ADD_FAILURE() << "2147483648 was accepted";
  } catch (const Loom::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "AssertMetricPreference::value < AssertMetricPreference::min or > AssertMetricPreference::max not allowed");
  }
  for (const char* junk : {"", "-1", "12x"}) {
    EXPECT_THROW(AssertMetricPreference::fromString(junk), std::invalid_argument) << junk;
  }
}

}  // namespace
}  // namespace Routing::Pim::Packet
