// The transmit path: the message of the manager's transmit record encoded after room for an IP
// header, its source, destination, TTL and TOS chosen, the header written when the manager builds
// headers itself, and the packet handed to the socket of the outgoing interface.
#include <cstring>
#include <iomanip>

#include "PimIO/IOSm.h"
#include "PimMessage/AssertMessage.h"
#include "PimMessage/DfElectionMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/MessageTable.h"
#include "PimMessage/RegisterMessage.h"
#include "knet/IpHdr.h"
#include "knet/IpPacket.h"

namespace Routing::Pim::IO {

namespace {

constexpr auto tx = MessageCounterDirection::directionTx;
constexpr U8 defaultTtl = 1;
constexpr U8 defaultTos = 192;
constexpr U8 farTtl = 255;
constexpr U8 registerTosCap = 184;

const char* writeError(Knet::PimMessageType t, U8 subtype) {
  switch (t.value()) {
    case 0x20: return "TX: Error - Invalid Pim Hello - Write Error";
    case 0x21: return "TX: Error - Invalid Pim Register - Write Error";
    case 0x22: return "TX: Error - Invalid Pim Register Stop - Write Error";
    case 0x23: return "TX: Error - Pim Join/Prune - Write Error";
    case 0x24: return "TX: Error - Invalid Pim Bootstrap - Write Error";
    case 0x25: return "TX: Error - Invalid Pim Assert - Write Error";
    case 0x28: return "TX: Error - Invalid Pim CrpAdv - Write Error";
    default: break;
  }
  static constexpr const char* df[] = {
      "TX: Error - Invalid Pim DF Election Offer - Write Error", "TX: Error - Invalid Pim DF Election Winner - Write Error",
      "TX: Error - Invalid Pim DF Election Backoff - Write Error", "TX: Error - Invalid Pim DF Election Pass - Write Error"};
  return subtype >= 1 && subtype <= 4 ? df[subtype - 1] : "TX: Error - Invalid Pim DF Election Type";
}

// The TTL and TOS of a data Register follow the packet it carries: its TTL (255 for 0), its TOS
// capped at 184, below network control. A null-register goes far with the default TOS.
void registerTtlTos(const Packet::RegisterMessage& r, U8& ttl, U8& tos) {
  ttl = farTtl;
  const auto& inner = r.rcvdPkt();
  if (r.nullFlag() || !inner || inner->size() < 8) return;
  const U8* b = inner->data();
  const bool v6 = (b[0] >> 4) == 6;
  const U8 innerTtl = v6 ? b[7] : (inner->size() >= 9 ? b[8] : 0);
  const U8 innerTos = v6 ? static_cast<U8>((b[0] << 4) | (b[1] >> 4)) : b[1];
  ttl = innerTtl ? innerTtl : farTtl;
  tos = std::min(innerTos, registerTosCap);
}

}  // namespace

void IOSm::txPkt() {
  trace(8, "txPkt");
  if (!pimPamManager_) return;
  const auto& counter = pimPamManager_->txPamCounter();
  const auto& record = pimPamManager_->txMessageInfo();
  if (counter) counter->countInc(1);
  const Loom::Ptr<Packet::Message> msg = record ? record->message() : nullptr;
  if (!msg) {
    PIMIO_TRACE(1, "TX: Error - No Message");
    txErrorInc();
    return;
  }
  Knet::IpPam* pam = pimPam();
  const Knet::AddressFamily af = pimPamManager_->addressFamily();
  const Knet::PimMessageType t = msg->pimMessageType();
  const U8 subtype = msg->messageSubtype();
  const Knet::IntfId intfId = record->intfId();
  auto failed = [&](const auto&... text) {
    if (pimIoTrace.enabled(1)) {
      std::ostringstream os;
      (os << ... << text);
      PIMIO_TRACE(1, os.str());
    }
    updateCounter(tx, t, subtype, intfId, MessageCounterType::counterInvalid);
    txErrorInc();
  };

  // The outgoing interface: a link type needs a PIM interface, every PIM interface a device.
  U32 ifIndex = 0;
  Loom::Ptr<const Pim::Intf> pimIntf;
  Loom::Ptr<const IpGen::IpIntf> ipIntf;
  if (!intfId.isEmpty()) {
    pimIntf = pimStatus_ ? pimStatus_->pimIntf(intfId) : nullptr;
    const auto intf = pimPamManager_->intf(intfId);
    if (!pimIntf && linkLocal(t)) return failed("TX: Error - Invalid Interface - Id: ", intfId);
    if (pimIntf) {
      if (!intf) return failed("TX: Error - Invalid Interface - Id: ", intfId);
      if (!pimPamManager_->kernelIntf(intf->ifIndex())) return failed("TX: Error - Invalid Kernel Interface - Id: ", intfId);
    }
    ipIntf = ipGenIntfStatus_ ? ipGenIntfStatus_->ipIntf(intfId) : nullptr;
    if (pimIntf && !ipIntf) return failed("TX: Error - Invalid Velo interface ", intfId);
    if (intf) ifIndex = intf->ifIndex();
  }

  Knet::IpGenAddr src = msg->srcIp();
  if (src.isSet()) {
    PIMIO_TRACE(7, "Source IP set to " << src << " from message header.");
  } else if (pimIntf && pimIntf->addr().isSet()) {
    src = pimIntf->addr();
    PIMIO_TRACE(7, "Source IP set to " << src << " from Pim interface.");
  } else if (ipIntf && ipIntf->primaryAddr(af).address().isSet()) {
    src = ipIntf->primaryAddr(af).address();
    PIMIO_TRACE(7, "Source address set to " << src << " from Velo interface.");
  }
  Knet::IpGenAddr dst = msg->dstIp();
  if (!dst.isSet() && linkLocal(t)) dst = Knet::allPimRouters(af);
  if (!dst.isSet()) return failed("TX: Error - Unknown Pim Destination - Type: ", t, " Id: ", intfId);
  msg->srcIpIs(src);
  msg->dstIpIs(dst);

  // Encode after the header room, into the machine's own buffer (the socket copies what it sends).
  const U32 room = pimPamManager_->overrideIpHeader() ? (af == Knet::AddressFamily::ipv6 ? 40 : 20) : 0;
  const U32 largest = pam ? pam->maxRxPktData() : Knet::maxPimMessageSize(af);
  // The packet and its bytes are kept from one message to the next while no one else holds either.
  if (!txPkt_ || txPkt_->references() > 1 || txPkt_->dataShared()) {
    const U32 capacity = room + std::max(largest, Knet::maxPimMessageSize(af));
    txPkt_ = new Knet::Pkt(new Knet::PktBuffer(capacity), 0, capacity);
  }
  txPkt_->windowIs(txPkt_->capacity());
  LOOM_ASSERT(txPkt_->capacity() >= room + largest, "pkt->maxSharedData() >= pimPam()->maxRxPktData()");
  const Loom::Ptr<Knet::Pkt> pkt = txPkt_;
  U8 ttl = defaultTtl, tos = defaultTos;
  Loom::Ptr<Boundary::IntfBoundary> boundary;
  if (t == Knet::pimRegister()) registerTtlTos(static_cast<const Packet::RegisterMessage&>(*msg), ttl, tos);
  if (t == Knet::pimRegisterStop() || t == Knet::pimCandidateRpAdvertisement()) ttl = farTtl;
  if (t == Knet::pimJoinPrune()) {
    auto& jp = static_cast<Packet::JoinPruneMessage&>(*msg);
    if (ipIntf) jp.mtuIs(ipIntf->mtu());
    boundary = intfBoundary(intfId, af);
  }
  if (t == Knet::pimBootstrap() && bootstrapBounded(*msg, intfId)) {
    PIMIO_TRACE(1, "TX: Bootstrap: Group in Boundary Filter - Packet Filtered");
    updateCounter(tx, t, subtype, intfId, MessageCounterType::counterFiltered);
    return;
  }
  if (t == Knet::pimAssert() && mcastBoundary_ &&
      mcastBoundary_->filtered(intfId, static_cast<const Packet::AssertMessage&>(*msg).group())) {
    PIMIO_TRACE(1, "TX: Assert group in Boundary filter - Packet Filtered");
    updateCounter(tx, t, subtype, intfId, MessageCounterType::counterFiltered);
    return;
  }
  const Packet::MessageClass* row =
      Packet::messageClass(t, t == Knet::pimDfElection() ? subtype : Packet::noSubtype);
  if (!row) {
    if (t == Knet::pimDfElection()) return failed("TX: Error - Invalid Pim DF Election Type");
    if (t.version() == 2) return failed("TX: Error - Unsupported Pim Message - Type: ", t);
    return failed("TX: Error - Invalid Pim Message - Type: ", t);
  }
  const U32 written = row->write(*msg, pkt, room, boundary);
  if (written == 0) {
    txPkt_ = nullptr;  // a failed write may have left bytes behind; the next starts afresh
    if (t == Knet::pimJoinPrune() &&
        msg->failure() == Packet::Failure(Packet::JoinPruneText::zeroGroups)) {
      PIMIO_TRACE(1, "TX: Filtered - Pim Join/Prune - Zero Groups");
      updateCounter(tx, t, subtype, intfId, MessageCounterType::counterFiltered);
      return;
    }
    return failed(writeError(t, subtype));
  }
  pkt->sizeIs(room + written);
  if (room) doAddIpHeader(pkt, src, dst, ttl, tos);

  Knet::TxParams p;
  p.ifIndex = ifIndex;
  p.src = src;
  p.dst = dst;
  p.ttl = ttl;
  p.tos = tos;
  PIMIO_TRACE(7, "Setting TTL to " << unsigned(ttl));
  PIMIO_TRACE(7, "Setting TOS to " << unsigned(tos));
  const bool sent = pam && pam->txPkt(*pkt, p);
  std::memset(pkt->data(), 0, room + written);  // the next message starts on zeros
  if (!pam) return failed("TX: Error - No Socket");
  if (!sent) return;  // the socket counted it; handleTxError counts the message
  updateCounter(tx, t, subtype, intfId, MessageCounterType::counterValid);
  if (af == Knet::AddressFamily::ipv6) {
    PIMIO_TRACE(4, "TX6: <IP src=" << src << " dst=" << dst << " hopLimit=" << unsigned(ttl) << "><PIM " << msg.ptr()
                                   << ">");
  } else {
    PIMIO_TRACE(4, "TX: <IP src=" << src << " dst=" << dst << " ttl=" << unsigned(ttl) << " tos=" << unsigned(tos)
                                  << "><PIM " << msg.ptr() << ">");
  }
}

void IOSm::doAddIpHeader(const Loom::Ptr<Knet::Pkt>& pkt, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst,
                         U8 ttl, U8 tos) {
  PIMIO_TRACE(8, "Adding Packet header ");
  switch (pimPamManager_->addressFamily()) {
    case Knet::AddressFamily::ipv4: return doAddIpv4Header(pkt, src, dst, ttl, tos);
    case Knet::AddressFamily::ipv6: return doAddIpv6Header(pkt, src, dst, ttl, tos);
    default: LOOM_ASSERT(false, "Unkown Af");
  }
}

// The message lies behind 20 bytes of room; the header goes there, with don't-fragment set (the
// messages are sized to the interface's MTU).
void IOSm::doAddIpv4Header(const Loom::Ptr<Knet::Pkt>& pkt, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst,
                           U8 ttl, U8 tos) {
  Knet::IpHdr::write(pkt->data(), tos, static_cast<U16>(pkt->size()), ttl, Knet::ipProtoPim, src, dst, 0,
                     Knet::IpHdr::dontFragmentFlag);
  if (pimIoTrace.enabled(4)) {
    const Knet::IpHdr h(pkt->data(), pkt->size());
    PIMIO_TRACE(4, "TX: <IP version=" << unsigned(h.version()) << " ihl=" << h.headerLength() / 4
                                      << " tos=" << unsigned(h.tos()) << " len=" << h.totalLength() << " id=" << h.id()
                                      << " dontFrag=" << h.dontFragment() << " moreFrag=" << h.moreFragments()
                                      << " reservedFragFlag=" << h.reservedFragmentFlag()
                                      << " frag=" << h.fragmentOffset() << " ttl=" << unsigned(h.ttl())
                                      << " proto=" << unsigned(h.protocol()) << std::hex << " chksum=0x"
                                      << h.checksum() << " computed chksum=0x" << h.computedChecksum() << std::dec
                                      << " src=" << h.src() << " dst=" << h.dst() << ">");
  }
}

void IOSm::doAddIpv6Header(const Loom::Ptr<Knet::Pkt>& pkt, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst,
                           U8 ttl, U8 tos) {
  const U16 payload = static_cast<U16>(pkt->size() - Knet::Ip6Hdr::size);
  Knet::Ip6Hdr::write(pkt->data(), tos, payload, Knet::ipProtoPim, ttl, src, dst);
  PIMIO_TRACE(4, "TX: <IP version=6 tos=" << unsigned(tos) << " len=" << payload << " nextHdr="
                                          << unsigned(Knet::ipProtoPim) << " hopLimit=" << unsigned(ttl) << " src=" << src
                                          << " dst=" << dst << ">");
}

void IOSm::handleTxSuccess() {
  trace(8, "handleTxSuccess");
  if (Knet::IpPam* pam = pimPam(); pam && pam->txPkts()) PIMIO_TRACE(7, pam->name() << " successfully sent.");
}

void IOSm::handleTxError() {
  trace(8, "handleTxError");
  Knet::IpPam* pam = pimPam();
  if (!pam || pam->txErrors() == 0) return;
  const auto& record = pimPamManager_->txMessageInfo();
  if (record && record->message()) {
    const auto& msg = record->message();
    updateCounter(tx, msg->pimMessageType(), msg->messageSubtype(), record->intfId(),
                  MessageCounterType::counterInvalid);
  }
  PIMIO_TRACE(1, pam->name() << " failed to send.");
}

void IOSm::txErrorInc() {
  if (const auto& counter = pimPamManager_->txPamCounter()) counter->errorInc(1);
}

}  // namespace Routing::Pim::IO
