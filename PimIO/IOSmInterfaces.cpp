// The state machine's side of the router's interfaces: the manager's interface tables kept in step
// with the devices, the socket's membership in ALL-PIM-ROUTERS on every PIM interface whose device
// exists, and the kernel receive filter that admits only the PIM types with a receive slot.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "PimIO/IOSm.h"
#include "loom/Assert.h"

namespace Routing::Pim::IO {

namespace {

// Classic BPF opcodes of the filter program.
constexpr U16 bpfLdAbsByte = 0x30;  // A = byte at absolute offset k
constexpr U16 bpfLdIndByte = 0x50;  // A = byte at offset X + k
constexpr U16 bpfAndK = 0x54;       // A &= k
constexpr U16 bpfLshK = 0x64;       // A <<= k
constexpr U16 bpfTax = 0x07;        // X = A
constexpr U16 bpfJeqK = 0x15;       // jump jt if A == k, else jf
constexpr U16 bpfRetK = 0x06;       // accept k bytes (0: drop)
constexpr U32 acceptWholePacket = 0x0fffffff;

constexpr const char* igmpMaxMembershipsPath = "/proc/sys/net/ipv4/igmp_max_memberships";

std::string errnoText(int error) { return std::to_string(error) + " (" + std::strerror(error) + ")"; }

// Reads and raises the IPv4 membership limit of a socket's namespace (the limit is the
// namespace's, read and written from inside it). On success `from` and `to` hold the old and new
// limit; otherwise `error` holds the errno of the call that failed.
bool raiseIgmpMaxMemberships(const std::string& netNs, long& from, long& to, int& error) {
  bool ok = false;
  const std::string failedCall = Knet::inNamespace(netNs, [&] {
    const int fd = ::open(igmpMaxMembershipsPath, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
      error = errno;
    } else {
      char buf[32] = {};
      const ssize_t n = ::read(fd, buf, sizeof(buf) - 1);
      if (n <= 0) {
        error = n < 0 ? errno : EIO;
      } else {
        from = std::strtol(buf, nullptr, 10);
        // Doubling keeps the number of raises logarithmic in the number of interfaces.
        to = from > 0 ? from * 2 : 20;
        const std::string text = std::to_string(to) + "\n";
        if (::pwrite(fd, text.data(), text.size(), 0) == ssize_t(text.size())) {
          ok = true;
        } else {
          error = errno;
        }
      }
      ::close(fd);
    }
  });
  if (failedCall.empty()) return ok;
  error = errno;
  return false;
}

}  // namespace

// ---- The kernel receive filter

// Rebuilds the program from index 0: the PIM type into A, one comparison per receive slot in
// rising type order, each match jumping to the accepting return, a miss of the last one skipping
// it. Without any slot the socket is left without a filter and passes every PIM packet.
void IOSm::handlePamFilter() {
  trace(8, "handlePamFilter");
  PamManager* m = pimPamManager_.ptr();
  if (!m) return;
  if (m->bpfLen() != 0) m->doResetFilter();
  U32 present = 0;
  for (Packet::MessageType t = 0; t < PamManager::rxSlots; ++t) present += m->rxMessageInfo(t) ? 1 : 0;
  if (present == 0) return;
  if (m->addressFamily() == Knet::AddressFamily::ipv4) {
    // The IPv4 socket sees the IP header: the PIM header starts after IHL 32-bit words.
    m->doAddFilterStmt(bpfLdAbsByte, 0);
    m->doAddFilterStmt(bpfAndK, 0x0f);
    m->doAddFilterStmt(bpfLshK, 2);
    m->doAddFilterStmt(bpfTax, 0);
    m->doAddFilterStmt(bpfLdIndByte, 0);
    m->doAddFilterStmt(bpfAndK, 0x0f);
  } else if (m->addressFamily() == Knet::AddressFamily::ipv6) {
    // The IPv6 socket sees the packet from the PIM header on.
    m->doAddFilterStmt(bpfLdAbsByte, 0);
    m->doAddFilterStmt(bpfAndK, 0x0f);
  } else {
    LOOM_ASSERT(false, "Unknown Address family");
  }
  U32 i = 0;
  for (Packet::MessageType t = 0; t < PamManager::rxSlots; ++t) {
    if (!m->rxMessageInfo(t)) continue;
    ++i;
    const bool last = i == present;
    m->doAddFilterJmp(bpfJeqK, t, last ? 0 : U8(present - i), last ? 1 : 0);
  }
  m->doAddFilterStmt(bpfRetK, acceptWholePacket);
  m->doAddFilterStmt(bpfRetK, 0);
  m->doApplyFilter();
}

// ---- Interfaces

// At initialisation: every device the directory holds fills the tables, and a PIM interface
// among them joins.
void IOSm::handleInterface() {
  trace(8, "handleInterface");
  if (!pimPamManager_ || !kernelIntfStatusDir_) return;
  for (const auto& [id, status] : kernelIntfStatusDir_->intfStatusAndDeviceName()) {
    pimPamManager_->kernelIntfIs(status.ifIndex)->intfIdIs(id);
    pimPamManager_->intfIs(id)->ifIndexIs(status.ifIndex);
    if (pimStatus_ && pimStatus_->pimIntf(id) && !status.isEmpty()) addPimRoutersMembership(id, status.ifIndex);
  }
}

// The device of `id` changed: a gone device leaves the tables (the kernel dropped its memberships
// with it); a present one is entered under its index and joins or leaves as PIM wants.
void IOSm::handleInterface(const Knet::IntfId& id) {
  {
    std::ostringstream os;
    os << "handleInterface( " << id;
    trace(8, os.str());
  }
  if (!pimPamManager_ || !kernelIntfStatusDir_) return;
  const Interface::IntfStatusAndDeviceName status = kernelIntfStatusDir_->intfStatusAndDeviceName(id);
  if (status.isEmpty()) {
    if (const auto known = pimPamManager_->intf(id)) pimPamManager_->kernelIntfDel(known->ifIndex());
    pimPamManager_->intfDel(id);
    return;
  }
  pimPamManager_->kernelIntfIs(status.ifIndex)->intfIdIs(id);
  pimPamManager_->intfIs(id)->ifIndexIs(status.ifIndex);
  doMaybeUpdatePimRoutersMembership(id, status.ifIndex);
}

// PIM was enabled or disabled on `id` (before its reactor comes or goes). A device the manager
// does not know yet is left alone: its handleInterface joins when it comes.
void IOSm::handlePimInterface(const Knet::IntfId& id) {
  trace(8, "handlePimInterface");
  if (!pimPamManager_) return;
  const auto known = pimPamManager_->intf(id);
  if (!known) return;
  doMaybeUpdatePimRoutersMembership(id, known->ifIndex());
  if (pimStatus_ && pimStatus_->pimIntf(id)) return;
  if (!pimCounters_) return;
  for (U8 type = 0; type < PamManager::rxSlots; ++type) {
    pimCounters_->msgCounterDel({id, type, Cask::CounterKey::anySubtype});
  }
}

// ---- ALL-PIM-ROUTERS membership

void IOSm::doMaybeUpdatePimRoutersMembership(const Knet::IntfId& id, U32 ifIndex) {
  trace(8, "doMaybeUpdatePimRoutersMembership");
  const bool pim = pimStatus_ && pimStatus_->pimIntf(id);
  const Interface::IntfStatusAndDeviceName& status = kernelIntfStatusDir_
                                                         ? kernelIntfStatusDir_->intfStatusAndDeviceName(id)
                                                         : Interface::IntfStatusAndDeviceName::empty();
  if (pim && !status.isEmpty()) {
    addPimRoutersMembership(id, status.ifIndex);
  } else {
    dropPimRoutersMembership(id, ifIndex);
  }
}

// One IP_ADD_MEMBERSHIP / IP_DROP_MEMBERSHIP (IPv6: IPV6_ADD_MEMBERSHIP / IPV6_DROP_MEMBERSHIP) of
// the group on the socket's descriptor; false with `error` set when the kernel refused it.
bool IOSm::doSetMembership(bool join, U32 ifIndex, int& error) {
  Knet::IpPam* pam = pimPam();
  const int fd = pam ? pam->fd() : -1;
  int rc;
  if (pimPamManager_->addressFamily() == Knet::AddressFamily::ipv4) {
    ip_mreqn m{};
    std::memcpy(&m.imr_multiaddr, Knet::allPimRouters(Knet::AddressFamily::ipv4).bytes(), 4);
    m.imr_ifindex = int(ifIndex);
    rc = ::setsockopt(fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &m, sizeof(m));
  } else {
    ipv6_mreq m{};
    std::memcpy(&m.ipv6mr_multiaddr, Knet::allPimRouters(Knet::AddressFamily::ipv6).bytes(), 16);
    m.ipv6mr_interface = ifIndex;
    rc = ::setsockopt(fd, IPPROTO_IPV6, join ? IPV6_ADD_MEMBERSHIP : IPV6_DROP_MEMBERSHIP, &m, sizeof(m));
  }
  error = rc == 0 ? 0 : errno;
  return rc == 0;
}

// Joins the group on the interface once. The id is recorded as member whatever the kernel said,
// so that a later change of the device leads to one drop and a fresh join, not to repeated joins.
// A join refused because the namespace's IPv4 membership limit is reached raises the limit (when
// this process may) and is tried once more.
void IOSm::addPimRoutersMembership(const Knet::IntfId& id, U32 ifIndex) {
  std::ostringstream os;
  os << "addPimRoutersMembership( " << id << ", " << ifIndex;
  trace(8, os.str());
  if (allPimRoutersMember_.contains(id) || !pimPamManager_) return;
  const Knet::AddressFamily af = pimPamManager_->addressFamily();
  os.str("");
  os << "Add ALL-PIM-ROUTERS Group Membership - IntfId: " << id << " IfIndex: " << ifIndex;
  trace(3, os.str());
  if (af != Knet::AddressFamily::ipv4 && af != Knet::AddressFamily::ipv6) {
    os.str("");
    os << "Unsupported address family " << af;
    trace(1, os.str());
    return;
  }
  int error = 0;
  bool joined = doSetMembership(true, ifIndex, error);
  if (!joined && error == ENOBUFS && af == Knet::AddressFamily::ipv4) {
    long from = 0, to = 0;
    int raiseError = 0;
    if (raiseIgmpMaxMemberships(pimPamManager_->netNs(), from, to, raiseError)) {
      ++membershipLimitRaises_;
      trace(3, "Raised net.ipv4.igmp_max_memberships from " + std::to_string(from) + " to " + std::to_string(to));
      joined = doSetMembership(true, ifIndex, error);
    } else {
      trace(1, "Cannot raise net.ipv4.igmp_max_memberships: " + errnoText(raiseError));
    }
  }
  if (!joined) {
    ++membershipErrors_;
    const char* failed = af == Knet::AddressFamily::ipv4 ? "Add ALL-PIM-ROUTERS Group Membership - Failed - Error: "
                                                         : "Add ALL-PIMV6-ROUTERS Group Membership - Failed - Error: ";
    os.str("");
    os << failed << error << (error == ENODEV ? "( Device is not ready yet )" : "") << " IntfId: " << id
       << " IfIndex: " << ifIndex;
    trace(error == ENODEV ? 5 : 1, os.str());
    if (error != ENODEV) trace(1, "setsockopt ADD_MEMBERSHIP failed: " + errnoText(error));
  }
  allPimRoutersMemberIs(id);
}

// Leaves the group on the interface if a join was issued. A device or membership that is already
// gone (ENODEV, EADDRNOTAVAIL) is the expected end of a device that went away: not an error.
void IOSm::dropPimRoutersMembership(const Knet::IntfId& id, U32 ifIndex) {
  std::ostringstream os;
  os << "dropPimRoutersMembership( " << id << ", " << ifIndex;
  trace(8, os.str());
  if (!allPimRoutersMember_.contains(id) || !pimPamManager_) return;
  const Knet::AddressFamily af = pimPamManager_->addressFamily();
  const bool v4 = af == Knet::AddressFamily::ipv4;
  if (!v4 && af != Knet::AddressFamily::ipv6) {
    os.str("");
    os << "Unsupported Address family " << af;
    trace(1, os.str());
    return;
  }
  os.str("");
  os << (v4 ? "Drop ALL-PIM-ROUTERS Group Membership - IntfId: " : "Drop ALL-PIMV6-ROUTERS Group Membership - IntfId: ")
     << id << " IfIndex: " << ifIndex;
  trace(3, os.str());
  int error = 0;
  if (!doSetMembership(false, ifIndex, error) && error != ENODEV && error != EADDRNOTAVAIL) {
    ++membershipErrors_;
    os.str("");
    os << (v4 ? "Drop ALL-PIM-ROUTERS Group Membership - Failed - Error: "
              : "Drop ALL-PIMV6-ROUTERS Group Membership - Failed - Error: ")
       << error << " IntfId: " << id << " IfIndex: " << ifIndex;
    trace(1, os.str());
    trace(1, "setsockopt DROP_MEMBERSHIP failed: " + errnoText(error));
  }
  allPimRoutersMemberDel(id);
}

}  // namespace Routing::Pim::IO
