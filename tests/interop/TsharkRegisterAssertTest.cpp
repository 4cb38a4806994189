// tshark as an independent oracle for Register, Register-Stop and Assert. Each case is encoded by
// the codec, framed as the transmit path sends it (Registers and Register-Stops unicast to the
// RP or the first-hop router, Asserts to ALL-PIM-ROUTERS), dissected once by `tshark -T json`,
// and every field that tshark shows must be what was encoded. A Register's checksum covers only
// its header and flags word; tshark must find it good, and bad where it was spoiled.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "PimMessage/AssertMessage.h"
#include "PimMessage/RegisterMessage.h"
#include "TsharkSupport.h"
#include "knet/IpHdr.h"

namespace {

using namespace TsharkTest;
using Knet::AddressFamily;
using Knet::IpGenAddr;
using Routing::Pim::GroupFlags;
using Routing::Pim::Packet::AssertMessage;
using Routing::Pim::Packet::AssertMetricPreference;
using Routing::Pim::Packet::Message;
using Routing::Pim::Packet::RegisterMessage;
using Routing::Pim::Packet::RegisterStopMessage;

constexpr const char* kChecksumBad = "0";
constexpr const char* kChecksumGood = "1";

IpGenAddr addr(const char* text) { return IpGenAddr::parse(text).value(); }

// An IPv4 or IPv6 UDP packet from `src` to `group` with a 5-byte payload.
std::vector<U8> udpPacket(const char* src, const char* group) {
  const IpGenAddr s = addr(src), g = addr(group);
  std::vector<U8> udp = {0x13, 0x88, 0x13, 0x88, 0x00, 0x0d, 0x00, 0x00, 'p', 'i', 'm', 'i', 'o'};
  std::vector<U8> out(s.af() == AddressFamily::ipv4 ? Knet::IpHdr::minSize : Knet::Ip6Hdr::size);
  if (s.af() == AddressFamily::ipv4) {
    Knet::IpHdr::write(out.data(), 0, static_cast<U16>(out.size() + udp.size()), 63, 17, s, g, 7);
  } else {
    Knet::Ip6Hdr::write(out.data(), 0, static_cast<U16>(udp.size()), 17, 63, s, g);
  }
  out.insert(out.end(), udp.begin(), udp.end());
  return out;
}

enum class Kind { dataRegister, nullRegister, registerStop, assertion };

struct Case {
  const char* name;
  Kind kind;
  AddressFamily af;
  const char* group;
  const char* source;  // the inner source of a Register
  bool flag = false;   // Register: the B bit; Assert: the R bit
  U8 groupFlags = 0;
  U32 preference = 0;
  U32 metric = 0;
  bool badChecksum = false;
};

const Case kCases[] = {
    {"Ipv4DataRegister", Kind::dataRegister, AddressFamily::ipv4, "239.1.2.3", "10.66.0.2"},
    {"Ipv6DataRegister", Kind::dataRegister, AddressFamily::ipv6, "ff3e::1:2:3", "2001:db8:66::2"},
    {"Ipv4NullRegisterWithBorderBit", Kind::nullRegister, AddressFamily::ipv4, "239.1.2.3", "10.66.0.2", true},
    {"Ipv6NullRegister", Kind::nullRegister, AddressFamily::ipv6, "ff3e::1:2:3", "2001:db8:66::2"},
    {"Ipv4RegisterBadChecksum", Kind::dataRegister, AddressFamily::ipv4, "239.1.2.3", "10.66.0.2", false, 0, 0, 0, true},
    {"Ipv4RegisterStop", Kind::registerStop, AddressFamily::ipv4, "239.1.2.3", "10.66.0.2"},
    {"Ipv6WildcardRegisterStop", Kind::registerStop, AddressFamily::ipv6, "ff3e::1:2:3", "::"},
    {"Ipv4Assert", Kind::assertion, AddressFamily::ipv4, "239.1.2.3", "10.66.0.2", false, 0, 101, 20},
    {"Ipv4StarGAssertBidir", Kind::assertion, AddressFamily::ipv4, "239.1.2.3", "0.0.0.0", true, 0x80, 0x7fffffff,
     0xffffffff},
    {"Ipv6Assert", Kind::assertion, AddressFamily::ipv6, "ff3e::1:2:3", "2001:db8:66::2", false, 0, 110, 2},
    {"Ipv6AssertBadChecksum", Kind::assertion, AddressFamily::ipv6, "ff3e::1:2:3", "2001:db8:66::2", true, 0, 1, 1, true},
};

// The routers: a first-hop router sends Registers to the RP, which answers Register-Stop;
// Asserts go to ALL-PIM-ROUTERS.
struct Ends {
  IpGenAddr src, dst;
};
Ends endsOf(const Case& c) {
  const bool v4 = c.af == AddressFamily::ipv4;
  const IpGenAddr fhr = addr(v4 ? "10.99.0.2" : "2001:db8::2"), rp = addr(v4 ? "10.99.0.1" : "2001:db8::1");
  switch (c.kind) {
    case Kind::dataRegister:
    case Kind::nullRegister: return {fhr, rp};
    case Kind::registerStop: return {rp, fhr};
    case Kind::assertion: return {addr(v4 ? "10.99.0.3" : "fe80::3"), Knet::allPimRouters(c.af)};
  }
  return {};
}

Loom::Ptr<Message> messageOf(const Case& c) {
  const Ends e = endsOf(c);
  Loom::Ptr<Message> m;
  switch (c.kind) {
    case Kind::dataRegister:
    case Kind::nullRegister: {
      Loom::Ptr<RegisterMessage> r = new RegisterMessage;
      r->borderFlagIs(c.flag);
      r->nullFlagIs(c.kind == Kind::nullRegister);
      if (c.kind == Kind::dataRegister) {
        r->rcvdPktIs(Knet::pktFactory(udpPacket(c.source, c.group)));
      } else {
        r->encapsulatedSrcIs(addr(c.source));
        r->encapsulatedDstIs(addr(c.group));
      }
      m = r;
      break;
    }
    case Kind::registerStop: {
      Loom::Ptr<RegisterStopMessage> s = new RegisterStopMessage;
      s->groupIs(addr(c.group));
      s->groupFlagsIs(GroupFlags(c.groupFlags));
      s->sourceIs(addr(c.source));
      m = s;
      break;
    }
    case Kind::assertion: {
      Loom::Ptr<AssertMessage> a = new AssertMessage;
      a->groupIs(addr(c.group));
      a->groupFlagsIs(GroupFlags(c.groupFlags));
      a->sourceIs(addr(c.source));
      a->rptIs(c.flag);
      a->metricPreferenceIs(AssertMetricPreference(c.preference));
      a->metricIs(c.metric);
      m = a;
      break;
    }
  }
  m->srcIpIs(e.src);
  m->dstIpIs(e.dst);
  return m;
}

U32 write(const Loom::Ptr<Message>& m, const Loom::Ptr<Knet::Pkt>& p) {
  if (auto r = Loom::ptr_cast<RegisterMessage>(m)) return r->writeRegisterMessage(p, 0);
  if (auto s = Loom::ptr_cast<RegisterStopMessage>(m)) return s->writeRegisterStopMessage(p, 0);
  return Loom::ptr_cast<AssertMessage>(m)->writeAssertMessage(p, 0);
}

struct Encoded {
  std::vector<U8> pim;
  U16 checksum = 0;  // as the codec wrote it
};

class TsharkRegisterAssert : public OracleTest<Encoded> {
 protected:
  static void SetUpTestSuite() {
    tshark_ = findOnPath("tshark");
    if (tshark_.empty()) return;
    std::vector<std::vector<U8>> frames;
    for (const Case& c : kCases) {
      Loom::Ptr<Knet::Pkt> p = Knet::pktFactory(1500);
      const U32 n = write(messageOf(c), p);
      if (n == 0) {
        error_ = std::string("the codec did not encode case ") + c.name;
        return;
      }
      Encoded e;
      e.pim.assign(p->data(), p->data() + n);
      e.checksum = static_cast<U16>(e.pim[2] << 8 | e.pim[3]);
      if (c.badChecksum) e.pim[3] ^= 0x01;
      frames.push_back(frame(c.af, endsOf(c).src, e.pim, endsOf(c).dst));
      encoded_.push_back(std::move(e));
    }
    dissectFrames(frames);
  }
};

// The group and source as tshark shows them behind the PIM header.
void expectGroupAndSource(const Json& body, const Case& c) {
  const bool v4 = c.af == AddressFamily::ipv4;
  const std::string group = v4 ? "pim.group" : "pim.group_ip6";
  const std::string source = v4 ? "pim.source" : "pim.source_ip6";
  EXPECT_EQ(addr(text(body, group).c_str()), addr(c.group));
  const Json& encoded = child(body, group + "_tree");
  EXPECT_EQ(text(encoded, "pim.addr_address_family"), v4 ? "1" : "2");
  EXPECT_EQ(text(encoded, "pim.addr_encoding_type"), "0");
  EXPECT_EQ(text(encoded, "pim.mask_len"), v4 ? "32" : "128");
  const Json& bits = child(encoded, "pim.group_addr.flags_tree");
  EXPECT_EQ(text(bits, "pim.group_addr.flags.b"), (c.groupFlags & 0x80) ? "1" : "0");
  EXPECT_EQ(text(bits, "pim.group_addr.flags.z"), (c.groupFlags & 0x01) ? "1" : "0");
  EXPECT_EQ(addr(text(body, source).c_str()), addr(c.source));
  EXPECT_EQ(text(child(body, source + "_tree"), "pim.addr_address_family"), v4 ? "1" : "2");
}

TEST_P(TsharkRegisterAssert, ShowsWhatWasEncoded) {
  const Case& c = kCases[GetParam()];
  const Encoded& e = encoded_[GetParam()];
  const bool v4 = c.af == AddressFamily::ipv4;
  const Json& layers = child(child(dissection_.packets[GetParam()], "_source"), "layers");
  const Json& pim = child(layers, "pim");
  ASSERT_TRUE(pim.is_object()) << "tshark did not dissect PIM: " << layers.dump(1);
  EXPECT_EQ(text(pim, "pim.version"), "2");
  const char* type = c.kind == Kind::registerStop ? "2" : c.kind == Kind::assertion ? "5" : "1";
  EXPECT_EQ(text(pim, "pim.type"), type);
  if (c.badChecksum) {
    EXPECT_EQ(text(pim, "pim.cksum.status"), kChecksumBad);
    char expected[48];
    std::snprintf(expected, sizeof(expected), "Bad checksum [should be 0x%04x]", e.checksum);
    EXPECT_EQ(text(child(child(pim, "pim.cksum_tree"), "_ws.expert"), "_ws.expert.message"), expected);
  } else {
    EXPECT_EQ(text(pim, "pim.cksum.status"), kChecksumGood);
  }
  const Json& body = child(pim, "pim.option");
  switch (c.kind) {
    case Kind::dataRegister:
    case Kind::nullRegister: {
      const bool null = c.kind == Kind::nullRegister;
      char flags[16];
      std::snprintf(flags, sizeof(flags), "0x%08x", (c.flag ? 0x80000000u : 0) | (null ? 0x40000000u : 0));
      EXPECT_EQ(text(body, "pim.register_flag"), flags);
      const Json& bits = child(body, "pim.register_flag_tree");
      EXPECT_EQ(text(bits, "pim.register_flag.border"), c.flag ? "1" : "0");
      EXPECT_EQ(text(bits, "pim.register_flag.null_register"), null ? "1" : "0");
      EXPECT_EQ(text(body, "pim.ip_version"), v4 ? "4" : "6");
      // The inner IP header follows the outer one.
      const std::vector<Json> ips = occurrences(child(layers, v4 ? "ip" : "ipv6"));
      ASSERT_EQ(ips.size(), 2u) << "tshark did not dissect the inner header";
      const Json& inner = ips[1];
      EXPECT_EQ(addr(text(inner, v4 ? "ip.src" : "ipv6.src").c_str()), addr(c.source));
      EXPECT_EQ(addr(text(inner, v4 ? "ip.dst" : "ipv6.dst").c_str()), addr(c.group));
      if (null && v4) {
        // The dummy header: 20 bytes, id 1, DF, TTL 1, PIM, and a checksum that verifies.
        EXPECT_EQ(text(inner, "ip.len"), "20");
        EXPECT_EQ(text(inner, "ip.id"), "0x0001");
        EXPECT_EQ(text(child(inner, "ip.flags_tree"), "ip.flags.df"), "1");
        EXPECT_EQ(text(inner, "ip.ttl"), "1");
        EXPECT_EQ(text(inner, "ip.proto"), "103");
        EXPECT_EQ(text(inner, "ip.checksum.status"), kChecksumGood);
      } else if (null) {
        EXPECT_EQ(text(inner, "ipv6.plen"), "0");
        EXPECT_EQ(text(inner, "ipv6.nxt"), "103");
        EXPECT_EQ(text(inner, "ipv6.hlim"), "1");
      } else {
        EXPECT_EQ(text(inner, v4 ? "ip.proto" : "ipv6.nxt"), "17");
        EXPECT_EQ(text(child(layers, "udp"), "udp.length"), "13");
      }
      break;
    }
    case Kind::registerStop:
      expectGroupAndSource(body, c);
      break;
    case Kind::assertion:
      expectGroupAndSource(body, c);
      EXPECT_EQ(text(body, "pim.rpt"), c.flag ? "1" : "0");
      EXPECT_EQ(text(body, "pim.metric_pref"), std::to_string(c.preference));
      EXPECT_EQ(text(body, "pim.metric"), std::to_string(c.metric));
      break;
  }
}

INSTANTIATE_TEST_SUITE_P(Messages, TsharkRegisterAssert, testing::Range<size_t>(0, std::size(kCases)),
                         [](const testing::TestParamInfo<size_t>& info) { return std::string(kCases[info.param].name); });

}  // namespace
