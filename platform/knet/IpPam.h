#pragma once
// Packet access through the kernel's raw IP sockets. An IpPam is one raw socket of one IP protocol
// in one network namespace: it opens when enabled, receives packets in batches with the receive
// interface and addresses, sends one packet at a time with its source, interface, TTL and TOS
// given per packet, and carries a classic-BPF program that the kernel runs before queueing.
//
// Threading: an IpPam belongs to the thread that uses it. Opening switches only that thread's
// namespace, and switches it back before returning.
//
// Failing system calls never throw: each is counted, its errno kept in lastErrno() and traced at
// level 1 as "<call> failed: <errno text>" under the trace unit "Knet".
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "knet/Address.h"
#include "knet/Pkt.h"
#include "loom/Entity.h"
#include "loom/Trace.h"

namespace Knet {

inline Loom::TraceUnit knetTraceUnit{"Knet"};

using NamespaceName = std::string;  // a name under /run/netns; "" is the namespace of the caller

// Runs `fn` with this thread inside network namespace `ns` ("" runs it where the thread is) and
// brings the thread back whatever `fn` did. Returns the call that failed, with errno as it left
// it: "open /proc/thread-self/ns/net", "open /run/netns/NS" or "setns" (then `fn` did not run),
// or "setns back"; empty when all went well. What `fn` opens stays in the namespace it was opened in.
std::string inNamespace(const NamespaceName& ns, const std::function<void()>& fn);
using IpProtocolNumber = U8;

// One classic-BPF instruction, laid out as the kernel's struct sock_filter.
struct IpFilter {
  U16 code;
  U8 jt;
  U8 jf;
  U32 k;
  friend bool operator==(const IpFilter&, const IpFilter&) = default;
};

// A received packet. ifIndex and dst come from IP_PKTINFO / IPV6_PKTINFO (0 and unset without
// flagPktInfo); src is the sender's address. ttl and tos are the received TTL / hop limit and
// TOS / traffic class when flagRxTtlTos is set, 0 otherwise.
struct RxPkt {
  Loom::Ptr<Pkt> pkt;
  U32 ifIndex = 0;
  IpGenAddr src, dst;
  U8 ttl = 0;
  U8 tos = 0;
};

// How one packet is sent. In the header-included modes only ifIndex and dst are used.
// The TTL and TOS that PIM sends most (TTL 1, internetwork-control precedence) are the socket's
// own options, set when it opens; a packet with others carries its own as ancillary data, which
// costs the kernel an allocation per send.
constexpr U8 defaultTxTtl = 1;
constexpr U8 defaultTxTos = 192;

struct TxParams {
  U32 ifIndex = 0;
  IpGenAddr src;
  IpGenAddr dst;
  U8 ttl = defaultTxTtl;
  U8 tos = defaultTxTos;
};

class IpPam : public Loom::Entity {
 public:
  // The flag word. Each bit maps onto socket options, set when the socket opens and whenever the
  // flags change while it is open:
  //   flagHeaderIncluded   IPv4: IP_HDRINCL, txPkt sends packets that start with their IPv4 header.
  //                        IPv6: IPV6_HDRINCL, txPkt sends complete IPv6 packets (always set in
  //                        Ip6HdrInclSocketPam). Receiving is unchanged: an IPv6 raw socket never
  //                        sees the IPv6 header, an IPv4 raw socket always sees the IPv4 header.
  //   flagPktInfo          IP_PKTINFO / IPV6_RECVPKTINFO: the receive interface and destination.
  //   flagTransparent      IP_TRANSPARENT / IPV6_TRANSPARENT: send from addresses not on this host.
  //   flagFilter           the rxFilter() program attached with SO_ATTACH_FILTER; detached with
  //                        SO_DETACH_FILTER when cleared or when the program is emptied.
  //   flagNoMulticastLoop  IP_MULTICAST_LOOP / IPV6_MULTICAST_LOOP off: multicast sent is not
  //                        looped back to sockets of this host.
  //   flagRxTtlTos         IP_RECVTTL + IP_RECVTOS / IPV6_RECVHOPLIMIT + IPV6_RECVTCLASS: the
  //                        received TTL (hop limit) and TOS (traffic class) in RxPkt, which an
  //                        agent checks on link-local protocol packets.
  static constexpr U32 flagHeaderIncluded = 0x2;
  static constexpr U32 flagPktInfo = 0x8;
  static constexpr U32 flagTransparent = 0x200;
  static constexpr U32 flagFilter = 0x400;
  static constexpr U32 flagNoMulticastLoop = 0x800;
  static constexpr U32 flagRxTtlTos = 0x1000;

  // The most packets one rxPktBatch takes.
  static constexpr size_t maxBatch = 64;

  class Notifiee : public Loom::BaseNotifiee<IpPam> {
   public:
    virtual void onReadable() {}
    virtual void onTxPkts() {}
    virtual void onTxErrors() {}
    virtual void onRxErrors() {}
    virtual void onEnabled() {}
  };

  ~IpPam() override;
  IpPam(const IpPam&) = delete;
  IpPam& operator=(const IpPam&) = delete;

  const std::string& name() const { return name_; }
  IpProtocolNumber protocol() const { return protocol_; }
  const NamespaceName& netNs() const { return netNs_; }
  AddressFamily af() const { return af_; }

  U32 flags() const { return flags_; }
  void flagsIs(U32 v);
  // SO_PRIORITY of what this socket sends (6 is network control traffic).
  U32 priority() const { return priority_; }
  void priorityIs(U32 v);

  // Enabling opens the socket, non-blocking, in netNs(); disabling closes it. When the open fails
  // the socket stays disabled and the failure is counted in callErrors().
  bool enabled() const { return fd_ >= 0; }
  void enabledIs(bool v);
  int fd() const { return fd_; }

  // The largest packet received whole; a longer one is counted as a receive error.
  U32 maxRxPktData() const { return maxRxPktData_; }
  void maxRxPktDataIs(U32 v);

  // Raised by whoever watches fd() for input (the event loop).
  U32 readable() const { return readable_; }
  void readableInc();

  U32 rxPkts() const { return rxPkts_; }
  U32 rxErrors() const { return rxErrors_; }
  U32 txPkts() const { return txPkts_; }
  U32 txErrors() const { return txErrors_; }
  // Failures of the calls that open and configure the socket.
  U32 callErrors() const { return callErrors_; }
  int lastErrno() const { return lastErrno_; }

  // The classic-BPF program run on every received packet before it is queued: instruction `index`
  // (the program grows as needed, with zero instructions in any gap). Attached while flagFilter
  // is set, attached again whenever it changes.
  const std::vector<IpFilter>& rxFilter() const { return rxFilter_; }
  void rxFilterIs(U32 index, const IpFilter& f);
  void rxFilterDelAll();

  // Multicast groups joined on interfaces (IP_ADD_MEMBERSHIP / IPV6_ADD_MEMBERSHIP); the kernel
  // delivers a link-local group only to hosts that joined it. Kept across close and open.
  using Group = std::pair<U32, IpGenAddr>;  // kernel interface index, group address
  const std::set<Group>& groups() const { return groups_; }
  void groupIs(U32 ifIndex, const IpGenAddr& group);
  void groupDel(U32 ifIndex, const IpGenAddr& group);

  // Receives up to `max` (at most maxBatch) packets with one recvmmsg into `out`, which is cleared
  // first; returns how many. 0 when none is waiting. IPv4 data starts at the IP header, IPv6 data
  // at the protocol header (the kernel strips the IPv6 header).
  size_t rxPktBatch(std::vector<RxPkt>& out, size_t max);
  // Sends one packet to p.dst with one sendmsg, naming the source and outgoing interface
  // (IP_PKTINFO / IPV6_PKTINFO) and, when they are not the socket's defaults, TTL and TOS (IP_TTL,
  // IP_TOS / IPV6_HOPLIMIT, IPV6_TCLASS) as ancillary data. In the header-included modes `pkt` holds the whole packet and only p.dst and
  // p.ifIndex are used. Returns false on failure (counted in txErrors), true on success.
  bool txPkt(const Pkt& pkt, const TxParams& p);

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) { notifiees_.del(n); }

 protected:
  IpPam(std::string name, IpProtocolNumber protocol, NamespaceName netNs, AddressFamily af, U32 forcedFlags);

 private:
  struct RxSlots;
  int openInNamespace();
  void optionsApply(U32 changed);
  bool optionSet(int level, int option, int value, const char* what);
  void filterApply();
  bool groupApply(const Group& g, bool join);
  void failed(U32& counter, const char* call);
  void closeFd();

  std::string name_;
  IpProtocolNumber protocol_;
  NamespaceName netNs_;
  AddressFamily af_;
  U32 forcedFlags_;
  U32 flags_;
  U32 priority_ = 0;
  int fd_ = -1;
  // IPv4: the socket's multicast interface and source (IP_MULTICAST_IF) as last set; false when
  // the kernel refused them.
  bool multicastIfIs(U32 ifIndex, const IpGenAddr& src);
  U32 mcIfIndex_ = ~0u;
  IpGenAddr mcSrc_;
  U32 maxRxPktData_ = 65535;
  U32 readable_ = 0;
  U32 rxPkts_ = 0;
  U32 rxErrors_ = 0;
  U32 txPkts_ = 0;
  U32 txErrors_ = 0;
  U32 callErrors_ = 0;
  int lastErrno_ = 0;
  bool filterAttached_ = false;
  std::vector<IpFilter> rxFilter_;
  std::set<Group> groups_;
  std::unique_ptr<RxSlots> rx_;  // receive buffers, made on the first receive
  Loom::NotifieeList<Notifiee> notifiees_;
};

// Raw IPv4 socket (AF_INET, SOCK_RAW) of the protocol.
class IpSocketPam : public IpPam {
 public:
  IpSocketPam(std::string name, IpProtocolNumber protocol, NamespaceName netNs);
};

// Raw IPv6 socket (AF_INET6, SOCK_RAW) of the protocol.
class Ip6SocketPam : public IpPam {
 public:
  Ip6SocketPam(std::string name, IpProtocolNumber protocol, NamespaceName netNs);
};

// Raw IPv6 socket of the protocol that sends complete IPv6 packets (IPV6_HDRINCL);
// flagHeaderIncluded is always set.
class Ip6HdrInclSocketPam : public IpPam {
 public:
  Ip6HdrInclSocketPam(std::string name, IpProtocolNumber protocol, NamespaceName netNs);
};

}  // namespace Knet
