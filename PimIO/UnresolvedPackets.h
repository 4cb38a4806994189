#pragma once
// The unresolved-packet queue of one neighbor: Join/Prune, Bootstrap and Assert messages that
// arrived, decoded, before their sender's first Hello was taken up by the agent. They wait here,
// oldest first, until the neighbor becomes active (they are then handed over in arrival order) or
// until the second review of the queues after they were parked (they are then purged).
#include "PimIO/MessageCounters.h"
#include "PimIO/RxPktContext.h"

namespace Routing::Pim::IO {

class PimUnresolvedPackets : public Loom::Entity {
 public:
  using Queue = Loom::LinkQueue<PimPacket>;

  explicit PimUnresolvedPackets(Cask::NeighborKey key) : neighborKey_(std::move(key)) {}
  const Cask::NeighborKey& neighborKey() const { return neighborKey_; }

  // The parked messages, oldest first, each with its sequence number (linkIndex()).
  const Queue& pkt() const { return pkt_; }
  PimPacket* pkt(U32 index) const { return pkt_.at(index); }
  size_t pktCount() const { return pkt_.size(); }
  // Appends with the next sequence number, which it returns.
  U32 pktEnq(const Loom::Ptr<PimPacket>& p) { return pkt_.enq(p); }
  // Removes and returns the oldest; null when empty.
  Loom::Ptr<PimPacket> pktDeq() { return pkt_.deq(); }
  void pktIs(U32 index, const Loom::Ptr<PimPacket>& p) { pkt_.is(index, p); }
  void pktDel(U32 index) { pkt_.del(index); }
  void pktDelAll() { pkt_.delAll(); }

 private:
  const Cask::NeighborKey neighborKey_;
  Queue pkt_;
};

inline Loom::Ptr<PimUnresolvedPackets> pimUnresolvedPacketsFactory(const Cask::NeighborKey& key) {
  return new PimUnresolvedPackets(key);
}

}  // namespace Routing::Pim::IO
