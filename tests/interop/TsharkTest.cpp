// tshark as an independent oracle for the codec. Messages of every kind in both families are
// written by the codec's table, framed as the transmit path sends them, written to one pcap and
// dissected once by `tshark -T json`: tshark must show every field as it was encoded, and find
// the checksums good, or bad where one was spoiled. Join/Prune trees too big for one packet go
// out packet after packet, and together the packets must carry the tree.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "PimMessage/AssertMessage.h"
#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/CrpAdvMessage.h"
#include "PimMessage/DfElectionMessage.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/MessageTable.h"
#include "PimMessage/RegisterMessage.h"
#include "TsharkSupport.h"
#include "knet/IpHdr.h"

namespace {

using namespace TsharkTest;
using namespace Routing::Pim::Packet;
using Knet::AddressFamily;
using Knet::IpGenAddr;
using Routing::Pim::GroupFlags;
using Routing::Pim::JoinPruneData;
using Routing::Pim::JoinPruneGroupData;
using Bytes = std::vector<U8>;

IpGenAddr addr(const std::string& text) { return IpGenAddr::parse(text).value(); }

// Every value of a field anywhere under `j`, in tshark's order, separated by blanks.
std::string values(const Json& j, const std::string& key) {
  std::string out;
  auto add = [&](const std::string& v) { out += (out.empty() ? "" : " ") + v; };
  if (j.is_object()) {
    for (auto it = j.begin(); it != j.end(); ++it) {
      for (const Json& v : it.key() == key ? occurrences(it.value()) : std::vector<Json>{}) {
        if (!v.is_structured()) add(v.is_string() ? v.get<std::string>() : v.dump());
      }
      if (it.key() == key + "_tree") continue;  // tshark repeats the field in its tree
      if (const std::string inner = values(it.value(), key); !inner.empty()) add(inner);
    }
  } else if (j.is_array()) {
    for (const Json& e : j) {
      if (const std::string inner = values(e, key); !inner.empty()) add(inner);
    }
  }
  return out;
}
std::string first(const Json& j, const std::string& key) { return values(j, key).substr(0, values(j, key).find(' ')); }
std::string hex(U32 v, int digits) {
  char buf[16];
  std::snprintf(buf, sizeof(buf), "0x%0*x", digits, v);
  return buf;
}

// ---- The messages ----

using Fields = std::vector<std::pair<std::string, std::string>>;

struct Case {
  const char* name;
  Knet::PimMessageType type;
  U8 subtype;  // DF election's; noSubtype for the others
  bool v6;
  const char* src;
  const char* dst;  // null: ALL-PIM-ROUTERS
  std::function<void(Message&)> fill;
  Fields fields;  // what tshark must show: a field and all its values in order
  bool badChecksum = false;
};

void hello(Message& m, U16 holdtime, bool tBit, U16 delay, U16 override, U32 drPriority, U32 generationId,
           std::vector<const char*> secondary) {
  auto& h = static_cast<HelloMessage&>(m);
  h.holdTimeOptionIs(true);
  h.holdTimeIs(holdtime);
  h.lanPruneDelayOptionIs(true);
  h.tBitIs(tBit);
  h.propagationDelayIs(HelloPropagationDelay(delay));
  h.overrideIntervalIs(override);
  h.drPriorityOptionIs(true);
  h.drPriorityIs(drPriority);
  h.generationIdOptionIs(true);
  h.generationIdIs(generationId);
  for (const char* a : secondary) h.secondaryAddrIs(addr(a));
}
// Every other option: bidirectional capable, TCP and SCTP connection ids, interface id.
void helloRest(Message& m, const char* tcp, const char* sctp) {
  auto& h = static_cast<HelloMessage&>(m);
  h.bidirectionalCapableIs(true);
  h.tcpConnectionOptionIs(true);
  h.tcpConnectionIdIs(addr(tcp));
  h.sctpConnectionOptionIs(true);
  h.sctpConnectionIdIs(addr(sctp));
  h.interfaceIdOptionIs(true);
  h.routerIdIs(0xc0a80101);
  h.interfaceIdIs(0x00010203);
}
void registerMessage(Message& m, bool border, bool null, const char* source, const char* group) {
  auto& r = static_cast<RegisterMessage&>(m);
  r.borderFlagIs(border);
  r.nullFlagIs(null);
  if (null) {
    r.encapsulatedSrcIs(addr(source));
    r.encapsulatedDstIs(addr(group));
    return;
  }
  // A UDP packet with a 5-byte payload.
  const IpGenAddr s = addr(source), g = addr(group);
  Bytes udp = {0x13, 0x88, 0x13, 0x88, 0x00, 0x0d, 0x00, 0x00, 'p', 'i', 'm', 'i', 'o'};
  Bytes inner(s.af() == AddressFamily::ipv4 ? Knet::IpHdr::minSize : Knet::Ip6Hdr::size);
  if (s.af() == AddressFamily::ipv4) {
    Knet::IpHdr::write(inner.data(), 0, static_cast<U16>(inner.size() + udp.size()), 63, 17, s, g, 7);
  } else {
    Knet::Ip6Hdr::write(inner.data(), 0, static_cast<U16>(udp.size()), 17, 63, s, g);
  }
  inner.insert(inner.end(), udp.begin(), udp.end());
  r.rcvdPktIs(Knet::pktFactory(inner));
}
template <class M>
void groupSource(Message& m, const char* group, U8 flags, const char* source) {
  auto& g = static_cast<M&>(m);
  g.groupIs(addr(group));
  g.groupFlagsIs(GroupFlags(flags));
  g.sourceIs(addr(source));
}
void assertMessage(Message& m, const char* group, U8 flags, const char* source, bool rpt, U32 preference, U32 metric) {
  groupSource<AssertMessage>(m, group, flags, source);
  auto& a = static_cast<AssertMessage&>(m);
  a.rptIs(rpt);
  a.metricPreferenceIs(AssertMetricPreference(preference));
  a.metricIs(metric);
}
struct Range {
  const char* prefix;
  U8 flags, rpCount;
  std::vector<std::tuple<const char*, U16, U8>> rps;  // address, holdtime, priority
};
// Fragment tag 0x0102, priority 200.
void bootstrap(Message& m, U8 hashMaskLen, const char* bsr, const std::vector<Range>& ranges) {
  auto& b = static_cast<BootstrapMessage&>(m);
  b.fragmentTagIs(0x0102);
  b.hashMaskLenIs(hashMaskLen);
  b.bsrPriorityIs(200);
  b.bsrAddressIs(addr(bsr));
  b.groupRpDataIs(bootstrapOptionalDataFactory());
  for (const Range& r : ranges) {
    Loom::Ptr<BootstrapGroupData> g = bootstrapGroupDataFactory(*Knet::IpGenPrefix::parse(r.prefix));
    g->groupFlagsIs(r.flags);
    g->rpCountIs(r.rpCount);
    g->fragRpCountIs(static_cast<U8>(r.rps.size()));
    for (const auto& [rp, holdtime, priority] : r.rps) {
      auto& d = g->rpListIs(addr(rp));
      d.holdtimeIs(holdtime);
      d.priorityIs(priority);
    }
    b.groupRpData()->groupDataEnq(g);
  }
}
// Priority 3, holdtime 150.
void crpAdv(Message& m, const char* rp, const std::vector<std::pair<const char*, U8>>& ranges) {
  auto& a = static_cast<CrpAdvMessage&>(m);
  a.prefixCountIs(static_cast<U8>(ranges.size()));
  a.priorityIs(3);
  a.holdtimeIs(150);
  a.rpAddressIs(addr(rp));
  a.groupDataIs(crpGroupDataFactory());
  for (const auto& [prefix, flags] : ranges) a.groupData()->groupInfoIs(*Knet::IpGenPrefix::parse(prefix)).groupFlagsIs(flags);
}
// The RP and the sender's metric; Backoff and Pass add another router's.
void dfElection(Message& m, const char* rp, U32 preference, U32 metric, const char* other = nullptr) {
  auto& d = static_cast<DfElectionMessage&>(m);
  d.rpAddressIs(addr(rp));
  d.senderMetricPrefIs({preference, metric});
  if (auto* b = dynamic_cast<DfElectionBackoffMessage*>(&m)) {
    b->offeringAddressIs(addr(other));
    b->offeringMetricPrefIs({100, 10});
    b->intervalIs(1000);
  } else if (auto* p = dynamic_cast<DfElectionPassMessage*>(&m)) {
    p->winningAddressIs(addr(other));
    p->winningMetricPrefIs({100, 10});
  }
}

const Knet::PimMessageType kHello = Knet::pimHello(), kRegister = Knet::pimRegister(), kStop = Knet::pimRegisterStop(),
                           kAssert = Knet::pimAssert(), kBootstrap = Knet::pimBootstrap(),
                           kCrpAdv = Knet::pimCandidateRpAdvertisement(), kDf = Knet::pimDfElection();

const std::vector<Case>& cases() {
  static const std::vector<Case> all = {
      {"Ipv4Hello", kHello, noSubtype, false, "10.0.0.1", nullptr,
       [](Message& m) { hello(m, 105, false, 500, 2500, 1, 0x1badcafe, {"10.1.0.1", "10.2.0.1"}); },
       {{"pim.optiontype", "1 2 19 20 24"}, {"pim.optionlength", "2 4 4 4 12"}, {"pim.holdtime", "105"}, {"pim.t", "0"},
        {"pim.propagation_delay", "500"}, {"pim.override_interval", "2500"}, {"pim.dr_priority", "1"},
        {"pim.generation_id", "464374526"}, {"pim.address_list", "10.1.0.1 10.2.0.1"}, {"pim.addr_address_family", "1 1"}}},
      {"Ipv4HelloEveryOption", kHello, noSubtype, false, "10.0.0.1", nullptr,
       [](Message& m) {
         hello(m, 65535, true, HelloPropagationDelay::max, 65535, 0xffffffff, 0x80000001, {"10.1.0.1", "192.168.5.9"});
         helloRest(m, "10.0.0.9", "10.0.0.10");
       },
       {{"pim.optiontype", "1 2 19 20 22 24 27 28 31"}, {"pim.optionlength", "2 4 4 4 0 12 8 8 8"},
        {"pim.holdtime", "65535"}, {"pim.t", "1"}, {"pim.propagation_delay", "32767"}, {"pim.override_interval", "65535"},
        {"pim.dr_priority", "4294967295"}, {"pim.generation_id", "2147483649"}, {"pim.address_list", "10.1.0.1 192.168.5.9"},
        {"pim.optionvalue", "00:01:00:00:0a:00:00:09 00:01:00:00:0a:00:00:0a c0:a8:01:01:00:01:02:03"}}},
      {"Ipv6HelloEveryOptionBadChecksum", kHello, noSubtype, true, "fe80::1", nullptr,
       [](Message& m) {
         hello(m, 0, true, 1, 0, 200, 7, {"2001:db8:1::1"});
         helloRest(m, "2001:db8::9", "2001:db8::a");
       },
       {{"pim.optiontype", "1 2 19 20 22 24 27 28 31"}, {"pim.optionlength", "2 4 4 4 0 18 20 20 8"},
        {"pim.holdtime", "0"}, {"pim.propagation_delay", "1"}, {"pim.address_list_ip6", "2001:db8:1::1"},
        {"pim.addr_address_family", "2"},
        {"pim.optionvalue", "00:02:00:00:20:01:0d:b8:00:00:00:00:00:00:00:00:00:00:00:09 "
                            "00:02:00:00:20:01:0d:b8:00:00:00:00:00:00:00:00:00:00:00:0a c0:a8:01:01:00:01:02:03"}},
       true},
      {"Ipv4DataRegisterBadChecksum", kRegister, noSubtype, false, "10.99.0.2", "10.99.0.1",
       [](Message& m) { registerMessage(m, false, false, "10.66.0.2", "239.1.2.3"); },
       {{"pim.register_flag", "0x00000000"}, {"pim.ip_version", "4"}, {"ip.src", "10.99.0.2 10.66.0.2"},
        {"ip.dst", "10.99.0.1 239.1.2.3"}, {"ip.proto", "103 17"}, {"udp.length", "13"}}, true},
      {"Ipv6DataRegister", kRegister, noSubtype, true, "2001:db8::2", "2001:db8::1",
       [](Message& m) { registerMessage(m, false, false, "2001:db8:66::2", "ff3e::1:2:3"); },
       {{"pim.register_flag", "0x00000000"}, {"pim.ip_version", "6"}, {"ipv6.src", "2001:db8::2 2001:db8:66::2"},
        {"ipv6.dst", "2001:db8::1 ff3e::1:2:3"}, {"ipv6.nxt", "103 17"}, {"udp.length", "13"}}},
      // The dummy header of a Null-Register: 20 bytes, id 1, DF, TTL 1, PIM, a checksum that verifies.
      {"Ipv4NullRegisterWithBorderBit", kRegister, noSubtype, false, "10.99.0.2", "10.99.0.1",
       [](Message& m) { registerMessage(m, true, true, "10.66.0.2", "239.1.2.3"); },
       {{"pim.register_flag", "0xc0000000"}, {"pim.register_flag.border", "1"}, {"pim.register_flag.null_register", "1"},
        {"ip.src", "10.99.0.2 10.66.0.2"}, {"ip.dst", "10.99.0.1 239.1.2.3"}, {"ip.len", "48 20"}, {"ip.id", "0x0000 0x0001"},
        {"ip.flags.df", "0 1"}, {"ip.ttl", "1 1"}, {"ip.proto", "103 103"}, {"ip.checksum.status", "1 1"}}},
      {"Ipv6NullRegister", kRegister, noSubtype, true, "2001:db8::2", "2001:db8::1",
       [](Message& m) { registerMessage(m, false, true, "2001:db8:66::2", "ff3e::1:2:3"); },
       {{"pim.register_flag", "0x40000000"}, {"ipv6.src", "2001:db8::2 2001:db8:66::2"}, {"ipv6.plen", "48 0"},
        {"ipv6.nxt", "103 103"}, {"ipv6.hlim", "1 1"}}},
      {"Ipv4RegisterStop", kStop, noSubtype, false, "10.99.0.1", "10.99.0.2",
       [](Message& m) { groupSource<RegisterStopMessage>(m, "239.1.2.3", 0, "10.66.0.2"); },
       {{"pim.group", "239.1.2.3"}, {"pim.source", "10.66.0.2"}, {"pim.addr_address_family", "1 1"},
        {"pim.addr_encoding_type", "0 0"}, {"pim.mask_len", "32"}, {"pim.group_addr.flags", "0x00"}}},
      {"Ipv6WildcardRegisterStop", kStop, noSubtype, true, "2001:db8::1", "2001:db8::2",
       [](Message& m) { groupSource<RegisterStopMessage>(m, "ff3e::1:2:3", 0, "::"); },
       {{"pim.group_ip6", "ff3e::1:2:3"}, {"pim.source_ip6", "::"}, {"pim.addr_address_family", "2 2"}, {"pim.mask_len", "128"}}},
      {"Ipv4Assert", kAssert, noSubtype, false, "10.99.0.3", nullptr,
       [](Message& m) { assertMessage(m, "239.1.2.3", 0, "10.66.0.2", false, 101, 20); },
       {{"pim.group", "239.1.2.3"}, {"pim.source", "10.66.0.2"}, {"pim.rpt", "0"}, {"pim.metric_pref", "101"},
        {"pim.metric", "20"}}},
      {"Ipv4StarGAssertBidir", kAssert, noSubtype, false, "10.99.0.3", nullptr,
       [](Message& m) { assertMessage(m, "239.1.2.3", 0x80, "0.0.0.0", true, 0x7fffffff, 0xffffffff); },
       {{"pim.source", "0.0.0.0"}, {"pim.group_addr.flags.b", "1"}, {"pim.group_addr.flags.z", "0"}, {"pim.rpt", "1"},
        {"pim.metric_pref", "2147483647"}, {"pim.metric", "4294967295"}}},
      {"Ipv6AssertBadChecksum", kAssert, noSubtype, true, "fe80::3", nullptr,
       [](Message& m) { assertMessage(m, "ff3e::1:2:3", 0x01, "2001:db8:66::2", true, 110, 2); },
       {{"pim.group_ip6", "ff3e::1:2:3"}, {"pim.source_ip6", "2001:db8:66::2"}, {"pim.group_addr.flags.z", "1"},
        {"pim.rpt", "1"}, {"pim.metric_pref", "110"}, {"pim.metric", "2"}}, true},
      {"Ipv4Bootstrap", kBootstrap, noSubtype, false, "10.0.0.1", nullptr,
       [](Message& m) {
         bootstrap(m, 30, "10.0.0.1", {{"224.0.0.0/4", 0, 2, {{"10.0.0.2", 150, 192}, {"10.0.0.3", 150, 1}}},
                                       {"239.0.0.0/8", 0x80, 3, {{"10.0.0.2", 65535, 0}}}});
       },
       {{"pim.fragment_tag", "0x0102"}, {"pim.hash_mask_len", "30"}, {"pim.bsr_priority", "200"}, {"pim.bsr", "10.0.0.1"},
        {"pim.group", "224.0.0.0 239.0.0.0"}, {"pim.mask_len", "4 8"}, {"pim.group_addr.flags", "0x00 0x80"},
        {"pim.rp_count", "2 3"}, {"pim.frp_count", "2 1"}, {"pim.rp", "10.0.0.2 10.0.0.3 10.0.0.2"},
        {"pim.holdtime", "150 150 65535"}, {"pim.priority", "192 1 0"}}},
      {"Ipv6BootstrapAdminScope", kBootstrap, noSubtype, true, "fe80::1", nullptr,
       [](Message& m) { bootstrap(m, 126, "2001:db8::1", {{"ff05::/16", 0x01, 1, {{"2001:db8::2", 75, 0}}}}); },
       {{"pim.hash_mask_len", "126"}, {"pim.bsr_ip6", "2001:db8::1"}, {"pim.group_ip6", "ff05::"}, {"pim.mask_len", "16"},
        {"pim.group_addr.flags", "0x01"}, {"pim.rp_ip6", "2001:db8::2"}, {"pim.holdtime", "75"}}},
      {"Ipv4CrpAdv", kCrpAdv, noSubtype, false, "10.0.0.5", "10.0.0.1",
       [](Message& m) { crpAdv(m, "10.0.0.5", {{"224.0.0.0/4", 0}, {"239.255.0.0/16", 0x80}}); },
       {{"pim.prefix_count", "2"}, {"pim.priority", "3"}, {"pim.holdtime", "150"}, {"pim.rp", "10.0.0.5"},
        {"pim.group", "224.0.0.0 239.255.0.0"}, {"pim.mask_len", "4 16"}, {"pim.group_addr.flags", "0x00 0x80"}}},
      {"Ipv6CrpAdv", kCrpAdv, noSubtype, true, "2001:db8::5", "2001:db8::1",
       [](Message& m) { crpAdv(m, "2001:db8::5", {{"ff05::/16", 0x01}}); },
       {{"pim.prefix_count", "1"}, {"pim.rp_ip6", "2001:db8::5"}, {"pim.group_ip6", "ff05::"}, {"pim.group_addr.flags", "0x01"}}},
      // tshark shows the subtype, the RP and the sender's metric of a DF election, not the Backoff
      // and Pass extensions, whose bytes the checksum and the IP length still cover.
      {"Ipv4DfOffer", kDf, 1, false, "10.0.0.2", nullptr, [](Message& m) { dfElection(m, "10.0.0.9", 110, 20); },
       {{"pim.df_elect.subtype", "1"}, {"pim.df_elect.rsvd", "0"}, {"pim.rp", "10.0.0.9"}, {"pim.metric_pref", "110"},
        {"pim.metric", "20"}, {"ip.len", "38"}}},
      {"Ipv6DfWinner", kDf, 2, true, "fe80::2", nullptr, [](Message& m) { dfElection(m, "2001:db8::9", 0x7fffffff, 0xffffffff); },
       {{"pim.df_elect.subtype", "2"}, {"pim.rp_ip6", "2001:db8::9"}, {"pim.metric_pref", "2147483647"},
        {"pim.metric", "4294967295"}, {"ipv6.plen", "30"}}},
      {"Ipv4DfBackoff", kDf, 3, false, "10.0.0.2", nullptr, [](Message& m) { dfElection(m, "10.0.0.9", 110, 20, "10.0.0.3"); },
       {{"pim.df_elect.subtype", "3"}, {"pim.rp", "10.0.0.9"}, {"pim.metric", "20"}, {"ip.len", "54"}}},
      {"Ipv6DfPass", kDf, 4, true, "fe80::2", nullptr, [](Message& m) { dfElection(m, "2001:db8::9", 1, 2, "2001:db8::3"); },
       {{"pim.df_elect.subtype", "4"}, {"pim.rp_ip6", "2001:db8::9"}, {"pim.metric_pref", "1"}, {"ipv6.plen", "56"}}},
  };
  return all;
}

struct Encoded {
  Bytes pim;
  U16 checksum = 0;  // as the codec wrote it
};

class TsharkOracle : public OracleTest<Encoded> {
 protected:
  static void SetUpTestSuite() {
    tshark_ = findOnPath("tshark");
    if (tshark_.empty()) return;
    std::vector<Bytes> frames;
    for (const Case& c : cases()) {
      const MessageClass* row = messageClass(c.type, c.subtype);
      const AddressFamily af = c.v6 ? AddressFamily::ipv6 : AddressFamily::ipv4;
      const IpGenAddr dst = c.dst ? addr(c.dst) : Knet::allPimRouters(af);
      Loom::Ptr<Message> m = row->create();
      m->srcIpIs(addr(c.src));
      m->dstIpIs(dst);
      c.fill(*m);
      const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(1500);
      const U32 n = row->write(*m, pkt, 0, nullptr);
      if (n == 0) {
        error_ = std::string("the codec did not encode case ") + c.name;
        return;
      }
      Encoded e{Bytes(pkt->data(), pkt->data() + n)};
      e.checksum = static_cast<U16>(e.pim[2] << 8 | e.pim[3]);
      // One bit flipped: never the other form of zero that a one's-complement sum accepts.
      if (c.badChecksum) e.pim[3] ^= 0x01;
      frames.push_back(frame(af, addr(c.src), e.pim, dst));
      encoded_.push_back(std::move(e));
    }
    dissectFrames(frames);
  }
};

TEST_P(TsharkOracle, ShowsWhatWasEncoded) {
  const Case& c = cases()[GetParam()];
  const Encoded& e = encoded_[GetParam()];
  const Json& layers = child(child(dissection_.packets[GetParam()], "_source"), "layers");
  const Json& pim = child(layers, "pim");
  ASSERT_TRUE(pim.is_object()) << "tshark did not dissect PIM: " << layers.dump(1);
  // The IP header of the transmit path: TOS or traffic class 192, TTL or hop limit 1, PIM.
  const std::string dst = c.dst ? c.dst : c.v6 ? "ff02::d" : "224.0.0.13";
  const Fields common =
      c.v6 ? Fields{{"ipv6.tclass", "0x000000c0"}, {"ipv6.hlim", "1"}, {"ipv6.nxt", "103"}, {"ipv6.src", c.src},
                    {"ipv6.dst", dst}, {"ipv6.plen", std::to_string(e.pim.size())}}
           : Fields{{"ip.dsfield", "0xc0"}, {"ip.ttl", "1"}, {"ip.proto", "103"}, {"ip.checksum.status", "1"},
                    {"ip.src", c.src}, {"ip.dst", dst}, {"ip.len", std::to_string(20 + e.pim.size())}};
  for (const auto& [field, value] : common) EXPECT_EQ(first(layers, field), value) << field;
  EXPECT_EQ(values(pim, "pim.version"), "2");
  EXPECT_EQ(values(pim, "pim.type"), std::to_string(c.type.value() & 0x0f));
  EXPECT_EQ(values(pim, "pim.cksum.status"), c.badChecksum ? "0" : "1");
  if (c.badChecksum) {
    // tshark's own sum names the value the codec wrote before it was spoiled.
    EXPECT_EQ(values(pim, "_ws.expert.message"), "Bad checksum [should be " + hex(e.checksum, 4) + "]");
  }
  for (const auto& [field, value] : c.fields) EXPECT_EQ(values(layers, field), value) << field;
}

INSTANTIATE_TEST_SUITE_P(Messages, TsharkOracle, testing::Range<size_t>(0, cases().size()),
                         [](const testing::TestParamInfo<size_t>& info) { return cases()[info.param].name; });

// ---- Join/Prune trees ----

struct Tree {
  const char* name;
  bool v6;
  U32 mtu;
  int groups;
  bool periodic = false;
  bool bidir = false;
};

const Tree kTrees[] = {
    {"Ipv4Triggered", false, 200, 12},
    {"Ipv6Triggered", true, 400, 12},
    {"Ipv4Periodic", false, 256, 12, true},
    {"Ipv6Periodic", true, 576, 12, true},
    {"Ipv4Bidirectional", false, 160, 6, false, true},
    // At most 255 groups in a packet, whatever the MTU.
    {"Ipv4ManyGroups", false, 9000, 300},
};

std::string group(const Tree& t, int g) {
  return t.v6 ? "ff3e::" + std::to_string(g + 1) : "239.1." + std::to_string(g / 250) + "." + std::to_string(g % 250 + 1);
}
std::string source(const Tree& t, int g, int s) {
  return t.v6 ? "2001:db8:" + std::to_string(g) + "::" + std::to_string(s)
              : "10." + std::to_string(g % 250) + "." + std::to_string(s) + ".1";
}
std::string rp(const Tree& t) { return t.v6 ? "2001:db8:ffff::1" : "10.255.0.1"; }

// Every kind of entry, spread over groups: (*,G) joins with (S,G,rpt) prunes, (S,G,rpt) joins,
// (S,G) joins and prunes, (*,G) prunes; the Z flag on some groups, B on all when bidirectional. A
// periodic tree suppresses two (S,G) joins of the first group and the (*,G) join of a group
// without (S,G,rpt) prunes and of one with them (which keeps it).
Loom::Ptr<JoinPruneData> treeOf(const Tree& t) {
  Loom::Ptr<JoinPruneData> d = new JoinPruneData(addr(t.v6 ? "fe80::2" : "10.0.0.2"));
  d->holdTimeIs(210);
  d->periodicIs(t.periodic);
  for (int g = 0; g < t.groups; ++g) {
    JoinPruneGroupData& gd = d->joinPruneGroupDataIs(addr(group(t, g)));
    if (t.groups > 255) {
      gd.wcSourceDataIs(addr(rp(t)), true);
      continue;
    }
    gd.groupFlagsIs(static_cast<U8>((t.bidir ? 0x80 : 0) | (g % 5 == 4 ? 0x01 : 0)));
    for (int s = 1; s <= 4; ++s) gd.joinedSourceIs(addr(source(t, g, s)));
    for (int s = 20; s <= 21; ++s) gd.prunedSourceIs(addr(source(t, g, s)));
    if (g % 3 == 0) {
      gd.wcSourceDataIs(addr(rp(t)), true);
      for (int s = 10; s <= 12; ++s) gd.prunedRptSourceIs(addr(source(t, g, s)));
    } else if (g % 3 == 1) {
      for (int s = 30; s <= 31; ++s) gd.joinedRptSourceIs(addr(source(t, g, s)));
    } else {
      gd.wcSourceDataIs(addr(rp(t)), false);
    }
  }
  if (t.periodic) {
    d->joinPruneGroupData(addr(group(t, 0)))->joinSuppressSourceIs(addr(source(t, 0, 1)));
    d->joinPruneGroupData(addr(group(t, 0)))->joinSuppressSourceIs(addr(source(t, 0, 3)));
    d->joinPruneGroupData(addr(group(t, 3)))->wcSuppressedIs(true);
    d->joinPruneGroupData(addr(group(t, 6)))->prunedRptSourceDelAll();
    d->joinPruneGroupData(addr(group(t, 6)))->wcSuppressedIs(true);
  }
  return d;
}

std::string entry(const std::string& group, U8 groupFlags, bool join, U8 sourceFlags, const std::string& source) {
  std::ostringstream os;
  os << group << " flags " << unsigned(groupFlags) << (join ? " join " : " prune ") << unsigned(sourceFlags) << " " << source;
  return os.str();
}

// The entries the packets must carry: all but, in a periodic message, the suppressed joins and
// the (*,G) prunes. S on every source, WC and RPT on the (*,G) entry, RPT on (S,G,rpt) entries.
std::vector<std::string> expectedEntries(const JoinPruneData& d) {
  std::vector<std::string> out;
  for (const auto& [address, g] : d.joinPruneGroupData()) {
    const std::string group = address.str();
    const U8 flags = g->groupFlags();
    for (const IpGenAddr& s : g->joinedRptSource()) out.push_back(entry(group, flags, true, 0x05, s.str()));
    for (const IpGenAddr& s : g->joinedSource()) {
      if (!(d.periodic() && g->joinSuppressSource().contains(s))) out.push_back(entry(group, flags, true, 0x04, s.str()));
    }
    if (const auto& wc = g->wcSourceData()) {
      if (!(d.periodic() && (!wc->join || (wc->wcSuppressed && g->prunedRptSources() == 0)))) {
        out.push_back(entry(group, flags, wc->join, 0x07, wc->rp.str()));
      }
    }
    if (g->rptPrunedGroupData()) {
      for (const auto& [s, v] : g->rptPrunedGroupData()->prunedRptSource()) out.push_back(entry(group, flags, false, 0x05, s.str()));
    }
    for (const IpGenAddr& s : g->prunedSource()) out.push_back(entry(group, flags, false, 0x04, s.str()));
  }
  std::sort(out.begin(), out.end());
  return out;
}

struct Packets {
  std::vector<Bytes> pim;
  std::vector<std::string> expected;
  size_t firstFrame = 0;  // index of the tree's first packet in the capture
};

class TsharkJoinPrune : public OracleTest<Packets> {
 protected:
  // Packet after packet from the bookmark, bounded by the number of entries.
  static void SetUpTestSuite() {
    tshark_ = findOnPath("tshark");
    if (tshark_.empty()) return;
    std::vector<Bytes> frames;
    for (const Tree& t : kTrees) {
      const AddressFamily af = t.v6 ? AddressFamily::ipv6 : AddressFamily::ipv4;
      const IpGenAddr sender = addr(t.v6 ? "fe80::1" : "10.0.0.1");
      Packets p;
      Loom::Ptr<JoinPruneData> tree = treeOf(t);
      p.expected = expectedEntries(*tree);
      Loom::Ptr<JoinPruneMessage> m = joinPruneMessageFactory();
      m->srcIpIs(sender);
      m->dstIpIs(Knet::allPimRouters(af));
      m->mtuIs(t.mtu);
      m->bidirIs(t.bidir);
      m->joinPruneDataIs(tree);
      for (U32 i = 0, bound = tree->routes() + 1; i < bound; ++i) {
        const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(0xffff);
        const U32 n = m->writeJoinPruneMessage(pkt, 0, nullptr);
        if (n == 0) break;
        p.pim.emplace_back(pkt->data(), pkt->data() + n);
        if (!tree->bookmark()) break;
      }
      p.firstFrame = frames.size();
      for (const Bytes& b : p.pim) frames.push_back(frame(af, sender, b));
      encoded_.push_back(std::move(p));
    }
    dissectFrames(frames);
  }
};

// Every packet fits the MTU, has a good checksum and the tree's upstream neighbor and holdtime;
// every group and source is a host prefix; together the packets carry each entry once.
TEST_P(TsharkJoinPrune, PacketsCarryTheTree) {
  const Tree& t = kTrees[GetParam()];
  const Packets& p = encoded_[GetParam()];
  const std::string six = t.v6 ? "_ip6" : "";
  EXPECT_GE(p.pim.size(), 2u);
  std::vector<std::string> carried;
  for (size_t i = 0; i < p.pim.size(); ++i) {
    SCOPED_TRACE("packet " + std::to_string(i + 1));
    const Json& layers = child(child(dissection_.packets[p.firstFrame + i], "_source"), "layers");
    EXPECT_LE(p.pim[i].size() + (t.v6 ? 40 : 20), t.mtu);
    const Json& pim = child(layers, "pim");
    EXPECT_EQ(values(pim, "pim.cksum.status"), "1");
    EXPECT_EQ(values(pim, "pim.type"), "3");
    EXPECT_EQ(values(pim, "pim.upstream_neighbor" + six), t.v6 ? "fe80::2" : "10.0.0.2");
    EXPECT_EQ(values(pim, "pim.holdtime"), "210");
    const std::vector<Json> groups = occurrences(child(child(pim, "pim.option"), "pim.group_set_tree"));
    EXPECT_EQ(values(pim, "pim.numgroups"), std::to_string(groups.size()));
    EXPECT_LE(groups.size(), 255u);
    for (const Json& g : groups) {
      const U8 flags = static_cast<U8>(std::stoul(values(g, "pim.group_addr.flags"), nullptr, 16));
      const std::string address = addr(values(g, "pim.group" + six)).str();
      for (const bool join : {true, false}) {
        const std::string count = join ? "pim.numjoins" : "pim.numprunes";
        const std::vector<Json> sources =
            occurrences(child(child(g, count + "_tree"), std::string(join ? "pim.join_ip" : "pim.prune_ip") + (t.v6 ? "6" : "") + "_tree"));
        EXPECT_EQ(values(g, count), std::to_string(sources.size()));
        for (const Json& s : sources) {
          EXPECT_EQ(values(s, "pim.mask_len"), t.v6 ? "128" : "32");
          carried.push_back(entry(address, flags, join, static_cast<U8>(std::stoul(values(s, "pim.source_addr.flags"), nullptr, 16)),
                                  addr(values(s, "pim.source" + six)).str()));
        }
      }
    }
  }
  std::sort(carried.begin(), carried.end());
  EXPECT_EQ(carried, p.expected);
}

INSTANTIATE_TEST_SUITE_P(JoinPrune, TsharkJoinPrune, testing::Range<size_t>(0, std::size(kTrees)),
                         [](const testing::TestParamInfo<size_t>& info) { return kTrees[info.param].name; });

}  // namespace
