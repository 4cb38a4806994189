// tshark as an independent oracle for the DF election messages: each subtype in both families,
// encoded by the codec, framed to ALL-PIM-ROUTERS and dissected once by `tshark -T json`. tshark
// shows the subtype, the RP and the sender's metric (not the Backoff and Pass extensions, whose
// bytes the checksum and the IP length still cover); all must be what was encoded.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "PimMessage/DfElectionMessage.h"
#include "TsharkSupport.h"

namespace {

using namespace TsharkTest;
using Knet::AddressFamily;
using Knet::IpGenAddr;
using namespace Routing::Pim::Packet;

constexpr const char* kChecksumBad = "0";
constexpr const char* kChecksumGood = "1";

IpGenAddr addr(const char* text) { return IpGenAddr::parse(text).value(); }

struct Case {
  const char* name;
  DfElectionMessageType subtype;
  AddressFamily af;
  U32 preference, metric;
  U32 size;  // the PIM message's bytes
  bool badChecksum = false;
};

const Case kCases[] = {
    {"Ipv4Offer", dfElectionOffer(), AddressFamily::ipv4, 110, 20, 18},
    {"Ipv6Offer", dfElectionOffer(), AddressFamily::ipv6, 0, 0, 30},
    {"Ipv4Winner", dfElectionWinner(), AddressFamily::ipv4, 0x7fffffff, 0xffffffff, 18},
    {"Ipv6Winner", dfElectionWinner(), AddressFamily::ipv6, 1, 2, 30},
    {"Ipv4Backoff", dfElectionBackoff(), AddressFamily::ipv4, 110, 20, 34},
    {"Ipv6Backoff", dfElectionBackoff(), AddressFamily::ipv6, 110, 20, 58},
    {"Ipv4Pass", dfElectionPass(), AddressFamily::ipv4, 110, 20, 32},
    {"Ipv6Pass", dfElectionPass(), AddressFamily::ipv6, 110, 20, 56},
    {"Ipv4WinnerBadChecksum", dfElectionWinner(), AddressFamily::ipv4, 5, 5, 18, true},
};

const char* rpOf(AddressFamily af) { return af == AddressFamily::ipv4 ? "10.0.0.9" : "2001:db8::9"; }
IpGenAddr sender(AddressFamily af) { return addr(af == AddressFamily::ipv4 ? "10.0.0.2" : "fe80::2"); }

std::vector<U8> encode(const Case& c) {
  const IpGenAddr other = addr(c.af == AddressFamily::ipv4 ? "10.0.0.3" : "2001:db8::3");
  Loom::Ptr<DfElectionMessage> m;
  Loom::Ptr<Knet::Pkt> p = Knet::pktFactory(200);
  auto common = [&](const Loom::Ptr<DfElectionMessage>& d) {
    d->srcIpIs(sender(c.af));
    d->dstIpIs(Knet::allPimRouters(c.af));
    d->rpAddressIs(addr(rpOf(c.af)));
    d->senderMetricPrefIs({c.preference, c.metric});
  };
  U32 n = 0;
  switch (c.subtype) {
    case DfElectionMessageType::dfElectionOffer: {
      Loom::Ptr<DfElectionOfferMessage> o = new DfElectionOfferMessage;
      common(o);
      n = o->writeDfElectionOfferMessage(p, 0);
      break;
    }
    case DfElectionMessageType::dfElectionWinner: {
      Loom::Ptr<DfElectionWinnerMessage> w = new DfElectionWinnerMessage;
      common(w);
      n = w->writeDfElectionWinnerMessage(p, 0);
      break;
    }
    case DfElectionMessageType::dfElectionBackoff: {
      Loom::Ptr<DfElectionBackoffMessage> b = new DfElectionBackoffMessage;
      common(b);
      b->offeringAddressIs(other);
      b->offeringMetricPrefIs({100, 10});
      b->intervalIs(1000);
      n = b->writeDfElectionBackoffMessage(p, 0);
      break;
    }
    case DfElectionMessageType::dfElectionPass: {
      Loom::Ptr<DfElectionPassMessage> s = new DfElectionPassMessage;
      common(s);
      s->winningAddressIs(other);
      s->winningMetricPrefIs({100, 10});
      n = s->writeDfElectionPassMessage(p, 0);
      break;
    }
  }
  return {p->data(), p->data() + n};
}

struct Encoded {
  std::vector<U8> pim;
  U16 checksum = 0;
};

class TsharkDfElection : public OracleTest<Encoded> {
 protected:
  static void SetUpTestSuite() {
    tshark_ = findOnPath("tshark");
    if (tshark_.empty()) return;
    std::vector<std::vector<U8>> frames;
    for (const Case& c : kCases) {
      Encoded e;
      e.pim = encode(c);
      if (e.pim.empty()) {
        error_ = std::string("the codec did not encode case ") + c.name;
        return;
      }
      e.checksum = static_cast<U16>(e.pim[2] << 8 | e.pim[3]);
      if (c.badChecksum) e.pim[3] ^= 0x01;
      frames.push_back(frame(c.af, sender(c.af), e.pim));
      encoded_.push_back(std::move(e));
    }
    dissectFrames(frames);
  }
};

TEST_P(TsharkDfElection, ShowsWhatWasEncoded) {
  const Case& c = kCases[GetParam()];
  const Encoded& e = encoded_[GetParam()];
  const bool v4 = c.af == AddressFamily::ipv4;
  EXPECT_EQ(e.pim.size(), c.size);
  const Json& layers = child(child(dissection_.packets[GetParam()], "_source"), "layers");
  const std::string payload = v4 ? std::to_string(std::stoul(text(child(layers, "ip"), "ip.len")) - 20)
                                 : text(child(layers, "ipv6"), "ipv6.plen");
  EXPECT_EQ(payload, std::to_string(c.size));
  const Json& pim = child(layers, "pim");
  ASSERT_TRUE(pim.is_object()) << "tshark did not dissect PIM: " << layers.dump(1);
  EXPECT_EQ(text(pim, "pim.type"), "10");
  EXPECT_EQ(text(pim, "pim.df_elect.subtype"), std::to_string(static_cast<unsigned>(c.subtype)));
  EXPECT_EQ(text(pim, "pim.df_elect.rsvd"), "0");
  if (c.badChecksum) {
    EXPECT_EQ(text(pim, "pim.cksum.status"), kChecksumBad);
    char expected[48];
    std::snprintf(expected, sizeof(expected), "Bad checksum [should be 0x%04x]", e.checksum);
    EXPECT_EQ(text(child(child(pim, "pim.cksum_tree"), "_ws.expert"), "_ws.expert.message"), expected);
  } else {
    EXPECT_EQ(text(pim, "pim.cksum.status"), kChecksumGood);
  }
  const Json& body = child(pim, "pim.option");
  EXPECT_EQ(addr(text(body, v4 ? "pim.rp" : "pim.rp_ip6").c_str()), addr(rpOf(c.af)));
  EXPECT_EQ(text(child(body, v4 ? "pim.rp_tree" : "pim.rp_ip6_tree"), "pim.addr_address_family"), v4 ? "1" : "2");
  EXPECT_EQ(text(body, "pim.metric_pref"), std::to_string(c.preference));
  EXPECT_EQ(text(body, "pim.metric"), std::to_string(c.metric));
}

INSTANTIATE_TEST_SUITE_P(Messages, TsharkDfElection, testing::Range<size_t>(0, std::size(kCases)),
                         [](const testing::TestParamInfo<size_t>& info) { return std::string(kCases[info.param].name); });

}  // namespace
