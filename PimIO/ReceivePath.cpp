// The receive path: the socket drained in time slices, each packet run through a fixed chain of
// checks, decoded by its type's processing, then handed to the agent's receive slot or parked
// until its neighbor is known. Every packet read is accounted once: handed over, filtered,
// invalid, parked or a receive error (rxAccounting()).
#include <iomanip>

#include "PimIO/IOSm.h"
#include "PimMessage/HelloMessage.h"
#include "loom/LogMessage.h"

namespace Routing::Pim::IO {

// A peer that sends bad packets sends many: each message is emitted at most once a second (the
// traces and counters see every packet).
constexpr double logInterval = 1.0;

Loom::LogMessage PIM_MESSAGE_INVALID_VERSION("PIM_MESSAGE_INVALID_VERSION", 4,
                                             "Invalid PIM version %d received from source %s.",
                                             "The version sent by the peer PIM router is not supported.",
                                             "Capture the packet using tcpdump and contact support.", logInterval);
Loom::LogMessage PIM_MESSAGE_INVALID_DESTINATION("PIM_MESSAGE_INVALID_DESTINATION", 4,
                                                 "Invalid PIM destination %s for PIM type %d received from source %s.",
                                                 "The IP destination sent by the peer PIM router is not correct.",
                                                 "Capture the packet using tcpdump and contact support.", logInterval);
Loom::LogMessage PIM_MESSAGE_INVALID_TYPE("PIM_MESSAGE_INVALID_TYPE", 4, "Invalid PIM type %d received from source %s.",
                                          "The PIM type is not recognized.",
                                          "Capture the packet using tcpdump and contact support.", logInterval);
Loom::LogMessage PIM_MESSAGE_UNPROCESSQ_FULL(
    "PIM_MESSAGE_UNPROCESSQ_FULL", 4,
    "PIM unprocessed message queue is full for neighbor %s, message type 0x%x on VRF %s.",
    "Delayed protocol convergence is expected.",
    "None: the messages are sent again by the neighbor; check why its Hellos do not arrive.", logInterval);

namespace {

constexpr auto rx = MessageCounterDirection::directionRx;
constexpr auto invalid = MessageCounterType::counterInvalid;
constexpr auto filtered = MessageCounterType::counterFiltered;
constexpr auto valid = MessageCounterType::counterValid;
constexpr U8 none = Cask::CounterKey::anySubtype;

std::string text(const Knet::IpGenAddr& a) { return a.str(); }

}  // namespace

Keel::Time IOSm::now() const {
  return unresTimer_ && unresTimer_->timerWheel() ? unresTimer_->timerWheel()->clock().now() : Keel::monotonicNow();
}

// One slice: batches of packets until the deadline, an empty socket (a batch short of the
// most) or the attribute log's back-pressure. What a slice leaves stays in the kernel; the
// socket's readiness brings it back.
void IOSm::rxPkt() {
  trace(8, "rxPkt");
  Knet::IpPam* pam = pimPam();
  if (!pam || !pam->enabled()) return;
  const Keel::Time deadline = now() + loopQuantum_;
  Loom::RingLog::instance().write(pimIoTrace.name(), 8, __func__, "Start review of Pim packets");
  const auto& counter = pimPamManager_->rxPamCounter();
  U32 n = 0;
  while (now() < deadline) {
    if (pimAttrLogSm_ && pimAttrLogSm_->isAttrLogOutClogged()) break;
    const size_t got = pam->rxPktBatch(rxBatch_, Knet::IpPam::maxBatch);
    if (got == 0) break;
    for (size_t i = 0; i < rxBatch_.size(); ++i) {
      // The next packet's first bytes, on their way to the cache while this one is processed.
      if (i + 1 < rxBatch_.size()) __builtin_prefetch(rxBatch_[i + 1].pkt->data());
      if (counter) counter->countInc(1);
      ++n;
      processPkt(rxPktContextFactory(rxBatch_[i]));
    }
    rxBatch_.clear();
    // A short batch emptied the socket: what arrives meanwhile wakes the loop again, and asking
    // now would mostly cost one more system call per wake-up.
    if (got < Knet::IpPam::maxBatch) break;
  }
  PIMIO_TRACE(3, "Processed " << n << " messages.");
  Loom::RingLog::instance().write(pimIoTrace.name(), 8, __func__,
                                  "Finished reviewing " + std::to_string(n) + " Pim messages");
}

void IOSm::processPkt(const Loom::Ptr<RxPktContext>& ctx) {
  decodedHello_ = nullptr;
  if (!readIpHeader(ctx)) return;
  const Knet::PimCommonHdr* hdr = peekPimHeader(ctx);
  if (!hdr) return;
  ctx->pimHdrIs(*hdr);
  const Knet::PimMessageType t = hdr->messageType();
  if (!validateRxInterface(ctx)) return;
  PIMIO_TRACE(4, "RX: Intf: " << ctx->intfId() << " <PIM " << *ctx->pimHdr());
  if (!validateRxDstAddress(ctx) || !validateRxSrcAddress(ctx)) return;

  bool ok = false;
  switch (t.value()) {
    case 0x20: ok = ctx->msg() || processHelloMessage(ctx); break;
    case 0x21: ok = processRegisterMessage(ctx); break;
    case 0x22: ok = processRegisterStopMessage(ctx); break;
    case 0x23: ok = processJoinPruneMessage(ctx); break;
    case 0x24: ok = processBootstrapMessage(ctx); break;
    case 0x25: ok = processAssertMessage(ctx); break;
    case 0x26:
    case 0x27:
      PIMIO_TRACE(1, "RX: Error - Unsupported Pim Message - Type: " << t);
      rxErrorInc();
      return;
    case 0x28: ok = processCrpAdvMessage(ctx); break;
    case 0x2A: ok = processDfElectionMessage(ctx); break;
    default: {
      const unsigned version = t.version();
      const unsigned type = t.type();
      if (version == 2) {
        PIMIO_TRACE(1, "RX: Error - Invalid Pim Message - Type: " << type);
        PIM_MESSAGE_INVALID_TYPE.raise({std::to_string(type), text(ctx->srcIp())});
      } else {
        PIMIO_TRACE(1, "RX: Error - Invalid Pim Version - Version: " << version);
        PIM_MESSAGE_INVALID_VERSION.raise({std::to_string(version), text(ctx->srcIp())});
      }
      rxErrorInc();
      return;
    }
  }
  if (!ok) return;
  handOver(ctx, t);
}

// The decoded message goes to the agent's slot of its type, or waits for its neighbor.
void IOSm::handOver(const Loom::Ptr<RxPktContext>& ctx, Knet::PimMessageType t) {
  const Loom::Ptr<Packet::Message>& msg = ctx->msg();
  if (ctx->enqueueMessage()) {
    pimUnresPktEnq({ctx->intfId(), ctx->srcIp()}, msg);
    return;
  }
  const Packet::MessageType mt = msg->messageType();
  const Loom::Ptr<MessageInfo>& slot = pimPamManager_->rxMessageInfo(mt);
  if (!slot) {
    PIMIO_TRACE(1, "RX: Error - No Message Info - Type: " << static_cast<unsigned>(mt));
    updateCounter(rx, t, msg->messageSubtype(), ctx->intfId(), filtered);
    return;
  }
  updateCounter(rx, t, msg->messageSubtype(), ctx->intfId(), valid);
  slot->intfIdIs(ctx->intfId());
  slot->messageIs(msg);
  slot->countInc(1);
  if (msg.ptr() != decodedHello_) return;
  // The Hello handed over before this one is free for the next decode once no one else holds it.
  Loom::Ptr<Packet::HelloMessage> previous = std::move(handedHello_);
  handedHello_ = decodedHello_;
  if (previous && previous->references() == 1) spareHello_ = std::move(previous);
}

bool IOSm::readIpHeader(const Loom::Ptr<RxPktContext>& ctx) {
  switch (pimPamManager_->addressFamily()) {
    case Knet::AddressFamily::ipv4: {
      const Knet::IpHdr h(ctx->pkt()->data() + ctx->offset(), ctx->remaining());
      // The version byte is there whenever the packet is not empty; the rest only if it fits.
      const U32 headerBytes = ctx->remaining() ? h.headerLength() : 0;
      if (pimIoTrace.enabled(4) && ctx->remaining() >= 20) {
        PIMIO_TRACE(4, "RX: <IP version=" << unsigned(h.version()) << " ihl=" << headerBytes / 4
                                          << " tos=" << unsigned(h.tos()) << " len=" << h.totalLength()
                                          << " id=" << h.id() << " moreFrag=" << h.moreFragments()
                                          << " dontFrag=" << h.dontFragment()
                                          << " reservedFragFlag=" << h.reservedFragmentFlag()
                                          << " frag=" << h.fragmentOffset() << " ttl=" << unsigned(h.ttl())
                                          << " proto=" << unsigned(h.protocol()) << std::hex << " chksum=0x"
                                          << h.checksum() << " computed chksum=0x"
                                          // over the header's length, which may claim more than arrived
                                          << (ctx->remaining() >= headerBytes ? h.computedChecksum() : 0)
                                          << std::dec << " src=" << h.src() << " dst=" << h.dst() << ">");
      }
      if (headerBytes >= 20 && ctx->remaining() >= headerBytes) {
        ctx->ipHdrIs(h);
        ctx->offsetInc(headerBytes);
        ctx->remainingDec(static_cast<U16>(headerBytes));
        return true;
      }
      PIMIO_TRACE(1, "RX: Error - Missing Ip Header - Remaining: " << ctx->remaining() << " Length: " << headerBytes);
      rxErrorInc();
      return false;
    }
    case Knet::AddressFamily::ipv6:
      return true;
    default:
      PIMIO_TRACE(4, "readIpHeader: Unknown address family " << static_cast<int>(pimPamManager_->addressFamily()));
      return false;
  }
}

const Knet::PimCommonHdr* IOSm::peekPimHeader(const Loom::Ptr<RxPktContext>& ctx) {
  if (ctx->remaining() < Knet::PimCommonHdr::size) {
    PIMIO_TRACE(1, "RX: Error - Missing Pim Header - Remaining: " << ctx->remaining());
    rxErrorInc();
    return nullptr;
  }
  ctx->pimHdrIs(Knet::PimCommonHdr(ctx->pkt()->data() + ctx->offset(), ctx->remaining()));
  return ctx->pimHdr();
}

bool IOSm::validateRxInterface(const Loom::Ptr<RxPktContext>& ctx) {
  const Knet::PimMessageType t = ctx->pimHdr()->messageType();
  if (const RxIntf* r = rxIntf(ctx->ifIndex())) {
    ctx->kIntfIs(r->kIntf);
    ctx->pIntfIs(r->pIntf);
    ctx->pimIntfIs(r->pimIntf);
  } else {
    const auto k = pimPamManager_->kernelIntf(ctx->ifIndex());
    if (!k) {
      PIMIO_TRACE(1, "RX: Error - Invalid Kernel Interface - Id: " << ctx->ifIndex());
      updateCounter(rx, t, none, Knet::IntfId::empty(), invalid);
      return false;
    }
    ctx->kIntfIs(k);
    const auto p = pimPamManager_->intf(ctx->intfId());
    if (!p) {
      PIMIO_TRACE(1, "RX: Error - Invalid Interface - Id: " << ctx->intfId());
      updateCounter(rx, t, none, Knet::IntfId::empty(), invalid);
      return false;
    }
    ctx->pIntfIs(p);
    if (pimStatus_) ctx->pimIntfIs(pimStatus_->pimIntf(ctx->intfId()));
    rxIntfIs(ctx->ifIndex(), k, p, ctx->pimIntf());
  }
  const Knet::IntfId& intfId = ctx->intfId();
  if (!linkLocal(t)) return true;
  const auto& pimIntf = ctx->pimIntf();
  if (!pimIntf) {
    PIMIO_TRACE(1, "RX: Error - Invalid Pim Interface - Type: " << t << " Id: " << intfId);
    updateCounter(rx, t, none, Knet::IntfId::empty(), invalid);
    return false;
  }
  if (pimIntf->mbrFiltersControl()) {
    PIMIO_TRACE(1, "RX: Filtered - Pim Interface has MBR - Type: " << t << " Id: " << intfId);
    updateCounter(rx, t, none, intfId, filtered);
    return false;
  }
  if (!neighborFiltered(t, ctx->srcIp(), intfId)) return true;
  // A Hello from a filtered address is still taken when one of its secondary addresses passes;
  // it stays decoded in the context.
  if (t == Knet::pimHello()) {
    if (!processHelloMessage(ctx)) return false;
    const auto& hello = static_cast<const Packet::HelloMessage&>(*ctx->msg());
    for (const Knet::IpGenAddr& a : hello.secondaryAddr()) {
      if (!neighborFiltered(t, a, intfId)) return true;
    }
    ctx->msgIs(nullptr);
  }
  PIMIO_TRACE(1, "RX: Filtered - Type: " << t << " Interface: " << intfId);
  updateCounter(rx, t, none, intfId, filtered);
  return false;
}

bool IOSm::validateRxDstAddress(const Loom::Ptr<RxPktContext>& ctx) {
  const Knet::PimMessageType t = ctx->pimHdr()->messageType();
  const Knet::IpGenAddr& dst = ctx->dstIp();
  if (t == Knet::pimHello() || t == Knet::pimJoinPrune() || t == Knet::pimAssert() || t == Knet::pimDfElection()) {
    if (dst == Knet::allPimRouters(dst.af())) return true;
    PIMIO_TRACE(1, "RX: Error - Invalid Pim Message - Destination is Not ALL-PIM-ROUTERS - Type: " << t << " Address: "
                                                                                                << dst);
    PIM_MESSAGE_INVALID_DESTINATION.raise({text(dst), std::to_string(t.value()), text(ctx->srcIp())});
    updateCounter(rx, t, none, ctx->intfId(), invalid);
    return false;
  }
  if (t == Knet::pimRegister() || t == Knet::pimRegisterStop() || t == Knet::pimCandidateRpAdvertisement()) {
    if (!dst.isMulticast()) return true;
    PIMIO_TRACE(1, "RX: Error - Invalid Pim Message - Type: " << t << " Destination is Multicast: " << dst);
    updateCounter(rx, t, none, ctx->intfId(), invalid);
    return false;
  }
  return true;
}

bool IOSm::validateRxSrcAddress(const Loom::Ptr<RxPktContext>& ctx) {
  const Knet::PimMessageType t = ctx->pimHdr()->messageType();
  if (t != Knet::pimJoinPrune() && t != Knet::pimBootstrap() && t != Knet::pimAssert() && t != Knet::pimDfElection()) {
    return true;
  }
  const Knet::IpGenAddr& src = ctx->srcIp();
  if (ctx->pimIntf()->neighbor(src)) return true;
  if (t == Knet::pimDfElection()) {
    PIMIO_TRACE(1, "RX: Error - Invalid Pim Message - Drop DF election message  because neighborship does not exist: "
                       << src);
    updateCounter(rx, t, none, ctx->intfId(), invalid);
    return false;
  }
  const Cask::NeighborKey key{ctx->intfId(), src};
  const auto q = pimUnresPkt_.find(key);
  if (q != pimUnresPkt_.end() && q->second->pktCount() >= unresQDepth_) {
    PIMIO_TRACE(1, "RX: Error - Invalid Pim Message - Neighbor Queue Full - Type: " << t << " Address: " << src);
    std::ostringstream neighbor, type;
    neighbor << key;
    type << std::hex << unsigned(t.value());
    PIM_MESSAGE_UNPROCESSQ_FULL.raise({neighbor.str(), type.str(), vrfName()});
    updateCounter(rx, t, none, ctx->intfId(), invalid);
    return false;
  }
  ctx->enqueueMessageIs(true);
  return true;
}

void IOSm::rxErrorInc() {
  if (const auto& counter = pimPamManager_->rxPamCounter()) counter->errorInc(1);
}

IOSm::RxAccounting IOSm::rxAccounting() const {
  RxAccounting a;
  if (pimPamManager_ && pimPamManager_->rxPamCounter()) {
    a.read = pimPamManager_->rxPamCounter()->count();
    a.errors = pimPamManager_->rxPamCounter()->error();
  }
  if (pimCounters_) {
    for (U8 t = 0; t < 16; ++t) {
      const auto c = pimCounters_->msgCounter({Knet::IntfId::empty(), t, none});
      a.valid += c.rxValid;
      a.filtered += c.rxFiltered;
      a.invalid += c.rxInvalid;
    }
  }
  for (const auto& [key, q] : pimUnresPkt_) a.parked += q->pktCount();
  return a;
}

std::ostream& operator<<(std::ostream& os, const IOSm::RxAccounting& a) {
  return os << "read " << a.read << " = valid " << a.valid << " + filtered " << a.filtered << " + invalid "
            << a.invalid << " + parked " << a.parked << " + errors " << a.errors;
}

}  // namespace Routing::Pim::IO
