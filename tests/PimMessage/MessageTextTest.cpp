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
using Routing::Pim::GroupFlags;
using Routing::Pim::SourceFlags;

// Found here, the codec's own operator<< of each type is in reach.
template <class T>
std::string text(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

template <class M>
Loom::Ptr<M> outer(Loom::Ptr<M> m, const char* src, const char* dst) {
  m->srcIpIs(ip(src));
  m->dstIpIs(ip(dst));
  return m;
}

// Two groups; the second has an entry of every kind.
Loom::Ptr<JoinPruneData> tree() {
  Loom::Ptr<JoinPruneData> d = new JoinPruneData(ip("10.0.0.9"));
  d->holdTimeIs(210);
  d->joinPruneGroupDataIs(ip("239.1.1.1")).wcSourceDataIs(ip("10.0.0.1"), false);
  JoinPruneGroupData& g = d->joinPruneGroupDataIs(ip("239.2.2.2"));
  g.groupFlagsIs(0x80);
  g.joinedRptSourceIs(ip("10.1.1.1"));
  g.joinedSourceIs(ip("10.2.2.2"));
  g.wcSourceDataIs(ip("10.0.0.1"), true);
  g.prunedRptSourceIs(ip("10.3.3.3"));
  g.prunedSourceIs(ip("10.4.4.4"));
  return d;
}

const std::string firstGroup = "\tgroup=( address=239.1.1.1, flags=0x00 )\n\t\tprune= 10.0.0.1, (*,G)\n";
const std::string secondGroup =
    "\tgroup=( address=239.2.2.2, flags=0x80(B) )\n"
    "\t\tjoin=10.1.1.1, (S,G,rpt)\n"
    "\t\tjoin=10.2.2.2, (S,G)\n"
    "\t\tjoin= 10.0.0.1, (*,G)\n"
    "\t\tprune=10.3.3.3, (S,G,rpt)\n"
    "\t\tprune=10.4.4.4, (S,G)\n";

Loom::Ptr<BootstrapGroupData> range() {
  auto g = bootstrapGroupDataFactory(*Knet::IpGenPrefix::parse("224.0.0.0/4"));
  g->groupFlagsIs(0x01);
  g->rpCountIs(3);
  g->fragRpCountIs(2);
  auto& a = g->rpListIs(ip("10.0.0.2"));
  a.holdtimeIs(150);
  a.priorityIs(192);
  a.reservedIs('r');
  g->rpListIs(ip("10.0.0.3")).holdtimeIs(75);
  return g;
}

Loom::Ptr<BootstrapMessage> bootstrap(bool withRanges) {
  auto m = outer(bootstrapMessageFactory(), "10.0.0.1", "224.0.0.13");
  m->noForwardIs(!withRanges);
  m->fragmentTagIs(4660);
  m->hashMaskLenIs(30);
  m->bsrPriorityIs(64);
  m->bsrAddressIs(ip("10.0.0.1"));
  if (withRanges) {
    m->groupRpDataIs(bootstrapOptionalDataFactory());
    m->groupRpData()->groupDataEnq(range());
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
       "type=joinPrune | upstream=10.0.0.9, holdtime=210, numGroups=2, groups=[ " + firstGroup + secondGroup + " ]"},
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
      {"encoded group address",
       [] {
         EncodedGroupAddress g;
         g.groupAddressIs(GroupAddress{ip("ff3e::1"), GroupFlags(0x80)});
         return text(&g);
       },
       "( address=ff3e::1, flags=0x80(B))"},
      {"encoded source address",
       [] {
         EncodedSourceAddress s;
         s.sourceAddressIs(SourceAddress{ip("2001:db8::1"), SourceFlags(0x07)});
         return text(&s);
       },
       "( address=2001:db8::1 flags=0x07(S,W,R))"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.render(), c.expected) << c.name;
}

TEST(MessageText, ValueRenderers) {
  struct Case {
    std::string text, strep, expected;
  };
  const Case cases[] = {
      {text(dfElectionBackoff()), valueToStrep(dfElectionBackoff()), "dfElectionBackoff"},
      {text(HelloPropagationDelay(500)), valueToStrep(HelloPropagationDelay(500)), "500"},
      {text(RegisterImplFlags(0xc0000001)), valueToStrep(RegisterImplFlags(0xc0000001)), "0xc0000001(B,N)"},
      {text(RegisterImplFlags(0)), valueToStrep(RegisterImplFlags(0)), "0x00000000"},
      {text(AssertMetricPreference(2147483647)), valueToStrep(AssertMetricPreference(2147483647)), "2147483647"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.text, c.expected);
    EXPECT_EQ(c.strep, c.expected);
  }
}

// After a Hello with the LAN prune delay option, later booleans on the stream are words.
TEST(MessageText, HelloLeavesBooleanWordsOnTheStream) {
  auto m = helloMessageFactory();
  std::ostringstream plain;
  plain << m.ptr() << true;
  EXPECT_EQ(plain.str(), "type=hello | 1");
  m->lanPruneDelayOptionIs(true);
  std::ostringstream os;
  os << m.ptr() << " " << true;
  EXPECT_TRUE(os.str().ends_with("override=0 true")) << os.str();
}

}  // namespace
}  // namespace Routing::Pim::Packet
