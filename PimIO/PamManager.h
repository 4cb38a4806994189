#pragma once
// The packet access manager: the socket through which one PIM instance receives and sends IP
// protocol 103 packets, for one address family in one network namespace, and the tables that the
// I/O state machine and the agent share beside it: the interfaces known to the I/O layer and their
// kernel indexes, one receive slot per PIM message type, the transmit slot and two packet counters.
// The manager is complete when its constructor returns; it never changes family or namespace.
#include <array>
#include <map>

#include "PimIO/MessageInfo.h"
#include "knet/IpPam.h"

namespace Routing::Pim::IO {

// An interface known to the I/O layer.
class Intf : public Loom::Entity {
 public:
  explicit Intf(Knet::IntfId id) : intfId_(std::move(id)) {}
  const Knet::IntfId& intfId() const { return intfId_; }
  // The kernel's index of the interface, 0 until known.
  U32 ifIndex() const { return ifIndex_; }
  void ifIndexIs(U32 v) { ifIndex_ = v; }

 private:
  const Knet::IntfId intfId_;
  U32 ifIndex_ = 0;
};

// The reverse map entry: the interface that holds a kernel index.
class KernelIntf : public Loom::Entity {
 public:
  explicit KernelIntf(U32 ifIndex) : ifIndex_(ifIndex) {}
  U32 ifIndex() const { return ifIndex_; }
  const Knet::IntfId& intfId() const { return intfId_; }
  void intfIdIs(const Knet::IntfId& id) {
    if (id == intfId_) return;
    intfId_ = id;
    ++renames_;
  }
  // Changes of intfId so far: whoever keeps what it found under the old name can tell it is stale.
  U32 renames() const { return renames_; }

 private:
  const U32 ifIndex_;
  Knet::IntfId intfId_;
  U32 renames_ = 0;
};

// Packets seen, handled to the end, and failed.
class PamCounter : public Loom::Entity {
 public:
  U32 count() const { return count_; }
  void countIs(U32 v) { count_ = v; }
  void countInc(U32 n = 1) { count_ += n; }
  U32 processed() const { return processed_; }
  void processedIs(U32 v) { processed_ = v; }
  void processedInc(U32 n = 1) { processed_ += n; }
  U32 error() const { return error_; }
  void errorIs(U32 v) { error_ = v; }
  void errorInc(U32 n = 1) { error_ += n; }

 private:
  U32 count_ = 0, processed_ = 0, error_ = 0;
};

class PamManager : public Loom::Entity {
 public:
  static constexpr size_t rxSlots = 16;

  class Notifiee : public Loom::BaseNotifiee<PamManager> {
   public:
    virtual void onPam() {}
    virtual void onPam4() {}
    virtual void onPam6() {}
    virtual void onPam6HeaderInclude() {}
    virtual void onTransparentIp() {}
    virtual void onBpfLen() {}
    virtual void onIntf(const Knet::IntfId&) {}
    virtual void onKernelIntf(U32) {}
    virtual void onRxMessageInfo(Packet::MessageType) {}
    virtual void onTxMessageInfo() {}
    virtual void onTxPamCounter() {}
    virtual void onRxPamCounter() {}
  };

  // Stores the three values, then chooses and configures the socket, makes the transmit record
  // and the two counters.
  PamManager(Knet::AddressFamily af, Knet::NamespaceName netNs, bool overrideIpHeader);
  ~PamManager() override;

  Knet::AddressFamily addressFamily() const { return addressFamily_; }
  const Knet::NamespaceName& netNs() const { return netNs_; }
  bool overrideIpHeader() const { return overrideIpHeader_; }

  // The socket in use, whichever kind.
  const Loom::Ptr<Knet::IpPam>& pam() const { return pam_; }
  void pamIs(Knet::IpPam* p);
  const Loom::Ptr<Knet::IpSocketPam>& pam4() const { return pam4_; }
  const Loom::Ptr<Knet::Ip6SocketPam>& pam6() const { return pam6_; }
  const Loom::Ptr<Knet::Ip6HdrInclSocketPam>& pam6HeaderInclude() const { return pam6HeaderInclude_; }
  // The socket of the kind: the present one when its name, protocol and namespace are these, else a
  // new one (not yet opened).
  Loom::Ptr<Knet::IpSocketPam> pam4Is(const std::string& name, Knet::IpProtocolNumber protocol,
                                      const Knet::NamespaceName& netNs);
  Loom::Ptr<Knet::Ip6SocketPam> pam6Is(const std::string& name, Knet::IpProtocolNumber protocol,
                                       const Knet::NamespaceName& netNs);
  Loom::Ptr<Knet::Ip6HdrInclSocketPam> pam6HeaderIncludeIs(const std::string& name, Knet::IpProtocolNumber protocol,
                                                           const Knet::NamespaceName& netNs);
  void pam4Del();
  void pam6Del();
  void pam6HeaderIncludeDel();

  // The transparent flag of the socket in use follows this attribute.
  bool transparentIp() const { return transparentIp_; }
  void transparentIpIs(bool v);
  // Statements added to the kernel filter since its last reset.
  U32 bpfLen() const { return bpfLen_; }
  void bpfLenIs(U32 v);
  void bpfLenInc(U32 n) { bpfLenIs(bpfLen_ + n); }
  // The kernel filter program of the socket in use, one instruction at a time: switched off and
  // emptied, an instruction added at index bpfLen (a statement has no jumps), and switched on with
  // the bpfLen instructions written.
  void doResetFilter();
  void doAddFilterStmt(U16 code, U32 k);
  void doAddFilterJmp(U16 code, U32 k, U8 jt, U8 jf);
  void doApplyFilter();

  const std::map<Knet::IntfId, Loom::Ptr<Intf>>& intf() const { return intf_; }
  Loom::Ptr<Intf> intf(const Knet::IntfId& id) const;
  Loom::Ptr<Intf> intfIs(const Knet::IntfId& id);
  void intfDel(const Knet::IntfId& id);
  void intfDelAll();
  const std::map<U32, Loom::Ptr<KernelIntf>>& kernelIntf() const { return kernelIntf_; }
  Loom::Ptr<KernelIntf> kernelIntf(U32 ifIndex) const;
  Loom::Ptr<KernelIntf> kernelIntfIs(U32 ifIndex);
  void kernelIntfDel(U32 ifIndex);
  void kernelIntfDelAll();

  // The receive slot of a PIM type number; a number of 16 or more is a programming error.
  const Loom::Ptr<MessageInfo>& rxMessageInfo(Packet::MessageType type) const;
  void rxMessageInfoIs(Packet::MessageType type, const Loom::Ptr<MessageInfo>& info);
  void rxMessageInfoDel(Packet::MessageType type) { rxMessageInfoIs(type, nullptr); }
  void rxMessageInfoDelAll();

  const Loom::Ptr<MessageInfo>& txMessageInfo() const { return txMessageInfo_; }
  Loom::Ptr<MessageInfo> txMessageInfoIs();
  void txMessageInfoDel();
  const Loom::Ptr<PamCounter>& txPamCounter() const { return txPamCounter_; }
  Loom::Ptr<PamCounter> txPamCounterIs();
  void txPamCounterDel();
  const Loom::Ptr<PamCounter>& rxPamCounter() const { return rxPamCounter_; }
  Loom::Ptr<PamCounter> rxPamCounterIs();
  void rxPamCounterDel();

  bool hasBackupSupport() const { return false; }

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) { notifiees_.del(n); }

 private:
  void handlePamInit();
  void handleTxMessageInfoInit();
  void handlePamCounterInit();
  void handleTransparentIp();
  template <class Pam>
  Loom::Ptr<Pam> pamOfKind(Loom::Ptr<Pam>& slot, void (Notifiee::*hook)(), const std::string& name,
                           Knet::IpProtocolNumber protocol, const Knet::NamespaceName& netNs);

  const Knet::AddressFamily addressFamily_;
  const Knet::NamespaceName netNs_;
  const bool overrideIpHeader_;
  Loom::Ptr<Knet::IpPam> pam_;
  Loom::Ptr<Knet::IpSocketPam> pam4_;
  Loom::Ptr<Knet::Ip6SocketPam> pam6_;
  Loom::Ptr<Knet::Ip6HdrInclSocketPam> pam6HeaderInclude_;
  bool transparentIp_ = false;
  U32 bpfLen_ = 0;
  std::map<Knet::IntfId, Loom::Ptr<Intf>> intf_;
  std::map<U32, Loom::Ptr<KernelIntf>> kernelIntf_;
  std::array<Loom::Ptr<MessageInfo>, rxSlots> rxMessageInfo_;
  Loom::Ptr<MessageInfo> txMessageInfo_;
  Loom::Ptr<PamCounter> txPamCounter_;
  Loom::Ptr<PamCounter> rxPamCounter_;
  Loom::NotifieeList<Notifiee> notifiees_;
};

Loom::Ptr<PamManager> pamManagerFactory(Knet::AddressFamily af, Knet::NamespaceName netNs, bool overrideIpHeader);

}  // namespace Routing::Pim::IO
