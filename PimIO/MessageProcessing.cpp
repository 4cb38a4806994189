// The per-type processing of a received message (its body decoded with the codec, the boundary
// rules of reception applied) and the per-interface neighbor filter.
#include "PimIO/IOSm.h"
#include "PimMessage/AssertMessage.h"
#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/DfElectionMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/MessageTable.h"

namespace Routing::Pim::IO {

namespace {

constexpr auto rx = MessageCounterDirection::directionRx;
constexpr auto invalid = MessageCounterType::counterInvalid;
constexpr auto filtered = MessageCounterType::counterFiltered;

// The read-error text of each DF election subtype, Offer (1) to Pass (4).
constexpr const char* dfReadError[] = {
    "RX: Error - Invalid Pim DF Election Offer - Read Error",
    "RX: Error - Invalid Pim DF Election Winner - Read Error",
    "RX: Error - Invalid Pim DF Election Backoff - Read Error",
    "RX: Error - Invalid Pim DF Election Pass - Read Error",
};

}  // namespace

U32 IOSm::decode(const Loom::Ptr<RxPktContext>& ctx, Knet::PimMessageType type, U8 subtype,
                 const Loom::Ptr<Boundary::IntfBoundary>& boundary, Loom::Ptr<Packet::Message>& msg) {
  const Packet::MessageClass* row = Packet::messageClass(type, subtype);
  LOOM_ASSERT(row, "a message class for every processed type");
  if (type == Knet::pimHello()) {
    // A spare is held by nobody else: it is made as new again.
    if (spareHello_) *spareHello_ = Packet::HelloMessage();
    Loom::Ptr<Packet::HelloMessage> hello = spareHello_ ? std::move(spareHello_) : Packet::helloMessageFactory();
    decodedHello_ = hello.ptr();
    msg = std::move(hello);
  } else {
    msg = row->create();
  }
  msg->srcIpIs(ctx->srcIp());
  msg->dstIpIs(ctx->dstIp());
  if (type == Knet::pimJoinPrune()) static_cast<Packet::JoinPruneMessage&>(*msg).bidirIs(bidir_);
  return row->read(*msg, ctx->pkt(), ctx->offset(), boundary);
}

bool IOSm::processed(const Loom::Ptr<RxPktContext>& ctx, const Loom::Ptr<Packet::Message>& msg, U32 bytes) {
  PIMIO_TRACE(4, "RX: <PIM " << msg.ptr() << ">");
  ctx->offsetInc(bytes);
  ctx->remainingDec(static_cast<U16>(bytes));
  ctx->msgIs(msg);
  return true;
}

bool IOSm::dropped(const Loom::Ptr<RxPktContext>& ctx, Knet::PimMessageType type, int level, const char* text,
                   MessageCounterType ct) {
  PIMIO_TRACE(level, text);
  updateCounter(rx, type, Cask::CounterKey::anySubtype, ctx->intfId(), ct);
  return false;
}

bool IOSm::processSimple(const Loom::Ptr<RxPktContext>& ctx, Knet::PimMessageType type, const char* readError) {
  Loom::Ptr<Packet::Message> msg;
  const U32 bytes = decode(ctx, type, Packet::noSubtype, nullptr, msg);
  return bytes ? processed(ctx, msg, bytes) : dropped(ctx, type, 1, readError, invalid);
}

bool IOSm::processHelloMessage(const Loom::Ptr<RxPktContext>& ctx) {
  return processSimple(ctx, Knet::pimHello(), "RX: Error - Invalid Pim Hello - Read Error");
}

bool IOSm::processRegisterMessage(const Loom::Ptr<RxPktContext>& ctx) {
  return processSimple(ctx, Knet::pimRegister(), "RX: Error - Invalid Pim Register - Read Error");
}

bool IOSm::processRegisterStopMessage(const Loom::Ptr<RxPktContext>& ctx) {
  return processSimple(ctx, Knet::pimRegisterStop(), "RX: Error - Invalid Pim Register Stop - Read Error");
}

bool IOSm::processCrpAdvMessage(const Loom::Ptr<RxPktContext>& ctx) {
  return processSimple(ctx, Knet::pimCandidateRpAdvertisement(), "RX: Error - Invalid Pim CrpAdv - Read Error");
}

// The reader drops the groups behind the interface's boundary; a message that announced groups
// and kept none was filtered, not malformed.
bool IOSm::processJoinPruneMessage(const Loom::Ptr<RxPktContext>& ctx) {
  const auto& boundary =
      intfBoundary(ctx->intfId(), pimPamManager_ ? pimPamManager_->addressFamily() : ctx->srcIp().af());
  Loom::Ptr<Packet::Message> msg;
  const U32 bytes = decode(ctx, Knet::pimJoinPrune(), Packet::noSubtype, boundary, msg);
  if (bytes) return processed(ctx, msg, bytes);
  const auto& jp = static_cast<const Packet::JoinPruneMessage&>(*msg);
  if (jp.groupCount() != 0 && jp.failure() == Packet::Failure(Packet::JoinPruneText::zeroValidGroups)) {
    return dropped(ctx, Knet::pimJoinPrune(), 1, "RX: Filtered - Pim Join/Prune - Zero Groups", filtered);
  }
  return dropped(ctx, Knet::pimJoinPrune(), 1, "RX: Error - Invalid Pim Join/Prune - Read Error", invalid);
}

bool IOSm::processAssertMessage(const Loom::Ptr<RxPktContext>& ctx) {
  Loom::Ptr<Packet::Message> msg;
  const U32 bytes = decode(ctx, Knet::pimAssert(), Packet::noSubtype, nullptr, msg);
  if (!bytes) return dropped(ctx, Knet::pimAssert(), 1, "RX: Error - Invalid Pim Assert - Read Error", invalid);
  if (mcastBoundary_ &&
      mcastBoundary_->filtered(ctx->intfId(), static_cast<const Packet::AssertMessage&>(*msg).group())) {
    return dropped(ctx, Knet::pimAssert(), 1, "RX: Assert: Group is Boundary filter - Packet Filtered", filtered);
  }
  return processed(ctx, msg, bytes);
}

const Loom::Ptr<Boundary::IntfBoundary>& IOSm::intfBoundary(const Knet::IntfId& intfId, Knet::AddressFamily af) const {
  static const Loom::Ptr<Boundary::IntfBoundary> none;
  if (!mcastBoundaryStatus_) return none;
  const auto status = mcastBoundaryStatus_->softwareBoundaryStatus(intfId.name());
  return status ? status->boundary(af) : none;
}

bool IOSm::bootstrapBounded(const Packet::Message& bootstrap, const Knet::IntfId& intfId) const {
  const auto& groups = static_cast<const Packet::BootstrapMessage&>(bootstrap).groupRpData();
  if (!mcastBoundary_ || !groups || groups->groupData().empty()) return false;
  const BootstrapGroupData& first = *groups->groupData().begin()->second;
  return first.zone() && mcastBoundary_->filteredPrefix(intfId, first.prefix());
}

bool IOSm::processBootstrapMessage(const Loom::Ptr<RxPktContext>& ctx) {
  Loom::Ptr<Packet::Message> msg;
  const U32 bytes = decode(ctx, Knet::pimBootstrap(), Packet::noSubtype, nullptr, msg);
  if (!bytes) return dropped(ctx, Knet::pimBootstrap(), 1, "RX: Error - Invalid Pim Bootstrap - Read Error", invalid);
  if (bootstrapBounded(*msg, ctx->intfId())) {
    return dropped(ctx, Knet::pimBootstrap(), 4, "RX: Bootstrap: Group in Boundary Filter - Packet Filtered", filtered);
  }
  PIMIO_TRACE(4, "RX: Bootstrap Message from " << ctx->srcIp());
  std::ostringstream os;
  os << "<Vrf:" << vrfName() << "> RX: Bootstrap Message from " << ctx->srcIp();
  Loom::RingLog::instance().write(pimIoTrace.name(), 4, __func__, os.str());
  return processed(ctx, msg, bytes);
}

// The common part tells the subtype; each subtype has its own class and reader.
bool IOSm::processDfElectionMessage(const Loom::Ptr<RxPktContext>& ctx) {
  const Loom::Ptr<Packet::DfElectionMessage> common = Packet::dfElectionMessageFactory();
  common->readDfElectionMessage(ctx->pkt(), ctx->offset());
  const U8 subtype = static_cast<U8>(common->dfElectionMessageType());
  if (subtype < 1 || subtype > 4) {
    return dropped(ctx, Knet::pimDfElection(), 1, Packet::unsupportedDfElectionTypeText.data(), invalid);
  }
  Loom::Ptr<Packet::Message> msg;
  const U32 bytes = decode(ctx, Knet::pimDfElection(), subtype, nullptr, msg);
  return bytes ? processed(ctx, msg, bytes) : dropped(ctx, Knet::pimDfElection(), 1, dfReadError[subtype - 1], invalid);
}

bool IOSm::neighborFiltered(Knet::PimMessageType type, const Knet::IpGenAddr& srcIp,
                            const Knet::IntfId& intfId) const {
  PIMIO_TRACE(7, "neighborFiltered srcIp " << srcIp << " on interface " << intfId);
  if (!pimConfigColl_ || type == Knet::pimRegister() || type == Knet::pimRegisterStop()) return false;
  const auto config = pimConfigColl_->intfConfig(intfId);
  if (!config || config->neighborFilter().empty()) return false;
  const std::string& name = config->neighborFilter();
  const auto acl = aclConfig_ ? aclConfig_->aclConfig(name) : nullptr;
  if (!acl) {
    PIMIO_TRACE(7, "Neighbor Filter - No Config For ACL - Name: " << name);
    return false;
  }
  if (acl->af() != srcIp.af()) {
    PIMIO_TRACE(7, (srcIp.af() == Knet::AddressFamily::ipv4 ? "Neighbor Filter - Invalid ACL Type - Name: "
                                                           : "Neighbor Filter Ipv6 - Invalid ACL Type - Name: ")
                       << name << " Type: " << static_cast<int>(acl->type()));
    return false;
  }
  switch (acl->sourceVerdict(srcIp)) {
    case Acl::AclVerdict::permit:
      PIMIO_TRACE(7, "Neighbor Filter - Rule Match - Permit - Name: " << name << " Source: " << srcIp);
      return false;
    case Acl::AclVerdict::deny:
      PIMIO_TRACE(7, "Neighbor Filter - Rule Match - Deny - Name: " << name << " Source: " << srcIp);
      return true;
    case Acl::AclVerdict::implicitDeny:
      break;
  }
  PIMIO_TRACE(7, "Neighbor Filter - No Rule Match - Deny - Name: " << name << " Source: " << srcIp);
  return true;
}

}  // namespace Routing::Pim::IO
