#include "knet/IpPam.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "loom/Assert.h"

#ifndef IPV6_HDRINCL
#define IPV6_HDRINCL 36  // in the kernel's uapi headers since Linux 4.5, not yet in every libc's
#endif

namespace Knet {

namespace {

constexpr U32 allFlags = ~U32(0);
// The kernel refuses longer classic-BPF programs (BPF_MAXINSNS).
constexpr U32 maxFilterInstructions = 4096;

bool isV4(AddressFamily af) { return af == AddressFamily::ipv4; }

// The destination as a socket address. A link-scope IPv6 destination names its interface too.
// Only the structure of the family is cleared: the kernel reads no further than the length
// returned, and clearing the whole storage on every send costs more than filling it.
socklen_t sockAddrOf(const IpGenAddr& a, U32 ifIndex, sockaddr_storage& out) {
  if (a.af() == AddressFamily::ipv4) {
    auto* s = reinterpret_cast<sockaddr_in*>(&out);
    std::memset(s, 0, sizeof(*s));
    s->sin_family = AF_INET;
    std::memcpy(&s->sin_addr, a.bytes(), 4);
    return sizeof(sockaddr_in);
  }
  auto* s = reinterpret_cast<sockaddr_in6*>(&out);
  std::memset(s, 0, sizeof(*s));
  s->sin6_family = AF_INET6;
  std::memcpy(&s->sin6_addr, a.bytes(), 16);
  const U8 b0 = a.bytes()[0], b1 = a.bytes()[1];
  const bool linkScope = (b0 == 0xfe && (b1 & 0xc0) == 0x80) || (b0 == 0xff && (b1 & 0x0f) <= 2);
  if (linkScope) s->sin6_scope_id = ifIndex;
  return sizeof(sockaddr_in6);
}

// Appends one control message of `len` bytes; returns where its data goes.
// The buffer is cleared when the first one goes in (the padding between them included), so that
// a packet without any does not pay for the clearing.
void* cmsgAdd(msghdr& m, cmsghdr*& at, int level, int type, size_t len) {
  if (!at) std::memset(m.msg_control, 0, m.msg_controllen);
  at = at ? CMSG_NXTHDR(&m, at) : CMSG_FIRSTHDR(&m);
  at->cmsg_level = level;
  at->cmsg_type = type;
  at->cmsg_len = CMSG_LEN(len);
  return CMSG_DATA(at);
}

void cmsgAddInt(msghdr& m, cmsghdr*& at, int level, int type, int value) {
  std::memcpy(cmsgAdd(m, at, level, type, sizeof(int)), &value, sizeof(int));
}

int cmsgInt(const cmsghdr* c) {
  if (c->cmsg_len >= CMSG_LEN(sizeof(int))) {
    int v;
    std::memcpy(&v, CMSG_DATA(c), sizeof(v));
    return v;
  }
  return c->cmsg_len >= CMSG_LEN(1) ? *CMSG_DATA(c) : 0;
}

}  // namespace

// Room for the control messages one received packet may carry: the packet info and two integers.
constexpr size_t rxControlSize = CMSG_SPACE(sizeof(in6_pktinfo)) + 2 * CMSG_SPACE(sizeof(int)) + 32;

// One receive slot per packet of a batch. Each slot's packet (and its buffer) is handed out and
// taken back for the next batch when no one holds either any more (the common case: the receive
// path keeps only what it decoded); a packet or buffer still held is left to its holder and the
// slot gets a new one.
struct IpPam::RxSlots {
  RxSlots(size_t count, U32 dataSize) : dataSize(dataSize), pkts(count), msgs(count), iov(count), names(count),
        control(count) {}
  U32 dataSize;
  std::vector<Loom::Ptr<Pkt>> pkts;
  std::vector<mmsghdr> msgs;
  std::vector<iovec> iov;
  std::vector<sockaddr_in6> names;
  struct alignas(cmsghdr) Control {
    U8 bytes[rxControlSize];
  };
  std::vector<Control> control;
};

IpPam::IpPam(std::string name, IpProtocolNumber protocol, NamespaceName netNs, AddressFamily af, U32 forcedFlags)
    : name_(std::move(name)), protocol_(protocol), netNs_(std::move(netNs)), af_(af), forcedFlags_(forcedFlags),
      flags_(forcedFlags) {
  LOOM_ASSERT(af == AddressFamily::ipv4 || af == AddressFamily::ipv6, "IpPam of an unknown address family");
}

IpPam::~IpPam() { closeFd(); }

IpSocketPam::IpSocketPam(std::string name, IpProtocolNumber protocol, NamespaceName netNs)
    : IpPam(std::move(name), protocol, std::move(netNs), AddressFamily::ipv4, 0) {}

Ip6SocketPam::Ip6SocketPam(std::string name, IpProtocolNumber protocol, NamespaceName netNs)
    : IpPam(std::move(name), protocol, std::move(netNs), AddressFamily::ipv6, 0) {}

Ip6HdrInclSocketPam::Ip6HdrInclSocketPam(std::string name, IpProtocolNumber protocol, NamespaceName netNs)
    : IpPam(std::move(name), protocol, std::move(netNs), AddressFamily::ipv6, flagHeaderIncluded) {}

// Counts a failed system call in `counter`, keeps its errno and traces it.
void IpPam::failed(U32& counter, const char* call) {
  lastErrno_ = errno;
  ++counter;
  LOOM_TRACE(knetTraceUnit, 1, name_ << ": " << call << " failed: " << std::strerror(lastErrno_));
}

void IpPam::closeFd() {
  if (fd_ < 0) return;
  ::close(fd_);
  fd_ = -1;
  mcIfIndex_ = ~0u;  // a new socket starts without multicast options
  filterAttached_ = false;
}

void IpPam::enabledIs(bool v) {
  if (v == enabled()) return;
  if (!v) {
    closeFd();
    notifiees_.notify(&Notifiee::onEnabled);
    return;
  }
  fd_ = openInNamespace();
  if (fd_ < 0) return;
  optionsApply(allFlags);
  if (priority_ != 0) optionSet(SOL_SOCKET, SO_PRIORITY, int(priority_), "setsockopt SO_PRIORITY");
  if (isV4(af_)) {
    optionSet(IPPROTO_IP, IP_TTL, defaultTxTtl, "setsockopt IP_TTL");
    optionSet(IPPROTO_IP, IP_MULTICAST_TTL, defaultTxTtl, "setsockopt IP_MULTICAST_TTL");
    optionSet(IPPROTO_IP, IP_TOS, defaultTxTos, "setsockopt IP_TOS");
  } else {
    optionSet(IPPROTO_IPV6, IPV6_UNICAST_HOPS, defaultTxTtl, "setsockopt IPV6_UNICAST_HOPS");
    optionSet(IPPROTO_IPV6, IPV6_MULTICAST_HOPS, defaultTxTtl, "setsockopt IPV6_MULTICAST_HOPS");
    optionSet(IPPROTO_IPV6, IPV6_TCLASS, defaultTxTos, "setsockopt IPV6_TCLASS");
  }
  for (const Group& g : groups_) groupApply(g, true);
  notifiees_.notify(&Notifiee::onEnabled);
}

std::string inNamespace(const NamespaceName& ns, const std::function<void()>& fn) {
  if (ns.empty()) {
    fn();
    return "";
  }
  const int home = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (home < 0) return "open /proc/thread-self/ns/net";
  const std::string path = "/run/netns/" + ns;
  const int target = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  std::string failedCall;
  if (target < 0) {
    failedCall = "open " + path;
  } else if (::setns(target, CLONE_NEWNET) < 0) {
    failedCall = "setns";
  } else {
    fn();
    if (::setns(home, CLONE_NEWNET) < 0) failedCall = "setns back";
  }
  const int error = errno;
  if (target >= 0) ::close(target);
  ::close(home);
  errno = error;
  return failedCall;
}

// Opens the socket with this thread inside the named namespace, and comes back to the thread's
// own namespace whatever happened.
int IpPam::openInNamespace() {
  const int domain = isV4(af_) ? AF_INET : AF_INET6;
  const int type = SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC;
  int fd = -1;
  const std::string failedCall = inNamespace(netNs_, [&] {
    fd = ::socket(domain, type, protocol_);
    if (fd < 0) failed(callErrors_, "socket");
  });
  if (!failedCall.empty()) failed(callErrors_, failedCall.c_str());
  return fd;
}

bool IpPam::optionSet(int level, int option, int value, const char* what) {
  if (::setsockopt(fd_, level, option, &value, sizeof(value)) == 0) return true;
  failed(callErrors_, what);
  return false;
}

// Sets the options of the flags in `changed` to the flags' current values.
void IpPam::optionsApply(U32 changed) {
  if (fd_ < 0) return;
  const bool v4 = isV4(af_);
  const int ip = v4 ? IPPROTO_IP : IPPROTO_IPV6;
  auto on = [this](U32 f) { return (flags_ & f) ? 1 : 0; };
  if (changed & flagHeaderIncluded) {
    optionSet(ip, v4 ? IP_HDRINCL : IPV6_HDRINCL, on(flagHeaderIncluded), v4 ? "setsockopt IP_HDRINCL"
                                                                                : "setsockopt IPV6_HDRINCL");
  }
  if (changed & flagPktInfo) {
    optionSet(ip, v4 ? IP_PKTINFO : IPV6_RECVPKTINFO, on(flagPktInfo),
              v4 ? "setsockopt IP_PKTINFO" : "setsockopt IPV6_RECVPKTINFO");
  }
  if (changed & flagTransparent) {
    optionSet(ip, v4 ? IP_TRANSPARENT : IPV6_TRANSPARENT, on(flagTransparent),
              v4 ? "setsockopt IP_TRANSPARENT" : "setsockopt IPV6_TRANSPARENT");
  }
  if (changed & flagNoMulticastLoop) {
    optionSet(ip, v4 ? IP_MULTICAST_LOOP : IPV6_MULTICAST_LOOP, 1 - on(flagNoMulticastLoop),
              v4 ? "setsockopt IP_MULTICAST_LOOP" : "setsockopt IPV6_MULTICAST_LOOP");
  }
  if (changed & flagRxTtlTos) {
    optionSet(ip, v4 ? IP_RECVTTL : IPV6_RECVHOPLIMIT, on(flagRxTtlTos),
              v4 ? "setsockopt IP_RECVTTL" : "setsockopt IPV6_RECVHOPLIMIT");
    optionSet(ip, v4 ? IP_RECVTOS : IPV6_RECVTCLASS, on(flagRxTtlTos),
              v4 ? "setsockopt IP_RECVTOS" : "setsockopt IPV6_RECVTCLASS");
  }
  if (changed & flagFilter) filterApply();
}

void IpPam::flagsIs(U32 v) {
  v |= forcedFlags_;
  if (v == flags_) return;
  const U32 changed = v ^ flags_;
  flags_ = v;
  optionsApply(changed);
}

void IpPam::priorityIs(U32 v) {
  if (v == priority_) return;
  priority_ = v;
  if (fd_ >= 0) optionSet(SOL_SOCKET, SO_PRIORITY, int(v), "setsockopt SO_PRIORITY");
}

void IpPam::maxRxPktDataIs(U32 v) {
  if (v == maxRxPktData_) return;
  maxRxPktData_ = v;
  rx_.reset();
}

void IpPam::readableInc() {
  ++readable_;
  notifiees_.notify(&Notifiee::onReadable);
}

// Attaches the program while flagFilter is set and the program has instructions, else detaches
// the one attached before.
void IpPam::filterApply() {
  if (fd_ < 0) return;
  if ((flags_ & flagFilter) && !rxFilter_.empty()) {
    std::vector<sock_filter> code(rxFilter_.size());
    for (size_t i = 0; i < code.size(); ++i) {
      const IpFilter& f = rxFilter_[i];
      code[i] = sock_filter{f.code, f.jt, f.jf, f.k};
    }
    const sock_fprog prog{static_cast<unsigned short>(code.size()), code.data()};
    if (::setsockopt(fd_, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof(prog)) == 0) {
      filterAttached_ = true;
    } else {
      failed(callErrors_, "setsockopt SO_ATTACH_FILTER");
    }
  } else if (filterAttached_) {
    filterAttached_ = false;
    const int unused = 0;
    if (::setsockopt(fd_, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof(unused)) != 0) {
      failed(callErrors_, "setsockopt SO_DETACH_FILTER");
    }
  }
}

void IpPam::rxFilterIs(U32 index, const IpFilter& f) {
  if (index >= maxFilterInstructions) {
    LOOM_TRACE(knetTraceUnit, 1, name_ << ": filter instruction " << index << " beyond the longest program ("
                                       << maxFilterInstructions << ")");
    return;
  }
  if (index >= rxFilter_.size()) rxFilter_.resize(index + 1, IpFilter{0, 0, 0, 0});
  else if (rxFilter_[index] == f) return;
  rxFilter_[index] = f;
  filterApply();
}

void IpPam::rxFilterDelAll() {
  if (rxFilter_.empty()) return;
  rxFilter_.clear();
  filterApply();
}

bool IpPam::groupApply(const Group& g, bool join) {
  if (fd_ < 0) return true;
  int rc;
  if (isV4(af_)) {
    ip_mreqn m{};
    std::memcpy(&m.imr_multiaddr, g.second.bytes(), 4);
    m.imr_ifindex = int(g.first);
    rc = ::setsockopt(fd_, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &m, sizeof(m));
  } else {
    ipv6_mreq m{};
    std::memcpy(&m.ipv6mr_multiaddr, g.second.bytes(), 16);
    m.ipv6mr_interface = g.first;
    rc = ::setsockopt(fd_, IPPROTO_IPV6, join ? IPV6_ADD_MEMBERSHIP : IPV6_DROP_MEMBERSHIP, &m, sizeof(m));
  }
  if (rc == 0) return true;
  failed(callErrors_, join ? "setsockopt ADD_MEMBERSHIP" : "setsockopt DROP_MEMBERSHIP");
  return false;
}

void IpPam::groupIs(U32 ifIndex, const IpGenAddr& group) {
  if (group.af() != af_ || !group.isMulticast()) {
    LOOM_TRACE(knetTraceUnit, 1, name_ << ": " << group << " is not a multicast group of the socket's family");
    return;
  }
  if (groups_.insert({ifIndex, group}).second) groupApply({ifIndex, group}, true);
}

void IpPam::groupDel(U32 ifIndex, const IpGenAddr& group) {
  if (groups_.erase({ifIndex, group})) groupApply({ifIndex, group}, false);
}

size_t IpPam::rxPktBatch(std::vector<RxPkt>& out, size_t max) {
  out.clear();
  if (fd_ < 0 || max == 0) return 0;
  max = std::min(max, maxBatch);
  if (!rx_ || rx_->msgs.size() < max) rx_ = std::make_unique<RxSlots>(std::max(max, size_t(8)), maxRxPktData_);
  RxSlots& s = *rx_;
  for (size_t i = 0; i < max; ++i) {
    Loom::Ptr<Pkt>& p = s.pkts[i];
    if (!p || p->references() > 1 || p->dataShared() || p->capacity() != s.dataSize) {
      p = new Pkt(new PktBuffer(s.dataSize, PktBuffer::Unzeroed()), 0, s.dataSize);
    }
    p->windowIs(s.dataSize);
    s.iov[i] = {p->data(), s.dataSize};
    msghdr& h = s.msgs[i].msg_hdr;
    h = msghdr{};
    h.msg_name = &s.names[i];
    h.msg_namelen = sizeof(sockaddr_in6);
    h.msg_iov = &s.iov[i];
    h.msg_iovlen = 1;
    h.msg_control = s.control[i].bytes;
    h.msg_controllen = rxControlSize;
  }
  const int n = ::recvmmsg(fd_, s.msgs.data(), unsigned(max), MSG_DONTWAIT, nullptr);
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
    failed(rxErrors_, "recvmmsg");
    notifiees_.notify(&Notifiee::onRxErrors);
    return 0;
  }
  const U32 errorsBefore = rxErrors_;
  const AddressFamily af = af_;
  for (int i = 0; i < n; ++i) {
    msghdr& h = s.msgs[i].msg_hdr;
    const U32 len = s.msgs[i].msg_len;
    if (h.msg_flags & MSG_TRUNC) {
      ++rxErrors_;
      LOOM_TRACE(knetTraceUnit, 1, name_ << ": received packet longer than " << s.dataSize << " bytes dropped");
      continue;
    }
    if (len > PktManager::instance().maxPktSize()) {
      ++rxErrors_;
      LOOM_TRACE(knetTraceUnit, 1, name_ << ": received packet of " << len << " bytes above the packet size limit");
      continue;
    }
    RxPkt& r = out.emplace_back();
    s.pkts[i]->windowIs(len);
    r.pkt = s.pkts[i];
    if (af == AddressFamily::ipv4) {
      const auto* from = reinterpret_cast<const sockaddr_in*>(&s.names[i]);
      r.src = IpGenAddr::fromBytes(AddressFamily::ipv4, reinterpret_cast<const U8*>(&from->sin_addr));
    } else {
      r.src = IpGenAddr::fromBytes(AddressFamily::ipv6, s.names[i].sin6_addr.s6_addr);
    }
    for (cmsghdr* c = CMSG_FIRSTHDR(&h); c; c = CMSG_NXTHDR(&h, c)) {
      if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO && c->cmsg_len >= CMSG_LEN(sizeof(in_pktinfo))) {
        in_pktinfo pi;
        std::memcpy(&pi, CMSG_DATA(c), sizeof(pi));
        r.ifIndex = U32(pi.ipi_ifindex);
        r.dst = IpGenAddr::fromBytes(AddressFamily::ipv4, reinterpret_cast<const U8*>(&pi.ipi_addr));
      } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO &&
                 c->cmsg_len >= CMSG_LEN(sizeof(in6_pktinfo))) {
        in6_pktinfo pi;
        std::memcpy(&pi, CMSG_DATA(c), sizeof(pi));
        r.ifIndex = pi.ipi6_ifindex;
        r.dst = IpGenAddr::fromBytes(AddressFamily::ipv6, pi.ipi6_addr.s6_addr);
      } else if ((c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TTL) ||
                 (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_HOPLIMIT)) {
        r.ttl = U8(cmsgInt(c));
      } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS) {
        r.tos = c->cmsg_len >= CMSG_LEN(1) ? *CMSG_DATA(c) : 0;  // one byte, unlike the other options
      } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
        r.tos = U8(cmsgInt(c));
      }
    }
  }
  rxPkts_ += U32(out.size());
  if (rxErrors_ != errorsBefore) notifiees_.notify(&Notifiee::onRxErrors);
  return out.size();
}

bool IpPam::multicastIfIs(U32 ifIndex, const IpGenAddr& src) {
  if (ifIndex == mcIfIndex_ && src == mcSrc_) return true;
  ip_mreqn m{};
  if (src.af() == AddressFamily::ipv4) std::memcpy(&m.imr_address, src.bytes(), 4);
  m.imr_ifindex = int(ifIndex);
  if (::setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_IF, &m, sizeof(m)) < 0) {
    mcIfIndex_ = ~0u;
    return false;
  }
  mcIfIndex_ = ifIndex;
  mcSrc_ = src;
  return true;
}

bool IpPam::txPkt(const Pkt& pkt, const TxParams& p) {
  if (p.dst.af() != af_) {
    lastErrno_ = EAFNOSUPPORT;
    ++txErrors_;
    LOOM_TRACE(knetTraceUnit, 1, name_ << ": destination " << p.dst << " is not of the socket's family");
    notifiees_.notify(&Notifiee::onTxErrors);
    return false;
  }
  sockaddr_storage to;
  msghdr m{};
  m.msg_name = &to;
  m.msg_namelen = sockAddrOf(p.dst, p.ifIndex, to);
  iovec iov{const_cast<U8*>(pkt.data()), pkt.size()};
  m.msg_iov = &iov;
  m.msg_iovlen = 1;
  alignas(cmsghdr) U8 control[CMSG_SPACE(sizeof(in6_pktinfo)) + 2 * CMSG_SPACE(sizeof(int))];  // cleared by cmsgAdd
  m.msg_control = control;
  m.msg_controllen = sizeof(control);
  cmsghdr* c = nullptr;
  const bool full = flags_ & flagHeaderIncluded;
  if (isV4(af_)) {
    // To a group, the interface and source are the socket's multicast options, set when they
    // change: the kernel then routes the packet without the per-packet lookup that packet info
    // costs. Anything else names them in packet info.
    if (!p.dst.isMulticast() || !multicastIfIs(p.ifIndex, full ? IpGenAddr() : p.src)) {
      in_pktinfo pi{};
      pi.ipi_ifindex = int(p.ifIndex);
      if (!full && p.src.af() == AddressFamily::ipv4) std::memcpy(&pi.ipi_spec_dst, p.src.bytes(), 4);
      std::memcpy(cmsgAdd(m, c, IPPROTO_IP, IP_PKTINFO, sizeof(pi)), &pi, sizeof(pi));
    }
    if (!full && p.ttl != defaultTxTtl) cmsgAddInt(m, c, IPPROTO_IP, IP_TTL, p.ttl);
    if (!full && p.tos != defaultTxTos) cmsgAddInt(m, c, IPPROTO_IP, IP_TOS, p.tos);
  } else {
    in6_pktinfo pi{};
    pi.ipi6_ifindex = p.ifIndex;
    if (!full && p.src.af() == AddressFamily::ipv6) std::memcpy(&pi.ipi6_addr, p.src.bytes(), 16);
    std::memcpy(cmsgAdd(m, c, IPPROTO_IPV6, IPV6_PKTINFO, sizeof(pi)), &pi, sizeof(pi));
    if (!full && p.ttl != defaultTxTtl) cmsgAddInt(m, c, IPPROTO_IPV6, IPV6_HOPLIMIT, p.ttl);
    if (!full && p.tos != defaultTxTos) cmsgAddInt(m, c, IPPROTO_IPV6, IPV6_TCLASS, p.tos);
  }
  // Without ancillary data a plain sendto does: the kernel then skips copying in a message header.
  ssize_t sent;
  if (c) {
    m.msg_controllen = reinterpret_cast<U8*>(c) + CMSG_SPACE(c->cmsg_len - CMSG_LEN(0)) - control;
    sent = ::sendmsg(fd_, &m, 0);
  } else {
    sent = ::sendto(fd_, pkt.data(), pkt.size(), 0, reinterpret_cast<sockaddr*>(&to), m.msg_namelen);
  }
  if (sent < 0) {
    failed(txErrors_, "sendmsg");
    notifiees_.notify(&Notifiee::onTxErrors);
    return false;
  }
  ++txPkts_;
  notifiees_.notify(&Notifiee::onTxPkts);
  return true;
}

}  // namespace Knet
