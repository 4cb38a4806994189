// ALL-PIM-ROUTERS membership and the kernel receive filter, against the kernel itself: what the
// state machine believes it joined is compared with /proc/net/igmp(6) read inside the namespace,
// and the filter program is loaded on a live socket that a peer namespace floods with every type.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <numeric>
#include <set>
#include <sstream>

#include "PimIO/IOSm.h"
#include "loom/Trace.h"
#include "support/IOSmAgent.h"
#include "support/Netns.h"

namespace Routing::Pim::IO {
namespace {

using Knet::AddressFamily;
using Knet::IntfId;
using Names = std::set<std::string>;
using Program = std::vector<Knet::IpFilter>;

std::string run(const std::string& command) { return PimTest::NetnsLab::output(command); }

// The devices of the namespace on which some socket holds ALL-PIM-ROUTERS, as the kernel lists them.
Names kernelMembers(const std::string& ns, AddressFamily af) {
  Names out;
  const char* file = af == AddressFamily::ipv4 ? "/proc/net/igmp" : "/proc/net/igmp6";
  std::istringstream in(run("ip netns exec " + ns + " cat " + file));
  std::string line, device;
  while (std::getline(in, line)) {
    std::istringstream f(line);
    if (af == AddressFamily::ipv6) {
      std::string idx, dev, group;
      if (f >> idx >> dev >> group && group == "ff02000000000000000000000000000d") out.insert(dev);
    } else if (!line.empty() && std::isdigit(static_cast<unsigned char>(line[0]))) {
      std::string idx;
      f >> idx >> device;  // "1\tlo        :     1      V3"
    } else {
      std::string group;
      if (f >> group && (group == "0D0000E0" || group == "E000000D")) out.insert(device);
    }
  }
  return out;
}

// The agent's side of one instance in a namespace; interface ids are the device names.
struct Agent : Test::IOSmAgent {
  using IOSmAgent::IOSmAgent;
  Names members(const IOSm& sm) const {
    Names out;
    for (const auto& id : sm.allPimRoutersMember()) out.insert(id.name());
    return out;
  }
};

// True when a captured line holds `text`.
bool traced(const Loom::TraceCapture& cap, const std::string& text) {
  const auto lines = cap.texts();
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(text) != l.npos; });
}

const char* familyName(AddressFamily af) { return af == AddressFamily::ipv4 ? "IPv4" : "IPv6"; }

// ---- The filter program, instruction by instruction

constexpr Knet::IpFilter stmt(U16 code, U32 k) { return {code, 0, 0, k}; }
constexpr Knet::IpFilter jeq(U32 k, U8 jt, U8 jf) { return {0x15, jt, jf, k}; }
const Program prologue4 = {stmt(0x30, 0), stmt(0x54, 0x0f), stmt(0x64, 2),
                           stmt(0x07, 0), stmt(0x50, 0),    stmt(0x54, 0x0f)};
const Program prologue6 = {stmt(0x30, 0), stmt(0x54, 0x0f)};
const Program returns = {stmt(0x06, 0x0fffffff), stmt(0x06, 0)};

Program cat(std::initializer_list<Program> parts) {
  Program out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

TEST(MembershipFilter, ProgramFollowsTheReceiveSlots) {
  const struct {
    const char* name;
    AddressFamily af;
    std::vector<Packet::MessageType> slots;
    Program expected;  // empty: no filter in force
  } rows[] = {
      {"Hello, Join/Prune, Assert", AddressFamily::ipv4, {0, 3, 5},
       cat({prologue4, {jeq(0, 2, 0), jeq(3, 1, 0), jeq(5, 0, 1)}, returns})},
      {"the same on IPv6", AddressFamily::ipv6, {0, 3, 5},
       cat({prologue6, {jeq(0, 2, 0), jeq(3, 1, 0), jeq(5, 0, 1)}, returns})},
      {"one slot", AddressFamily::ipv4, {2}, cat({prologue4, {jeq(2, 0, 1)}, returns})},
      {"slot 15", AddressFamily::ipv6, {9, 15}, cat({prologue6, {jeq(9, 1, 0), jeq(15, 0, 1)}, returns})},
      {"no slot", AddressFamily::ipv4, {}, {}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    Agent a(r.af);
    auto sm = a.sm();
    // A longer program first, so that a rebuild must not keep any of it.
    for (Packet::MessageType t = 0; t < 16; ++t) a.manager->rxMessageInfoIs(t, messageInfoFactory());
    ASSERT_EQ(a.manager->bpfLen(), (r.af == AddressFamily::ipv4 ? 6u : 2u) + 16 + 2);
    for (int pass = 0; pass < 2; ++pass) {  // the second pass: a rebuild with the same slots
      for (Packet::MessageType t = 0; t < 16; ++t) {
        const bool want = std::find(r.slots.begin(), r.slots.end(), t) != r.slots.end();
        a.manager->rxMessageInfoIs(t, want ? messageInfoFactory() : nullptr);
      }
      if (pass == 1) sm->handlePamFilter();
      EXPECT_EQ(a.manager->pam()->rxFilter(), r.expected);
      EXPECT_EQ(a.manager->bpfLen(), r.expected.size());
      EXPECT_EQ((a.manager->pam()->flags() & Knet::IpPam::flagFilter) != 0, !r.expected.empty());
    }
  }
}

// ---- Membership, step by step against the kernel's view

// A step: what happens; then the ids the state machine records as joined, the devices the kernel
// lists as joined, texts that must and must not be traced, and any further check.
struct Step {
  const char* name;
  std::function<void()> act;
  Names member, kernel;
  std::vector<std::string> traced, notTraced;
  std::function<void()> check = [] {};
};

TEST(MembershipFilter, MembershipFollowsPimAndDevices) {
  PIMIO_NETNS_LAB(lab);
  run("ip -n " + lab.nsA() + " link add d0 type veth peer name d0p");
  const std::string d0Index = run("ip netns exec " + lab.nsA() + " cat /sys/class/net/d0/ifindex");
  const U32 d0 = std::strtoul(d0Index.c_str(), nullptr, 10);
  ASSERT_GT(d0, 0u) << "no device d0";
  const IntfId pa("pa"), ghost("ghost"), dummy("d0"), other("other");
  constexpr U8 any = Cask::CounterKey::anySubtype;
  for (const AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    SCOPED_TRACE(familyName(af));
    const std::string addFailed =
        std::string(af == AddressFamily::ipv4 ? "Add ALL-PIM-ROUTERS" : "Add ALL-PIMV6-ROUTERS") +
        " Group Membership - Failed - Error: 19( Device is not ready yet ) IntfId: ";
    Agent a(af, lab.nsA());
    a.status->pimIntfIs(pa);
    a.devices->intfStatusAndDeviceNameIs(pa, {lab.ifIndexA(), "pa"});
    for (U8 t = 0; t < 16; ++t) {
      for (const IntfId& id : {pa, ghost, other}) a.counters->msgCounterIs({{id, t, any}, 1});
    }
    auto sm = a.sm();
    auto tablesHold = [&](bool held) {
      EXPECT_EQ(bool(a.manager->intf(pa)), held);
      EXPECT_EQ(bool(a.manager->kernelIntf(lab.ifIndexA())), held);
      if (!held) return;
      EXPECT_EQ(a.manager->intf(pa)->ifIndex(), lab.ifIndexA());
      EXPECT_EQ(a.manager->kernelIntf(lab.ifIndexA())->intfId(), pa);
    };
    const Step steps[] = {
        {"construction joins", [] {}, {"pa"}, {"pa"}, {}, {}, [&] { tablesHold(true); }},
        {"two device changes join once",
         [&] {
           a.devices->intfStatusAndDeviceNameIs(pa, {lab.ifIndexA(), "pa-renamed"});
           a.devices->intfStatusAndDeviceNameIs(pa, {lab.ifIndexA(), "pa"});
         },
         {"pa"}, {"pa"}, {}, {"Group Membership - IntfId: pa"}},
        {"device gone: tables cleared, no request", [&] { a.devices->intfStatusAndDeviceNameDel(pa); }, {"pa"}, {"pa"},
         {}, {"Group Membership"}, [&] { tablesHold(false); }},
        {"device back: no second join", [&] { a.devices->intfStatusAndDeviceNameIs(pa, {lab.ifIndexA(), "pa"}); },
         {"pa"}, {"pa"}, {}, {"Group Membership"}, [&] { tablesHold(true); }},
        {"PIM disabled: drop, its 16 counters go", [&] { a.status->pimIntfDel(pa); }, {}, {}, {"Drop ALL-PIM"},
         {"Failed"},
         [&] {
           for (U8 t = 0; t < 16; ++t) {
             EXPECT_EQ(a.counters->msgCounter({pa, t, any}).rxInvalid, 0u) << int(t);
             EXPECT_EQ(a.counters->msgCounter({other, t, any}).rxInvalid, 1u) << int(t);
           }
         }},
        {"PIM enabled again: join", [&] { a.status->pimIntfIs(pa); }, {"pa"}, {"pa"},
         {"Add ALL-PIM-ROUTERS Group Membership - IntfId: pa IfIndex: "}, {"Failed"}},
        {"PIM on and off an id unknown to the manager: nothing",
         [&] { a.status->pimIntfIs(ghost), a.status->pimIntfDel(ghost); }, {"pa"}, {"pa"}, {},
         {"doMaybeUpdatePimRoutersMembership"},
         [&] { EXPECT_EQ(a.counters->msgCounter({ghost, 0, any}).rxInvalid, 1u); }},
        {"a device not ready: traced, member",
         [&] { a.status->pimIntfIs(ghost), a.devices->intfStatusAndDeviceNameIs(ghost, {999999, "ghost"}); },
         {"pa", "ghost"}, {"pa"}, {addFailed + "ghost IfIndex: 999999"}, {}},
        {"its drop fails silently", [&] { a.status->pimIntfDel(ghost); }, {"pa"}, {"pa"}, {}, {"Failed"}},
        {"a refused join, then a device where nothing was joined",
         [&] {
           a.status->pimIntfIs(dummy);
           a.devices->intfStatusAndDeviceNameIs(dummy, {999998, "d0"});
           a.devices->intfStatusAndDeviceNameIs(dummy, {d0, "d0"});
         },
         {"pa", "d0"}, {"pa"}, {addFailed + "d0 IfIndex: 999998"}, {}},
        {"its drop (EADDRNOTAVAIL) is silent", [&] { a.status->pimIntfDel(dummy); }, {"pa"}, {"pa"}, {}, {"Failed"}},
    };
    for (const Step& s : steps) {
      SCOPED_TRACE(s.name);
      Loom::TraceCapture cap(8);
      s.act();
      EXPECT_EQ(a.members(*sm), s.member);
      EXPECT_EQ(kernelMembers(lab.nsA(), af), s.kernel);
      for (const auto& t : s.traced) EXPECT_TRUE(traced(cap, t)) << t << "\n" << ::testing::PrintToString(cap.texts());
      for (const auto& t : s.notTraced) EXPECT_FALSE(traced(cap, t)) << t;
      s.check();
    }
    EXPECT_EQ(sm->membershipErrors(), 2u) << "the two joins on devices that did not exist";
  }
}

// More PIM interfaces than the namespace's default IPv4 membership limit (20), the two ends of 32
// veth pairs: all joined, all left.
TEST(MembershipFilter, SixtyFourInterfaces) {
  PIMIO_NETNS_LAB(lab);
  constexpr int count = 64;
  const std::string batch = "/tmp/" + lab.nsA() + ".batch";
  if (FILE* f = std::fopen(batch.c_str(), "w")) {
    for (int i = 0; i < count; i += 2) std::fprintf(f, "link add m%d type veth peer name m%d\n", i, i + 1);
    std::fclose(f);
  }
  run("ip -n " + lab.nsA() + " -batch " + batch);
  std::remove(batch.c_str());
  std::istringstream idx(run("ip netns exec " + lab.nsA() + " sh -c 'for i in $(seq 0 " + std::to_string(count - 1) +
                             "); do cat /sys/class/net/m$i/ifindex; done'"));
  std::vector<U32> index(count);
  for (auto& i : index) ASSERT_TRUE(idx >> i) << "veth devices were not made";
  for (const AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    SCOPED_TRACE(familyName(af));
    Agent a(af, lab.nsA());
    Names all;
    for (int i = 0; i < count; ++i) {
      const std::string name = "m" + std::to_string(i);
      all.insert(name);
      a.status->pimIntfIs(IntfId(name));
      a.devices->intfStatusAndDeviceNameIs(IntfId(name), {index[i], name});
    }
    auto sm = a.sm();
    EXPECT_EQ(a.members(*sm), all);
    EXPECT_EQ(kernelMembers(lab.nsA(), af), all);
    EXPECT_EQ(sm->membershipErrors(), 0u);
    if (af == AddressFamily::ipv4) {
      EXPECT_EQ(sm->membershipLimitRaises(), 2u) << "20 -> 40 -> 80";
    }
    for (int i = 0; i < count; ++i) a.status->pimIntfDel(IntfId("m" + std::to_string(i)));
    EXPECT_TRUE(a.members(*sm).empty());
    EXPECT_TRUE(kernelMembers(lab.nsA(), af).empty());
  }
  EXPECT_GE(std::stol(run("ip netns exec " + lab.nsA() + " cat /proc/sys/net/ipv4/igmp_max_memberships")), count);
}

// ---- The filter on a live socket

// Sends one PIM packet of every type from the peer, then a Hello marked in its reserved byte, and
// returns the types that reached the state machine's socket up to the marker.
std::vector<int> typesThrough(const PimTest::NetnsLab& lab, AddressFamily af, Knet::IpPam& peer, Knet::IpPam& mine) {
  Knet::TxParams p;
  p.ifIndex = lab.ifIndexB();
  p.src = af == AddressFamily::ipv6 ? PimTest::NetnsLab::linkLocalB() : lab.addrB(af);
  p.dst = Knet::allPimRouters(af);
  for (int t = 0; t <= 16; ++t) {
    auto pkt = Knet::PktManager::instance().pktNew(8);
    const U8 bytes[8] = {U8(0x20 | (t & 0x0f)), U8(t == 16 ? 1 : 0), 0, 0, 0, 0, 0, 0};
    std::copy(bytes, bytes + 8, pkt->data());
    if (!peer.txPkt(*pkt, p)) return {-1};
  }
  std::vector<int> types;
  std::vector<Knet::RxPkt> batch;
  for (int round = 0; round < 40; ++round) {
    pollfd pfd{mine.fd(), POLLIN, 0};
    ::poll(&pfd, 1, 50);
    mine.rxPktBatch(batch, Knet::IpPam::maxBatch);
    for (const auto& r : batch) {
      const U32 at = af == AddressFamily::ipv4 ? (r.pkt->data()[0] & 0x0f) * 4u : 0u;
      if (r.pkt->data()[at + 1] == 1) return types;
      types.push_back(r.pkt->data()[at] & 0x0f);
    }
  }
  types.push_back(-2);  // the marker never came
  return types;
}

TEST(MembershipFilter, LiveSocketReadsOnlyTheWantedTypes) {
  PIMIO_NETNS_LAB(lab);
  for (const AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    SCOPED_TRACE(familyName(af));
    Agent a(af, lab.nsA());
    a.status->pimIntfIs(IntfId("pa"));
    a.devices->intfStatusAndDeviceNameIs(IntfId("pa"), {lab.ifIndexA(), "pa"});
    a.manager->rxMessageInfoIs(0, messageInfoFactory());
    a.manager->rxMessageInfoIs(3, messageInfoFactory());
    auto sm = a.sm();
    Loom::Ptr<Knet::IpPam> peer = af == AddressFamily::ipv4
                                      ? Loom::Ptr<Knet::IpPam>(new Knet::IpSocketPam("peer", 103, lab.nsB()))
                                      : Loom::Ptr<Knet::IpPam>(new Knet::Ip6SocketPam("peer", 103, lab.nsB()));
    peer->enabledIs(true);
    ASSERT_TRUE(peer->enabled() && sm->pimPam()->enabled());
    EXPECT_EQ(typesThrough(lab, af, *peer, *sm->pimPam()), (std::vector<int>{0, 3}));
    EXPECT_EQ(sm->pimPam()->callErrors(), 0u);
    a.manager->rxMessageInfoDelAll();
    std::vector<int> all(16);
    std::iota(all.begin(), all.end(), 0);
    EXPECT_EQ(typesThrough(lab, af, *peer, *sm->pimPam()), all);
  }
}

}  // namespace
}  // namespace Routing::Pim::IO
