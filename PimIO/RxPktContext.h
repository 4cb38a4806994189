#pragma once
// The working state of one received packet while the receive path reads its IP header, its PIM
// header and its body. One context per packet, dropped when the path returns; only the decoded
// message may outlive it. The header views point into the packet's bytes, which the context holds
// for its whole life.
#include <optional>

#include "Agent/PimIntf.h"
#include "PimIO/PamManager.h"
#include "PimMessage/Message.h"
#include "knet/IpHdr.h"
#include "knet/PimHdr.h"
#include "knet/Pkt.h"
#include "loom/LinkQueue.h"

namespace Routing::Pim::IO {

class RxPktContext : public Loom::Entity {
 public:
  class Notifiee : public Loom::BaseNotifiee<RxPktContext> {
   public:
    virtual void onOffset() {}
    virtual void onRemaining() {}
    virtual void onPIntf() {}
    virtual void onKIntf() {}
    virtual void onPimIntf() {}
    virtual void onMsg() {}
    virtual void onIpHdr() {}
    virtual void onPimHdr() {}
    virtual void onEnqueueMessage() {}
    virtual void onInitialized() {}
  };

  explicit RxPktContext(Loom::Ptr<Knet::Pkt> pkt) : pkt_(std::move(pkt)) { handleInitialized(); }
  // A packet as the socket delivered it, with its receive metadata.
  explicit RxPktContext(const Knet::RxPkt& rx)
      : pkt_(rx.pkt), ifIndex_(rx.ifIndex), srcIp_(rx.src), dstIp_(rx.dst) {
    handleInitialized();
  }

  const Loom::Ptr<Knet::Pkt>& pkt() const { return pkt_; }
  // The receive metadata: the kernel index of the interface, the sender and the destination.
  U32 ifIndex() const { return ifIndex_; }
  const Knet::IpGenAddr& srcIp() const { return srcIp_; }
  const Knet::IpGenAddr& dstIp() const { return dstIp_; }
  U32 offset() const { return offset_; }
  void offsetIs(U32 v) { notifiees_.change(offset_, v, &Notifiee::onOffset); }
  void offsetInc(U32 n) { offsetIs(offset_ + n); }
  // Bytes still unread, 16 bits: remainingDec wraps, so callers check before they consume.
  U16 remaining() const { return remaining_; }
  void remainingIs(U16 v) { notifiees_.change(remaining_, v, &Notifiee::onRemaining); }
  void remainingDec(U16 n) { remainingIs(static_cast<U16>(remaining_ - n)); }
  const Loom::Ptr<const Intf>& pIntf() const { return pIntf_; }
  void pIntfIs(const Loom::Ptr<const Intf>& v) { notifiees_.change(pIntf_, v, &Notifiee::onPIntf); }
  const Loom::Ptr<const KernelIntf>& kIntf() const { return kIntf_; }
  void kIntfIs(const Loom::Ptr<const KernelIntf>& v) { notifiees_.change(kIntf_, v, &Notifiee::onKIntf); }
  const Loom::Ptr<const Pim::Intf>& pimIntf() const { return pimIntf_; }
  void pimIntfIs(const Loom::Ptr<const Pim::Intf>& v) { notifiees_.change(pimIntf_, v, &Notifiee::onPimIntf); }
  const Loom::Ptr<Packet::Message>& msg() const { return msg_; }
  void msgIs(const Loom::Ptr<Packet::Message>& v) { notifiees_.change(msg_, v, &Notifiee::onMsg); }
  // Views of the headers inside pkt(); null until set.
  const Knet::IpHdr* ipHdr() const { return ipHdr_ ? &*ipHdr_ : nullptr; }
  void ipHdrIs(const Knet::IpHdr& h) {
    ipHdr_ = h;
    notifiees_.notify(&Notifiee::onIpHdr);
  }
  const Knet::PimCommonHdr* pimHdr() const { return pimHdr_ ? &*pimHdr_ : nullptr; }
  void pimHdrIs(const Knet::PimCommonHdr& h) {
    pimHdr_ = h;
    notifiees_.notify(&Notifiee::onPimHdr);
  }
  // Set when the message must wait in its neighbor's unresolved-packet queue.
  bool enqueueMessage() const { return enqueueMessage_; }
  void enqueueMessageIs(bool v) { notifiees_.change(enqueueMessage_, v, &Notifiee::onEnqueueMessage); }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { notifiees_.change(initialized_, v, &Notifiee::onInitialized); }

  // The interface of the kernel index the packet came in on; the empty id before that is known.
  const Knet::IntfId& intfId() const { return kIntf_ ? kIntf_->intfId() : Knet::IntfId::empty(); }

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) { notifiees_.del(n); }

 private:
  void handleInitialized() {
    remainingIs(static_cast<U16>(pkt_->size()));
    initializedIs(true);
  }

  const Loom::Ptr<Knet::Pkt> pkt_;
  const U32 ifIndex_ = 0;
  const Knet::IpGenAddr srcIp_;
  const Knet::IpGenAddr dstIp_;
  U32 offset_ = 0;
  U16 remaining_ = 0;
  Loom::Ptr<const Intf> pIntf_;
  Loom::Ptr<const KernelIntf> kIntf_;
  Loom::Ptr<const Pim::Intf> pimIntf_;
  Loom::Ptr<Packet::Message> msg_;
  std::optional<Knet::IpHdr> ipHdr_;
  std::optional<Knet::PimCommonHdr> pimHdr_;
  bool enqueueMessage_ = false;
  bool initialized_ = false;
  Loom::NotifieeList<Notifiee> notifiees_;
};

inline Loom::Ptr<RxPktContext> rxPktContextFactory(const Loom::Ptr<Knet::Pkt>& pkt) { return new RxPktContext(pkt); }
inline Loom::Ptr<RxPktContext> rxPktContextFactory(const Knet::RxPkt& rx) { return new RxPktContext(rx); }

// An entry of a neighbor's unresolved-packet queue: a decoded message that waits for its sender
// to become a known neighbor, and how many reviews of the queue have seen it. It links itself into
// its queue, so that a parked message costs its decoded size and this record only.
class PimPacket : public Loom::Entity, public Loom::LinkQueue<PimPacket>::Link {
 public:
  Packet::MessageType mType() const { return mType_; }
  void mTypeIs(Packet::MessageType t) { mType_ = t; }
  U32 visitCount() const { return visitCount_; }
  void visitCountIs(U32 n) { visitCount_ = n; }
  void visitCountInc() { ++visitCount_; }
  const Loom::Ptr<Packet::Message>& msg() const { return msg_; }
  void msgIs(const Loom::Ptr<Packet::Message>& m) { msg_ = m; }

 private:
  Packet::MessageType mType_ = 0;
  U32 visitCount_ = 0;
  Loom::Ptr<Packet::Message> msg_;
};

inline Loom::Ptr<PimPacket> PimPacketIs() { return new PimPacket; }

}  // namespace Routing::Pim::IO
