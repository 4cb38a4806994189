// tshark as an independent oracle for the Join/Prune encoder. Trees too big for one packet are
// encoded with a small MTU, packet after packet from the bookmark, framed as the transmit path
// sends them, written to one pcap and dissected once by `tshark -T json`. For every packet the
// checksum must be good, the upstream neighbor and holdtime those of the tree, the counts
// consistent with the lists, every group and source address a host prefix with the flags of its
// kind; and the entries of all the packets of a tree together must be the tree's, each once.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "TsharkSupport.h"
#include "PimMessage/JoinPruneMessage.h"
#include "knet/IpHdr.h"
#include "knet/PimHdr.h"

namespace {

using namespace TsharkTest;
using Knet::AddressFamily;
using Knet::IpGenAddr;
using Routing::Pim::JoinPruneData;
using Routing::Pim::JoinPruneGroupData;
using Routing::Pim::Packet::JoinPruneMessage;

constexpr const char* kChecksumBad = "0";
constexpr const char* kChecksumGood = "1";

IpGenAddr addr(const std::string& text) { return IpGenAddr::parse(text).value(); }

// ---- The trees ----

// Addresses of the case's family: group g, source s of group g.
struct Family {
  AddressFamily af;
  std::string group(int g) const {
    return af == AddressFamily::ipv4 ? "239.1." + std::to_string(g / 250) + "." + std::to_string(g % 250 + 1)
                                     : "ff3e::" + std::to_string(g + 1);
  }
  std::string source(int g, int s) const {
    return af == AddressFamily::ipv4 ? "10." + std::to_string(g % 250) + "." + std::to_string(s) + ".1"
                                     : "2001:db8:" + std::to_string(g) + "::" + std::to_string(s);
  }
  std::string rp() const { return af == AddressFamily::ipv4 ? "10.255.0.1" : "2001:db8:ffff::1"; }
  std::string upstream() const { return af == AddressFamily::ipv4 ? "10.0.0.2" : "fe80::2"; }
  IpGenAddr sender() const { return addr(af == AddressFamily::ipv4 ? "10.0.0.1" : "fe80::1"); }
};

// Every kind of entry, spread over groups: (*,G) joins with (S,G,rpt) prunes, (S,G,rpt) joins,
// (S,G) joins and prunes, (*,G) prunes; group flags Z on some, B on all when bidirectional.
void mixedTree(JoinPruneData& d, const Family& f, int groups, U8 flags) {
  for (int g = 0; g < groups; ++g) {
    JoinPruneGroupData& group = d.joinPruneGroupDataIs(addr(f.group(g)));
    group.groupFlagsIs(static_cast<U8>(flags | (g % 5 == 4 ? 0x01 : 0x00)));
    for (int s = 1; s <= 4; ++s) group.joinedSourceIs(addr(f.source(g, s)));
    for (int s = 20; s <= 21; ++s) group.prunedSourceIs(addr(f.source(g, s)));
    switch (g % 3) {
      case 0:
        group.wcSourceDataIs(addr(f.rp()), true);
        for (int s = 10; s <= 12; ++s) group.prunedRptSourceIs(addr(f.source(g, s)));
        break;
      case 1:
        for (int s = 30; s <= 31; ++s) group.joinedRptSourceIs(addr(f.source(g, s)));
        break;
      default:
        group.wcSourceDataIs(addr(f.rp()), false);
        break;
    }
  }
}

// One entry as tshark and the tree both can state it.
std::string entry(const std::string& group, U8 groupFlags, bool join, U8 sourceFlags, const std::string& source) {
  std::ostringstream os;
  os << group << " flags " << unsigned(groupFlags) << (join ? " join " : " prune ") << "flags " << unsigned(sourceFlags)
     << " " << source;
  return os.str();
}

// The entries the packets of a tree must carry: every one, except in a periodic message the
// suppressed joins and the (*,G) prunes. The encoder sets S on every source, WC and RPT on the
// (*,G) entry, RPT on (S,G,rpt) entries.
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
      const bool suppressed = d.periodic() && (!wc->join || (wc->wcSuppressed && g->prunedRptSources() == 0));
      if (!suppressed) out.push_back(entry(group, flags, wc->join, 0x07, wc->rp.str()));
    }
    if (g->rptPrunedGroupData()) {
      for (const auto& [s, v] : g->rptPrunedGroupData()->prunedRptSource()) {
        out.push_back(entry(group, flags, false, 0x05, s.str()));
      }
    }
    for (const IpGenAddr& s : g->prunedSource()) out.push_back(entry(group, flags, false, 0x04, s.str()));
  }
  std::sort(out.begin(), out.end());
  return out;
}

struct JoinPruneCase {
  const char* name;
  AddressFamily af;
  U32 mtu;
  int groups;
  bool periodic = false;
  bool bidir = false;
  bool badChecksum = false;  // spoil the checksum of the first packet after encoding
};

const JoinPruneCase kCases[] = {
    {"Ipv4Triggered", AddressFamily::ipv4, 200, 12},
    {"Ipv6Triggered", AddressFamily::ipv6, 400, 12},
    {"Ipv4Periodic", AddressFamily::ipv4, 256, 12, true},
    {"Ipv6Periodic", AddressFamily::ipv6, 576, 12, true},
    {"Ipv4Bidirectional", AddressFamily::ipv4, 160, 6, false, true},
    {"Ipv6Bidirectional", AddressFamily::ipv6, 300, 6, false, true},
    // At most 255 groups in a packet, whatever the MTU.
    {"Ipv4ManyGroups", AddressFamily::ipv4, 9000, 300},
    {"Ipv4BadChecksum", AddressFamily::ipv4, 200, 4, false, false, true},
    {"Ipv6BadChecksum", AddressFamily::ipv6, 400, 4, false, false, true},
};

Loom::Ptr<JoinPruneData> treeOf(const JoinPruneCase& c) {
  const Family f{c.af};
  Loom::Ptr<JoinPruneData> d = new JoinPruneData(addr(f.upstream()));
  d->holdTimeIs(210);
  d->reserved2Is(0);
  d->periodicIs(c.periodic);
  if (c.groups == 300) {
    // Many groups of one (*,G) join each.
    for (int g = 0; g < c.groups; ++g) d->joinPruneGroupDataIs(addr(f.group(g))).wcSourceDataIs(addr(f.rp()), true);
  } else {
    mixedTree(*d, f, c.groups, c.bidir ? 0x80 : 0x00);
  }
  if (c.periodic) {
    // Suppression: two (S,G) joins of the first group; the (*,G) join of a group that has no
    // (S,G,rpt) prunes and of one that has them (which keeps it).
    JoinPruneGroupData& first = *d->joinPruneGroupData(addr(f.group(0)));
    first.joinSuppressSourceIs(addr(f.source(0, 1)));
    first.joinSuppressSourceIs(addr(f.source(0, 3)));
    JoinPruneGroupData& withPrunes = *d->joinPruneGroupData(addr(f.group(3)));
    withPrunes.wcSuppressedIs(true);
    JoinPruneGroupData& withoutPrunes = *d->joinPruneGroupData(addr(f.group(6)));
    withoutPrunes.prunedRptSourceDelAll();
    withoutPrunes.wcSuppressedIs(true);
  }
  return d;
}

// ---- Reading tshark's JSON ----

// With --no-duplicate-keys a field that occurs once is a value and one that repeats an array.
// tshark's "0x07" as a number.
U8 hexByte(const std::string& s) { return static_cast<U8>(std::strtoul(s.c_str(), nullptr, 16)); }

// The entries of one list (joins or prunes) of one group, checked as they are read.
void readSources(const Json& group, bool join, AddressFamily af, const std::string& groupAddress, U8 groupFlags,
                 std::vector<std::string>& entries) {
  const bool v4 = af == AddressFamily::ipv4;
  const std::string count = join ? "pim.numjoins" : "pim.numprunes";
  const std::string leaf = std::string(join ? "pim.join_ip" : "pim.prune_ip") + (v4 ? "" : "6");
  const std::vector<Json> sources = occurrences(child(child(group, count + "_tree"), leaf + "_tree"));
  EXPECT_EQ(text(group, count), std::to_string(sources.size()));
  for (const Json& s : sources) {
    const std::string address = text(s, v4 ? "pim.source" : "pim.source_ip6");
    SCOPED_TRACE(address);
    EXPECT_EQ(text(s, "pim.addr_address_family"), v4 ? "1" : "2");
    EXPECT_EQ(text(s, "pim.addr_encoding_type"), "0");
    EXPECT_EQ(text(s, "pim.mask_len"), v4 ? "32" : "128");
    const U8 flags = hexByte(text(s, "pim.source_addr.flags"));
    const Json& bits = child(s, "pim.source_addr.flags_tree");
    EXPECT_EQ(text(bits, "pim.source_addr.flags.s"), (flags & 0x04) ? "1" : "0");
    EXPECT_EQ(text(bits, "pim.source_addr.flags.w"), (flags & 0x02) ? "1" : "0");
    EXPECT_EQ(text(bits, "pim.source_addr.flags.r"), (flags & 0x01) ? "1" : "0");
    EXPECT_EQ(text(bits, "pim.source_addr.flags.reserved"), "0x00");
    entries.push_back(entry(groupAddress, groupFlags, join, flags, address));
  }
}

// ---- Running the oracle ----

// The packets of one case and what the tree held before the encoder drained it.
struct Encoded {
  std::vector<std::vector<U8>> pim;
  std::vector<std::string> expected;
  U16 firstChecksum = 0;  // as the codec wrote it
  size_t firstFrame = 0;  // index of the case's first packet in the capture
};

class TsharkJoinPrune : public OracleTest<Encoded> {
 protected:
  // Encodes every case, writes one pcap and runs tshark over it once.
  static void SetUpTestSuite() {
    tshark_ = findOnPath("tshark");
    if (tshark_.empty()) return;
    std::vector<std::vector<U8>> frames;
    for (const JoinPruneCase& c : kCases) {
      Encoded e;
      Loom::Ptr<JoinPruneData> tree = treeOf(c);
      e.expected = expectedEntries(*tree);
      Loom::Ptr<JoinPruneMessage> m = Routing::Pim::Packet::joinPruneMessageFactory();
      m->srcIpIs(Family{c.af}.sender());
      m->dstIpIs(Knet::allPimRouters(c.af));
      m->mtuIs(c.mtu);
      m->bidirIs(c.bidir);
      m->joinPruneDataIs(tree);
      // Packet after packet from the bookmark, bounded by the number of entries.
      const U32 bound = tree->routes() + 1;
      for (U32 i = 0; i < bound; ++i) {
        const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(0xffff);
        const U32 n = m->writeJoinPruneMessage(pkt, 0, nullptr);
        if (n == 0) break;
        e.pim.emplace_back(pkt->data(), pkt->data() + n);
        if (!tree->bookmark()) break;
      }
      if (e.pim.empty()) {
        error_ = std::string("the codec did not encode case ") + c.name;
        return;
      }
      e.firstChecksum = static_cast<U16>(e.pim[0][2] << 8 | e.pim[0][3]);
      // One bit flipped: never the other form of zero that a one's-complement sum accepts.
      if (c.badChecksum) e.pim[0][3] ^= 0x01;
      e.firstFrame = frames.size();
      for (const std::vector<U8>& p : e.pim) frames.push_back(frame(c.af, Family{c.af}.sender(), p));
      encoded_.push_back(std::move(e));
    }

    dissectFrames(frames);
  }
};

TEST_P(TsharkJoinPrune, ShowsWhatWasEncoded) {
  const JoinPruneCase& c = kCases[GetParam()];
  const Encoded& e = encoded_[GetParam()];
  const Family f{c.af};
  const bool v4 = c.af == AddressFamily::ipv4;
  // The small MTUs split the tree, and so does the group limit.
  EXPECT_GE(e.pim.size(), 2u);
  std::vector<std::string> carried;
  for (size_t i = 0; i < e.pim.size(); ++i) {
    SCOPED_TRACE("packet " + std::to_string(i + 1) + " of " + std::to_string(e.pim.size()));
    const Json& layers = child(child(dissection_.packets[e.firstFrame + i], "_source"), "layers");
    // The IP packet fits the MTU.
    const std::string ipLength = v4 ? text(child(layers, "ip"), "ip.len") : text(child(layers, "ipv6"), "ipv6.plen");
    EXPECT_LE(std::stoul(ipLength) + (v4 ? 0 : 40), c.mtu);
    if (v4) {
      EXPECT_EQ(text(child(layers, "ip"), "ip.checksum.status"), kChecksumGood);
    }

    const Json& pim = child(layers, "pim");
    ASSERT_TRUE(pim.is_object()) << "tshark did not dissect PIM: " << layers.dump(1);
    EXPECT_EQ(text(pim, "pim.version"), "2");
    EXPECT_EQ(text(pim, "pim.type"), "3");
    if (c.badChecksum && i == 0) {
      EXPECT_EQ(text(pim, "pim.cksum.status"), kChecksumBad);
      char expected[48];
      std::snprintf(expected, sizeof(expected), "Bad checksum [should be 0x%04x]", e.firstChecksum);
      EXPECT_EQ(text(child(child(pim, "pim.cksum_tree"), "_ws.expert"), "_ws.expert.message"), expected);
    } else {
      EXPECT_EQ(text(pim, "pim.cksum.status"), kChecksumGood);
    }

    const Json& body = child(pim, "pim.option");
    const std::string upstream = v4 ? "pim.upstream_neighbor" : "pim.upstream_neighbor_ip6";
    EXPECT_EQ(addr(text(body, upstream)), addr(f.upstream()));
    EXPECT_EQ(text(child(body, upstream + "_tree"), "pim.addr_address_family"), v4 ? "1" : "2");
    EXPECT_EQ(text(body, "pim.holdtime"), "210");
    const std::vector<Json> groups = occurrences(child(body, "pim.group_set_tree"));
    EXPECT_EQ(text(body, "pim.numgroups"), std::to_string(groups.size()));
    EXPECT_LE(groups.size(), 255u);
    for (const Json& g : groups) {
      const std::string groupField = v4 ? "pim.group" : "pim.group_ip6";
      const std::string address = text(g, groupField);
      SCOPED_TRACE(address);
      const Json& encoded = child(g, groupField + "_tree");
      EXPECT_EQ(text(encoded, "pim.addr_address_family"), v4 ? "1" : "2");
      EXPECT_EQ(text(encoded, "pim.mask_len"), v4 ? "32" : "128");
      const U8 flags = hexByte(text(encoded, "pim.group_addr.flags"));
      const Json& bits = child(encoded, "pim.group_addr.flags_tree");
      EXPECT_EQ(text(bits, "pim.group_addr.flags.b"), (flags & 0x80) ? "1" : "0");
      EXPECT_EQ(text(bits, "pim.group_addr.flags.z"), (flags & 0x01) ? "1" : "0");
      EXPECT_EQ(bool(flags & 0x80), c.bidir);
      const size_t before = carried.size();
      readSources(g, true, c.af, addr(address).str(), flags, carried);
      readSources(g, false, c.af, addr(address).str(), flags, carried);
      EXPECT_GT(carried.size(), before) << "a group without sources";
    }
  }
  std::sort(carried.begin(), carried.end());
  EXPECT_EQ(carried, e.expected);
}

INSTANTIATE_TEST_SUITE_P(JoinPrune, TsharkJoinPrune, testing::Range<size_t>(0, std::size(kCases)),
                         [](const testing::TestParamInfo<size_t>& info) { return kCases[info.param].name; });

}  // namespace
