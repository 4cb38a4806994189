// Our example agent against FRRouting's pimd, side by side, under the same Join/Prune flood (needs
// root, the frr package and vtysh; without them the binary says why and measures nothing).
//
// Three network namespaces with unique names: a sender with two veth links, one to a namespace
// running `pimio-agent --quiet` on its end, one to a namespace running zebra and pimd with `ip pim`
// on its end. The sender says Hello on both links (holdtime forever), waits until both receivers
// list it as a neighbor, warms their state up with a few Join/Prunes, then floods both with the
// same Join/Prunes (one group of n (S,G) joins, addressed to the receiver as upstream neighbor,
// to ALL-PIM-ROUTERS) at the same fixed rate for a few seconds, paced in ticks of a few ms.
//
// BM_PimdFlood/n/rate/seconds/tick (ms): each receiver process's CPU time (utime + stime of /proc/PID/stat)
// over the flood and until its count stops moving, divided by the Join/Prunes it counted: ours
// from its counter table in shared memory, pimd's from `show ip pim interface traffic json` (which
// counts joins: divided by the joins in each message).
// Counters: pimioNsPerJp, pimdNsPerJp, their ratio pimioOverPimd, sent, pimioRx, pimdRx, and the
// same CPU times from /proc/PID/task/*/schedstat (nanoseconds, not clock ticks) for a check of
// the tick-based figures, and the times each went to sleep per Join/Prune (its wakeups). The
// manual time is the flood's wall time; one iteration.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "NetnsBench.h"
#include "PimIO/MessageCounters.h"
#include "knet/IpPam.h"
#include "knet/PimHdr.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"

#ifndef PIMIO_AGENT_PATH
#error "PIMIO_AGENT_PATH (the pimio-agent binary) must be defined by the build"
#endif

namespace Routing::Pim::IO {
namespace {

using Knet::AddressFamily;
using Knet::IpGenAddr;
using Clock = std::chrono::steady_clock;

constexpr const char* zebraPath = "/usr/lib/frr/zebra";
constexpr const char* pimdPath = "/usr/lib/frr/pimd";
constexpr U32 mtu = 1500;
constexpr U16 holdtimeForever = 0xffff;

IpGenAddr addr(const char* text) { return *IpGenAddr::parse(text); }

using PimTest::shell;

std::string fileText(const std::string& path) {
  std::ifstream f(path);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// A process's CPU time from /proc/PID/stat (utime + stime, all threads), in nanoseconds; and the
// same from the scheduler's run time of each thread (/proc/PID/task/*/schedstat), which is not
// rounded to clock ticks. Both negative when the process is gone.
double statCpuNs(int pid) {
  const std::string text = fileText("/proc/" + std::to_string(pid) + "/stat");
  const auto close = text.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream in(text.substr(close + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  // After the command: state is field 3, utime field 14, stime field 15.
  for (int i = 3; i <= 15 && in >> field; ++i) {
    if (i == 14) utime = std::strtoull(field.c_str(), nullptr, 10);
    if (i == 15) stime = std::strtoull(field.c_str(), nullptr, 10);
  }
  return double(utime + stime) * 1e9 / double(::sysconf(_SC_CLK_TCK));
}

// The sum of `f` over the threads of a process (f gets the thread's /proc directory).
template <class F>
double overTasks(int pid, F f) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/task";
  DIR* d = ::opendir(dir.c_str());
  if (!d) return -1;
  double sum = 0;
  while (dirent* e = ::readdir(d)) {
    if (e->d_name[0] != '.') sum += f(dir + "/" + e->d_name);
  }
  ::closedir(d);
  return sum;
}

double schedCpuNs(int pid) {
  return overTasks(pid, [](const std::string& task) {
    return std::strtod(fileText(task + "/schedstat").c_str(), nullptr);
  });
}

// Times the threads of a process went to sleep (voluntary context switches of /proc/PID/task/*/status):
// to wait for input, so the wakeups that a flood costs it.
double sleeps(int pid) {
  return overTasks(pid, [](const std::string& task) {
    std::istringstream in(fileText(task + "/status"));
    for (std::string line; std::getline(in, line);) {
      if (line.starts_with("voluntary_ctxt_switches:")) return std::strtod(line.c_str() + 24, nullptr);
    }
    return 0.0;
  });
}

struct Cpu {
  double stat = 0, sched = 0, wakeups = 0;
  static Cpu of(int pid) { return {statCpuNs(pid), schedCpuNs(pid), sleeps(pid)}; }
  Cpu operator-(const Cpu& o) const { return {stat - o.stat, sched - o.sched, wakeups - o.wakeups}; }
};

// The lab: namespaces <base>-s (sender: s0 to the agent, s1 to pimd), <base>-a (the agent on a0)
// and <base>-f (zebra and pimd, PIM on f0), the daemons' work directory, and the processes. The
// destructor stops the processes it started and removes everything, whatever state it is in.
class PimdLab {
 public:
  PimdLab() {
    PimTest::deleteStaleNamespaces("pimdb-");
    base_ = "pimdb-" + std::to_string(::getpid());
    vrf_ = "pimdbench" + std::to_string(::getpid());
    char dir[] = "/tmp/pimio-pimdbench.XXXXXX";
    if (!::mkdtemp(dir)) {
      error_ = std::string("mkdtemp: ") + std::strerror(errno);
      return;
    }
    work_ = dir;
    ::chmod(dir, 0777);
    if (!links() || !startFrr() || !startAgent()) return;
    s0_ = ifIndexOf(ns('s'), "s0");
    s1_ = ifIndexOf(ns('s'), "s1");
    if (ok() && (s0_ == 0 || s1_ == 0)) error_ = "no interface index for the sender's links";
  }
  ~PimdLab() {
    if (agentPid_ > 0) stop(agentPid_, true);
    for (const char* daemon : {"pimd", "zebra"}) {
      const int pid = daemonPid(daemon);
      if (pid > 0) stop(pid, false);
    }
    for (const char c : {'s', 'a', 'f'}) {
      if (!base_.empty()) shell("ip netns del " + ns(c));
    }
    if (!vrf_.empty()) ::unlink(("/dev/shm/pimio-" + vrf_ + "-ipv4").c_str());
    if (!work_.empty()) shell("rm -rf " + work_);
  }
  PimdLab(const PimdLab&) = delete;
  PimdLab& operator=(const PimdLab&) = delete;

  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }
  std::string ns(char c) const { return base_ + "-" + c; }
  U32 ifIndexToAgent() const { return s0_; }
  U32 ifIndexToPimd() const { return s1_; }
  int agentPid() const { return agentPid_; }
  int pimdPid() const { return daemonPid("pimd"); }
  int zebraPid() const { return daemonPid("zebra"); }

  static IpGenAddr senderToAgent() { return addr("10.97.1.1"); }
  static IpGenAddr agentAddr() { return addr("10.97.1.2"); }
  static IpGenAddr senderToPimd() { return addr("10.97.2.1"); }
  static IpGenAddr pimdAddr() { return addr("10.97.2.2"); }

  // Whether each receiver lists the sender as a neighbor: the agent's "neighbor-up" line, pimd's
  // neighbor table.
  bool agentHasNeighbor() const {
    return fileText(work_ + "/agent.out").find("neighbor-up a0 " + senderToAgent().str()) != std::string::npos;
  }
  bool pimdHasNeighbor() const { return vtysh("show ip pim neighbor").find(senderToPimd().str()) != std::string::npos; }

  // Join/Prunes each receiver counted as received on its link; nullopt when it cannot be read.
  std::optional<U64> agentJoinPrunes() const {
    const auto table = Cask::messageCountersReader(vrf_, AddressFamily::ipv4);
    if (!table->usable()) return std::nullopt;
    for (const Cask::MessageCounterData& d : table->msgCounters()) {
      if (d.key.intfId.name() == "a0" && (d.key.messageType & 0x0f) == Knet::pimJoinPrune().type() &&
          d.key.subtype == Cask::CounterKey::anySubtype) {
        return d.rxValid;
      }
    }
    return 0;
  }
  // pimd's per-interface traffic in JSON: the "joinRx" of f0, which counts the joins in the
  // Join/Prunes it received (one per (S,G) entry), not the messages.
  std::optional<U64> pimdJoins() const {
    const std::string text = vtysh("show ip pim interface traffic json");
    const auto intf = text.find("\"f0\"");
    if (intf == std::string::npos) return std::nullopt;
    const auto at = text.find("\"joinRx\":", intf);
    if (at == std::string::npos) return std::nullopt;
    return std::strtoull(text.c_str() + at + 9, nullptr, 10);
  }

  std::string agentOutput() const { return fileText(work_ + "/agent.out"); }

 private:
  std::string vtysh(const std::string& command) const {
    std::string out;
    shell("vtysh --vty_socket " + work_ + " -c '" + command + "'", &out);
    return out;
  }

  bool run(const std::string& command) {
    std::string out;
    if (shell(command, &out) == 0) return true;
    error_ = command + ": " + out;
    return false;
  }


  bool links() {
    const std::string s = "ip -n " + ns('s') + " ", a = "ip -n " + ns('a') + " ", f = "ip -n " + ns('f') + " ";
    return run("ip netns add " + ns('s')) && run("ip netns add " + ns('a')) && run("ip netns add " + ns('f')) &&
           run(s + "link add s0 type veth peer name a0 netns " + ns('a')) &&
           run(s + "link add s1 type veth peer name f0 netns " + ns('f')) &&
           run(s + "addr add 10.97.1.1/24 dev s0") && run(a + "addr add 10.97.1.2/24 dev a0") &&
           run(s + "addr add 10.97.2.1/24 dev s1") && run(f + "addr add 10.97.2.2/24 dev f0") &&
           run(s + "link set lo up") && run(a + "link set lo up") && run(f + "link set lo up") &&
           run(s + "link set s0 up") && run(s + "link set s1 up") && run(a + "link set a0 up") &&
           run(f + "link set f0 up");
  }

  bool startFrr() {
    std::ofstream(work_ + "/zebra.conf") << "hostname pimdbench\n";
    std::ofstream(work_ + "/pimd.conf") << "hostname pimdbench\ninterface f0\n ip pim\n ip pim hello 1\n!\n";
    const std::string exec = "ip netns exec " + ns('f') + " ";
    // The daemon's options: its configuration, pid file, zebra's socket, vtysh's socket directory, log.
    auto options = [&](const std::string& d) {
      const std::string w = work_ + "/";
      return " -d -f " + w + d + ".conf -i " + w + d + ".pid -z " + w + "zserv.api --vty_socket " + work_ +
             " --log file:" + w + d + ".log";
    };
    return run(exec + zebraPath + options("zebra")) && run(exec + pimdPath + options("pimd"));
  }

  // The agent in its namespace (`ip netns exec` runs it in its own process), its standard output
  // and error into agent.out.
  bool startAgent() {
    const std::string out = work_ + "/agent.out";
    const pid_t pid = ::fork();
    if (pid < 0) {
      error_ = std::string("fork: ") + std::strerror(errno);
      return false;
    }
    if (pid == 0) {
      const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd >= 0) {
        ::dup2(fd, 1);
        ::dup2(fd, 2);
      }
      const std::string nsName = ns('a');
      ::execlp("ip", "ip", "netns", "exec", nsName.c_str(), PIMIO_AGENT_PATH, "--quiet", "--interface", "a0", "--vrf",
               vrf_.c_str(), "--hello-interval", "1", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    agentPid_ = pid;
    return true;
  }

  int daemonPid(const char* name) const {
    return work_.empty() ? 0 : std::atoi(fileText(work_ + "/" + name + ".pid").c_str());
  }

  // SIGTERM, then SIGKILL after a second; `child` processes are reaped.
  static void stop(int pid, bool child) {
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 100; ++i) {
      if (child ? ::waitpid(pid, nullptr, WNOHANG) == pid : ::kill(pid, 0) != 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(pid, SIGKILL);
    if (child) ::waitpid(pid, nullptr, 0);
  }

  U32 ifIndexOf(const std::string& n, const char* intf) {
    std::string out;
    if (shell("ip netns exec " + n + " cat /sys/class/net/" + intf + "/ifindex", &out) != 0) {
      error_ = "no interface index of " + std::string(intf) + ": " + out;
      return 0;
    }
    return U32(std::strtoul(out.c_str(), nullptr, 10));
  }

  std::string base_, vrf_, work_, error_;
  int agentPid_ = 0;
  U32 s0_ = 0, s1_ = 0;
};

PimdLab& pimdLab() {
  static PimdLab l;
  return l;
}

// The Hello the sender says on a link from `src`: holdtime forever, so that neither receiver
// drops it during the flood.
std::vector<U8> helloBytes(const IpGenAddr& src) {
  const auto p = Knet::pktFactory(mtu);
  auto m = Packet::helloMessageFactory();
  m->srcIpIs(src);
  m->dstIpIs(Knet::allPimRouters(AddressFamily::ipv4));
  m->holdTimeOptionIs(true);
  m->holdTimeIs(holdtimeForever);
  m->generationIdOptionIs(true);
  m->generationIdIs(7);
  const U32 n = m->writeHelloMessage(p, 0);
  return std::vector<U8>(p->data(), p->data() + n);
}

// A Join/Prune to `upstream` from `src`: group 232.1.1.1 (source-specific) with `sources` (S,G)
// joins from 10.1.0.1 up, holdtime 210; empty when it does not fit one packet.
std::vector<U8> joinPruneBytes(const IpGenAddr& src, const IpGenAddr& upstream, U32 sources) {
  const auto p = Knet::pktFactory(mtu);
  Loom::Ptr<JoinPruneData> data = new JoinPruneData(upstream);
  data->holdTimeIs(210);
  JoinPruneGroupData& g = data->joinPruneGroupDataIs(addr("232.1.1.1"));
  for (U32 s = 0; s < sources; ++s) (void)g.joinedSourceIs(IpGenAddr::ipv4(0x0a010001 + s));
  auto m = Packet::joinPruneMessageFactory();
  m->srcIpIs(src);
  m->dstIpIs(Knet::allPimRouters(AddressFamily::ipv4));
  m->mtuIs(mtu);
  m->joinPruneDataIs(data);
  const U32 n = m->writeJoinPruneMessage(p, 0, nullptr);
  if (!data->empty() || data->bookmark()) return {};
  return std::vector<U8>(p->data(), p->data() + n);
}

// The sender's raw socket on one link, multicast out of that link from its address.
struct Link {
  Link(const std::string& ns, const IpGenAddr& src, U32 ifIndex)
      : pam(new Knet::IpSocketPam("pimdbench", Knet::ipProtoPim, ns)), src(src) {
    pam->flagsIs(Knet::IpPam::flagNoMulticastLoop);
    pam->enabledIs(true);
    ok = pam->enabled() && PimBench::multicastIfIs(pam->fd(), src, ifIndex);
  }
  Loom::Ptr<Knet::IpPam> pam;
  IpGenAddr src;
  bool ok = false;
};

// Polls `done` every 50 ms for at most `seconds`.
template <class Done>
bool waitFor(double seconds, Done done) {
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// Waits until `count` has not moved for 300 ms (at most `seconds`); its last value.
template <class Count>
U64 settled(double seconds, Count count) {
  U64 last = count().value_or(0);
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  for (int still = 0; still < 6 && Clock::now() < end;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const U64 now = count().value_or(0);
    still = now == last ? still + 1 : 0;
    last = now;
  }
  return last;
}

void BM_PimdFlood(benchmark::State& state) {
  const U32 sources = U32(state.range(0));
  const size_t rate = size_t(state.range(1));
  const double seconds = double(state.range(2));
  const long tickMs = long(state.range(3));
  PimdLab& lab = pimdLab();
  if (!lab.ok()) {
    state.SkipWithError(("no lab: " + lab.error()).c_str());
    return;
  }
  Link toAgent(lab.ns('s'), PimdLab::senderToAgent(), lab.ifIndexToAgent());
  Link toPimd(lab.ns('s'), PimdLab::senderToPimd(), lab.ifIndexToPimd());
  if (!toAgent.ok || !toPimd.ok) {
    state.SkipWithError("the sender's sockets could not be set up");
    return;
  }
  // Hello on both links until both receivers list the sender (pimd wants a Hello of its own
  // interface up first, the agent its socket joined).
  PimBench::Burst helloA(helloBytes(toAgent.src), Knet::allPimRouters(AddressFamily::ipv4), lab.ifIndexToAgent(), 1);
  PimBench::Burst helloP(helloBytes(toPimd.src), Knet::allPimRouters(AddressFamily::ipv4), lab.ifIndexToPimd(), 1);
  const bool neighbors = waitFor(20, [&] {
    helloA.send(toAgent.pam->fd());
    helloP.send(toPimd.pam->fd());
    return lab.agentHasNeighbor() && lab.pimdHasNeighbor();
  });
  if (!neighbors) {
    state.SkipWithError(("the sender did not become a neighbor of both (agent " +
                         std::to_string(lab.agentHasNeighbor()) + ", pimd " + std::to_string(lab.pimdHasNeighbor()) +
                         "): " + lab.agentOutput())
                            .c_str());
    return;
  }
  // Each tick sends rate x tick Join/Prunes on each link.
  const size_t perTick = std::max<size_t>(1, rate * size_t(tickMs) / 1000);
  const auto group = Knet::allPimRouters(AddressFamily::ipv4);
  PimBench::Burst jpA(joinPruneBytes(toAgent.src, PimdLab::agentAddr(), sources), group, lab.ifIndexToAgent(), perTick);
  PimBench::Burst jpP(joinPruneBytes(toPimd.src, PimdLab::pimdAddr(), sources), group, lab.ifIndexToPimd(), perTick);
  if (jpA.bytes().empty() || jpP.bytes().empty()) {
    state.SkipWithError("the Join/Prune does not fit one packet");
    return;
  }
  // Warm-up: the state exists before the flood, so that the flood is a refresh of it.
  for (int i = 0; i < 20; ++i) {
    jpA.send(toAgent.pam->fd());
    jpP.send(toPimd.pam->fd());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  auto agentCount = [&] { return lab.agentJoinPrunes(); };
  auto pimdCount = [&] { return lab.pimdJoins(); };
  const U64 agent0 = settled(5, agentCount), pimd0 = settled(5, pimdCount);

  U64 sentA = 0, sentP = 0;
  double wall = 0;
  Cpu agentCpu, pimdCpu, zebraCpu;
  for (auto _ : state) {
    const Cpu a0 = Cpu::of(lab.agentPid()), p0 = Cpu::of(lab.pimdPid()), z0 = Cpu::of(lab.zebraPid());
    const auto start = Clock::now();
    const size_t ticks = size_t(seconds * 1000) / size_t(tickMs);
    timespec next{};
    ::clock_gettime(CLOCK_MONOTONIC, &next);
    for (size_t t = 0; t < ticks; ++t) {
      sentA += jpA.send(toAgent.pam->fd(), 10);
      sentP += jpP.send(toPimd.pam->fd(), 10);
      next.tv_nsec += tickMs * 1000000;
      if (next.tv_nsec >= 1000000000) {
        next.tv_nsec -= 1000000000;
        ++next.tv_sec;
      }
      ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
    wall = std::chrono::duration<double>(Clock::now() - start).count();
    state.SetIterationTime(wall);
    // Both have the whole flood in their queues by now; the CPU they spend on it ends when their
    // counts stop moving.
    settled(10, agentCount);
    settled(10, pimdCount);
    agentCpu = Cpu::of(lab.agentPid()) - a0;
    pimdCpu = Cpu::of(lab.pimdPid()) - p0;
    zebraCpu = Cpu::of(lab.zebraPid()) - z0;
  }
  // pimd counts joins: a whole number of Join/Prunes when it took every join of each.
  const U64 rxA = agentCount().value_or(0) - agent0, joinsP = pimdCount().value_or(0) - pimd0;
  const U64 rxP = joinsP / sources;
  if (rxA == 0 || rxP == 0) {
    state.SkipWithError(("a receiver counted nothing: agent " + std::to_string(rxA) + ", pimd " + std::to_string(rxP))
                            .c_str());
    return;
  }
  const double pimioNs = agentCpu.stat / double(rxA), pimdNs = pimdCpu.stat / double(rxP);
  state.counters["sent"] = double(sentA);
  state.counters["sentToPimd"] = double(sentP);
  state.counters["rateSent"] = double(sentA) / wall;
  state.counters["pimioRx"] = double(rxA);
  state.counters["pimdRx"] = double(rxP);
  state.counters["pimdJoinsRx"] = double(joinsP);
  state.counters["pimioNsPerJp"] = pimioNs;
  state.counters["pimdNsPerJp"] = pimdNs;
  state.counters["pimioOverPimd"] = pimdNs > 0 ? pimioNs / pimdNs : 0;
  state.counters["pimioSchedNsPerJp"] = agentCpu.sched / double(rxA);
  state.counters["pimdSchedNsPerJp"] = pimdCpu.sched / double(rxP);
  state.counters["pimioWakeupsPerJp"] = agentCpu.wakeups / double(rxA);
  state.counters["pimdWakeupsPerJp"] = pimdCpu.wakeups / double(rxP);
  state.counters["zebraSchedNsPerJp"] = zebraCpu.sched / double(rxP);
}

// One group with 1, 20 and 181 (S,G) joins (181 fill a 1500-byte packet), 5,000 a second on each
// link for 5 seconds in 1 ms ticks; for scale, 1 x 1 at the same rate in 10 ms ticks (bursts of 50,
// fewer wakeups of each receiver).
BENCHMARK(BM_PimdFlood)
    ->Args({1, 5000, 5, 1})
    ->Args({20, 5000, 5, 1})
    ->Args({181, 5000, 5, 1})
    ->Args({1, 5000, 5, 10})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Routing::Pim::IO

// Root only, and FRRouting only where it is installed; otherwise says why and measures nothing.
int main(int argc, char** argv) {
  Loom::traceLevelIs("*", 0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::string why = PimTest::NetnsLab::unavailableReason();
  for (const char* path : {Routing::Pim::IO::zebraPath, Routing::Pim::IO::pimdPath}) {
    if (why.empty() && ::access(path, X_OK) != 0) why = std::string("needs FRRouting (") + path + ")";
  }
  if (why.empty() && PimTest::shell("vtysh --help") != 0) why = "needs FRRouting's vtysh";
  if (!why.empty()) {
    std::cerr << "pimd_bench: skipped, it " << why << "\n";
    return 0;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
