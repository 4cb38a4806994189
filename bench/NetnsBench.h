#pragma once
// What the benchmarks on a veth pair between two network namespaces share: the one lab of the
// process, a socket address for a bare baseline, and the main() that says why it measures nothing
// when no lab can be made here (not root).
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <iostream>
#include <vector>

#include "loom/Trace.h"
#include "support/Netns.h"

namespace PimBench {

inline PimTest::NetnsLab& lab() {
  static PimTest::NetnsLab l;
  return l;
}

// The socket address of `a` (the interface's scope for IPv6), for sendto and the like.
inline socklen_t sockAddr(const Knet::IpGenAddr& a, U32 ifIndex, sockaddr_storage& out) {
  std::memset(&out, 0, sizeof(out));
  if (a.af() == Knet::AddressFamily::ipv4) {
    auto* s = reinterpret_cast<sockaddr_in*>(&out);
    s->sin_family = AF_INET;
    std::memcpy(&s->sin_addr, a.bytes(), 4);
    return sizeof(sockaddr_in);
  }
  auto* s = reinterpret_cast<sockaddr_in6*>(&out);
  s->sin6_family = AF_INET6;
  std::memcpy(&s->sin6_addr, a.bytes(), 16);
  s->sin6_scope_id = ifIndex;
  return sizeof(sockaddr_in6);
}

// Sends what goes to a group on `fd` out of `ifIndex` (IPv4 also from `src`); false when refused.
inline bool multicastIfIs(int fd, const Knet::IpGenAddr& src, U32 ifIndex) {
  if (src.af() == Knet::AddressFamily::ipv4) {
    ip_mreqn m{};
    std::memcpy(&m.imr_address, src.bytes(), 4);
    m.imr_ifindex = int(ifIndex);
    return ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &m, sizeof(m)) == 0;
  }
  const int i = int(ifIndex);
  return ::setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &i, sizeof(i)) == 0;
}

// `count` copies of one message to one address, sent with sendmmsg; a veth hands them to the
// peer's socket queue before the call returns.
class Burst {
 public:
  Burst(std::vector<U8> bytes, const Knet::IpGenAddr& to, U32 ifIndex, size_t count)
      : bytes_(std::move(bytes)), iov_(count, iovec{bytes_.data(), bytes_.size()}), msgs_(count) {
    const socklen_t len = sockAddr(to, ifIndex, to_);
    for (size_t i = 0; i < count; ++i) msgs_[i].msg_hdr = msghdr{&to_, len, &iov_[i], 1, nullptr, 0, 0};
  }
  const std::vector<U8>& bytes() const { return bytes_; }
  // Packets sent on `fd`; a full send buffer is tried again up to `tries` calls in all.
  size_t send(int fd, int tries = 1) {
    size_t sent = 0;
    for (int t = 0; sent < msgs_.size() && t < tries; ++t) {
      const int n = ::sendmmsg(fd, msgs_.data() + sent, unsigned(msgs_.size() - sent), 0);
      if (n > 0) sent += size_t(n);
    }
    return sent;
  }

 private:
  std::vector<U8> bytes_;
  sockaddr_storage to_;
  std::vector<iovec> iov_;
  std::vector<mmsghdr> msgs_;
};

// Runs the registered benchmarks with tracing off; without a lab says why and measures nothing.
inline int runNetnsBenchmarks(int argc, char** argv, const char* name) {
  Loom::traceLevelIs("*", 0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (const std::string why = PimTest::NetnsLab::unavailableReason(); !why.empty()) {
    std::cerr << name << ": skipped, it " << why << "\n";
    return 0;
  }
  if (!lab().ok()) {
    std::cerr << name << ": no namespace lab: " << lab().error() << "\n";
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace PimBench
