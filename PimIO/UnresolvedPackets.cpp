// The state machine's unresolved-packet queues: parking, the review on the timer, and the
// hand-over when a neighbor becomes active.
#include "PimIO/IOSm.h"

namespace Routing::Pim::IO {

namespace {

constexpr auto rx = MessageCounterDirection::directionRx;

}  // namespace

Loom::Ptr<PimUnresolvedPackets> IOSm::pimUnresPkt(const Cask::NeighborKey& key) const {
  const auto it = pimUnresPkt_.find(key);
  return it == pimUnresPkt_.end() ? nullptr : it->second;
}

Loom::Ptr<PimUnresolvedPackets> IOSm::pimUnresPktIs(const Cask::NeighborKey& key) {
  auto& q = pimUnresPkt_[key];
  if (!q) q = pimUnresolvedPacketsFactory(key);
  return q;
}

void IOSm::pimUnresPktEnq(const Cask::NeighborKey& key, const Loom::Ptr<Packet::Message>& msg) {
  PIMIO_TRACE(1, "RX: queuing PIM " << msg->pimMessageType() << " packet for processing when neighbor " << key
                                    << " shows up on interface " << key.intfId);
  if (pimUnresPkt_.empty() && unresTimer_) {
    PIMIO_TRACE(3, "RX: There are unresolved packets.  Enabling timer.");
    unresTimer_->timeMinIs(now() + unresTimeout_);
  }
  Loom::Ptr<PimPacket> p = PimPacketIs();
  p->mTypeIs(msg->messageType());
  p->msgIs(msg);
  pimUnresPktIs(key)->pktEnq(p);
}

// Every entry is seen once per review; the second review after it was parked purges it, so a
// message waits at least one and at most two review periods for its neighbor.
void IOSm::handleUnresolvedPackets() {
  trace(8, "handleUnresolvedPackets");
  for (auto it = pimUnresPkt_.begin(); it != pimUnresPkt_.end();) {
    PimUnresolvedPackets& q = *it->second;
    const Cask::NeighborKey& key = q.neighborKey();
    for (PimPacket* p = q.pkt().head(); p;) {
      PimPacket* next = PimUnresolvedPackets::Queue::next(p);
      p->visitCountInc();
      if (p->visitCount() == 2) {
        const Knet::PimMessageType type = p->msg()->pimMessageType();
        PIMIO_TRACE(1, "Purging PIM " << type << " packet since neighbor " << key.addr
                                      << " was not discovered yet.");
        updateCounter(rx, type, Cask::CounterKey::anySubtype, key.intfId, MessageCounterType::counterInvalid);
        q.pktDel(p->linkIndex());
      }
      p = next;
    }
    if (q.pktCount() == 0) {
      PIMIO_TRACE(3, "Purged all queued packets for neighbor " << key.addr);
      it = pimUnresPkt_.erase(it);
    } else {
      ++it;
    }
  }
  if (!pimUnresPkt_.empty() && unresTimer_) {
    PIMIO_TRACE(3, "There are unresolved packets.  Re-enabling timer.");
    unresTimer_->timeMinIs(now() + unresTimeout_);
  }
}

void IOSm::PimIntfSm::handleNewNeighbor(const Knet::IpGenAddr& addr) {
  IOSm* sm = sm_;
  auto vrfName = [sm] { return sm->vrfName(); };
  const Knet::IntfId& intfId = notifier()->intfId();
  PIMIO_TRACE(8, "handleNewNeighbor " << intfId << " " << addr);
  const Cask::NeighborKey key{intfId, addr};
  const auto found = sm->pimUnresPkt_.find(key);
  if (found == sm->pimUnresPkt_.end()) {
    PIMIO_TRACE(3, "No unresolved packets for neighbor " << addr);
    return;
  }
  // The queue leaves the collection first: an agent that reacts to a hand-over may park more.
  Loom::Ptr<PimUnresolvedPackets> q = found->second;
  sm->pimUnresPkt_.erase(found);
  IntfCounters* handles = &sm->intfCounters(intfId);
  while (Loom::Ptr<PimPacket> p = q->pktDeq()) {
    const Loom::Ptr<Packet::Message>& msg = p->msg();
    const Knet::PimMessageType type = msg->pimMessageType();
    const Loom::Ptr<MessageInfo>& slot = sm->pimPamManager_ ? sm->pimPamManager_->rxMessageInfo(p->mType()) : nullptr;
    if (!slot) {
      PIMIO_TRACE(1, "RX: Error - No Message Info - Type: " << type);
      sm->updateCounter(rx, type, Cask::CounterKey::anySubtype, handles, MessageCounterType::counterFiltered);
      continue;
    }
    slot->intfIdIs(intfId);
    slot->messageIs(msg);
    slot->countInc(1);
    sm->updateCounter(rx, type, msg->messageSubtype(), handles, MessageCounterType::counterValid);
  }
  PIMIO_TRACE(3, "Processed all queued packets for neighbor " << addr);
  if (sm->pimUnresPkt_.empty() && sm->unresTimer_) {
    PIMIO_TRACE(3, "There are no unresolved packets.  Disabling timer.");
    sm->unresTimer_->timeMinIs(Keel::timeInfinity);
  }
}

}  // namespace Routing::Pim::IO
