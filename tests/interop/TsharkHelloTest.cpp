// tshark as an independent oracle for the Hello codec. Hellos that the codec encodes are framed
// as the transmit path sends them (Ethernet; IP header with TTL or hop limit 1, TOS or traffic
// class 192, protocol 103, to ALL-PIM-ROUTERS), written to a pcap and dissected once by
// `tshark -T json`. Every field that tshark shows must agree with what was encoded and the
// checksum must be good; a packet whose checksum was spoiled must show as bad.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "TsharkSupport.h"
#include "PimMessage/HelloMessage.h"
#include "knet/IpHdr.h"
#include "knet/PimHdr.h"

namespace {

using namespace TsharkTest;
using Knet::AddressFamily;
using Knet::IpGenAddr;
using Routing::Pim::Packet::HelloMessage;
using Routing::Pim::Packet::HelloPropagationDelay;

// tshark's checksum status values.
constexpr const char* kChecksumBad = "0";
constexpr const char* kChecksumGood = "1";

IpGenAddr addr(const char* text) { return IpGenAddr::parse(text).value(); }

// ---- The Hellos ----

// The Hello a router sends on every interface.
void typical(HelloMessage& m, std::initializer_list<const char*> secondary) {
  m.holdTimeOptionIs(true);
  m.holdTimeIs(105);
  m.lanPruneDelayOptionIs(true);
  m.tBitIs(false);
  m.propagationDelayIs(HelloPropagationDelay(500));
  m.overrideIntervalIs(2500);
  m.drPriorityOptionIs(true);
  m.drPriorityIs(1);
  m.generationIdOptionIs(true);
  m.generationIdIs(0x1badcafe);
  for (const char* a : secondary) m.secondaryAddrIs(addr(a));
}

// Every option, with values at the edges of their fields.
void everyOption(HelloMessage& m, const char* tcp, const char* sctp, std::initializer_list<const char*> secondary) {
  m.holdTimeOptionIs(true);
  m.holdTimeIs(65535);
  m.lanPruneDelayOptionIs(true);
  m.tBitIs(true);
  m.propagationDelayIs(HelloPropagationDelay(HelloPropagationDelay::max));
  m.overrideIntervalIs(65535);
  m.drPriorityOptionIs(true);
  m.drPriorityIs(0xffffffff);
  m.generationIdOptionIs(true);
  m.generationIdIs(0x80000001);
  m.bidirectionalCapableIs(true);
  for (const char* a : secondary) m.secondaryAddrIs(addr(a));
  m.tcpConnectionOptionIs(true);
  m.tcpConnectionIdIs(addr(tcp));
  m.sctpConnectionOptionIs(true);
  m.sctpConnectionIdIs(addr(sctp));
  m.interfaceIdOptionIs(true);
  m.routerIdIs(0xc0a80101);
  m.interfaceIdIs(0x00010203);
}

struct HelloCase {
  const char* name;
  AddressFamily af;
  void (*fill)(HelloMessage&);
  bool badChecksum = false;  // spoil the checksum after encoding
};

const HelloCase kCases[] = {
    {"Ipv4Typical", AddressFamily::ipv4, [](HelloMessage& m) { typical(m, {"10.1.0.1", "10.2.0.1"}); }},
    {"Ipv4EveryOption", AddressFamily::ipv4,
     [](HelloMessage& m) { everyOption(m, "10.0.0.9", "10.0.0.10", {"10.1.0.1", "192.168.5.9", "172.16.0.254"}); }},
    {"Ipv4Goodbye", AddressFamily::ipv4,
     [](HelloMessage& m) {
       m.holdTimeOptionIs(true);
       m.holdTimeIs(0);
       m.generationIdOptionIs(true);
       m.generationIdIs(7);
     }},
    {"Ipv4BidirAndInterfaceId", AddressFamily::ipv4,
     [](HelloMessage& m) {
       m.holdTimeOptionIs(true);
       m.holdTimeIs(30);
       m.bidirectionalCapableIs(true);
       m.interfaceIdOptionIs(true);
       m.routerIdIs(0x0a000001);
       m.interfaceIdIs(42);
     }},
    {"Ipv6Typical", AddressFamily::ipv6, [](HelloMessage& m) { typical(m, {"2001:db8:1::1", "2001:db8:2::1"}); }},
    {"Ipv6EveryOption", AddressFamily::ipv6,
     [](HelloMessage& m) {
       everyOption(m, "2001:db8::9", "2001:db8::a", {"2001:db8:1::1", "2001:db8:ffff::2", "fd00:0:0:1::1"});
     }},
    {"Ipv6WithoutHoldtime", AddressFamily::ipv6,
     [](HelloMessage& m) {
       m.drPriorityOptionIs(true);
       m.drPriorityIs(200);
       m.lanPruneDelayOptionIs(true);
       m.tBitIs(true);
       m.propagationDelayIs(HelloPropagationDelay(1));
       m.overrideIntervalIs(0);
     }},
    {"Ipv4BadChecksum", AddressFamily::ipv4, [](HelloMessage& m) { typical(m, {"10.1.0.1"}); }, true},
    {"Ipv6BadChecksum", AddressFamily::ipv6, [](HelloMessage& m) { typical(m, {"2001:db8:1::1"}); }, true},
};

IpGenAddr sourceOf(AddressFamily af) { return addr(af == AddressFamily::ipv4 ? "10.0.0.1" : "fe80::1"); }

// ---- Bytes ----

void putU32(std::vector<U8>& b, U32 v) {
  putU16(b, static_cast<U16>(v >> 16));
  putU16(b, static_cast<U16>(v));
}

// Bytes as tshark shows them: "0a:00:00:01".
std::string colonHex(const std::vector<U8>& bytes) {
  std::string s;
  char buf[4];
  for (U8 b : bytes) {
    std::snprintf(buf, sizeof(buf), "%s%02x", s.empty() ? "" : ":", b);
    s += buf;
  }
  return s;
}

std::string hex16(U16 v) {
  char buf[8];
  std::snprintf(buf, sizeof(buf), "0x%04x", v);
  return buf;
}

// ---- What tshark should show ----

// One option as tshark shows it: type, length, title, the fields it dissects and, for options
// that it shows only as bytes, the value.
struct ExpectedOption {
  U16 type = 0;
  U16 length = 0;
  std::string name;
  std::vector<std::pair<std::string, std::string>> fields;
  std::string rawValue;
  std::vector<IpGenAddr> addresses;
};

// The options of a message in the order the codec writes them, built from its attributes.
std::vector<ExpectedOption> expectedOptions(const HelloMessage& m) {
  auto num = [](auto v) { return std::to_string(v); };
  std::vector<ExpectedOption> out;
  if (m.holdTimeOption()) out.push_back({1, 2, "Hold Time", {{"pim.holdtime", num(m.holdTime())}}, {}, {}});
  if (m.lanPruneDelayOption()) {
    out.push_back({2, 4, "LAN Prune Delay",
                   {{"pim.t", m.tBit() ? "1" : "0"},
                    {"pim.propagation_delay", num(m.propagationDelay().value())},
                    {"pim.override_interval", num(m.overrideInterval())}},
                   {}, {}});
  }
  if (m.drPriorityOption()) out.push_back({19, 4, "DR Priority", {{"pim.dr_priority", num(m.drPriority())}}, {}, {}});
  if (m.generationIdOption()) {
    out.push_back({20, 4, "Generation ID", {{"pim.generation_id", num(m.generationId())}}, {}, {}});
  }
  if (m.bidirectionalCapable()) out.push_back({22, 0, "Bidirectional Capable", {}, {}, {}});
  if (!m.secondaryAddr().empty()) {
    U16 length = 0;
    for (const IpGenAddr& a : m.secondaryAddr()) length = static_cast<U16>(length + 2 + a.byteLength());
    out.push_back({24, length, "Address List", {}, {}, {m.secondaryAddr().begin(), m.secondaryAddr().end()}});
  }
  // tshark shows these three only as bytes: family, reserved, address; router id, interface id.
  auto connection = [&](U16 type, const char* name, const IpGenAddr& id) {
    std::vector<U8> v;
    putU16(v, static_cast<U16>(id.af()));
    putU16(v, 0);
    v.insert(v.end(), id.bytes(), id.bytes() + id.byteLength());
    out.push_back({type, static_cast<U16>(v.size()), name, {}, colonHex(v), {}});
  };
  if (m.tcpConnectionOption()) connection(27, "PIM-over-TCP-Capable", m.tcpConnectionId());
  if (m.sctpConnectionOption()) connection(28, "PIM-over-SCTP-Capable", m.sctpConnectionId());
  if (m.interfaceIdOption()) {
    std::vector<U8> v;
    putU32(v, m.routerId());
    putU32(v, m.interfaceId());
    out.push_back({31, 8, "Interface ID", {}, colonHex(v), {}});
  }
  return out;
}

// ---- Reading tshark's JSON ----

std::set<std::string> keysOf(const Json& j) {
  std::set<std::string> keys;
  if (j.is_object()) {
    for (auto it = j.begin(); it != j.end(); ++it) keys.insert(it.key());
  }
  return keys;
}

IpGenAddr parsed(const std::string& text) { return IpGenAddr::parse(text).value_or(IpGenAddr()); }

void expectAddressList(const Json& list, std::vector<IpGenAddr> expected, AddressFamily af) {
  const bool v4 = af == AddressFamily::ipv4;
  const std::string leaf = v4 ? "pim.address_list" : "pim.address_list_ip6";
  const std::string tree = leaf + "_tree";
  const std::string unicast = v4 ? "pim.unicast" : "pim.unicast_ipv6";
  EXPECT_EQ(keysOf(list), (std::set<std::string>{leaf, tree}));
  const std::vector<Json> shown = occurrences(child(list, leaf));
  const std::vector<Json> entries = occurrences(child(list, tree));
  ASSERT_EQ(entries.size(), shown.size());
  std::vector<IpGenAddr> got;
  for (size_t i = 0; i < entries.size(); ++i) {
    const Json& e = entries[i];
    EXPECT_EQ(keysOf(e), (std::set<std::string>{"pim.addr_address_family", "pim.addr_encoding_type", unicast}));
    EXPECT_EQ(text(e, "pim.addr_address_family"), v4 ? "1" : "2");
    EXPECT_EQ(text(e, "pim.addr_encoding_type"), "0");
    EXPECT_EQ(text(e, unicast), shown[i].is_string() ? shown[i].get<std::string>() : shown[i].dump());
    got.push_back(parsed(text(e, unicast)));
  }
  // The order of the list is not part of the protocol.
  std::sort(got.begin(), got.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(got, expected);
}

void expectOption(const std::string& title, const Json& o, const ExpectedOption& e, AddressFamily af) {
  SCOPED_TRACE("option \"" + title + "\"");
  const std::string titleStart = "Option " + std::to_string(e.type) + ": " + e.name;
  EXPECT_EQ(title.substr(0, titleStart.size()), titleStart);
  EXPECT_EQ(text(o, "pim.optiontype"), std::to_string(e.type));
  EXPECT_EQ(text(o, "pim.optionlength"), std::to_string(e.length));
  std::set<std::string> keys{"pim.optiontype", "pim.optionlength"};
  for (const auto& [field, value] : e.fields) {
    EXPECT_EQ(text(o, field), value) << field;
    keys.insert(field);
  }
  if (!e.rawValue.empty()) {
    EXPECT_EQ(text(o, "pim.optionvalue"), e.rawValue);
    keys.insert("pim.optionvalue");
  }
  if (e.type == Routing::Pim::Packet::helloAddressList) {
    const std::string list = "Address List (24)";
    keys.insert(list);
    expectAddressList(child(o, list), e.addresses, af);
  }
  // Every field that tshark shows is one that this test compares.
  EXPECT_EQ(keysOf(o), keys);
}

void expectIpHeader(const Json& layers, AddressFamily af, size_t pimSize) {
  const IpGenAddr src = sourceOf(af);
  const IpGenAddr& dst = Knet::allPimRouters(af);
  if (af == AddressFamily::ipv4) {
    const Json& ip = child(layers, "ip");
    EXPECT_EQ(text(ip, "ip.version"), "4");
    EXPECT_EQ(text(ip, "ip.dsfield"), "0xc0");
    EXPECT_EQ(text(ip, "ip.ttl"), "1");
    EXPECT_EQ(text(ip, "ip.proto"), "103");
    EXPECT_EQ(text(ip, "ip.len"), std::to_string(20 + pimSize));
    EXPECT_EQ(text(ip, "ip.checksum.status"), kChecksumGood);
    EXPECT_EQ(parsed(text(ip, "ip.src")), src);
    EXPECT_EQ(parsed(text(ip, "ip.dst")), dst);
  } else {
    const Json& ip = child(layers, "ipv6");
    EXPECT_EQ(text(ip, "ipv6.version"), "6");
    EXPECT_EQ(text(ip, "ipv6.tclass"), "0x000000c0");
    EXPECT_EQ(text(ip, "ipv6.hlim"), "1");
    EXPECT_EQ(text(ip, "ipv6.nxt"), "103");
    EXPECT_EQ(text(ip, "ipv6.plen"), std::to_string(pimSize));
    EXPECT_EQ(parsed(text(ip, "ipv6.src")), src);
    EXPECT_EQ(parsed(text(ip, "ipv6.dst")), dst);
  }
}

// ---- Running the oracle ----

struct Encoded {
  Loom::Ptr<HelloMessage> message;
  std::vector<U8> pim;  // as sent: the codec's bytes, with the checksum spoiled for a bad case
  U16 checksum = 0;     // the checksum the codec wrote
};

class TsharkHello : public OracleTest<Encoded> {
 protected:
  // Encodes every case, writes one pcap and runs tshark over it once.
  static void SetUpTestSuite() {
    tshark_ = findOnPath("tshark");
    if (tshark_.empty()) return;
    for (const HelloCase& c : kCases) {
      Encoded e;
      e.message = Routing::Pim::Packet::helloMessageFactory();
      e.message->srcIpIs(sourceOf(c.af));
      e.message->dstIpIs(Knet::allPimRouters(c.af));
      c.fill(*e.message);
      const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(1500);
      const U32 n = e.message->writeHelloMessage(pkt, 0);
      if (n == 0) {
        error_ = std::string("the codec did not encode case ") + c.name;
        return;
      }
      e.pim.assign(pkt->data(), pkt->data() + n);
      e.checksum = static_cast<U16>(e.pim[2] << 8 | e.pim[3]);
      // One bit flipped: never the other form of zero that a one's-complement sum accepts.
      if (c.badChecksum) e.pim[3] ^= 0x01;
      encoded_.push_back(std::move(e));
    }

    std::vector<std::vector<U8>> frames;
    for (size_t i = 0; i < encoded_.size(); ++i) {
      frames.push_back(frame(kCases[i].af, sourceOf(kCases[i].af), encoded_[i].pim));
    }
    dissectFrames(frames);
  }
};

TEST_P(TsharkHello, ShowsWhatWasEncoded) {
  const HelloCase& c = kCases[GetParam()];
  const Encoded& e = encoded_[GetParam()];
  SCOPED_TRACE("PIM bytes " + colonHex(e.pim));
  const Json& layers = child(child(dissection_.packets[GetParam()], "_source"), "layers");
  expectIpHeader(layers, c.af, e.pim.size());

  const Json& pim = child(layers, "pim");
  ASSERT_TRUE(pim.is_object()) << "tshark did not dissect PIM: " << layers.dump(1);
  EXPECT_EQ(text(pim, "pim.version"), "2");
  EXPECT_EQ(text(pim, "pim.type"), "0");
  EXPECT_EQ(text(pim, "pim.res_bytes"), "00");
  EXPECT_EQ(text(pim, "pim.cksum"), hex16(static_cast<U16>(e.pim[2] << 8 | e.pim[3])));
  std::set<std::string> keys{"pim.version", "pim.type", "pim.res_bytes", "pim.cksum", "pim.cksum.status", "pim.option"};
  if (c.badChecksum) {
    // tshark's own sum names the value the codec wrote before it was spoiled.
    EXPECT_EQ(text(pim, "pim.cksum.status"), kChecksumBad);
    EXPECT_EQ(text(child(child(pim, "pim.cksum_tree"), "_ws.expert"), "_ws.expert.message"),
              "Bad checksum [should be " + hex16(e.checksum) + "]");
    keys.insert("pim.cksum_tree");
  } else {
    EXPECT_EQ(text(pim, "pim.cksum.status"), kChecksumGood);
  }
  EXPECT_EQ(keysOf(pim), keys);

  const std::vector<ExpectedOption> expected = expectedOptions(*e.message);
  const Json& options = child(pim, "pim.option");
  ASSERT_EQ(options.size(), expected.size()) << options.dump(1);
  size_t i = 0;
  for (auto it = options.begin(); it != options.end(); ++it, ++i) {
    expectOption(it.key(), it.value(), expected[i], c.af);
  }
}

INSTANTIATE_TEST_SUITE_P(Hello, TsharkHello, testing::Range<size_t>(0, std::size(kCases)),
                         [](const testing::TestParamInfo<size_t>& info) { return kCases[info.param].name; });

}  // namespace
