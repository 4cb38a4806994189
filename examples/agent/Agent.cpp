// The agent's wiring and its three duties: Hellos and the neighbor table, periodic Join/Prunes,
// and the printing of what it receives.
#include "examples/agent/Agent.h"

#include <ifaddrs.h>
#include <netinet/in.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "PimMessage/BootstrapMessage.h"

namespace PimAgent {

using namespace Routing::Pim;
using Knet::AddressFamily;

namespace {

// A Hello without a Holdtime option keeps its sender this long (3.5 times the default interval).
constexpr U16 holdtimeDefault = 105;
constexpr U16 holdtimeForever = 0xffff;
// The PIM types the agent prints; the dense-mode types and unassigned ones have no class.
constexpr U8 printedTypes[] = {0, 1, 2, 3, 4, 5, 8, 10};

U16 holdtimeOf(double interval) { return U16(std::clamp(interval * 3.5, 1.0, 65534.0)); }

// The kernel's addresses of a family on one device, in the kernel's order.
std::vector<Knet::IpGenPrefix> addressesOf(const ifaddrs* list, const std::string& name, AddressFamily af) {
  std::vector<Knet::IpGenPrefix> out;
  const int family = af == AddressFamily::ipv4 ? AF_INET : AF_INET6;
  for (const ifaddrs* i = list; i; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != family || name != i->ifa_name) continue;
    const U8 *addr, *mask;
    size_t size;
    if (family == AF_INET) {
      addr = reinterpret_cast<const U8*>(&reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr);
      mask = reinterpret_cast<const U8*>(&reinterpret_cast<const sockaddr_in*>(i->ifa_netmask)->sin_addr);
      size = 4;
    } else {
      addr = reinterpret_cast<const U8*>(&reinterpret_cast<const sockaddr_in6*>(i->ifa_addr)->sin6_addr);
      mask = reinterpret_cast<const U8*>(&reinterpret_cast<const sockaddr_in6*>(i->ifa_netmask)->sin6_addr);
      size = 16;
    }
    int length = 0;
    for (size_t b = 0; i->ifa_netmask && b < size; ++b) length += std::popcount(mask[b]);
    out.emplace_back(Knet::IpGenAddr::fromBytes(af, addr), U8(length));
  }
  return out;
}

// The device's MTU; the IP default when the kernel does not say.
U32 mtuOf(const std::string& name) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq req{};
  std::strncpy(req.ifr_name, name.c_str(), IFNAMSIZ - 1);
  const bool ok = fd >= 0 && ::ioctl(fd, SIOCGIFMTU, &req) == 0;
  if (!ok) std::cerr << "pimio-agent: MTU of " << name << ": " << std::strerror(errno) << ", using 1500\n";
  if (fd >= 0) ::close(fd);
  return ok ? U32(req.ifr_mtu) : IpGen::IpIntf::mtuDefault;
}

}  // namespace

// A receive slot of one type: every message handed over is printed, Hellos also kept.
class Agent::RxSlot : public MessageInfo::Notifiee {
 public:
  RxSlot(Agent* agent, const Loom::Ptr<MessageInfo>& info) : agent_(agent) { notifierIs(info); }
  void onCount() override { agent_->onReceived(*notifier()); }

 private:
  Agent* agent_;
};

// A timer of the agent that calls one of its methods.
class Agent::TimerReactor : public Keel::Timer::Notifiee {
 public:
  TimerReactor(Agent* agent, const Loom::Ptr<Keel::Timer>& timer, void (Agent::*fn)()) : agent_(agent), fn_(fn) {
    notifierIs(timer);
  }
  void onTime() override { (agent_->*fn_)(); }

 private:
  Agent* agent_;
  void (Agent::*fn_)();
};

// A neighbor with its holdtime; its timer removes it when no Hello came in time.
class Agent::Neighbor : public Keel::Timer::Notifiee {
 public:
  Neighbor(Agent* agent, NeighborKey key, const Loom::Ptr<Keel::Timer>& timer) : agent_(agent), key_(std::move(key)) {
    notifierIs(timer);
  }
  U16 holdtime() const { return holdtime_; }
  void holdtimeIs(U16 v, Keel::Time now) {
    holdtime_ = v;
    notifier()->timeMinIs(v == holdtimeForever ? Keel::timeInfinity : now + v);
  }
  void onTime() override { agent_->neighborDel(key_, "expired"); }

 private:
  Agent* agent_;
  const NeighborKey key_;
  U16 holdtime_ = 0;
};

// SIGINT and SIGTERM, read from a signalfd on the loop: the loop stops after the round.
class Agent::SignalWatch : public Keel::FdWatch {
 public:
  explicit SignalWatch(const Loom::Ptr<Keel::EventLoop>& loop) : loop_(loop) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    if (::sigprocmask(SIG_BLOCK, &set, nullptr) != 0 || (fd_ = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC)) < 0) {
      std::cerr << "pimio-agent: signalfd: " << std::strerror(errno) << '\n';
      return;
    }
    loop_->fdWatchIs(fd_, this);
  }
  ~SignalWatch() override {
    if (fd_ < 0) return;
    loop_->fdWatchDel(fd_);
    ::close(fd_);
  }
  void onFdReadable() override {
    signalfd_siginfo info;
    while (::read(fd_, &info, sizeof info) == sizeof info) {
    }
    loop_->stop();
  }

 private:
  Loom::Ptr<Keel::EventLoop> loop_;
  int fd_ = -1;
};

Agent::Agent(Options options)
    : options_(std::move(options)),
      generationId_(std::random_device()()),
      wheel_(Keel::timerWheelFactory(clock_)),
      loop_(Keel::eventLoopFactory(wheel_)),
      manager_(IO::pamManagerFactory(options_.af, "", false)),
      counters_(Routing::Pim::Cask::messageCountersFactory(options_.vrf, options_.af, 1024)),
      status_(statusFactory(options_.vrf)),
      ipStatus_(IpGen::intfStatusFactory()),
      devices_(Interface::deviceIntfStatusDirFactory()) {}

Agent::~Agent() {
  neighbor_.clear();
  io_ = nullptr;
  counters_->unlink();
}

bool Agent::start(std::string& error) {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    error = std::string("getifaddrs: ") + std::strerror(errno);
    return false;
  }
  bool ok = true;
  for (const std::string& name : options_.interfaces) ok = ok && intfAdd(list, name, error);
  ::freeifaddrs(list);
  if (!ok) return false;

  for (U8 type : printedTypes) {
    auto info = IO::messageInfoFactory();
    manager_->rxMessageInfoIs(type, info);
    rxSlots_.push_back(std::make_unique<RxSlot>(this, info));
  }
  io_ = IO::iOSmFactory(manager_, counters_, status_, configCollFactory(), ipStatus_, Acl::aclTypeConfigFactory(),
                        devices_, Interface::allIntfStatusDirFactory(), pimAttrLogSmFactory(), wheel_->timerNew(),
                        Routing::McastBoundary::statusFactory());
  pamWatch_ = std::make_unique<IO::PamWatch>(loop_, manager_->pam());
  if (!manager_->pam()->enabled()) {
    error = std::string("the PIM socket did not open: ") + std::strerror(manager_->pam()->lastErrno());
    return false;
  }
  signals_ = std::make_unique<SignalWatch>(loop_);
  helloTimer_ = std::make_unique<TimerReactor>(this, wheel_->timerNew(), &Agent::onHelloTime);
  joinPruneTimer_ = std::make_unique<TimerReactor>(this, wheel_->timerNew(), &Agent::onJoinPruneTime);
  helloTimer_->notifier()->timeMinIs(now());
  joinPruneTimer_->notifier()->timeMinIs(now());
  if (options_.bsr) {
    if (!bsrAddress_.isSet()) {
      error = "a BSR needs an address that is not link-local on its first interface";
      return false;
    }
    bootstrapTimer_ = std::make_unique<TimerReactor>(this, wheel_->timerNew(), &Agent::onBootstrapTime);
    bootstrapTimer_->notifier()->timeMinIs(now());
  }
  if (options_.duration > 0) {
    endTimer_ = std::make_unique<TimerReactor>(this, wheel_->timerNew(), &Agent::stop);
    endTimer_->notifier()->timeMinIs(now() + options_.duration);
  }
  return true;
}

// One PIM interface from the kernel's view of the device: its index, MTU and addresses. IPv4 speaks
// from the primary (the first) address and lists the others in its Hellos; IPv6 speaks from the
// link-local address, the lowest if there are several.
bool Agent::intfAdd(const ifaddrs* list, const std::string& name, std::string& error) {
  const U32 ifIndex = ::if_nametoindex(name.c_str());
  const auto addrs = addressesOf(list, name, options_.af);
  if (ifIndex == 0 || addrs.empty()) {
    error = "interface " + name + ": " + (ifIndex == 0 ? std::strerror(errno) : "no address of the family");
    return false;
  }
  const Knet::IntfId id(name);
  auto ip = ipStatus_->ipIntfIs(id);
  ip->mtuIs(mtuOf(name));
  Knet::IpGenAddr self = addrs.front().address();
  if (options_.af == AddressFamily::ipv4) {
    ip->primaryAddrIs(addrs.front());
    for (size_t i = 1; i < addrs.size(); ++i) {
      ip->secondaryAddrIs(addrs[i]);
      secondaries_[id].push_back(addrs[i].address());
    }
  } else {
    std::vector<Knet::IpGenAddr> local;
    for (const auto& p : addrs) {
      if (p.address().isLinkLocal()) {
        local.push_back(p.address());
      } else if (!ip->primaryAddr(options_.af).address().isSet()) {
        ip->primaryAddrIs(p);
      }
    }
    if (local.empty()) {
      error = "interface " + name + ": no IPv6 link-local address";
      return false;
    }
    self = *std::min_element(local.begin(), local.end());
  }
  status_->pimIntfIs(id)->addrIs(self);
  if (!bsrAddress_.isSet()) bsrAddress_ = ip->primaryAddr(options_.af).address();
  // The device directory is what makes the state machine fill its interface tables and join
  // ALL-PIM-ROUTERS on the device.
  devices_->intfStatusAndDeviceNameIs(id, {ifIndex, name});
  return true;
}

void Agent::run() {
  loop_->run();
  for (const auto& [id, intf] : status_->pimIntf()) helloSend(id, 0);
}

void Agent::stop() { loop_->stop(); }

void Agent::onHelloTime() {
  for (const auto& [id, intf] : status_->pimIntf()) helloSend(id, holdtimeOf(options_.helloInterval));
  helloTimer_->notifier()->timeMinIs(now() + options_.helloInterval);
}

void Agent::onJoinPruneTime() {
  joinPruneSend();
  joinPruneTimer_->notifier()->timeMinIs(now() + options_.jpInterval);
}

// One Bootstrap of the whole RP set: the family's multicast range with one RP.
void Agent::onBootstrapTime() {
  const bool v4 = options_.af == AddressFamily::ipv4;
  auto range = bootstrapGroupDataFactory(*Knet::IpGenPrefix::parse(v4 ? "224.0.0.0/4" : "ff00::/8"));
  range->rpCountIs(1);
  range->fragRpCountIs(1);
  auto& rp = range->rpListIs(options_.rp.isSet() ? options_.rp : bsrAddress_);
  rp.holdtimeIs(U16(std::clamp(options_.bsrInterval * 2.5, 1.0, 65535.0)));
  rp.priorityIs(192);
  for (const auto& [id, intf] : status_->pimIntf()) {
    auto m = Packet::bootstrapMessageFactory();
    m->fragmentTagIs(fragmentTag_);
    m->hashMaskLenIs(v4 ? 30 : 126);
    m->bsrPriorityIs(64);
    m->bsrAddressIs(bsrAddress_);
    m->groupRpDataIs(bootstrapOptionalDataFactory());
    m->groupRpData()->groupDataEnq(range);
    send(id, m);
  }
  ++fragmentTag_;
  bootstrapTimer_->notifier()->timeMinIs(now() + options_.bsrInterval);
}

void Agent::helloSend(const Knet::IntfId& intf, U16 holdtime) {
  auto hello = Packet::helloMessageFactory();
  hello->holdTimeOptionIs(true);
  hello->holdTimeIs(holdtime);
  hello->drPriorityOptionIs(true);
  hello->drPriorityIs(1);
  hello->generationIdOptionIs(true);
  hello->generationIdIs(generationId_);
  if (const auto it = secondaries_.find(intf); it != secondaries_.end()) {
    for (const auto& a : it->second) hello->secondaryAddrIs(a);
  }
  send(intf, hello);
}

// Sends the configured state to the upstream neighbor, in as many packets as the MTU needs, once
// the upstream is a neighbor on some interface.
void Agent::joinPruneSend() {
  if (options_.joins.empty() || !options_.upstream.isSet()) return;
  const auto it = std::find_if(neighbor_.begin(), neighbor_.end(),
                               [&](const auto& n) { return n.first.second == options_.upstream; });
  if (it == neighbor_.end()) return;
  Loom::Ptr<JoinPruneData> tree = new JoinPruneData(options_.upstream);
  tree->holdTimeIs(holdtimeOf(options_.jpInterval));
  for (const JoinState& j : options_.joins) {
    auto& group = tree->joinPruneGroupDataIs(j.group);
    if (j.source.isSet()) {
      (void)group.joinedSourceIs(j.source);
    } else {
      group.wcSourceDataIs(options_.rp, true);
    }
  }
  auto jp = Packet::joinPruneMessageFactory();
  jp->joinPruneDataIs(tree);
  int packets = 0;
  do {
    send(it->first.first, jp);
  } while (tree->bookmark() && ++packets < 1000);
}

void Agent::send(const Knet::IntfId& intf, const Loom::Ptr<Packet::Message>& m) {
  if (!options_.quiet) print({"tx", intf.name(), "", m->pimMessageType().name(), Packet::messageTextLine(*m)});
  const auto& record = manager_->txMessageInfo();
  record->intfIdIs(intf);
  record->messageIs(m);
  record->countInc(1);
}

void Agent::onReceived(const MessageInfo& info) {
  const auto& m = info.message();
  if (!m) return;
  if (!options_.quiet) {
    print({"rx", info.intfId().name(), m->srcIp().str(), m->pimMessageType().name(), Packet::messageTextLine(*m)});
  }
  if (const auto hello = info.helloMessage()) {
    neighborIs(info.intfId(), m->srcIp(), hello->holdTimeOption() ? hello->holdTime() : holdtimeDefault);
  }
}

void Agent::neighborIs(const Knet::IntfId& intf, const Knet::IpGenAddr& addr, U16 holdtime) {
  const auto pimIntf = status_->pimIntf(intf);
  if (!pimIntf || addr == pimIntf->addr()) return;
  const NeighborKey key{intf, addr};
  if (holdtime == 0) {
    neighborDel(key, "goodbye");
    return;
  }
  auto& n = neighbor_[key];
  const bool made = !n;
  if (made) n = std::make_unique<Neighbor>(this, key, wheel_->timerNew());
  n->holdtimeIs(holdtime, now());
  if (!made) return;
  print({"neighbor-up", intf.name(), addr.str(), "", "", holdtime});
  // Active in the status: the state machine hands over what the neighbor sent before its Hello.
  pimIntf->neighborIs(addr, true);
  // A new upstream gets the state at once, from the loop rather than from inside the receive path.
  if (addr == options_.upstream) joinPruneTimer_->notifier()->timeMinIs(now());
}

void Agent::neighborDel(const NeighborKey& key, const char* why) {
  const auto it = neighbor_.find(key);
  if (it == neighbor_.end()) return;
  print({"neighbor-down", key.first.name(), key.second.str(), "", why, it->second->holdtime()});
  if (const auto pimIntf = status_->pimIntf(key.first)) pimIntf->neighborDel(key.second);
  neighbor_.erase(it);
}

void Agent::print(const Event& e) const {
  if (options_.json) {
    nlohmann::ordered_json j = {{"event", e.event}, {"interface", e.interface}};
    if (!e.address.empty()) j["address"] = e.address;
    if (e.holdtime >= 0) j["holdtime"] = e.holdtime;
    if (!e.type.empty()) j["type"] = e.type;
    if (!e.text.empty()) j[e.event.starts_with("neighbor") ? "reason" : "text"] = e.text;
    std::cout << j.dump() << std::endl;
    return;
  }
  std::cout << e.event << ' ' << e.interface;
  if (!e.address.empty()) std::cout << ' ' << e.address;
  if (e.holdtime >= 0) std::cout << " holdtime " << e.holdtime;
  if (!e.text.empty()) std::cout << ' ' << e.text;
  std::cout << std::endl;
}

}  // namespace PimAgent
