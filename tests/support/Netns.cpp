#include "support/Netns.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace PimTest {

namespace {

constexpr const char* timeoutPrefix = "timeout 10 ";

Knet::IpGenAddr parsed(const char* text) { return Knet::IpGenAddr::parse(text).value_or(Knet::IpGenAddr()); }

}  // namespace

int shell(const std::string& command, std::string* out) {
  FILE* f = ::popen((timeoutPrefix + command + " 2>&1").c_str(), "r");
  if (!f) return -1;
  char buf[256];
  std::string text;
  while (size_t n = std::fread(buf, 1, sizeof(buf), f)) text.append(buf, n);
  const int status = ::pclose(f);
  if (out) *out = text;
  return status;
}

void deleteStaleNamespaces(const std::string& prefix) {
  DIR* d = ::opendir("/run/netns");
  if (!d) return;
  while (dirent* e = ::readdir(d)) {
    int pid = 0;
    if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) != 0) continue;
    if (std::sscanf(e->d_name + prefix.size(), "%d-", &pid) != 1 || pid <= 0) continue;
    if (::kill(pid, 0) == 0 || errno != ESRCH) continue;
    shell(std::string("ip netns del ") + e->d_name);
  }
  ::closedir(d);
}

std::string NetnsLab::unavailableReason() {
  if (::geteuid() != 0) return "needs root to make network namespaces and raw sockets";
  if (shell("ip -V") != 0) return "needs the ip command (iproute2)";
  return "";
}

bool NetnsLab::required() {
  const char* ci = std::getenv("CI");
  return ci && std::strcmp(ci, "true") == 0;
}

NetnsLab::NetnsLab() {
  static std::atomic<int> labs{0};
  deleteStaleNamespaces("pimio-");
  const std::string base = "pimio-" + std::to_string(::getpid()) + "-" + std::to_string(labs++);
  nsA_ = base + "-a";
  nsB_ = base + "-b";
  const std::string a = "ip -n " + nsA_ + " ", b = "ip -n " + nsB_ + " ";
  const bool made = run("ip netns add " + nsA_) && run("ip netns add " + nsB_) &&
                    run(a + "link add pa type veth peer name pb netns " + nsB_) &&
                    run(a + "link set pa addrgenmode none") && run(b + "link set pb addrgenmode none") &&
                    run(a + "addr add 10.99.0.1/24 dev pa") && run(b + "addr add 10.99.0.2/24 dev pb") &&
                    run(a + "addr add fd00:99::1/64 dev pa nodad") && run(b + "addr add fd00:99::2/64 dev pb nodad") &&
                    run(a + "addr add fe80::a/64 dev pa nodad") && run(b + "addr add fe80::b/64 dev pb nodad") &&
                    run(a + "link set lo up") && run(b + "link set lo up") && run(a + "link set pa up") &&
                    run(b + "link set pb up");
  if (!made) return;
  // IPv6 starts on an interface only once its carrier is up: wait for both ends, bounded.
  if (!run("sh -c 'for i in $(seq 100); do "
           "[ \"$(ip netns exec " + nsA_ + " cat /sys/class/net/pa/operstate)\" = up ] && "
           "[ \"$(ip netns exec " + nsB_ + " cat /sys/class/net/pb/operstate)\" = up ] && exit 0; "
           "sleep 0.05; done; exit 1'")) {
    return;
  }
  ifIndexA_ = ifIndexOf(nsA_, "pa");
  ifIndexB_ = ifIndexOf(nsB_, "pb");
  if (ok() && (ifIndexA_ == 0 || ifIndexB_ == 0)) error_ = "no interface index for the veth ends";
}

NetnsLab::~NetnsLab() {
  if (!nsA_.empty()) shell("ip netns del " + nsA_);
  if (!nsB_.empty()) shell("ip netns del " + nsB_);
}

bool NetnsLab::run(const std::string& command) {
  std::string out;
  if (shell(command, &out) == 0) return true;
  error_ = command + ": " + out;
  return false;
}

U32 NetnsLab::ifIndexOf(const std::string& ns, const char* intf) {
  std::string out;
  if (shell("ip netns exec " + ns + " cat /sys/class/net/" + intf + "/ifindex", &out) != 0) {
    error_ = "no interface index of " + std::string(intf) + ": " + out;
    return 0;
  }
  return static_cast<U32>(std::strtoul(out.c_str(), nullptr, 10));
}

Knet::IpGenAddr NetnsLab::addrA(Knet::AddressFamily af) const {
  return parsed(af == Knet::AddressFamily::ipv4 ? "10.99.0.1" : "fd00:99::1");
}
Knet::IpGenAddr NetnsLab::addrB(Knet::AddressFamily af) const {
  return parsed(af == Knet::AddressFamily::ipv4 ? "10.99.0.2" : "fd00:99::2");
}
Knet::IpGenAddr NetnsLab::linkLocalA() { return parsed("fe80::a"); }
Knet::IpGenAddr NetnsLab::linkLocalB() { return parsed("fe80::b"); }

std::string NetnsLab::output(const std::string& command) {
  std::string out;
  shell(command, &out);
  return out;
}

int NetnsLab::packetSocket(const std::string& ns, U32 ifIndex) {
  const int home = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  const int target = ::open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
  int fd = -1;
  if (home >= 0 && target >= 0 && ::setns(target, CLONE_NEWNET) == 0) {
    fd = ::socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(ETH_P_ALL));
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ETH_P_ALL);
    at.sll_ifindex = static_cast<int>(ifIndex);
    if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof(at)) < 0) {
      ::close(fd);
      fd = -1;
    }
    if (::setns(home, CLONE_NEWNET) < 0) std::abort();  // the test thread must not stay in the lab
  }
  if (home >= 0) ::close(home);
  if (target >= 0) ::close(target);
  return fd;
}

std::vector<std::vector<U8>> NetnsLab::pimPackets(int fd, size_t count, double seconds) {
  std::vector<std::vector<U8>> out;
  for (int waited = 0; out.size() < count && waited < seconds * 1000; waited += 10) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 10) <= 0) continue;
    std::vector<U8> buf(65536);
    ssize_t n;
    while ((n = ::recv(fd, buf.data(), buf.size(), 0)) > 0) {
      const bool v4 = (buf[0] >> 4) == 4 && n >= 20 && buf[9] == 103;
      const bool v6 = (buf[0] >> 4) == 6 && n >= 40 && buf[6] == 103;
      if (v4 || v6) out.emplace_back(buf.begin(), buf.begin() + n);
    }
  }
  return out;
}

}  // namespace PimTest
