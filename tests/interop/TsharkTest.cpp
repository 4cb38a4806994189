// tshark as an independent oracle for the codec. Messages of every kind in both families are
// written by `pimio encode` from JSON lines (the codec, framed as the transmit path sends them) and
// dissected once by `tshark -T json`: tshark must show every field as it was encoded, and find the
// checksums good, or bad where one was spoiled; `pimio decode` must give the lines back. Join/Prune trees too big for one packet go out
// packet after packet, and together the packets must carry the tree.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "PimMessage/JoinPruneMessage.h"
#include "TsharkSupport.h"
#include "knet/IpPacket.h"
#include "support/JoinPruneTrees.h"

namespace {

using namespace TsharkTest;
using namespace Routing::Pim::Packet;
using Knet::AddressFamily;
using Knet::IpGenAddr;
using Bytes = std::vector<U8>;

IpGenAddr addr(const std::string& text) { return IpGenAddr::parse(text).value(); }

std::string hex(U32 v, int digits) {
  char buf[16];
  std::snprintf(buf, sizeof(buf), "0x%0*x", digits, v);
  return buf;
}

// ---- The messages ----

using Fields = std::vector<std::pair<std::string, std::string>>;

struct Case {
  const char* name;
  int pimType;
  const char* src;
  const char* dst;      // null: ALL-PIM-ROUTERS
  std::string members;  // of the JSON line, behind family, addresses and type
  Fields fields;        // what tshark must show: a field and all its values in order
  bool badChecksum = false;
  bool decodes = true;  // false: the codec's reader refuses it (see the case)
};

// The members of a Hello with holdtime, LAN prune delay, DR priority, generation id and addresses.
std::string hello(int holdtime, bool tBit, int delay, int override, U32 dr, U32 generationId, const std::string& addrs) {
  std::ostringstream os;
  os << std::boolalpha << R"("holdTimeOption":true,"holdTime":)" << holdtime << R"(,"lanPruneDelayOption":true,"tBit":)" << tBit
     << R"(,"propagationDelay":)" << delay << R"(,"overrideInterval":)" << override
     << R"(,"drPriorityOption":true,"drPriority":)" << dr << R"(,"generationIdOption":true,"generationId":)"
     << generationId << R"(,"secondaryAddr":[)" << addrs << "]";
  return os.str();
}
// Every other option: bidirectional capable, TCP and SCTP connection ids, interface id.
std::string helloRest(const std::string& tcp, const std::string& sctp) {
  return R"(,"bidirectionalCapable":true,"tcpConnectionOption":true,"tcpConnectionId":")" + tcp +
         R"(","sctpConnectionOption":true,"sctpConnectionId":")" + sctp +
         R"(","interfaceIdOption":true,"routerId":3232235777,"interfaceId":66051)";
}
// A UDP packet with a 5-byte payload from 10.66.0.2 (2001:db8:66::2) to 239.1.2.3 (ff3e::1:2:3).
const std::string udp = "13881388000d000070696d696f";
const std::string inner4 = R"("inner":"45000021000740003f1100000a420002ef010203)" + udp + "\"";
const std::string inner6 = R"("inner":"60000000000d113f20010db8006600000000000000000002ff3e0000000000000000000100020003)" +
                           udp + "\"";
const std::string bootstrapHead = R"("fragmentTag":258,"bsrPriority":200,)";
const std::string crpHead = R"("priority":3,"holdtime":150,)";
// A DF election's subtype and the sender's metric; Backoff and Pass add another router's.
std::string df(const char* subtype, const char* rp, U32 preference, U32 metric) {
  return R"("dfElectionType":"dfElection)" + std::string(subtype) + R"(","rpAddress":")" + rp +
         R"(","senderMetricPreference":)" + std::to_string(preference) + R"(,"senderMetric":)" + std::to_string(metric);
}

const std::vector<Case>& cases() {
  static const std::vector<Case> all = {
      {"Ipv4Hello", 0, "10.0.0.1", nullptr, hello(105, false, 500, 2500, 1, 0x1badcafe, R"("10.1.0.1","10.2.0.1")"),
       {{"pim.optiontype", "1 2 19 20 24"}, {"pim.optionlength", "2 4 4 4 12"}, {"pim.holdtime", "105"}, {"pim.t", "0"},
        {"pim.propagation_delay", "500"}, {"pim.override_interval", "2500"}, {"pim.dr_priority", "1"},
        {"pim.generation_id", "464374526"}, {"pim.address_list", "10.1.0.1 10.2.0.1"}, {"pim.addr_address_family", "1 1"}}},
      {"Ipv4HelloEveryOption", 0, "10.0.0.1", nullptr,
       hello(65535, true, 32767, 65535, 0xffffffff, 0x80000001, R"("10.1.0.1","192.168.5.9")") +
           helloRest("10.0.0.9", "10.0.0.10"),
       {{"pim.optiontype", "1 2 19 20 22 24 27 28 31"}, {"pim.optionlength", "2 4 4 4 0 12 8 8 8"},
        {"pim.holdtime", "65535"}, {"pim.t", "1"}, {"pim.propagation_delay", "32767"}, {"pim.override_interval", "65535"},
        {"pim.dr_priority", "4294967295"}, {"pim.generation_id", "2147483649"}, {"pim.address_list", "10.1.0.1 192.168.5.9"},
        {"pim.optionvalue", "00:01:00:00:0a:00:00:09 00:01:00:00:0a:00:00:0a c0:a8:01:01:00:01:02:03"}}},
      {"Ipv6HelloEveryOptionBadChecksum", 0, "fe80::1", nullptr,
       hello(0, true, 1, 0, 200, 7, R"("2001:db8:1::1")") + helloRest("2001:db8::9", "2001:db8::a"),
       {{"pim.optiontype", "1 2 19 20 22 24 27 28 31"}, {"pim.optionlength", "2 4 4 4 0 18 20 20 8"},
        {"pim.holdtime", "0"}, {"pim.propagation_delay", "1"}, {"pim.address_list_ip6", "2001:db8:1::1"},
        {"pim.addr_address_family", "2"},
        {"pim.optionvalue", "00:02:00:00:20:01:0d:b8:00:00:00:00:00:00:00:00:00:00:00:09 "
                            "00:02:00:00:20:01:0d:b8:00:00:00:00:00:00:00:00:00:00:00:0a c0:a8:01:01:00:01:02:03"}},
       true},
      {"Ipv4DataRegisterBadChecksum", 1, "10.99.0.2", "10.99.0.1", inner4,
       {{"pim.register_flag", "0x00000000"}, {"pim.ip_version", "4"}, {"ip.src", "10.99.0.2 10.66.0.2"},
        {"ip.dst", "10.99.0.1 239.1.2.3"}, {"ip.proto", "103 17"}, {"udp.length", "13"}}, true},
      {"Ipv6DataRegister", 1, "2001:db8::2", "2001:db8::1", inner6,
       {{"pim.register_flag", "0x00000000"}, {"pim.ip_version", "6"}, {"ipv6.src", "2001:db8::2 2001:db8:66::2"},
        {"ipv6.dst", "2001:db8::1 ff3e::1:2:3"}, {"ipv6.nxt", "103 17"}, {"udp.length", "13"}}},
      // The dummy header of a Null-Register: 20 bytes, id 1, DF, TTL 1, PIM, a checksum that verifies.
      {"Ipv4NullRegisterWithBorderBit", 1, "10.99.0.2", "10.99.0.1",
       R"("null":true,"border":true,"innerSrc":"10.66.0.2","innerGroup":"239.1.2.3")",
       {{"pim.register_flag", "0xc0000000"}, {"pim.register_flag.border", "1"}, {"pim.register_flag.null_register", "1"},
        {"ip.src", "10.99.0.2 10.66.0.2"}, {"ip.dst", "10.99.0.1 239.1.2.3"}, {"ip.len", "48 20"}, {"ip.id", "0x0000 0x0001"},
        {"ip.flags.df", "0 1"}, {"ip.ttl", "1 1"}, {"ip.proto", "103 103"}, {"ip.checksum.status", "1 1"}}},
      {"Ipv6NullRegister", 1, "2001:db8::2", "2001:db8::1",
       R"("null":true,"innerSrc":"2001:db8:66::2","innerGroup":"ff3e::1:2:3")",
       {{"pim.register_flag", "0x40000000"}, {"ipv6.src", "2001:db8::2 2001:db8:66::2"}, {"ipv6.plen", "48 0"},
        {"ipv6.nxt", "103 103"}, {"ipv6.hlim", "1 1"}}},
      {"Ipv4RegisterStop", 2, "10.99.0.1", "10.99.0.2", R"("group":"239.1.2.3","source":"10.66.0.2")",
       {{"pim.group", "239.1.2.3"}, {"pim.source", "10.66.0.2"}, {"pim.addr_address_family", "1 1"},
        {"pim.addr_encoding_type", "0 0"}, {"pim.mask_len", "32"}, {"pim.group_addr.flags", "0x00"}}},
      {"Ipv6WildcardRegisterStop", 2, "2001:db8::1", "2001:db8::2", R"("group":"ff3e::1:2:3","source":"::")",
       {{"pim.group_ip6", "ff3e::1:2:3"}, {"pim.source_ip6", "::"}, {"pim.addr_address_family", "2 2"}, {"pim.mask_len", "128"}}},
      {"Ipv4Assert", 5, "10.99.0.3", nullptr,
       R"("group":"239.1.2.3","source":"10.66.0.2","rpt":false,"metricPreference":101,"metric":20)",
       {{"pim.group", "239.1.2.3"}, {"pim.source", "10.66.0.2"}, {"pim.rpt", "0"}, {"pim.metric_pref", "101"},
        {"pim.metric", "20"}}},
      {"Ipv4StarGAssertBidir", 5, "10.99.0.3", nullptr,
       R"("group":"239.1.2.3","groupFlags":128,"source":"0.0.0.0","rpt":true,"metricPreference":2147483647,)"
       R"("metric":4294967295)",
       {{"pim.source", "0.0.0.0"}, {"pim.group_addr.flags.b", "1"}, {"pim.group_addr.flags.z", "0"}, {"pim.rpt", "1"},
        {"pim.metric_pref", "2147483647"}, {"pim.metric", "4294967295"}}},
      {"Ipv6AssertBadChecksum", 5, "fe80::3", nullptr,
       R"("group":"ff3e::1:2:3","groupFlags":1,"source":"2001:db8:66::2","rpt":true,"metricPreference":110,"metric":2)",
       {{"pim.group_ip6", "ff3e::1:2:3"}, {"pim.source_ip6", "2001:db8:66::2"}, {"pim.group_addr.flags.z", "1"},
        {"pim.rpt", "1"}, {"pim.metric_pref", "110"}, {"pim.metric", "2"}}, true},
      {"Ipv4Bootstrap", 4, "10.0.0.1", nullptr,
       bootstrapHead + R"("hashMaskLen":30,"bsrAddress":"10.0.0.1","groups":[{"prefix":"224.0.0.0/4","rpCount":2,)"
                       R"("fragRpCount":2,"rps":[{"address":"10.0.0.2","holdtime":150,"priority":192},{"address":)"
                       R"("10.0.0.3","holdtime":150,"priority":1}]},{"prefix":"239.0.0.0/8","groupFlags":128,"rpCount":3,)"
                       R"("fragRpCount":1,"rps":[{"address":"10.0.0.2","holdtime":65535,"priority":0}]}])",
       {{"pim.fragment_tag", "0x0102"}, {"pim.hash_mask_len", "30"}, {"pim.bsr_priority", "200"}, {"pim.bsr", "10.0.0.1"},
        {"pim.group", "224.0.0.0 239.0.0.0"}, {"pim.mask_len", "4 8"}, {"pim.group_addr.flags", "0x00 0x80"},
        {"pim.rp_count", "2 3"}, {"pim.frp_count", "2 1"}, {"pim.rp", "10.0.0.2 10.0.0.3 10.0.0.2"},
        {"pim.holdtime", "150 150 65535"}, {"pim.priority", "192 1 0"}},
       // A fragment that carries fewer RPs than the range has: our reader reads the range's count.
       false, false},
      {"Ipv6BootstrapAdminScope", 4, "fe80::1", nullptr,
       bootstrapHead + R"("hashMaskLen":126,"bsrAddress":"2001:db8::1","groups":[{"prefix":"ff05::/16","groupFlags":1,)"
                       R"("rpCount":1,"fragRpCount":1,"rps":[{"address":"2001:db8::2","holdtime":75,"priority":0}]}])",
       {{"pim.hash_mask_len", "126"}, {"pim.bsr_ip6", "2001:db8::1"}, {"pim.group_ip6", "ff05::"}, {"pim.mask_len", "16"},
        {"pim.group_addr.flags", "0x01"}, {"pim.rp_ip6", "2001:db8::2"}, {"pim.holdtime", "75"}}},
      {"Ipv4CrpAdv", 8, "10.0.0.5", "10.0.0.1",
       crpHead + R"("prefixCount":2,"rpAddress":"10.0.0.5","ranges":[{"prefix":"224.0.0.0/4"},)"
                 R"({"prefix":"239.255.0.0/16","groupFlags":128}])",
       {{"pim.prefix_count", "2"}, {"pim.priority", "3"}, {"pim.holdtime", "150"}, {"pim.rp", "10.0.0.5"},
        {"pim.group", "224.0.0.0 239.255.0.0"}, {"pim.mask_len", "4 16"}, {"pim.group_addr.flags", "0x00 0x80"}}},
      {"Ipv6CrpAdv", 8, "2001:db8::5", "2001:db8::1",
       crpHead + R"("prefixCount":1,"rpAddress":"2001:db8::5","ranges":[{"prefix":"ff05::/16","groupFlags":1}])",
       {{"pim.prefix_count", "1"}, {"pim.rp_ip6", "2001:db8::5"}, {"pim.group_ip6", "ff05::"}, {"pim.group_addr.flags", "0x01"}}},
      // tshark shows the subtype, the RP and the sender's metric of a DF election, not the Backoff
      // and Pass extensions, whose bytes the checksum and the IP length still cover.
      {"Ipv4DfOffer", 10, "10.0.0.2", nullptr, df("Offer", "10.0.0.9", 110, 20),
       {{"pim.df_elect.subtype", "1"}, {"pim.df_elect.rsvd", "0"}, {"pim.rp", "10.0.0.9"}, {"pim.metric_pref", "110"},
        {"pim.metric", "20"}, {"ip.len", "38"}}},
      {"Ipv6DfWinner", 10, "fe80::2", nullptr, df("Winner", "2001:db8::9", 0x7fffffff, 0xffffffff),
       {{"pim.df_elect.subtype", "2"}, {"pim.rp_ip6", "2001:db8::9"}, {"pim.metric_pref", "2147483647"},
        {"pim.metric", "4294967295"}, {"ipv6.plen", "30"}}},
      {"Ipv4DfBackoff", 10, "10.0.0.2", nullptr,
       df("Backoff", "10.0.0.9", 110, 20) +
           R"(,"offeringAddress":"10.0.0.3","offeringMetricPreference":100,"offeringMetric":10,"interval":1000)",
       {{"pim.df_elect.subtype", "3"}, {"pim.rp", "10.0.0.9"}, {"pim.metric", "20"}, {"ip.len", "54"}}},
      {"Ipv6DfPass", 10, "fe80::2", nullptr,
       df("Pass", "2001:db8::9", 1, 2) + R"(,"winningAddress":"2001:db8::3","winningMetricPreference":100,"winningMetric":10)",
       {{"pim.df_elect.subtype", "4"}, {"pim.rp_ip6", "2001:db8::9"}, {"pim.metric_pref", "1"}, {"ipv6.plen", "56"}}},
  };
  return all;
}

const char* typeName(int pimType) {
  switch (pimType) {
    case 0: return "hello";
    case 1: return "register";
    case 2: return "registerStop";
    case 4: return "bootstrap";
    case 5: return "assert";
    case 8: return "candidateRpAdv";
    default: return "dfElection";
  }
}

struct Encoded {
  Bytes pim;
  U16 checksum = 0;      // as the codec wrote it
  std::string line;      // the JSON line encoded
  std::string decoded;   // what `pimio decode --json` makes of the packet before it is spoiled
};

class TsharkOracle : public OracleTest<Encoded> {
 protected:
  // One JSON line per case through `pimio encode`; the frames it writes, some checksums spoiled.
  static void SetUpTestSuite() {
    findTshark();
    if (tshark_.empty()) return;
    const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("pimio_oracle_" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    std::vector<std::string> lines;
    for (const Case& c : cases()) {
      const bool v6 = std::string(c.src).find(':') != std::string::npos;
      lines.push_back(std::string(R"({"family":)") + (v6 ? "6" : "4") + R"(,"src":")" + c.src + "\"" +
                      (c.dst ? std::string(R"(,"dst":")") + c.dst + "\"" : "") + R"(,"type":")" + typeName(c.pimType) +
                      "\"," + c.members + "}");
    }
    std::string input;
    for (const std::string& l : lines) input += l + "\n";
    PimioTest::writeFile((dir / "in.jsonl").string(), input);
    const std::string cd = "cd " + PimioTest::quoted(dir.string()) + " && ";
    const PimioTest::RunResult r = PimioTest::sh(dir.string(), cd + "PIMIO encode -o out.pcap in.jsonl");
    std::vector<Bytes> frames = r.status == 0 ? PimioTest::readCapture((dir / "out.pcap").string()) : std::vector<Bytes>{};
    const std::vector<std::string> decoded = PimioTest::sh(dir.string(), cd + "PIMIO decode --json out.pcap").outLines();
    std::filesystem::remove_all(dir);
    if (frames.size() != cases().size() || decoded.size() != frames.size()) {
      error_ = "pimio did not encode and decode every case: " + r.err;
      return;
    }
    for (size_t i = 0; i < frames.size(); ++i) {
      Bytes& f = frames[i];
      const size_t pimAt = 14 + (f[12] == 0x86 ? 40 : (f[14] & 0x0f) * 4);
      // One bit flipped: never the other form of zero that a one's-complement sum accepts.
      Encoded e{Bytes(f.begin() + static_cast<std::ptrdiff_t>(pimAt), f.end()),
                static_cast<U16>(f[pimAt + 2] << 8 | f[pimAt + 3]), lines[i], decoded[i]};
      if (cases()[i].badChecksum) f[pimAt + 3] ^= 0x01;
      encoded_.push_back(std::move(e));
    }
    dissectFrames(frames);
  }
};

TEST_P(TsharkOracle, ShowsWhatWasEncoded) {
  const Case& c = cases()[GetParam()];
  const Encoded& e = encoded_[GetParam()];
  const bool v6 = std::string(c.src).find(':') != std::string::npos;
  const Json& layers = child(child(dissection_.packets[GetParam()], "_source"), "layers");
  const Json& pim = child(layers, "pim");
  ASSERT_TRUE(pim.is_object()) << "tshark did not dissect PIM: " << layers.dump(1);
  // The IP header of the transmit path: TOS or traffic class 192, TTL or hop limit 1, PIM.
  const std::string dst = c.dst ? c.dst : v6 ? "ff02::d" : "224.0.0.13";
  const Fields common =
      v6 ? Fields{{"ipv6.tclass", "0x000000c0"}, {"ipv6.hlim", "1"}, {"ipv6.nxt", "103"}, {"ipv6.src", c.src},
                  {"ipv6.dst", dst}, {"ipv6.plen", std::to_string(e.pim.size())}}
         : Fields{{"ip.dsfield", "0xc0"}, {"ip.ttl", "1"}, {"ip.proto", "103"}, {"ip.checksum.status", "1"},
                  {"ip.src", c.src}, {"ip.dst", dst}, {"ip.len", std::to_string(20 + e.pim.size())}};
  for (const auto& [field, value] : common) EXPECT_EQ(first(layers, field), value) << field;
  EXPECT_EQ(values(pim, "pim.version"), "2");
  EXPECT_EQ(values(pim, "pim.type"), std::to_string(c.pimType));
  EXPECT_EQ(values(pim, "pim.cksum.status"), c.badChecksum ? "0" : "1");
  if (c.badChecksum) {
    // tshark's own sum names the value the codec wrote before it was spoiled.
    EXPECT_EQ(values(pim, "_ws.expert.message"), "Bad checksum [should be " + hex(e.checksum, 4) + "]");
  }
  for (const auto& [field, value] : c.fields) EXPECT_EQ(values(layers, field), value) << field;
  // And back: the codec's decoder and the command line's JSON give every member of the line.
  const nlohmann::json decoded = nlohmann::json::parse(e.decoded);
  EXPECT_EQ(c.decodes, PimioTest::within(nlohmann::json::parse(e.line), decoded)) << e.decoded;
  EXPECT_EQ(c.decodes, !decoded.contains("error")) << e.decoded;
}

INSTANTIATE_TEST_SUITE_P(Messages, TsharkOracle, testing::Range<size_t>(0, cases().size()),
                         [](const testing::TestParamInfo<size_t>& info) { return cases()[info.param].name; });

// ---- Join/Prune trees ----

// Random trees of the packing test, one for each kind the seeds hold: both families, periodic and
// triggered, bidirectional, more than 255 groups.
const std::vector<U32>& treeSeeds() {
  static const std::vector<U32> seeds = [] {
    std::vector<U32> out;
    std::set<std::string> kinds;
    for (U32 seed = 1; seed <= 240; ++seed) {
      const PimTest::GeneratedTree g = PimTest::generateTree(seed);
      const std::string kind = std::to_string(g.v6) + std::to_string(g.periodic) + std::to_string(g.bidir) +
                               std::to_string(g.tree->joinPruneGroupData().size() > 255);
      if (kinds.insert(kind).second) out.push_back(seed);
    }
    return out;
  }();
  return seeds;
}

struct Packets {
  PimTest::GeneratedTree tree;
  std::vector<Bytes> pim;
  size_t firstFrame = 0;  // index of the tree's first packet in the capture
};

class TsharkJoinPrune : public OracleTest<Packets> {
 protected:
  // Packet after packet from the bookmark, bounded by the number of entries.
  static void SetUpTestSuite() {
    findTshark();
    if (tshark_.empty()) return;
    std::vector<Bytes> frames;
    for (U32 seed : treeSeeds()) {
      Packets p{PimTest::generateTree(seed), {}, 0};
      const AddressFamily af = p.tree.v6 ? AddressFamily::ipv6 : AddressFamily::ipv4;
      const IpGenAddr sender = addr(p.tree.v6 ? "fe80::1" : "10.0.0.1");
      Loom::Ptr<JoinPruneMessage> m = joinPruneMessageFactory();
      m->srcIpIs(sender);
      m->dstIpIs(Knet::allPimRouters(af));
      m->mtuIs(p.tree.mtu);
      m->bidirIs(p.tree.bidir);
      m->joinPruneDataIs(p.tree.tree);
      for (U32 i = 0, bound = p.tree.tree->routes() + 1; i < bound; ++i) {
        const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(0xffff);
        const U32 n = m->writeJoinPruneMessage(pkt, 0, nullptr);
        if (n == 0) break;
        p.pim.emplace_back(pkt->data(), pkt->data() + n);
        if (!p.tree.tree->bookmark()) break;
      }
      p.firstFrame = frames.size();
      for (const Bytes& b : p.pim) {
        auto ip = Knet::pktFactory(b);
        Knet::addIpHeader(*ip, sender, Knet::allPimRouters(af));
        frames.push_back(PimioTest::ethernet(Bytes(ip->data(), ip->data() + ip->size())));
      }
      encoded_.push_back(std::move(p));
    }
    dissectFrames(frames);
  }
};

// The entry kind of the source flags tshark shows: S and WC and RPT a (*,G) entry, S and RPT an
// (S,G,rpt) entry, S alone an (S,G) entry.
const char* kindOf(U8 flags, bool join) {
  switch (flags) {
    case 0x07: return join ? "wcJoin" : "wcPrune";
    case 0x05: return join ? "rptJoin" : "rptPrune";
    case 0x04: return join ? "join" : "prune";
    default: return "?";
  }
}

// Every packet fits the MTU, has a good checksum and the tree's upstream neighbor and holdtime;
// every group and source is a host prefix with the group's flags; together the packets carry each
// entry that is not suppressed, once.
TEST_P(TsharkJoinPrune, PacketsCarryTheTree) {
  const Packets& p = encoded_[GetParam()];
  const bool v6 = p.tree.v6;
  const std::string six = v6 ? "_ip6" : "";
  PimTest::Entries carried;
  for (size_t i = 0; i < p.pim.size(); ++i) {
    SCOPED_TRACE("packet " + std::to_string(i + 1));
    const Json& layers = child(child(dissection_.packets[p.firstFrame + i], "_source"), "layers");
    EXPECT_LE(p.pim[i].size() + (v6 ? 40 : 20), p.tree.mtu);
    const Json& pim = child(layers, "pim");
    EXPECT_EQ(values(pim, "pim.cksum.status"), "1");
    EXPECT_EQ(values(pim, "pim.type"), "3");
    EXPECT_EQ(values(pim, "pim.upstream_neighbor" + six), v6 ? "fe80::2" : "10.0.0.2");
    EXPECT_EQ(values(pim, "pim.holdtime"), "210");
    const std::vector<Json> groups = occurrences(child(child(pim, "pim.option"), "pim.group_set_tree"));
    EXPECT_EQ(values(pim, "pim.numgroups"), std::to_string(groups.size()));
    EXPECT_LE(groups.size(), 255u);
    for (const Json& g : groups) {
      const IpGenAddr group = addr(values(g, "pim.group" + six));
      EXPECT_EQ(std::stoul(values(g, "pim.group_addr.flags"), nullptr, 16),
                p.tree.tree->joinPruneGroupData(group)->groupFlags());
      for (const bool join : {true, false}) {
        const std::string count = join ? "pim.numjoins" : "pim.numprunes";
        const std::vector<Json> sources = occurrences(
            child(child(g, count + "_tree"), std::string(join ? "pim.join_ip" : "pim.prune_ip") + (v6 ? "6" : "") + "_tree"));
        EXPECT_EQ(values(g, count), std::to_string(sources.size()));
        for (const Json& s : sources) {
          EXPECT_EQ(values(s, "pim.mask_len"), v6 ? "128" : "32");
          const U8 flags = static_cast<U8>(std::stoul(values(s, "pim.source_addr.flags"), nullptr, 16));
          ++carried[PimTest::entryKey(group, kindOf(flags, join), addr(values(s, "pim.source" + six)))];
        }
      }
    }
  }
  EXPECT_EQ(carried, p.tree.expected);
}

INSTANTIATE_TEST_SUITE_P(JoinPrune, TsharkJoinPrune, testing::Range<size_t>(0, treeSeeds().size()),
                         [](const testing::TestParamInfo<size_t>& info) {
                           const PimTest::GeneratedTree g = PimTest::generateTree(treeSeeds()[info.param]);
                           return std::string(g.v6 ? "Ipv6" : "Ipv4") + (g.periodic ? "Periodic" : "Triggered") +
                                  (g.bidir ? "Bidirectional" : "") +
                                  (g.tree->joinPruneGroupData().size() > 255 ? "ManyGroups" : "") + "Seed" +
                                  std::to_string(treeSeeds()[info.param]);
                         });

}  // namespace
