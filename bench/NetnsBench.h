#pragma once
// What the benchmarks on a veth pair between two network namespaces share: the one lab of the
// process, a socket address for a bare baseline, and the main() that says why it measures nothing
// when no lab can be made here (not root).
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <iostream>

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
