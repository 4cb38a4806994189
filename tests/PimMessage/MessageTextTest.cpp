// The text of every message and record, and of the small value types, in one table: traces are
// read and compared, so each layout is pinned character for character.
#include <functional>
#include <sstream>

#include "PimMessage/AssertMessage.h"
#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/CrpAdvMessage.h"
#include "PimMessage/DfElectionMessage.h"
#include "PimMessage/EncodedAddress.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/RegisterMessage.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;

template <class M>
Loom::Ptr<M> outer(Loom::Ptr<M> m, const char* src, const char* dst) {
  m->srcIpIs(ip(src));
  m->dstIpIs(ip(dst));
  return m;
}

// One group with an entry of every kind (the (*,G) join is in the command-line tests).
Loom::Ptr<JoinPruneData> tree() {
  Loom::Ptr<JoinPruneData> d = new JoinPruneData(ip("10.0.0.9"));
  d->holdTimeIs(210);
  JoinPruneGroupData& g = d->joinPruneGroupDataIs(ip("239.2.2.2"));
  g.groupFlagsIs(0x80);
  g.joinedRptSourceIs(ip("10.1.1.1"));
  g.joinedSourceIs(ip("10.2.2.2"));
  g.wcSourceDataIs(ip("10.0.0.1"), false);
  g.prunedRptSourceIs(ip("10.3.3.3"));
  g.prunedSourceIs(ip("10.4.4.4"));
  return d;
}

Loom::Ptr<BootstrapMessage> bootstrap(bool withRanges) {
  auto m = outer(bootstrapMessageFactory(), "10.0.0.1", "224.0.0.13");
  m->noForwardIs(!withRanges);
  m->fragmentTagIs(4660);
  m->hashMaskLenIs(30);
  m->bsrPriorityIs(64);
  m->bsrAddressIs(ip("10.0.0.1"));
  if (withRanges) {
    auto g = bootstrapGroupDataFactory(*Knet::IpGenPrefix::parse("224.0.0.0/4"));
    g->groupFlagsIs(0x01);
    g->rpCountIs(3);
    g->fragRpCountIs(2);
    auto& a = g->rpListIs(ip("10.0.0.2"));
    a.holdtimeIs(150);
    a.priorityIs(192);
    a.reservedIs('r');
    g->rpListIs(ip("10.0.0.3")).holdtimeIs(75);
    m->groupRpDataIs(bootstrapOptionalDataFactory());
    m->groupRpData()->groupDataEnq(g);
    m->groupRpData()->groupDataEnq(bootstrapGroupDataFactory(*Knet::IpGenPrefix::parse("239.0.0.0/8")));
  }
  return m;
}

const std::string rangeText =
    "group=( prefix=224.0.0.0/4, flags=0x01(Z), rpCount=3, fragRpCount=2, RpList=[ "
    "rp=( address=10.0.0.2, Holdtime=150, Priority=192, reserved=r ), "
    "rp=( address=10.0.0.3, Holdtime=75, Priority=0, reserved=" + std::string(1, '\0') + " ) ] )";

TEST(MessageText, EveryMessageAndRecord) {
  struct Case {
    const char* name;
    std::function<std::string()> render;
    std::string expected;
  };
  const Case cases[] = {
      {"Register",
       [] {
         auto m = outer(registerMessageFactory(), "10.99.0.2", "10.99.0.1");
         m->implRegisterFlagsU32Is(0x40000000);
         m->encapsulatedSrcIs(ip("10.66.0.2"));
         m->encapsulatedDstIs(ip("239.1.2.3"));
         return text(m.ptr());
       },
       "type=register | null bit=1, border bit=0 | Encapsulated src=10.66.0.2 dst=239.1.2.3 outer dst=10.99.0.1 "
       "outer src=10.99.0.2"},
      {"Register-Stop",
       [] {
         auto m = outer(registerStopMessageFactory(), "10.99.0.1", "10.99.0.2");
         m->groupIs(ip("239.1.2.3"));
         m->groupFlagsIs(GroupFlags(0x01));
         m->sourceIs(ip("10.66.0.2"));
         return text(m.ptr());
       },
       "type=registerStop | source=10.66.0.2, group=( address=239.1.2.3, flags=0x01(Z) ) outer dst=10.99.0.2 "
       "outer src=10.99.0.1"},
      {"Join/Prune",
       [] {
         auto m = joinPruneMessageFactory();
         m->joinPruneDataIs(tree());
         return text(m.ptr());
       },
       "type=joinPrune | upstream=10.0.0.9, holdtime=210, numGroups=1, groups=[ \tgroup=( address=239.2.2.2, flags=0x80(B) "
       ")\n\t\tjoin=10.1.1.1, (S,G,rpt)\n\t\tjoin=10.2.2.2, (S,G)\n\t\tprune= 10.0.0.1, (*,G)\n"
       "\t\tprune=10.3.3.3, (S,G,rpt)\n\t\tprune=10.4.4.4, (S,G)\n ]"},
      {"Bootstrap", [] { return text(bootstrap(true).ptr()); },
       "type=bootstrap Forward=True, fragmentTag=4660, hashMaskLen=30, bsrPriority=64 | bsrAddress=10.0.0.1 |  "
       "GroupData=[ " + rangeText + ", group=( prefix=239.0.0.0/8, flags=0x00, rpCount=0, fragRpCount=0, RpList=[  ] ) ]"},
      {"Bootstrap without ranges", [] { return text(bootstrap(false).ptr()); },
       "type=bootstrap Forward=False, fragmentTag=4660, hashMaskLen=30, bsrPriority=64 | bsrAddress=10.0.0.1"},
      {"Candidate-RP Advertisement",
       [] {
         auto m = outer(crpAdvMessageFactory(), "10.0.0.5", "10.0.0.1");
         m->prefixCountIs(2);
         m->priorityIs(192);
         m->holdtimeIs(150);
         m->rpAddressIs(ip("10.0.0.5"));
         m->groupDataIs(crpGroupDataFactory());
         m->groupData()->groupInfoIs(*Knet::IpGenPrefix::parse("224.0.0.0/4"));
         m->groupData()->groupInfoIs(*Knet::IpGenPrefix::parse("239.255.0.0/16")).groupFlagsIs(0x01);
         return text(m.ptr());
       },
       "type=candidateRpAdv prefixCount=2, priority=192, holdtime=150 | rpAddress=10.0.0.5 | GroupData=[ "
       "224.0.0.0/4, groupFlags: 0x00, 239.255.0.0/16, groupFlags: 0x01(Z) ]"},
      {"group and source address records",
       [] { return text(GroupAddress{ip("224.1.1.1"), GroupFlags(0x81)}) + text(SourceAddress{ip("10.0.0.1"), SourceFlags(5)}); },
       "( address=224.1.1.1, flags=0x81(B,Z))( address=10.0.0.1 flags=0x05(S,R))"},
      {"encoded group and source addresses",
       [] {
         EncodedGroupAddress g;
         EncodedSourceAddress s;
         g.groupAddressIs(GroupAddress{ip("ff3e::1"), GroupFlags(0x80)});
         s.sourceAddressIs(SourceAddress{ip("2001:db8::1"), SourceFlags(0x07)});
         return text(&g) + " " + text(&s);
       },
       "( address=ff3e::1, flags=0x80(B)) ( address=2001:db8::1 flags=0x07(S,W,R))"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.render(), c.expected) << c.name;
}

// operator<< and valueToStrep of the small value types agree.
TEST(MessageText, ValueRenderers) {
  const auto both = [](const auto& v) { return text(v) + " " + valueToStrep(v); };
  EXPECT_EQ(both(dfElectionBackoff()), "dfElectionBackoff dfElectionBackoff");
  EXPECT_EQ(both(HelloPropagationDelay(500)), "500 500");
  EXPECT_EQ(both(RegisterImplFlags(0xc0000001)), "0xc0000001(B,N) 0xc0000001(B,N)");
  EXPECT_EQ(both(RegisterImplFlags(0)), "0x00000000 0x00000000");
  EXPECT_EQ(both(AssertMetricPreference(2147483647)), "2147483647 2147483647");
  const std::string report = "Value('Routing::Pim::Packet::JoinPruneMessage::Report', ** {'processed': 1, 'suppressed': "
                             "2, 'filtered': 3})";
  EXPECT_EQ(both(JoinPruneMessage::Report{1, 2, 3}), report + " " + report);
}

// After a Hello with the LAN prune delay option, later booleans on the stream are words.
TEST(MessageText, HelloLeavesBooleanWordsOnTheStream) {
  auto m = helloMessageFactory();
  std::ostringstream plain, os;
  plain << m.ptr() << true;
  EXPECT_EQ(plain.str(), "type=hello | 1");
  m->lanPruneDelayOptionIs(true);
  os << m.ptr() << " " << true;
  EXPECT_TRUE(os.str().ends_with("override=0 true")) << os.str();
}

}  // namespace
}  // namespace Routing::Pim::Packet
