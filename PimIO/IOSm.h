#pragma once
// The I/O state machine of one PIM instance (one address family in one VRF). It owns no socket:
// it is wired to the packet access manager, the message counter table and the agent's status and
// configuration, and turns changes of those into calls of its handlers, through reactors it owns.
// This is its frame: construction, attributes, reactors with their catch-up, and the counters.
// The receive and transmit paths, the unresolved-packet queues, interface membership and the
// kernel filter fill the handlers that stand empty here.
#include <array>
#include <map>
#include <memory>
#include <unordered_map>
#include <set>
#include <string>

#include "Agent/Acl.h"
#include "Agent/IntfStatusDir.h"
#include "Agent/IpIntfStatus.h"
#include "Agent/McastBoundary.h"
#include "Agent/PimAttrLogSm.h"
#include "Agent/PimConfig.h"
#include "Agent/PimStatus.h"
#include "PimIO/MessageCounters.h"
#include "PimIO/PamManager.h"
#include "PimIO/RxPktContext.h"
#include "PimIO/UnresolvedPackets.h"
#include "keel/TimerWheel.h"
#include "loom/Trace.h"

namespace Routing::Pim::IO {

// The state machine's trace unit; every line starts "<Vrf:" the VRF's name ">".
extern Loom::TraceUnit pimIoTrace;
#define PIMIO_TRACE(level, expr) LOOM_TRACE(::Routing::Pim::IO::pimIoTrace, level, "<Vrf:" << vrfName() << "> " << expr)

enum class MessageCounterDirection : U8 { directionTx = 0, directionRx = 1 };
enum class MessageCounterType : U8 { counterInvalid = 0, counterFiltered = 1, counterValid = 2 };
std::string stringValue(MessageCounterDirection d);
std::string stringValue(MessageCounterType t);
std::string valueToStrep(MessageCounterDirection d);
std::string valueToStrep(MessageCounterType t);
std::ostream& operator<<(std::ostream& os, MessageCounterDirection d);
std::ostream& operator<<(std::ostream& os, MessageCounterType t);

class IOSm : public Loom::Entity {
 public:
  static constexpr U32 unresQDepthDefault = 1024;
  static constexpr double unresTimeoutDefault = 5.0;
  static constexpr double loopQuantumDefault = 0.5;

  IOSm(Loom::Ptr<PamManager> pimPamManager, Loom::Ptr<Cask::MessageCounters> pimCounters,
       Loom::Ptr<const Status> pimStatus, Loom::Ptr<const ConfigColl> pimConfigColl,
       Loom::Ptr<const IpGen::IntfStatus> ipGenIntfStatus, Loom::Ptr<const Acl::AclTypeConfig> aclConfig,
       Loom::Ptr<const Interface::DeviceIntfStatusDir> kernelIntfStatusDir,
       Loom::Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir, Loom::Ptr<PimAttrLogSm> pimAttrLogSm,
       Loom::Ptr<Keel::Timer> unresTimer, Loom::Ptr<const McastBoundary::Status> mcastBoundaryStatus);
  ~IOSm() override;

  const Loom::Ptr<PamManager>& pimPamManager() const { return pimPamManager_; }
  void pimPamManagerIs(const Loom::Ptr<PamManager>& m);
  void pimPamManagerDel() { pimPamManagerIs(nullptr); }
  const Loom::Ptr<Cask::MessageCounters>& pimCounters() const { return pimCounters_; }
  const Loom::Ptr<const Status>& pimStatus() const { return pimStatus_; }
  void pimStatusIs(const Loom::Ptr<const Status>& s);
  void pimStatusDel() { pimStatusIs(nullptr); }
  const Loom::Ptr<const ConfigColl>& pimConfigColl() const { return pimConfigColl_; }
  const Loom::Ptr<const IpGen::IntfStatus>& ipGenIntfStatus() const { return ipGenIntfStatus_; }
  const Loom::Ptr<const Acl::AclTypeConfig>& aclConfig() const { return aclConfig_; }
  const Loom::Ptr<const Interface::DeviceIntfStatusDir>& kernelIntfStatusDir() const { return kernelIntfStatusDir_; }
  void kernelIntfStatusDirIs(const Loom::Ptr<const Interface::DeviceIntfStatusDir>& d);
  void kernelIntfStatusDirDel() { kernelIntfStatusDirIs(nullptr); }
  const Loom::Ptr<const Interface::AllIntfStatusDir>& allIntfStatusDir() const { return allIntfStatusDir_; }
  const Loom::Ptr<PimAttrLogSm>& pimAttrLogSm() const { return pimAttrLogSm_; }
  // The timer of the unresolved-packet queues' review, made by the agent on its timer wheel.
  const Loom::Ptr<Keel::Timer>& unresTimer() const { return unresTimer_; }
  void unresTimerIs(const Loom::Ptr<Keel::Timer>& t);
  void unresTimerDel() { unresTimerIs(nullptr); }
  const Loom::Ptr<const McastBoundary::Status>& mcastBoundaryStatus() const { return mcastBoundaryStatus_; }

  bool bidir() const { return bidir_; }
  void bidirIs(bool v) { bidir_ = v; }
  const Loom::Ptr<const Boundary::McastBoundary>& mcastBoundary() const { return mcastBoundary_; }
  void mcastBoundaryIs(const Loom::Ptr<const Boundary::McastBoundary>& b) { mcastBoundary_ = b; }
  U32 unresQDepth() const { return unresQDepth_; }
  void unresQDepthIs(U32 v) { unresQDepth_ = v; }
  double unresTimeout() const { return unresTimeout_; }
  void unresTimeoutIs(double v) { unresTimeout_ = v; }
  double loopQuantum() const { return loopQuantum_; }
  void loopQuantumIs(double v) { loopQuantum_ = v; }
  const std::set<Knet::IntfId>& allPimRoutersMember() const { return allPimRoutersMember_; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }

  // The manager's socket in use; null without a manager or socket.
  Knet::IpPam* pimPam() const { return pimPamManager_ ? pimPamManager_->pam().ptr() : nullptr; }
  // The VRF of the PIM status ("" without one); every trace line starts "<Vrf:" it ">".
  std::string vrfName() const { return pimStatus_ ? pimStatus_->vrfName() : std::string(); }

  // The unresolved-packet queues, one per neighbor that sent before it was known.
  using UnresPktColl = std::map<Cask::NeighborKey, Loom::Ptr<PimUnresolvedPackets>>;
  const UnresPktColl& pimUnresPkt() const { return pimUnresPkt_; }
  Loom::Ptr<PimUnresolvedPackets> pimUnresPkt(const Cask::NeighborKey& key) const;
  // The queue of `key`, made empty if there is none.
  Loom::Ptr<PimUnresolvedPackets> pimUnresPktIs(const Cask::NeighborKey& key);
  void pimUnresPktDel(const Cask::NeighborKey& key) { pimUnresPkt_.erase(key); }
  void pimUnresPktDelAll() { pimUnresPkt_.clear(); }
  // Parks a decoded message in its neighbor's queue (arming the review when it is the first
  // queue); the receive path does this for a neighbor that is not known yet. Counts nothing.
  void pimUnresPktEnq(const Cask::NeighborKey& key, const Loom::Ptr<Packet::Message>& msg);

  // The per-type processing of a received message that passed the header checks: decodes the body
  // at the context's offset, applies the boundary rules of reception and leaves the message in the
  // context (true); false when the packet ends here, traced and counted.
  bool processHelloMessage(const Loom::Ptr<RxPktContext>& ctx);
  bool processRegisterMessage(const Loom::Ptr<RxPktContext>& ctx);
  bool processRegisterStopMessage(const Loom::Ptr<RxPktContext>& ctx);
  bool processJoinPruneMessage(const Loom::Ptr<RxPktContext>& ctx);
  bool processAssertMessage(const Loom::Ptr<RxPktContext>& ctx);
  bool processBootstrapMessage(const Loom::Ptr<RxPktContext>& ctx);
  bool processCrpAdvMessage(const Loom::Ptr<RxPktContext>& ctx);
  bool processDfElectionMessage(const Loom::Ptr<RxPktContext>& ctx);
  // The receive path, run when the socket is readable: reads packets in a time slice of
  // loopQuantum() and runs each through processPkt.
  void processPkt(const Loom::Ptr<RxPktContext>& ctx);
  bool readIpHeader(const Loom::Ptr<RxPktContext>& ctx);
  // The PIM header at the context's offset (not consumed); null when the packet is too short.
  const Knet::PimCommonHdr* peekPimHeader(const Loom::Ptr<RxPktContext>& ctx);
  bool validateRxInterface(const Loom::Ptr<RxPktContext>& ctx);
  bool validateRxDstAddress(const Loom::Ptr<RxPktContext>& ctx);
  bool validateRxSrcAddress(const Loom::Ptr<RxPktContext>& ctx);
  // Every packet read is accounted once: read = valid + filtered + invalid + parked + errors, from
  // the manager's receive counter, the table's totals and the queues.
  struct RxAccounting {
    U64 read = 0, valid = 0, filtered = 0, invalid = 0, parked = 0, errors = 0;
    bool balanced() const { return read == valid + filtered + invalid + parked + errors; }
  };
  RxAccounting rxAccounting() const;

  // The transmit path's IP header, written into the room in front of the message when the
  // manager builds headers itself.
  void doAddIpHeader(const Loom::Ptr<Knet::Pkt>& pkt, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst, U8 ttl,
                     U8 tos);
  void doAddIpv4Header(const Loom::Ptr<Knet::Pkt>& pkt, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst,
                       U8 ttl, U8 tos);
  void doAddIpv6Header(const Loom::Ptr<Knet::Pkt>& pkt, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst,
                       U8 ttl, U8 tos);

  // Whether the interface's neighbor filter drops messages of `type` from `srcIp` (true = drop).
  // A missing list, or one of the other family, lets everything through; an existing list without
  // a rule for the address drops it.
  bool neighborFiltered(Knet::PimMessageType type, const Knet::IpGenAddr& srcIp, const Knet::IntfId& intfId) const;

  // The per-interface reactors, one per PIM interface of the status.
  class PimIntfSm;
  const std::map<Knet::IntfId, std::unique_ptr<PimIntfSm>>& pimIntf() const { return pimIntf_; }
  void pimIntfIs(const Loom::Ptr<const Pim::Intf>& intf);
  void pimIntfDel(const Knet::IntfId& id);
  void pimIntfDelAll();

  // What the receive path needs of the interface behind one kernel index, found once and then
  // read by index: the manager's kernel and I/O interfaces and the PIM interface of the status
  // (null when PIM is off there). The reactors that see the manager's interface tables and the
  // PIM status change drop every record; a record whose kernel interface has since been given
  // another name is not used. Only an active machine keeps records (an inactive one would not
  // hear of changes).
  struct RxIntf {
    Loom::Ptr<const KernelIntf> kIntf;
    U32 renames = 0;  // kIntf's renames() when the record was made
    Loom::Ptr<const Intf> pIntf;
    Loom::Ptr<const Pim::Intf> pimIntf;
  };
  // Kernel indexes from this one on are looked up every time.
  static constexpr U32 rxIntfIndexLimit = 4096;
  // The record of `ifIndex`, null when there is none or it no longer holds.
  const RxIntf* rxIntf(U32 ifIndex) const {
    if (ifIndex >= rxIntf_.size()) return nullptr;
    const RxIntf& r = rxIntf_[ifIndex];
    return r.kIntf && r.kIntf->renames() == r.renames ? &r : nullptr;
  }
  void rxIntfIs(U32 ifIndex, const Loom::Ptr<const KernelIntf>& k, const Loom::Ptr<const Intf>& p,
                const Loom::Ptr<const Pim::Intf>& pim);
  void rxIntfDelAll() { rxIntf_.clear(); }

  // The state machine and every reactor it owns forward callbacks only while active.
  bool hasNotificationActive() const { return active_; }
  void hasNotificationActiveIs(bool v);
  // The framework tears the machine down while it is still referenced: no reactor forwards more.
  void loomDoZombieReactors(bool zombie);

  // The counter table's handles of one interface's entries (or of the totals'), by type and
  // subtype, so that a count finds its entry without hashing its key. Whoever counts often for one
  // interface holds one (each PIM interface's reactor does); handles of a table that has since
  // deleted keys are dropped and found again on first use.
  class IntfCounters {
   public:
    explicit IntfCounters(Knet::IntfId intfId = Knet::IntfId()) : intfId_(std::move(intfId)) { slot_.fill(unknownSlot); }
    const Knet::IntfId& intfId() const { return intfId_; }

   private:
    friend class IOSm;
    // Index type * 17 + (subtype + 1), 0 for all subtypes; DF election subtypes fit, larger ones
    // take the slow way. unknownSlot until first used, -1 when the table refused the key.
    static constexpr long unknownSlot = -2;
    void forget(U64 generation) {
      slot_.fill(unknownSlot);
      generation_ = generation;
    }
    Knet::IntfId intfId_;
    U64 generation_ = 0;
    std::array<long, 16 * 17> slot_;
  };
  // The machine's own handles of the interface (kept until the interface's reactor goes).
  IntfCounters& intfCounters(const Knet::IntfId& intfId);

  // Counts one message in the table (totals, interface, subtype) and in the manager's counter.
  void updateCounter(MessageCounterDirection dir, Knet::PimMessageType type, Packet::MessageSubtype subtype,
                     const Knet::IntfId& intfId, MessageCounterType ct) {
    updateCounter(dir, type, subtype, intfId.isEmpty() ? nullptr : &intfCounters(intfId), ct);
  }
  // The same with the interface's handles at hand (null for no interface).
  void updateCounter(MessageCounterDirection dir, Knet::PimMessageType type, Packet::MessageSubtype subtype,
                     IntfCounters* intf, MessageCounterType ct);
  static void incCounter(MessageCounterDirection dir, MessageCounterType ct,
                         const Loom::Ptr<Cask::MessageCounters>& counters, const Cask::CounterKey& key);

  void handleInitialized();
  // Handlers that the reactors reach; the paths that fill them come with the receive path, the
  // transmit path, the queues, membership and the kernel filter.
  void rxPkt();
  void txPkt();
  void handleTxSuccess();
  void handleTxError();
  void handlePamFilter();
  void handlePimInterface(const Knet::IntfId& id);
  void handleInterface();
  void handleInterface(const Knet::IntfId& id);
  void handleUnresolvedPackets();
  // ALL-PIM-ROUTERS membership on the PIM interfaces whose device exists (IOSmInterfaces.cpp).
  void doMaybeUpdatePimRoutersMembership(const Knet::IntfId& id, U32 ifIndex);
  void addPimRoutersMembership(const Knet::IntfId& id, U32 ifIndex);
  void dropPimRoutersMembership(const Knet::IntfId& id, U32 ifIndex);
  void allPimRoutersMemberIs(const Knet::IntfId& id) { allPimRoutersMember_.insert(id); }
  void allPimRoutersMemberDel(const Knet::IntfId& id) { allPimRoutersMember_.erase(id); }
  void allPimRoutersMemberDelAll() { allPimRoutersMember_.clear(); }
  // Join and drop requests that the kernel refused (the device not being ready included), and
  // the times the namespace's IPv4 membership limit was raised to let a join through.
  U32 membershipErrors() const { return membershipErrors_; }
  U32 membershipLimitRaises() const { return membershipLimitRaises_; }

 private:
  bool doSetMembership(bool join, U32 ifIndex, int& error);
  U32 membershipErrors_ = 0;
  U32 membershipLimitRaises_ = 0;

 private:
  friend Loom::Ptr<IOSm> IOSmIs(Loom::Ptr<PamManager>, Loom::Ptr<Cask::MessageCounters>, Loom::Ptr<const Status>,
                                Loom::Ptr<const ConfigColl>, Loom::Ptr<const IpGen::IntfStatus>,
                                Loom::Ptr<const Acl::AclTypeConfig>, Loom::Ptr<const Interface::DeviceIntfStatusDir>,
                                Loom::Ptr<const Interface::AllIntfStatusDir>, Loom::Ptr<PimAttrLogSm>,
                                Loom::Ptr<Keel::Timer>, Loom::Ptr<const McastBoundary::Status>);
  class LoomPimPamManager;
  class LoomPimStatus;
  class LoomKernelIntfStatusDir;
  class LoomUnresTimer;
  class Loom_PamIn;
  class Loom_TxMessageInfoIn;
  template <class R, class E>
  void reactorIs(std::unique_ptr<R>& reactor, const Loom::Ptr<E>& watched, bool catchUp);
  void loom_PamInIs(Knet::IpPam* pam);
  void loom_TxMessageInfoInIs(const Loom::Ptr<MessageInfo>& info);
  void trace(int level, const char* text) const;
  void trace(int level, const std::string& text) const;
  // A new message of the class of `type` (and DF election `subtype`) with the packet's addresses,
  // read at the context's offset (with `boundary` for Join/Prune): bytes read, 0 on failure.
  U32 decode(const Loom::Ptr<RxPktContext>& ctx, Knet::PimMessageType type, U8 subtype,
             const Loom::Ptr<Boundary::IntfBoundary>& boundary, Loom::Ptr<Packet::Message>& msg);
  // The two ends of a processing method: the message kept and the context moved past it (true),
  // or the packet dropped with `text` and counted with `ct` (false).
  bool processed(const Loom::Ptr<RxPktContext>& ctx, const Loom::Ptr<Packet::Message>& msg, U32 bytes);
  bool dropped(const Loom::Ptr<RxPktContext>& ctx, Knet::PimMessageType type, int level, const char* text,
               MessageCounterType ct);
  bool processSimple(const Loom::Ptr<RxPktContext>& ctx, Knet::PimMessageType type, const char* readError);
  void handOver(const Loom::Ptr<RxPktContext>& ctx, Knet::PimMessageType t);
  void rxErrorInc();
  void txErrorInc();
  // The time of the agent's timer wheel (the monotonic clock without one).
  Keel::Time now() const;
  // Hello, Join/Prune, Bootstrap, Assert and DF election travel one hop: they belong to a PIM
  // interface and go to its PIM routers.
  static bool linkLocal(Knet::PimMessageType t) {
    return t == Knet::pimHello() || t == Knet::pimJoinPrune() || t == Knet::pimBootstrap() ||
           t == Knet::pimAssert() || t == Knet::pimDfElection();
  }
  // The interface's software boundary of the family, read in place; null when it has none.
  const Loom::Ptr<Boundary::IntfBoundary>& intfBoundary(const Knet::IntfId& intfId, Knet::AddressFamily af) const;
  // Whether a Bootstrap stays on this side of the interface's boundary: only its first group range
  // decides, and only when that range is admin-scoped (the message is flooded whole or not at all).
  bool bootstrapBounded(const Packet::Message& bootstrap, const Knet::IntfId& intfId) const;
  void countIn(IntfCounters& slots, U8 type, Packet::MessageSubtype subtype, Cask::MessageCounters::Count count);

  Loom::Ptr<PamManager> pimPamManager_;
  Loom::Ptr<Cask::MessageCounters> pimCounters_;
  Loom::Ptr<const Status> pimStatus_;
  Loom::Ptr<const ConfigColl> pimConfigColl_;
  Loom::Ptr<const IpGen::IntfStatus> ipGenIntfStatus_;
  Loom::Ptr<const Acl::AclTypeConfig> aclConfig_;
  Loom::Ptr<const Interface::DeviceIntfStatusDir> kernelIntfStatusDir_;
  Loom::Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir_;
  Loom::Ptr<PimAttrLogSm> pimAttrLogSm_;
  Loom::Ptr<Keel::Timer> unresTimer_;
  Loom::Ptr<const McastBoundary::Status> mcastBoundaryStatus_;
  bool bidir_ = false;
  Loom::Ptr<const Boundary::McastBoundary> mcastBoundary_;
  U32 unresQDepth_ = unresQDepthDefault;
  double unresTimeout_ = unresTimeoutDefault;
  std::map<Knet::IntfId, std::unique_ptr<PimIntfSm>> pimIntf_;
  UnresPktColl pimUnresPkt_;
  std::vector<Knet::RxPkt> rxBatch_;
  Loom::Ptr<Knet::Pkt> txPkt_;  // reused for every message sent while no one else holds it or its bytes
  double loopQuantum_ = loopQuantumDefault;
  std::set<Knet::IntfId> allPimRoutersMember_;
  bool initialized_ = false;
  bool active_ = false;
  std::vector<RxIntf> rxIntf_;  // by kernel index
  // A Hello's message object is used again once its slot and the agent have let it go: the one
  // decoded for the packet in hand (to tell it from a message made elsewhere), the one last handed
  // over, and the one waiting to be decoded into.
  Packet::HelloMessage* decodedHello_ = nullptr;
  Loom::Ptr<Packet::HelloMessage> handedHello_;
  Loom::Ptr<Packet::HelloMessage> spareHello_;
  IntfCounters totalCounters_;
  std::unordered_map<Knet::IntfId, IntfCounters> intfCounters_;  // nodes stay put: handles are kept
  IntfCounters* lastIntfCounters_ = nullptr;
  std::unique_ptr<LoomPimPamManager> loomPimPamManager_;
  std::unique_ptr<LoomPimStatus> loomPimStatus_;
  std::unique_ptr<LoomKernelIntfStatusDir> loomKernelIntfStatusDir_;
  std::unique_ptr<LoomUnresTimer> loomUnresTimer_;
  std::unique_ptr<Loom_PamIn> loom_PamIn_;
  std::unique_ptr<Loom_TxMessageInfoIn> loom_TxMessageInfoIn_;
};

std::ostream& operator<<(std::ostream& os, const IOSm::RxAccounting& a);

// One PIM interface of the status: a neighbor that becomes active releases its parked packets.
class IOSm::PimIntfSm : public Pim::Intf::Notifiee {
 public:
  PimIntfSm(IOSm* sm, const Loom::Ptr<const Pim::Intf>& intf) : sm_(sm) { notifierIs(intf); }
  void onActiveNeighbor(const Knet::IpGenAddr& addr) override { handleNewNeighbor(addr); }
  // Hands the neighbor's parked messages over to the agent in arrival order, one count each.
  void handleNewNeighbor(const Knet::IpGenAddr& addr);

 private:
  IOSm* sm_;
};

// Makes the state machine with these arguments and makes it active: how the agent creates it.
Loom::Ptr<IOSm> IOSmIs(Loom::Ptr<PamManager> pimPamManager, Loom::Ptr<Cask::MessageCounters> pimCounters,
                       Loom::Ptr<const Status> pimStatus, Loom::Ptr<const ConfigColl> pimConfigColl,
                       Loom::Ptr<const IpGen::IntfStatus> ipGenIntfStatus,
                       Loom::Ptr<const Acl::AclTypeConfig> aclConfig,
                       Loom::Ptr<const Interface::DeviceIntfStatusDir> kernelIntfStatusDir,
                       Loom::Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
                       Loom::Ptr<PimAttrLogSm> pimAttrLogSm, Loom::Ptr<Keel::Timer> unresTimer,
                       Loom::Ptr<const McastBoundary::Status> mcastBoundaryStatus);
Loom::Ptr<IOSm> iOSmFactory(Loom::Ptr<PamManager> pimPamManager, Loom::Ptr<Cask::MessageCounters> pimCounters,
                            Loom::Ptr<const Status> pimStatus, Loom::Ptr<const ConfigColl> pimConfigColl,
                            Loom::Ptr<const IpGen::IntfStatus> ipGenIntfStatus,
                            Loom::Ptr<const Acl::AclTypeConfig> aclConfig,
                            Loom::Ptr<const Interface::DeviceIntfStatusDir> kernelIntfStatusDir,
                            Loom::Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
                            Loom::Ptr<PimAttrLogSm> pimAttrLogSm, Loom::Ptr<Keel::Timer> unresTimer,
                            Loom::Ptr<const McastBoundary::Status> mcastBoundaryStatus);

}  // namespace Routing::Pim::IO
