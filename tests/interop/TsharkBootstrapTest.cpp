// tshark as an independent oracle for Bootstrap and Candidate-RP Advertisement. Each case is
// encoded by the codec, framed as the transmit path sends it (Bootstraps to ALL-PIM-ROUTERS,
// advertisements unicast to the BSR), dissected once by `tshark -T json`, and every field that
// tshark shows must be what was encoded, in wire order; the checksum must be good, and bad where
// it was spoiled.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/CrpAdvMessage.h"
#include "TsharkSupport.h"

namespace {

using namespace TsharkTest;
using Knet::AddressFamily;
using Knet::IpGenAddr;
using Knet::IpGenPrefix;
using Routing::Pim::Packet::BootstrapGroupData;
using Routing::Pim::Packet::BootstrapMessage;
using Routing::Pim::Packet::CrpAdvMessage;
using Routing::Pim::Packet::Message;

constexpr const char* kChecksumBad = "0";
constexpr const char* kChecksumGood = "1";

IpGenAddr addr(const std::string& text) { return IpGenAddr::parse(text).value(); }

struct Rp {
  const char* address;
  U16 holdtime;
  U8 priority;
};
struct Range {
  const char* prefix;
  U8 flags;
  U8 rpCount;
  std::vector<Rp> rps;  // the fragment's RPs
};

struct Case {
  const char* name;
  bool bootstrap;  // else a Candidate-RP Advertisement
  AddressFamily af;
  const char* address;  // the BSR, or the candidate RP
  std::vector<Range> ranges;
  bool badChecksum = false;
};

const Case kCases[] = {
    {"Ipv4BootstrapTwoRanges", true, AddressFamily::ipv4, "10.0.0.1",
     {{"224.0.0.0/4", 0, 2, {{"10.0.0.2", 150, 192}, {"10.0.0.3", 150, 1}}},
      {"239.0.0.0/8", 0x80, 1, {{"10.0.0.2", 65535, 0}}}}},
    {"Ipv4BootstrapFragment", true, AddressFamily::ipv4, "10.0.0.1", {{"239.1.0.0/16", 0, 3, {{"10.0.0.4", 90, 7}}}}},
    {"Ipv4BootstrapNoRange", true, AddressFamily::ipv4, "192.0.2.1", {}},
    {"Ipv6BootstrapAdminScope", true, AddressFamily::ipv6, "2001:db8::1",
     {{"ff05::/16", 0x01, 1, {{"2001:db8::2", 75, 0}}}, {"ff3e::/32", 0, 1, {{"2001:db8::2", 75, 0}}}}},
    {"Ipv4BootstrapBadChecksum", true, AddressFamily::ipv4, "10.0.0.1", {{"224.0.0.0/4", 0, 1, {{"10.0.0.2", 1, 1}}}}, true},
    {"Ipv4CrpAdv", false, AddressFamily::ipv4, "10.0.0.5", {{"224.0.0.0/4", 0, 0, {}}, {"239.255.0.0/16", 0x80, 0, {}}}},
    {"Ipv6CrpAdvAdminScope", false, AddressFamily::ipv6, "2001:db8::5", {{"ff05::/16", 0x01, 0, {}}}},
    {"Ipv6CrpAdvBadChecksum", false, AddressFamily::ipv6, "2001:db8::5", {{"ff0e::/16", 0, 0, {}}}, true},
};

struct Ends {
  IpGenAddr src, dst;
};
Ends endsOf(const Case& c) {
  const bool v4 = c.af == AddressFamily::ipv4;
  if (c.bootstrap) return {addr(c.address), Knet::allPimRouters(c.af)};
  return {addr(c.address), addr(v4 ? "10.0.0.1" : "2001:db8::1")};
}

// Bootstrap fields: fragment tag 0x0102, hash mask length 30 (IPv6: 126), priority 200.
Loom::Ptr<Message> messageOf(const Case& c) {
  Loom::Ptr<Message> m;
  if (c.bootstrap) {
    Loom::Ptr<BootstrapMessage> b = new BootstrapMessage;
    b->fragmentTagIs(0x0102);
    b->hashMaskLenIs(c.af == AddressFamily::ipv4 ? 30 : 126);
    b->bsrPriorityIs(200);
    b->bsrAddressIs(addr(c.address));
    if (!c.ranges.empty()) b->groupRpDataIs(Routing::Pim::Packet::bootstrapOptionalDataFactory());
    for (const Range& r : c.ranges) {
      Loom::Ptr<BootstrapGroupData> g = Routing::Pim::Packet::bootstrapGroupDataFactory(*IpGenPrefix::parse(r.prefix));
      g->groupFlagsIs(r.flags);
      g->rpCountIs(r.rpCount);
      g->fragRpCountIs(static_cast<U8>(r.rps.size()));
      for (const Rp& rp : r.rps) {
        auto& d = g->rpListIs(addr(rp.address));
        d.holdtimeIs(rp.holdtime);
        d.priorityIs(rp.priority);
      }
      b->groupRpData()->groupDataEnq(g);
    }
    m = b;
  } else {
    Loom::Ptr<CrpAdvMessage> a = new CrpAdvMessage;
    a->prefixCountIs(static_cast<U8>(c.ranges.size()));
    a->priorityIs(3);
    a->holdtimeIs(150);
    a->rpAddressIs(addr(c.address));
    a->groupDataIs(Routing::Pim::Packet::crpGroupDataFactory());
    for (const Range& r : c.ranges) a->groupData()->groupInfoIs(*IpGenPrefix::parse(r.prefix)).groupFlagsIs(r.flags);
    m = a;
  }
  m->srcIpIs(endsOf(c).src);
  m->dstIpIs(endsOf(c).dst);
  return m;
}

struct Encoded {
  std::vector<U8> pim;
  U16 checksum = 0;
};

class TsharkBootstrap : public OracleTest<Encoded> {
 protected:
  static void SetUpTestSuite() {
    tshark_ = findOnPath("tshark");
    if (tshark_.empty()) return;
    std::vector<std::vector<U8>> frames;
    for (const Case& c : kCases) {
      const Loom::Ptr<Message> m = messageOf(c);
      Loom::Ptr<Knet::Pkt> p = Knet::pktFactory(1500);
      const U32 n = c.bootstrap ? Loom::ptr_cast<BootstrapMessage>(m)->writeBootstrapMessage(p, 0)
                                : Loom::ptr_cast<CrpAdvMessage>(m)->writeCrpAdvMessage(p, 0);
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

std::vector<std::string> texts(const Json& j) {
  std::vector<std::string> out;
  for (const Json& o : occurrences(j)) out.push_back(o.is_string() ? o.get<std::string>() : o.dump());
  return out;
}

TEST_P(TsharkBootstrap, ShowsWhatWasEncoded) {
  const Case& c = kCases[GetParam()];
  const Encoded& e = encoded_[GetParam()];
  const bool v4 = c.af == AddressFamily::ipv4;
  const Json& layers = child(child(dissection_.packets[GetParam()], "_source"), "layers");
  const Json& pim = child(layers, "pim");
  ASSERT_TRUE(pim.is_object()) << "tshark did not dissect PIM: " << layers.dump(1);
  EXPECT_EQ(text(pim, "pim.version"), "2");
  EXPECT_EQ(text(pim, "pim.type"), c.bootstrap ? "4" : "8");
  if (c.badChecksum) {
    EXPECT_EQ(text(pim, "pim.cksum.status"), kChecksumBad);
    char expected[48];
    std::snprintf(expected, sizeof(expected), "Bad checksum [should be 0x%04x]", e.checksum);
    EXPECT_EQ(text(child(child(pim, "pim.cksum_tree"), "_ws.expert"), "_ws.expert.message"), expected);
  } else {
    EXPECT_EQ(text(pim, "pim.cksum.status"), kChecksumGood);
  }
  const Json& body = child(pim, "pim.option");
  const std::string six = v4 ? "" : "_ip6";

  // The ranges as tshark lists them, in wire order; RPs and their fields over all ranges.
  std::vector<std::string> groups, masks, flags, rpCounts, fragCounts, rps, holdtimes, priorities;
  for (const Range& r : c.ranges) {
    const IpGenPrefix p = *IpGenPrefix::parse(r.prefix);
    groups.push_back(p.address().str());
    masks.push_back(std::to_string(p.length()));
    char f[8];
    std::snprintf(f, sizeof(f), "0x%02x", r.flags);
    flags.push_back(f);
    rpCounts.push_back(std::to_string(r.rpCount));
    fragCounts.push_back(std::to_string(r.rps.size()));
    for (const Rp& rp : r.rps) {
      rps.push_back(rp.address);
      holdtimes.push_back(std::to_string(rp.holdtime));
      priorities.push_back(std::to_string(rp.priority));
    }
  }
  std::vector<std::string> shownMasks, shownFlags, shownRpCounts, shownFragCounts, shownPriorities;
  for (const Json& g : occurrences(child(body, "pim.group" + six + "_tree"))) {
    EXPECT_EQ(text(g, "pim.addr_address_family"), v4 ? "1" : "2");
    EXPECT_EQ(text(g, "pim.addr_encoding_type"), "0");
    shownMasks.push_back(text(g, "pim.mask_len"));
    shownFlags.push_back(text(g, "pim.group_addr.flags"));
    if (c.bootstrap) {
      shownRpCounts.push_back(text(g, "pim.rp_count"));
      shownFragCounts.push_back(text(g, "pim.frp_count"));
      for (const std::string& p : texts(child(g, "pim.priority"))) shownPriorities.push_back(p);
    }
  }
  std::vector<std::string> shownGroups;
  for (const std::string& g : texts(child(body, "pim.group" + six))) shownGroups.push_back(addr(g).str());
  EXPECT_EQ(shownGroups, groups);
  EXPECT_EQ(shownMasks, masks);
  EXPECT_EQ(shownFlags, flags);

  if (c.bootstrap) {
    EXPECT_EQ(text(body, "pim.fragment_tag"), "0x0102");
    EXPECT_EQ(text(body, "pim.hash_mask_len"), v4 ? "30" : "126");
    EXPECT_EQ(text(body, "pim.bsr_priority"), "200");
    EXPECT_EQ(addr(text(body, "pim.bsr" + six)), addr(c.address));
    EXPECT_EQ(shownRpCounts, rpCounts);
    EXPECT_EQ(shownFragCounts, fragCounts);
    std::vector<std::string> shownRps;
    for (const std::string& rp : texts(child(body, "pim.rp" + six))) shownRps.push_back(addr(rp).str());
    EXPECT_EQ(shownRps, rps);
    EXPECT_EQ(texts(child(body, "pim.holdtime")), holdtimes);
    EXPECT_EQ(shownPriorities, priorities);
  } else {
    EXPECT_EQ(text(body, "pim.prefix_count"), std::to_string(c.ranges.size()));
    EXPECT_EQ(text(body, "pim.priority"), "3");
    EXPECT_EQ(text(body, "pim.holdtime"), "150");
    EXPECT_EQ(addr(text(body, "pim.rp" + six)), addr(c.address));
  }
}

INSTANTIATE_TEST_SUITE_P(Messages, TsharkBootstrap, testing::Range<size_t>(0, std::size(kCases)),
                         [](const testing::TestParamInfo<size_t>& info) { return std::string(kCases[info.param].name); });

}  // namespace
