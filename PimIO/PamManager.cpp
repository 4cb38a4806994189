#include "PimIO/PamManager.h"

#include "knet/PimHdr.h"
#include "loom/Assert.h"
#include "loom/Trace.h"

namespace Routing::Pim::IO {

namespace {

Loom::TraceUnit pimPamTrace("PimPam");

// The options that every socket of the manager carries: the receive interface and addresses of
// each packet (0x8), no loop-back of its own multicast (0x800), the received TTL and TOS (0x1000);
// and it sends at the priority of network control traffic.
constexpr U32 alwaysFlags = Knet::IpPam::flagPktInfo | Knet::IpPam::flagNoMulticastLoop | Knet::IpPam::flagRxTtlTos;
static_assert(alwaysFlags == 0x1808);
constexpr U32 controlPriority = 6;

}  // namespace

Loom::Ptr<PamManager> pamManagerFactory(Knet::AddressFamily af, Knet::NamespaceName netNs, bool overrideIpHeader) {
  return new PamManager(af, std::move(netNs), overrideIpHeader);
}

PamManager::PamManager(Knet::AddressFamily af, Knet::NamespaceName netNs, bool overrideIpHeader)
    : addressFamily_(af), netNs_(std::move(netNs)), overrideIpHeader_(overrideIpHeader) {
  handlePamInit();
  handleTxMessageInfoInit();
  handlePamCounterInit();
}

PamManager::~PamManager() {
  rxMessageInfoDelAll();
  kernelIntfDelAll();
  intfDelAll();
  txPamCounterDel();
  rxPamCounterDel();
  txMessageInfoDel();
  pam_ = nullptr;
  pam4Del();
  pam6Del();
  pam6HeaderIncludeDel();
}

void PamManager::handlePamInit() {
  LOOM_TRACE(pimPamTrace, 8, __func__);
  if (addressFamily_ == Knet::AddressFamily::ipv4) {
    LOOM_TRACE(pimPamTrace, 3, "Initializing Pam for IPv4");
    auto p = pam4Is("Pim4", Knet::ipProtoPim, netNs_);
    if (overrideIpHeader_) p->flagsIs(p->flags() | Knet::IpPam::flagHeaderIncluded);
    pamIs(p.ptr());
  } else if (addressFamily_ == Knet::AddressFamily::ipv6) {
    LOOM_TRACE(pimPamTrace, 3, "Initializing Pam for IPv6");
    if (overrideIpHeader_) {
      pamIs(pam6HeaderIncludeIs("Pim6", Knet::ipProtoPim, netNs_).ptr());
    } else {
      pamIs(pam6Is("Pim6", Knet::ipProtoPim, netNs_).ptr());
    }
  } else {
    LOOM_ASSERT(false, "Unsupported address family.");
  }
  LOOM_ASSERT(pam_, "pam_");
  pam_->priorityIs(controlPriority);
  pam_->flagsIs(pam_->flags() | alwaysFlags);
}

void PamManager::handleTxMessageInfoInit() {
  txMessageInfoIs();
  LOOM_ASSERT(txMessageInfo_, "txMessageInfo_");
}

void PamManager::handlePamCounterInit() {
  txPamCounterIs();
  LOOM_ASSERT(txPamCounter_, "txPamCounter_");
  rxPamCounterIs();
  LOOM_ASSERT(rxPamCounter_, "rxPamCounter_");
}

void PamManager::handleTransparentIp() {
  if (!pam_) return;
  const U32 f = pam_->flags();
  pam_->flagsIs(transparentIp_ ? f | Knet::IpPam::flagTransparent : f & ~Knet::IpPam::flagTransparent);
}

void PamManager::pamIs(Knet::IpPam* p) { notifiees_.change(pam_, Loom::Ptr<Knet::IpPam>(p), &Notifiee::onPam); }

template <class Pam>
Loom::Ptr<Pam> PamManager::pamOfKind(Loom::Ptr<Pam>& slot, void (Notifiee::*hook)(), const std::string& name,
                                     Knet::IpProtocolNumber protocol, const Knet::NamespaceName& netNs) {
  if (slot && slot->name() == name && slot->protocol() == protocol && slot->netNs() == netNs) return slot;
  slot = new Pam(name, protocol, netNs);
  notifiees_.notify(hook);
  return slot;
}

Loom::Ptr<Knet::IpSocketPam> PamManager::pam4Is(const std::string& name, Knet::IpProtocolNumber protocol,
                                                const Knet::NamespaceName& netNs) {
  return pamOfKind(pam4_, &Notifiee::onPam4, name, protocol, netNs);
}
Loom::Ptr<Knet::Ip6SocketPam> PamManager::pam6Is(const std::string& name, Knet::IpProtocolNumber protocol,
                                                 const Knet::NamespaceName& netNs) {
  return pamOfKind(pam6_, &Notifiee::onPam6, name, protocol, netNs);
}
Loom::Ptr<Knet::Ip6HdrInclSocketPam> PamManager::pam6HeaderIncludeIs(const std::string& name,
                                                                     Knet::IpProtocolNumber protocol,
                                                                     const Knet::NamespaceName& netNs) {
  return pamOfKind(pam6HeaderInclude_, &Notifiee::onPam6HeaderInclude, name, protocol, netNs);
}

void PamManager::pam4Del() { notifiees_.change(pam4_, {}, &Notifiee::onPam4); }
void PamManager::pam6Del() { notifiees_.change(pam6_, {}, &Notifiee::onPam6); }
void PamManager::pam6HeaderIncludeDel() { notifiees_.change(pam6HeaderInclude_, {}, &Notifiee::onPam6HeaderInclude); }

void PamManager::transparentIpIs(bool v) {
  notifiees_.change(transparentIp_, v, &Notifiee::onTransparentIp);
  handleTransparentIp();
}

void PamManager::bpfLenIs(U32 v) { notifiees_.change(bpfLen_, v, &Notifiee::onBpfLen); }

// The socket runs without a filter from here until doApplyFilter. The instructions of the last
// program go too, so that a shorter program does not inherit the tail of a longer one.
void PamManager::doResetFilter() {
  if (pam_) {
    pam_->flagsIs(pam_->flags() & ~Knet::IpPam::flagFilter);
    pam_->rxFilterDelAll();
  }
  bpfLenIs(0);
}

void PamManager::doAddFilterStmt(U16 code, U32 k) {
  LOOM_TRACE(pimPamTrace, 8, std::hex << "( code=" << code << ", k=" << k);
  if (pam_) pam_->rxFilterIs(bpfLen_, Knet::IpFilter{code, 0, 0, k});
  bpfLenInc(1);
}

void PamManager::doAddFilterJmp(U16 code, U32 k, U8 jt, U8 jf) {
  LOOM_TRACE(pimPamTrace, 8, std::hex << "( code=" << code << std::dec << ", jump " << unsigned(jt)
                                      << " statements if true else jump " << unsigned(jf) << " statements");
  if (pam_) pam_->rxFilterIs(bpfLen_, Knet::IpFilter{code, jt, jf, k});
  bpfLenInc(1);
}

void PamManager::doApplyFilter() {
  if (pam_) pam_->flagsIs(pam_->flags() | Knet::IpPam::flagFilter);
}

Loom::Ptr<Intf> PamManager::intf(const Knet::IntfId& id) const {
  const auto it = intf_.find(id);
  return it == intf_.end() ? nullptr : it->second;
}
Loom::Ptr<Intf> PamManager::intfIs(const Knet::IntfId& id) {
  auto [it, made] = intf_.try_emplace(id);
  if (!made) return it->second;
  it->second = new Intf(id);
  notifiees_.notify(&Notifiee::onIntf, id);
  return it->second;
}
void PamManager::intfDel(const Knet::IntfId& id) {
  const Knet::IntfId key = id;  // `id` may be the erased entry's own key (intfDelAll)
  if (intf_.erase(key)) notifiees_.notify(&Notifiee::onIntf, key);
}
void PamManager::intfDelAll() {
  while (!intf_.empty()) intfDel(intf_.begin()->first);
}

Loom::Ptr<KernelIntf> PamManager::kernelIntf(U32 ifIndex) const {
  const auto it = kernelIntf_.find(ifIndex);
  return it == kernelIntf_.end() ? nullptr : it->second;
}
Loom::Ptr<KernelIntf> PamManager::kernelIntfIs(U32 ifIndex) {
  auto [it, made] = kernelIntf_.try_emplace(ifIndex);
  if (!made) return it->second;
  it->second = new KernelIntf(ifIndex);
  notifiees_.notify(&Notifiee::onKernelIntf, ifIndex);
  return it->second;
}
void PamManager::kernelIntfDel(U32 ifIndex) {
  if (kernelIntf_.erase(ifIndex)) notifiees_.notify(&Notifiee::onKernelIntf, ifIndex);
}
void PamManager::kernelIntfDelAll() {
  while (!kernelIntf_.empty()) kernelIntfDel(kernelIntf_.begin()->first);
}

const Loom::Ptr<MessageInfo>& PamManager::rxMessageInfo(Packet::MessageType type) const {
  LOOM_ASSERT(type < rxSlots, "offsetIsValid( off )");
  return rxMessageInfo_[type];
}
void PamManager::rxMessageInfoIs(Packet::MessageType type, const Loom::Ptr<MessageInfo>& info) {
  LOOM_ASSERT(type < rxSlots, "offsetIsValid( off )");
  if (rxMessageInfo_[type] == info) return;  // the notification names the slot
  rxMessageInfo_[type] = info;
  notifiees_.notify(&Notifiee::onRxMessageInfo, type);
}
void PamManager::rxMessageInfoDelAll() {
  for (Packet::MessageType t = 0; t < rxSlots; ++t) rxMessageInfoDel(t);
}

Loom::Ptr<MessageInfo> PamManager::txMessageInfoIs() {
  if (!txMessageInfo_) notifiees_.change(txMessageInfo_, Loom::Ptr<MessageInfo>(messageInfoFactory()), &Notifiee::onTxMessageInfo);
  return txMessageInfo_;
}
void PamManager::txMessageInfoDel() { notifiees_.change(txMessageInfo_, {}, &Notifiee::onTxMessageInfo); }

Loom::Ptr<PamCounter> PamManager::txPamCounterIs() {
  if (!txPamCounter_) notifiees_.change(txPamCounter_, Loom::Ptr<PamCounter>(new PamCounter), &Notifiee::onTxPamCounter);
  return txPamCounter_;
}
void PamManager::txPamCounterDel() { notifiees_.change(txPamCounter_, {}, &Notifiee::onTxPamCounter); }
Loom::Ptr<PamCounter> PamManager::rxPamCounterIs() {
  if (!rxPamCounter_) notifiees_.change(rxPamCounter_, Loom::Ptr<PamCounter>(new PamCounter), &Notifiee::onRxPamCounter);
  return rxPamCounter_;
}
void PamManager::rxPamCounterDel() { notifiees_.change(rxPamCounter_, {}, &Notifiee::onRxPamCounter); }

}  // namespace Routing::Pim::IO
