#pragma once
// A namespace lab for tests that need real sockets: two network namespaces with unique names
// (pimio-<pid>-<n>-a and -b), one veth pair between them (pa in a, pb in b), each end up with an
// IPv4 address in 10.99.0.0/24, a ULA in fd00:99::/64 and a fixed link-local (fe80::a, fe80::b),
// all without duplicate address detection so that they are usable at once. Every command runs
// under `timeout`; the namespaces, and the veth with them, are deleted by the destructor, and
// namespaces that a crashed test process left behind are deleted by the next lab.
#include <string>
#include <vector>

#include "knet/Address.h"

namespace PimTest {

// Runs a shell command bounded in time (10 s); its exit status, its output (stdout and stderr) into `out`.
int shell(const std::string& command, std::string* out = nullptr);
// Deletes the namespaces named PREFIX<pid>-... of processes that are gone (a run that crashed mid-way).
void deleteStaleNamespaces(const std::string& prefix);

class NetnsLab {
 public:
  NetnsLab();
  ~NetnsLab();
  NetnsLab(const NetnsLab&) = delete;
  NetnsLab& operator=(const NetnsLab&) = delete;

  // Why no lab can be made here at all (not root, no `ip`); empty when one can.
  static std::string unavailableReason();
  // True when CI=true: then a lab that cannot run is a failure, not a skip.
  static bool required();

  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }

  const std::string& nsA() const { return nsA_; }
  const std::string& nsB() const { return nsB_; }
  // Kernel interface indexes of the veth ends.
  U32 ifIndexA() const { return ifIndexA_; }
  U32 ifIndexB() const { return ifIndexB_; }
  // Addresses of each end, by family; the link-locals apart.
  Knet::IpGenAddr addrA(Knet::AddressFamily af) const;
  Knet::IpGenAddr addrB(Knet::AddressFamily af) const;
  static Knet::IpGenAddr linkLocalA();
  static Knet::IpGenAddr linkLocalB();

  // What a shell command (bounded in time) prints, standard error included.
  static std::string output(const std::string& command);
  // A non-blocking packet socket in namespace `ns` that sees every IP packet on interface
  // `ifIndex` from its IP header on (what went on the wire); -1 on failure.
  static int packetSocket(const std::string& ns, U32 ifIndex);
  // The IPv4 and IPv6 packets of protocol 103 that the packet socket reads until `count` are
  // there or `seconds` have passed.
  static std::vector<std::vector<U8>> pimPackets(int fd, size_t count, double seconds = 1.0);

 private:
  bool run(const std::string& command);
  U32 ifIndexOf(const std::string& ns, const char* intf);
  std::string nsA_, nsB_, error_;
  U32 ifIndexA_ = 0, ifIndexB_ = 0;
};

}  // namespace PimTest

// Makes `lab` in a test body; skips the test when no lab can run here, fails when CI requires one
// or when making it failed.
#define PIMIO_NETNS_LAB(lab)                                                               \
  if (const std::string why = ::PimTest::NetnsLab::unavailableReason(); !why.empty()) {   \
    if (::PimTest::NetnsLab::required()) FAIL() << "CI=true but " << why;                 \
    GTEST_SKIP() << why;                                                                  \
  }                                                                                        \
  ::PimTest::NetnsLab lab;                                                                 \
  ASSERT_TRUE(lab.ok()) << lab.error()
