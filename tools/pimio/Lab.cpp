// The lab: one LAN (a bridge in a namespace of its own) with FRRouting's pimd (with zebra) and two
// example agents on the pimio library, pimio-a and pimio-b. Around the LAN:
//
//   pimio-bsr (10.98.0.2) --up0-- frr (lan0 10.97.0.1) --src0-- host (10.66.0.100 source, 10.66.0.2 receiver)
//                                      |
//                LAN 10.97.0.0/24: pimio-a (10.97.0.2, fe80::97:2), pimio-b (10.97.0.3, fe80::97:3)
//
// What makes each PIM message happen:
//   - pimio-a joins (10.66.0.100, 239.1.1.1) with FRR as upstream: FRR forwards the host's stream
//     onto the LAN (Join/Prune from pimio, acted on by FRR).
//   - pimio-b is the RP of 239/8 in FRR's configuration; the host joins 239.1.1.1 with IGMP, so FRR
//     joins (*,239.1.1.1) toward pimio-b on the LAN (Join/Prune from FRR).
//   - FRR is the source's first hop: it registers the stream with the RP pimio-b (Registers from FRR).
//   - pimio-bsr originates Bootstraps on up0; FRR forwards them onto the LAN (Bootstrap from FRR).
//   - pimio-b's namespace puts copies of the host's stream onto the LAN, as a second forwarder of
//     (10.66.0.100, 239.1.1.1) would; FRR sees its stream arrive on an interface it forwards onto
//     and asserts there (Assert from FRR). pimd asserts only for a stream that it has seen come in
//     on the shortest path, which it notes in a periodic scan of its routes: its Assert comes up
//     to a minute after the stream starts.
//   - pimio-a and pimio-b run a second agent each for IPv6 on the LAN's link-local addresses (the
//     FRR packaged here has no IPv6 PIM daemon).
#include "tools/pimio/Lab.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tools/pimio/Counters.h"
#include "tools/pimio/LabProcess.h"

namespace Pimio::Cli {
namespace {

using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;

volatile sig_atomic_t interrupted = 0;
void onSignal(int) { interrupted = 1; }

constexpr const char* frrLan = "10.97.0.1";
constexpr const char* frrUp = "10.98.0.1";
constexpr const char* frrSrc = "10.66.0.1";  // the source's first hop, which registers its stream
constexpr const char* aLan = "10.97.0.2";
constexpr const char* bLan = "10.97.0.3";  // also the RP of 239/8
constexpr const char* bsrUp = "10.98.0.2";
constexpr const char* source = "10.66.0.100";
constexpr const char* receiver = "10.66.0.2";
// The host's stream and its IGMP join; pimio-a's (S,G) join; FRR's (*,G) Join/Prune and Assert.
constexpr const char* streamGroup = "239.1.1.1";
constexpr const char* aLink = "fe80::97:2";
constexpr const char* bLink = "fe80::97:3";

double secondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// One agent of the lab and what it printed: neighbors up now, and every message received but Hellos.
struct AgentRun {
  std::string name, ns;
  std::vector<std::string> args;
  LabProcess process;
  std::set<std::string> neighbors;
  std::vector<Json> received;
  std::ofstream output;  // a copy of what it printed, kept with --keep

  void onLine(const std::string& line) {
    output << line << '\n';
    const Json e = Json::parse(line, nullptr, false);
    if (!e.is_object()) return;
    const std::string event = e.value("event", "");
    if (event == "neighbor-up") neighbors.insert(e.value("address", ""));
    if (event == "neighbor-down") neighbors.erase(e.value("address", ""));
    if (event == "rx" && e.value("type", "") != "hello") received.push_back(e);
  }
  // Whether it received a message of `type` from `from` whose text has every one of `parts`.
  bool heard(const std::string& type, const std::string& from, const std::vector<std::string>& parts) const {
    for (const Json& e : received) {
      if (e.value("type", "") != type || e.value("address", "") != from) continue;
      const std::string text = e.value("text", "");
      bool all = true;
      for (const auto& p : parts) all = all && text.find(p) != std::string::npos;
      if (all) return true;
    }
    return false;
  }
};

// A step of the lab: done when its check says so; until then the check says what is missing.
struct Step {
  Step(std::string n, std::string w, std::function<bool(std::string&)> c)
      : name(std::move(n)), what(std::move(w)), check(std::move(c)) {}
  std::string name, what;
  std::function<bool(std::string& missing)> check;
  double at = -1;  // seconds from the start when it passed
  std::string missing;
};

class Lab {
 public:
  Lab(const LabOptions& options, std::ostream& progress)
      : options_(options), progress_(progress), tag_("lab" + std::to_string(::getpid())), start_(Clock::now()) {}
  ~Lab() { tearDown(); }
  int run(std::ostream& out);

 private:
  std::string ns(const std::string& role) const { return tag_ + "-" + role; }
  double stepAt(const std::string& name) const;  // when the step passed; -1 while it has not
  void say(const std::string& status, const std::string& name, const std::string& text);
  bool failSetUp(const std::string& step, const std::string& why);
  bool prerequisites();
  bool setUp();
  bool startFrr();
  bool startAgents();
  void addSteps();
  bool neighbor(const std::string& agent, const std::string& address, std::string& missing) const;
  bool heard(const std::string& agent, const std::string& type, const std::string& from,
             const std::vector<std::string>& parts, std::string& missing) const;
  void pollOnce(int milliseconds);
  void sendStreams();
  void queryFrr();
  Json frr(const std::string& command) const;
  Json counters(const std::string& vrf) const;
  void tearDown();
  Json summary(const std::string& result) const;
  void printSummary(std::ostream& out, const Json& s) const;

  const LabOptions options_;
  std::ostream& progress_;
  const std::string tag_;
  const Clock::time_point start_;
  std::string work_, agentPath_, failedStep_, failedWhy_;
  std::vector<std::string> namespaces_;
  LabProcess zebra_, pimd_;
  std::map<std::string, std::unique_ptr<AgentRun>> agents_;
  std::vector<Step> steps_;
  Json frrInterfaces_, frrNeighbors_, frrJoins_, frrRoutes_;
  Clock::time_point nextQuery_, nextSend_;
  int sourceFd_ = -1, copyFd_ = -1, receiverFd_ = -1;
  bool streaming_ = false;   // pimd has the host's (*,G)
  bool forwarding_ = false;  // pimd forwards the stream onto the LAN
  std::string frrVersion_;
};

double Lab::stepAt(const std::string& name) const {
  for (const auto& s : steps_) {
    if (s.name == name) return s.at;
  }
  return -1;
}

void Lab::say(const std::string& status, const std::string& name, const std::string& text) {
  progress_ << '[' << std::fixed << std::setprecision(1) << std::setw(5) << secondsSince(start_) << "s] "
            << std::left << std::setw(5) << status << ' ' << std::setw(20) << name << std::right << ' ' << text
            << std::endl;
}

bool Lab::failSetUp(const std::string& step, const std::string& why) {
  failedStep_ = step;
  failedWhy_ = why;
  say("FAIL", step, why);
  return false;
}

// Root, iproute2, FRR's daemons and vtysh, and the agent program.
bool Lab::prerequisites() {
  if (::geteuid() != 0) return failSetUp("prerequisites", "needs root (network namespaces, raw sockets)");
  for (const std::string& p : {options_.frrDir + "/zebra", options_.frrDir + "/pimd"}) {
    if (::access(p.c_str(), X_OK) != 0) return failSetUp("prerequisites", p + " is missing (Debian package frr)");
  }
  for (const char* tool : {"ip", "vtysh", "timeout"}) {
    if (shell(std::string("command -v ") + tool) != 0) {
      return failSetUp("prerequisites", std::string(tool) + " is missing");
    }
  }
  std::vector<std::string> candidates;
  if (!options_.agent.empty()) {
    candidates.push_back(options_.agent);
  } else {
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) candidates.push_back((self.parent_path() / "pimio-agent").string());
#ifdef PIMIO_AGENT_PATH
    candidates.push_back(PIMIO_AGENT_PATH);
#endif
  }
  for (const auto& c : candidates) {
    if (::access(c.c_str(), X_OK) == 0) {
      agentPath_ = c;
      break;
    }
  }
  if (agentPath_.empty()) return failSetUp("prerequisites", "no pimio-agent program (give it with --agent)");
  std::string v;
  shell(options_.frrDir + "/pimd --version", &v);
  const auto at = v.find("version ");
  frrVersion_ = at == std::string::npos ? "unknown" : v.substr(at + 8, v.find('\n', at) - at - 8);
  return true;
}

// The namespaces, the bridge, the links and the addresses. Every command names a namespace of
// this lab, so nothing outside the lab is touched.
bool Lab::setUp() {
  char dir[] = "/tmp/pimio-lab.XXXXXX";
  if (!::mkdtemp(dir)) return failSetUp("set-up", std::string("mkdtemp: ") + std::strerror(errno));
  work_ = dir;
  ::chmod(dir, 0777);  // pimd and zebra write their logs and sockets as the frr user

  std::vector<std::string> commands;
  auto cmd = [&](const std::string& c) { commands.push_back("timeout 10 ip " + c); };
  for (const char* role : {"sw", "frr", "a", "b", "bsr", "host"}) {
    cmd("netns add " + ns(role));
    namespaces_.push_back(ns(role));
    cmd("-n " + ns(role) + " link set lo up");
  }
  cmd("-n " + ns("sw") + " link add br0 type bridge");
  cmd("-n " + ns("sw") + " link set br0 up");
  // A port of the LAN: lan0 in `role` with an IPv4 address and, for the agents, a fixed
  // link-local address (no address of the kernel's making, no duplicate detection to wait for).
  auto lanPort = [&](const std::string& role, const std::string& v4, const std::string& link) {
    const std::string a = tag_ + role + "x", b = tag_ + role + "y";
    cmd("link add " + a + " type veth peer name " + b);
    cmd("link set " + a + " netns " + ns(role));
    cmd("link set " + b + " netns " + ns("sw"));
    cmd("-n " + ns(role) + " link set " + a + " name lan0");
    cmd("-n " + ns("sw") + " link set " + b + " master br0 up");
    if (!link.empty()) {
      cmd("-n " + ns(role) + " link set lan0 addrgenmode none");
      cmd("-n " + ns(role) + " -6 addr add " + link + "/64 dev lan0 nodad");
    }
    cmd("-n " + ns(role) + " addr add " + v4 + "/24 dev lan0");
    cmd("-n " + ns(role) + " link set lan0 up");
  };
  lanPort("frr", frrLan, "");
  lanPort("a", aLan, aLink);
  lanPort("b", bLan, bLink);
  // A point-to-point link `name` from FRR (.1 of `net`) to `role` (.2, default route through FRR).
  auto link = [&](const std::string& name, const std::string& role, const std::string& net) {
    const std::string a = tag_ + name.substr(0, 1) + "x", b = tag_ + name.substr(0, 1) + "y";
    cmd("link add " + a + " type veth peer name " + b);
    cmd("link set " + a + " netns " + ns("frr"));
    cmd("link set " + b + " netns " + ns(role));
    cmd("-n " + ns("frr") + " link set " + a + " name " + name);
    cmd("-n " + ns(role) + " link set " + b + " name " + name);
    cmd("-n " + ns("frr") + " addr add " + net + ".1/24 dev " + name);
    cmd("-n " + ns(role) + " addr add " + net + ".2/24 dev " + name);
    cmd("-n " + ns("frr") + " link set " + name + " up");
    cmd("-n " + ns(role) + " link set " + name + " up");
    cmd("-n " + ns(role) + " route add default via " + net + ".1");
  };
  link("up0", "bsr", "10.98.0");
  link("src0", "host", "10.66.0");
  cmd("-n " + ns("host") + " addr add " + source + "/24 dev src0");
  commands.push_back("ip netns exec " + ns("frr") + " sysctl -qw net.ipv4.ip_forward=1");

  for (const auto& c : commands) {
    std::string output;
    if (shell(c, &output) != 0) return failSetUp("set-up", c + ": " + output);
    if (interrupted) return failSetUp("set-up", "interrupted");
  }
  say("ok", "set-up", "namespaces " + tag_ + "-{sw,frr,a,b,bsr,host}, bridge br0, links and addresses");
  return true;
}

bool Lab::startFrr() {
  std::ofstream(work_ + "/zebra.conf") << "hostname frr\n";
  std::ofstream(work_ + "/pimd.conf") << "hostname frr\n"
                                      << "ip pim rp " << bLan << " 239.0.0.0/8\n"
                                      << "ip pim join-prune-interval 2\n"
                                      << "interface lan0\n ip pim\n ip pim hello 1\n!\n"
                                      << "interface up0\n ip pim\n ip pim hello 1\n!\n"
                                      << "interface src0\n ip pim\n ip igmp\n ip igmp query-interval 2\n!\n";
  auto daemon = [&](const std::string& name) -> std::vector<std::string> {
    return {options_.frrDir + "/" + name, "-f", work_ + "/" + name + ".conf", "-i", work_ + "/" + name + ".pid",
            "-z", work_ + "/zserv.api", "--vty_socket", work_, "--log", "file:" + work_ + "/" + name + ".log"};
  };
  if (!zebra_.start(ns("frr"), daemon("zebra"), work_ + "/zebra.out", false)) {
    return failSetUp("frr-start", "zebra did not start");
  }
  // pimd talks to zebra through its socket: wait for it.
  const auto until = Clock::now() + std::chrono::seconds(10);
  while (::access((work_ + "/zserv.api").c_str(), F_OK) != 0) {
    if (Clock::now() > until || !zebra_.running() || interrupted) {
      return failSetUp("frr-start", "zebra did not open its socket (see zebra.log, --keep)");
    }
    ::usleep(20000);
  }
  if (!pimd_.start(ns("frr"), daemon("pimd"), work_ + "/pimd.out", false)) {
    return failSetUp("frr-start", "pimd did not start");
  }
  say("ok", "frr-start", "FRRouting " + frrVersion_ + ": zebra and pimd started in " + ns("frr"));
  return true;
}

bool Lab::startAgents() {
  auto add = [&](const std::string& name, const std::string& role, std::vector<std::string> args) {
    auto a = std::make_unique<AgentRun>();
    a->name = name;
    a->ns = ns(role);
    a->args = {agentPath_, "--json", "--hello-interval", "1"};
    a->args.insert(a->args.end(), args.begin(), args.end());
    a->output.open(work_ + "/" + name + ".out");
    agents_[name] = std::move(a);
  };
  add("pimio-a", "a", {"--interface", "lan0", "--vrf", tag_ + "-a", "--jp-interval", "2", "--join",
                       std::string(streamGroup) + "," + source, "--upstream", frrLan});
  add("pimio-b", "b", {"--interface", "lan0", "--vrf", tag_ + "-b"});
  add("pimio-bsr", "bsr", {"--interface", "up0", "--vrf", tag_ + "-bsr", "--bsr", "--bsr-interval", "2", "--rp", bLan});
  add("pimio-a6", "a", {"--af", "6", "--interface", "lan0", "--vrf", tag_ + "-a", "--jp-interval", "2", "--join",
                        "ff3e::1:1,fd66::100", "--upstream", bLink});
  add("pimio-b6", "b", {"--af", "6", "--interface", "lan0", "--vrf", tag_ + "-b"});
  for (auto& [name, a] : agents_) {
    if (!a->process.start(a->ns, a->args, work_ + "/" + name + ".err", true)) {
      return failSetUp("pimio-start", name + " did not start");
    }
  }
  // The host's stream (and the copies of it on the LAN) and its receiver.
  sourceFd_ = socketInNetns(ns("host"), AF_INET, SOCK_DGRAM, 0);
  copyFd_ = socketInNetns(ns("b"), AF_INET, SOCK_RAW, IPPROTO_RAW);
  receiverFd_ = socketInNetns(ns("host"), AF_INET, SOCK_DGRAM, 0);
  if (sourceFd_ < 0 || copyFd_ < 0 || receiverFd_ < 0) {
    return failSetUp("pimio-start", std::string("the host's sockets: ") + std::strerror(errno));
  }
  sockaddr_in from{};
  from.sin_family = AF_INET;
  ::inet_pton(AF_INET, source, &from.sin_addr);
  const unsigned char ttl = 16;
  in_addr copyIf{};
  ::inet_pton(AF_INET, bLan, &copyIf);
  if (::bind(sourceFd_, reinterpret_cast<const sockaddr*>(&from), sizeof from) != 0 ||
      ::setsockopt(sourceFd_, IPPROTO_IP, IP_MULTICAST_IF, &from.sin_addr, sizeof from.sin_addr) != 0 ||
      ::setsockopt(sourceFd_, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0 ||
      ::setsockopt(copyFd_, IPPROTO_IP, IP_MULTICAST_IF, &copyIf, sizeof copyIf) != 0) {
    return failSetUp("pimio-start", std::string("the host's sockets: ") + std::strerror(errno));
  }
  say("ok", "pimio-start", "pimio-a and pimio-b on the LAN (IPv4 and IPv6), pimio-bsr on up0; the host streams to " +
                               std::string(streamGroup));
  return true;
}

bool Lab::neighbor(const std::string& agent, const std::string& address, std::string& missing) const {
  if (agents_.at(agent)->neighbors.count(address)) return true;
  missing += (missing.empty() ? "" : "; ") + agent + " has no neighbor " + address;
  return false;
}

bool Lab::heard(const std::string& agent, const std::string& type, const std::string& from,
                const std::vector<std::string>& parts, std::string& missing) const {
  if (agents_.at(agent)->heard(type, from, parts)) return true;
  missing += (missing.empty() ? "" : "; ") + agent + " received no " + type + " from " + from;
  return false;
}

// The steps in the order they are listed; each passes as soon as its check does. Every agent
// named is checked (no short cut), so that a failure lists all that is missing.
void Lab::addSteps() {
  steps_ = {
      {"frr-up", "pimd runs PIM on lan0, up0 and src0",
       [this](std::string& missing) {
         for (const char* i : {"lan0", "up0", "src0"}) {
           if (frrInterfaces_.contains(i)) continue;
           missing += (missing.empty() ? "pimd has no PIM interface " : ", ") + std::string(i);
         }
         return missing.empty();
       }},
      {"pimio-sees-frr", "pimio-a and pimio-b list FRR (10.97.0.1), pimio-bsr lists it on up0 (10.98.0.1)",
       [this](std::string& missing) {
         return neighbor("pimio-a", frrLan, missing) & neighbor("pimio-b", frrLan, missing) &
                neighbor("pimio-bsr", frrUp, missing);
       }},
      {"frr-sees-pimio", "show ip pim neighbor: 10.97.0.2 and 10.97.0.3 on lan0, 10.98.0.2 on up0",
       [this](std::string& missing) {
         const std::pair<const char*, const char*> wanted[] = {{"lan0", aLan}, {"lan0", bLan}, {"up0", bsrUp}};
         for (const auto& [i, a] : wanted) {
           if (!frrNeighbors_.contains(i) || !frrNeighbors_[i].contains(a)) {
             missing += std::string(missing.empty() ? "" : "; ") + "pimd lists no neighbor " + a + " on " + i;
           }
         }
         return missing.empty();
       }},
      {"pimio-sees-pimio", "pimio-a and pimio-b are neighbors of each other",
       [this](std::string& missing) {
         return neighbor("pimio-a", bLan, missing) & neighbor("pimio-b", aLan, missing);
       }},
      {"frr-takes-join",
       "pimio-a's (10.66.0.100, 239.1.1.1) Join: pimd's join state on lan0 and its route forwards there",
       [this](std::string& missing) {
         const Json::json_pointer state("/lan0/" + std::string(streamGroup) + "/" + source + "/channelJoinName");
         const Json::json_pointer oil("/" + std::string(streamGroup) + "/" + source + "/oil/lan0");
         if (!frrJoins_.contains(state) || frrJoins_[state] != "JOIN") {
           missing = "pimd has no JOIN state of (10.66.0.100, 239.1.1.1) on lan0";
         } else if (!frrRoutes_.contains(oil)) {
           missing = "pimd's route of (10.66.0.100, 239.1.1.1) does not forward onto lan0";
         }
         return missing.empty();
       }},
      {"pimio-gets-join", "FRR's (*,239.1.1.1) Join/Prune to its RP pimio-b, decoded by pimio-a and pimio-b",
       [this](std::string& missing) {
         const std::vector<std::string> parts = {"upstream=" + std::string(bLan), streamGroup, "(*,G)"};
         return heard("pimio-a", "joinPrune", frrLan, parts, missing) &
                heard("pimio-b", "joinPrune", frrLan, parts, missing);
       }},
      {"pimio-gets-bootstrap", "pimio-bsr's Bootstrap forwarded by FRR onto the LAN, decoded by pimio-a and pimio-b",
       [this](std::string& missing) {
         const std::vector<std::string> parts = {"bsrAddress=" + std::string(bsrUp), "address=" + std::string(bLan)};
         return heard("pimio-a", "bootstrap", frrLan, parts, missing) &
                heard("pimio-b", "bootstrap", frrLan, parts, missing);
       }},
      {"pimio-gets-register", "FRR's Registers of the host's stream to its RP pimio-b, decoded by pimio-b",
       [this](std::string& missing) {
         return heard("pimio-b", "register", frrSrc, {"src=" + std::string(source), "dst=" + std::string(streamGroup)},
                      missing);
       }},
      {"pimio-gets-assert", "FRR's Assert for (10.66.0.100, 239.1.1.1), decoded by pimio-a and pimio-b",
       [this](std::string& missing) {
         const std::vector<std::string> parts = {"source=" + std::string(source), streamGroup};
         return heard("pimio-a", "assert", frrLan, parts, missing) & heard("pimio-b", "assert", frrLan, parts, missing);
       }},
      {"ipv6-neighbors", "pimio-a6 and pimio-b6 are neighbors over fe80::97:2 and fe80::97:3",
       [this](std::string& missing) {
         return neighbor("pimio-a6", bLink, missing) & neighbor("pimio-b6", aLink, missing);
       }},
      {"ipv6-join", "pimio-a6's (fd66::100, ff3e::1:1) Join/Prune to pimio-b6, decoded by pimio-b6",
       [this](std::string& missing) {
         return heard("pimio-b6", "joinPrune", aLink, {"upstream=" + std::string(bLink), "ff3e::1:1", "fd66::100"},
                      missing);
       }},
      {"counters", "pimio counters of pimio-a and pimio-b: Hello, Join/Prune, Bootstrap and Assert received valid",
       [this](std::string& missing) {
         for (const auto& s : steps_) {
           if (s.name != "counters" && s.at < 0) {
             missing = "waits for the other steps";
             return false;
           }
         }
         for (const char* role : {"a", "b"}) {
           const Json c = counters(tag_ + "-" + role);
           for (const char* type : {"hello", "joinPrune", "bootstrap", "assert"}) {
             if (c.value(type, Json::object()).value("/rx/valid"_json_pointer, 0) == 0) {
               missing += std::string(missing.empty() ? "" : "; ") + "pimio-" + role + " counted no " + type;
             }
           }
         }
         return missing.empty();
       }},
  };
}

// Sends one packet of the host's stream once pimd has the host's (*,G) (its Join/Prune reached the
// agents), and once pimd forwards the stream onto the LAN, also one copy of it onto the LAN from
// pimio-b's namespace.
void Lab::sendStreams() {
  if (!streaming_) return;
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(5000);
  ::inet_pton(AF_INET, streamGroup, &to.sin_addr);
  const char payload[] = "pimio lab";
  (void)::sendto(sourceFd_, payload, sizeof payload, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  if (!forwarding_) return;

  // The copy: an IPv4 header of the source's address (the kernel fills in the length, the
  // identification and the checksum) and a UDP header without checksum.
  unsigned char packet[20 + 8 + sizeof payload] = {};
  ip header{};
  header.ip_v = 4;
  header.ip_hl = 5;
  header.ip_ttl = 8;
  header.ip_p = IPPROTO_UDP;
  ::inet_pton(AF_INET, source, &header.ip_src);
  header.ip_dst = to.sin_addr;
  std::memcpy(packet, &header, sizeof header);
  const uint16_t udp[4] = {htons(5000), htons(5000), htons(8 + sizeof payload), 0};
  std::memcpy(packet + 20, udp, sizeof udp);
  std::memcpy(packet + 28, payload, sizeof payload);
  (void)::sendto(copyFd_, packet, sizeof packet, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

Json Lab::frr(const std::string& command) const {
  std::string out;
  if (shell("timeout 5 vtysh --vty_socket " + work_ + " -c '" + command + "'", &out) != 0) return Json::object();
  const Json j = Json::parse(out, nullptr, false);
  return j.is_object() ? j : Json::object();
}

void Lab::queryFrr() {
  frrInterfaces_ = frr("show ip pim interface json");
  frrNeighbors_ = frr("show ip pim neighbor json");
  frrJoins_ = frr("show ip pim join json");
  frrRoutes_ = frr("show ip mroute json");
}

// The counts of every type over all interfaces, by type name: {"hello":{"rx":{...},"tx":{...}}}.
Json Lab::counters(const std::string& vrf) const {
  CountersOptions o;
  o.vrf = vrf;
  o.json = true;
  std::ostringstream out, err;
  if (showCounters(o, out, err) != 0) return Json::object();
  const Json table = Json::parse(out.str(), nullptr, false);
  Json byType = Json::object();
  if (!table.is_object()) return byType;
  for (const Json& c : table.value("counters", Json::array())) {
    if (c["interface"].is_null() && c.value("subtype", "") == "all") {
      byType[c.value("type", "")] = {{"rx", c["rx"]}, {"tx", c["tx"]}};
    }
  }
  return byType;
}

// Reads the agents' lines for up to `milliseconds`.
void Lab::pollOnce(int milliseconds) {
  std::vector<pollfd> fds;
  std::vector<AgentRun*> who;
  for (auto& [name, a] : agents_) {
    if (a->process.fd() < 0) continue;
    fds.push_back({a->process.fd(), POLLIN, 0});
    who.push_back(a.get());
  }
  if (::poll(fds.data(), fds.size(), milliseconds) <= 0) return;
  for (size_t i = 0; i < fds.size(); ++i) {
    if (fds[i].revents) who[i]->process.readLines([&](const std::string& l) { who[i]->onLine(l); });
  }
}

void Lab::tearDown() {
  for (int* fd : {&sourceFd_, &copyFd_, &receiverFd_}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
  for (auto& [name, a] : agents_) {
    if (a->process.pid() > 0) ::kill(a->process.pid(), SIGTERM);  // all say goodbye at once
  }
  for (auto& [name, a] : agents_) a->process.stop();
  agents_.clear();
  pimd_.stop();
  zebra_.stop();
  for (const auto& n : namespaces_) shell("timeout 10 ip netns del " + n);
  namespaces_.clear();
  if (!work_.empty() && !options_.keep) {
    std::error_code ec;
    std::filesystem::remove_all(work_, ec);
  }
}

Json Lab::summary(const std::string& result) const {
  Json steps = Json::array();
  std::vector<std::string> failed;
  if (!failedStep_.empty()) failed.push_back(failedStep_);
  for (const auto& s : steps_) {
    Json j = {{"name", s.name}, {"what", s.what}, {"ok", s.at >= 0}};
    if (s.at >= 0) {
      j["seconds"] = std::round(s.at * 10) / 10;
    } else {
      j["missing"] = s.missing;
      failed.push_back(s.name);
    }
    steps.push_back(j);
  }
  Json s = {{"result", result},
            {"lab", tag_},
            {"seconds", std::round(secondsSince(start_) * 10) / 10},
            {"frr", {{"version", frrVersion_},
                     {"ipv6", "the FRR of this machine has no IPv6 PIM daemon; IPv6 runs between the pimio agents"}}},
            {"steps", steps},
            {"failed", failed}};
  if (!failedStep_.empty()) s["why"] = failedWhy_;
  if (!work_.empty() && options_.keep) s["workDirectory"] = work_;
  return s;
}

void Lab::printSummary(std::ostream& out, const Json& s) const {
  if (options_.json) {
    out << s.dump() << std::endl;
    return;
  }
  size_t ok = 0;
  for (const auto& step : s["steps"]) ok += step["ok"].get<bool>();
  out << "\npimio lab: " << s["result"].get<std::string>() << ", " << ok << " of " << s["steps"].size()
      << " steps passed in " << s["seconds"] << " s";
  if (!s["failed"].empty()) out << "; failed: " << s["failed"][0].get<std::string>();
  out << '\n';
  if (s.contains("counters")) {
    out << "\nmessages counted by the agents (received valid/filtered/invalid, sent valid):\n";
    for (const auto& [agent, types] : s["counters"].items()) {
      out << "  " << agent << ':';
      for (const auto& [type, c] : types.items()) {
        out << "  " << type << ' ' << c["/rx/valid"_json_pointer] << '/' << c["/rx/filtered"_json_pointer] << '/'
            << c["/rx/invalid"_json_pointer] << ' ' << c["/tx/valid"_json_pointer];
      }
      out << '\n';
    }
  }
  if (s.contains("workDirectory")) out << "work directory kept: " << s["workDirectory"].get<std::string>() << '\n';
}

int Lab::run(std::ostream& out) {
  if (!prerequisites()) {
    printSummary(out, summary("fail"));
    return 2;
  }
  if (!setUp() || !startFrr() || !startAgents()) {
    printSummary(out, summary(interrupted ? "interrupted" : "fail"));
    return interrupted ? 130 : 2;
  }
  addSteps();
  bool joined = false, waitSaid = false;
  const auto deadline = Clock::now() + std::chrono::duration<double>(options_.timeout);
  nextQuery_ = nextSend_ = Clock::now();
  size_t passed = 0;
  while (passed < steps_.size() && Clock::now() < deadline && !interrupted) {
    pollOnce(50);
    if (Clock::now() >= nextSend_) {
      sendStreams();
      nextSend_ += std::chrono::milliseconds(200);
    }
    if (Clock::now() >= nextQuery_) {
      queryFrr();
      nextQuery_ = Clock::now() + std::chrono::milliseconds(500);
    }
    for (auto& s : steps_) {
      if (s.at >= 0) continue;
      s.missing.clear();
      if (!s.check(s.missing)) continue;
      s.at = secondsSince(start_);
      ++passed;
      say("ok", s.name, s.what);
      // The receiver joins once pimd listens on src0.
      if (s.name == "frr-up" && !joined) {
        ip_mreq m{};
        ::inet_pton(AF_INET, streamGroup, &m.imr_multiaddr);
        ::inet_pton(AF_INET, receiver, &m.imr_interface);
        joined = ::setsockopt(receiverFd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m) == 0;
      }
      if (s.name == "pimio-gets-join") streaming_ = true;
      if (s.name == "frr-takes-join") forwarding_ = true;
    }
    if (!waitSaid && passed + 2 == steps_.size() && stepAt("pimio-gets-assert") < 0) {
      waitSaid = true;
      say("wait", "pimio-gets-assert",
          "pimd asserts once a periodic scan of its routes has seen the stream come in on the shortest path: up to a "
          "minute");
    }
  }
  for (const auto& s : steps_) {
    if (s.at < 0) say("FAIL", s.name, s.missing.empty() ? s.what : s.missing);
  }
  const std::string result = interrupted ? "interrupted" : passed == steps_.size() ? "pass" : "fail";
  Json s = summary(result);
  for (const char* role : {"a", "b"}) s["counters"][std::string("pimio-") + role] = counters(tag_ + "-" + role);
  tearDown();
  printSummary(out, s);
  return interrupted ? 130 : passed == steps_.size() ? 0 : 1;
}

}  // namespace

int runLab(const LabOptions& options, std::ostream& out, std::ostream& progress) {
  struct sigaction action{};
  action.sa_handler = onSignal;
  ::sigemptyset(&action.sa_mask);
  struct sigaction oldInt, oldTerm;
  ::sigaction(SIGINT, &action, &oldInt);
  ::sigaction(SIGTERM, &action, &oldTerm);
  int status;
  {
    Lab lab(options, progress);
    status = lab.run(out);
  }
  ::sigaction(SIGINT, &oldInt, nullptr);
  ::sigaction(SIGTERM, &oldTerm, nullptr);
  return status;
}

}  // namespace Pimio::Cli
