// Register-Stop and Assert: both carry a group and a unicast source, with the same checks and
// their own rows; the Assert adds the RPT bit, the metric preference and the metric. Golden
// packets of both families, what a failing read or write records (every truncation included),
// and the Assert's metric preference.
#include "PimMessage/AssertMessage.h"
#include "PimMessage/EncodedAddress.h"
#include "PimMessage/RegisterMessage.h"
#include "loom/Exception.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;
using Result = Outcome<Failure>;
using E = EncodedAddressText;

const Knet::IpGenAddr v4Src = ip("10.99.0.1");
const Knet::IpGenAddr v4Dst = ip("10.99.0.2");

const Bytes groupV4 = {0x01, 0x00, 0x00, 0x20, 0xef, 0x01, 0x02, 0x03};  // 239.1.2.3/32, no flags
const Bytes sourceV4 = {0x01, 0x00, 0x0a, 0x42, 0x00, 0x02};            // 10.66.0.2
const Bytes groupV6 = {0x02, 0x00, 0x00, 0x80, 0xff, 0x3e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0x02, 0, 0x03};
const Bytes sourceV6 = {0x02, 0x00, 0x20, 0x01, 0x0d, 0xb8, 0x00, 0x66, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02};

// One message kind: its type byte, what it carries behind the source, its rows, and the name of
// the address that its family texts add.
struct Kind {
  U8 typeByte;
  Bytes tail;
  Failure groupParse, groupFamily, groupPrefix, sourceParse, sourceFamily, sourceInvalid, endOfMessage;
  Failure headerSpace, writeFamily, groupWrite, sourceWrite;
  const char* group;
  const char* source;
};
using S = RegisterStopText;
using A = AssertText;
const Kind registerStop{0x22, {}, S::groupParse, S::groupFamily, S::groupPrefix, S::sourceParse, S::sourceFamily,
                        S::sourceInvalid, S::endOfMessage, S::writeHeaderSpace, S::writeFamily, S::groupWrite,
                        S::sourceWrite, "Address: ", "Address: "};
// R bit and metric preference 101, metric 20.
const Kind assertKind{0x25, {0x80, 0, 0, 0x65, 0, 0, 0, 0x14}, A::groupParse, A::groupFamily, A::groupPrefix,
                      A::sourceParse, A::sourceFamily, A::sourceInvalid, A::endOfMessage, A::writeHeaderSpace,
                      A::writeFamily, A::groupWrite, A::sourceWrite, "Group Address: ", "Source Address: "};

class GroupSourceMessage : public ::testing::TestWithParam<const Kind*> {
 protected:
  const Kind& kind() const { return *GetParam(); }
  bool isAssert() const { return GetParam() == &assertKind; }
  Bytes packet(const Bytes& group, const Bytes& source, const Bytes& extra = {}, bool v6 = false) const {
    Bytes b = concat({{kind().typeByte, 0, 0, 0}, group, source, kind().tail, extra});
    fixChecksum(b, v6 ? ip("fe80::1") : v4Src, v6 ? ip("ff02::d") : v4Dst);
    return b;
  }
  Loom::Ptr<Message> message(bool v6 = false) const {
    Loom::Ptr<Message> m = isAssert() ? Loom::Ptr<Message>(assertMessageFactory()) : registerStopMessageFactory();
    m->srcIpIs(v6 ? ip("fe80::1") : v4Src);
    m->dstIpIs(v6 ? ip("ff02::d") : v4Dst);
    return m;
  }
  static U32 read(const Loom::Ptr<Message>& m, const Loom::Ptr<Knet::Pkt>& p, U32 offset = 0) {
    if (auto s = Loom::ptr_cast<RegisterStopMessage>(m)) return s->readRegisterStopMessage(p, offset);
    return Loom::ptr_cast<AssertMessage>(m)->readAssertMessage(p, offset);
  }
  static U32 write(const Loom::Ptr<Message>& m, const Loom::Ptr<Knet::Pkt>& p, U32 offset = 0) {
    if (auto s = Loom::ptr_cast<RegisterStopMessage>(m)) return s->writeRegisterStopMessage(p, offset);
    return Loom::ptr_cast<AssertMessage>(m)->writeAssertMessage(p, offset);
  }
  std::function<Result()> reading(const Bytes& b) const {
    return [this, b] {
      auto m = message();
      return Result{read(m, pkt(b)), m->failure()};
    };
  }
};

// Bytes -> fields -> the same bytes, at an offset. The command line's tests check the fields.
TEST_P(GroupSourceMessage, GoldenPacketsReadAndWriteBack) {
  const Bytes bidirGroup = {0x01, 0x00, 0x80, 0x20, 0xef, 0x01, 0x02, 0x03};
  for (const auto& [v6, b] : {std::pair{false, packet(groupV4, sourceV4)}, std::pair{true, packet(groupV6, sourceV6, {}, true)},
                              std::pair{false, packet(bidirGroup, {0x01, 0x00, 0, 0, 0, 0})}}) {
    auto m = message(v6);
    Loom::TraceCapture cap(1);
    ASSERT_EQ(read(m, pkt(b)), b.size()) << firstError(cap);
    Loom::Ptr<Knet::Pkt> out = pkt(Bytes(3 + b.size(), 0xee));
    ASSERT_EQ(write(m, out, 3), b.size()) << firstError(cap);
    EXPECT_EQ(Bytes(out->data() + 3, out->data() + out->size()), b);
    EXPECT_FALSE(m->failure());
  }
}

// The encoded address's own failure, where it has one, is traced first and recorded.
TEST_P(GroupSourceMessage, ReadFailures) {
  const Kind& k = kind();
  std::vector<FailureRow<Failure>> rows = {
      {"group with a bad encoding", reading(packet(with(groupV4, {{1, 7}}), sourceV4)), E::groupInvalidEncoding, "\x07"},
      {"ipv6 group", reading(packet(groupV6, sourceV4)), k.groupFamily, std::string("ipv4") + k.group + "ff3e::1:2:3"},
      {"group of mask 24", reading(packet(with(groupV4, {{3, 24}}), sourceV4)), k.groupPrefix, "239.1.2.3/24"},
      {"unicast group", reading(packet(with(groupV4, {{4, 10}}), sourceV4)), E::groupNotMulticast, "10.1.2.3"},
      {"source with a bad encoding", reading(packet(groupV4, with(sourceV4, {{1, 3}}))), E::unicastInvalidEncoding, "\x03"},
      {"ipv6 source", reading(packet(groupV4, sourceV6)), k.sourceFamily, std::string("ipv4") + k.source + "2001:db8:66::2"},
      {"multicast source", reading(packet(groupV4, {0x01, 0x00, 0xe0, 0, 0, 5})), E::unicastNotUnicast, "224.0.0.5"},
      {"one trailing byte", reading(packet(groupV4, sourceV4, {0})), k.endOfMessage, "1"},
  };
  if (isAssert()) {
    Bytes cut = packet(groupV4, sourceV4);
    cut.resize(cut.size() - 2);
    fixChecksum(cut, v4Src, v4Dst);
    rows.push_back({"metric cut", reading(cut), A::metricLength, "2 Expected: 4"});
  }
  checkFailures(rows);
  // The message's own line follows the address's.
  const auto line = [](const Failure& f, const char* values) { return std::string(f.text()) + values; };
  checkRejects({{"group", packet(with(groupV4, {{1, 7}}), sourceV4), line(k.groupParse, "")},
                {"unicast group", packet(with(groupV4, {{4, 10}}), sourceV4), line(k.groupPrefix, "10.1.2.3/32")},
                {"source", packet(groupV4, with(sourceV4, {{1, 3}})), line(k.sourceParse, "")},
                {"multicast source", packet(groupV4, {1, 0, 224, 0, 0, 5}), line(k.sourceInvalid, "224.0.0.5")}},
               v4Src, v4Dst, [this](const Loom::Ptr<Knet::Pkt>& p) { return read(message(), p); }, Trace::last);
}

TEST_P(GroupSourceMessage, TruncationAtEveryLength) {
  // A cut encoded address records its own failure.
  std::vector<Cut<Failure>> cuts = {{4, HeaderText::missingHeader}, {4, E::groupFamilyLength}, {4, E::groupIpLength},
                                    {2, E::unicastFamilyLength}, {4, E::unicastIpLength}};
  if (isAssert()) cuts.insert(cuts.end(), {{4, A::preferenceLength}, {4, A::metricLength}});
  checkCuts<Failure>(packet(groupV4, sourceV4), cuts, v4Src, v4Dst, [this](const Loom::Ptr<Knet::Pkt>& p) {
    auto m = message();
    return Result{read(m, p), m->failure()};
  });
}

TEST_P(GroupSourceMessage, WriteFailures) {
  const Kind& k = kind();
  const auto write = [this](const char* group, const char* source, U32 room) {
    return [=, this] {
      auto m = message();
      const Knet::IpGenAddr g = ip(group), s = *source ? ip(source) : Knet::IpGenAddr();
      if (auto r = Loom::ptr_cast<RegisterStopMessage>(m)) r->groupIs(g), r->sourceIs(s);
      if (auto a = Loom::ptr_cast<AssertMessage>(m)) a->groupIs(g), a->sourceIs(s);
      return Result{GroupSourceMessage::write(m, pkt(Bytes(room))), m->failure()};
    };
  };
  std::vector<FailureRow<Failure>> rows = {
      {"no room for the header", write("239.1.2.3", "10.66.0.2", 3), k.headerSpace, "3"},
      {"ipv6 group", write("ff3e::1", "10.66.0.2", 64), k.writeFamily, "ipv6 Group Address: ff3e::1"},
      {"unicast group", write("10.1.2.3", "10.66.0.2", 64), E::groupNotMulticast, "10.1.2.3"},
      {"no room for the group", write("239.1.2.3", "10.66.0.2", 10), E::groupIpLength, "2 Expected: 4"},
      {"unset source", write("239.1.2.3", "", 64), k.writeFamily, "ipUnknown(0) Source Address: unset"},
      {"multicast source", write("239.1.2.3", "224.0.0.5", 64), E::unicastNotUnicast, "224.0.0.5"},
      {"no room for the source", write("239.1.2.3", "10.66.0.2", 16), E::unicastIpLength, "2 Expected: 4"},
  };
  if (isAssert()) rows.push_back({"no room for the metrics", write("239.1.2.3", "10.66.0.2", 25), A::metricSpace, "7 Expected: 8"});
  checkFailures(rows);
}

INSTANTIATE_TEST_SUITE_P(Kinds, GroupSourceMessage, ::testing::Values(&registerStop, &assertKind),
                         [](const auto& info) { return info.param == &registerStop ? "RegisterStop" : "Assert"; });

TEST(Assert, MetricPreferenceKeepsTheRptBit) {
  auto m = assertMessageFactory();
  m->implMetricPreferenceIs(0x80000000u | 7);
  m->metricPreferenceIs(AssertMetricPreference(0xffffffffu));  // only the low 31 bits are kept
  EXPECT_EQ(m->implMetricPreference(), 0xffffffffu);
  m->rptIs(false);
  EXPECT_EQ(m->implMetricPreference(), 0x7fffffffu);
  EXPECT_EQ(AssertMetricPreference::fromString("2147483647"), AssertMetricPreference(2147483647));
  EXPECT_THROW(AssertMetricPreference::fromString("2147483648"), Loom::RangeException);
  EXPECT_THROW(AssertMetricPreference::fromString("12x"), std::invalid_argument);
}

}  // namespace
}  // namespace Routing::Pim::Packet
