#include "PimIO/IOSm.h"

#include <sstream>

#include "loom/Assert.h"
#include "loom/Trace.h"

namespace Routing::Pim::IO {

Loom::TraceUnit pimIoTrace("PimIO");

std::string stringValue(MessageCounterDirection d) {
  return d == MessageCounterDirection::directionTx ? "directionTx" : "directionRx";
}
std::string stringValue(MessageCounterType t) {
  switch (t) {
    case MessageCounterType::counterInvalid: return "counterInvalid";
    case MessageCounterType::counterFiltered: return "counterFiltered";
    case MessageCounterType::counterValid: return "counterValid";
  }
  return "MessageCounterType(" + std::to_string(static_cast<int>(t)) + ")";
}
std::string valueToStrep(MessageCounterDirection d) { return stringValue(d); }
std::string valueToStrep(MessageCounterType t) { return stringValue(t); }
std::ostream& operator<<(std::ostream& os, MessageCounterDirection d) { return os << stringValue(d); }
std::ostream& operator<<(std::ostream& os, MessageCounterType t) { return os << stringValue(t); }

// ---- The reactors: each forwards its callbacks to the state machine through a plain pointer.

class IOSm::LoomPimPamManager : public PamManager::Notifiee {
 public:
  explicit LoomPimPamManager(IOSm* sm) : sm_(sm) {}
  void onPam() override { sm_->loom_PamInIs(notifier()->pam().ptr()); }
  void onTxMessageInfo() override { sm_->loom_TxMessageInfoInIs(notifier()->txMessageInfo()); }
  void onRxMessageInfo(Packet::MessageType) override { sm_->handlePamFilter(); }
  void onIntf(const Knet::IntfId&) override { sm_->rxIntfDelAll(); }
  void onKernelIntf(U32) override { sm_->rxIntfDelAll(); }
  // On a new manager: its socket and its transmit record, as if both had just changed.
  void catchUp() {
    onPam();
    onTxMessageInfo();
  }

 private:
  IOSm* sm_;
};

class IOSm::LoomPimStatus : public Status::Notifiee {
 public:
  explicit LoomPimStatus(IOSm* sm) : sm_(sm) {}
  void onPimIntf(const Knet::IntfId& id) override {
    sm_->rxIntfDelAll();
    sm_->handlePimInterface(id);
    if (auto intf = notifier()->pimIntf(id)) {
      sm_->pimIntfIs(intf);
    } else {
      sm_->pimIntfDel(id);
    }
  }
  // On a new status: a reactor for each of its interfaces, none for interfaces it lacks.
  void catchUp() {
    for (const auto& [id, intf] : notifier()->pimIntf()) sm_->pimIntfIs(intf);
    for (auto it = sm_->pimIntf_.begin(); it != sm_->pimIntf_.end();) {
      const Knet::IntfId id = (it++)->first;
      if (!notifier()->pimIntf(id)) sm_->pimIntfDel(id);
    }
  }

 private:
  IOSm* sm_;
};

class IOSm::LoomKernelIntfStatusDir : public Interface::DeviceIntfStatusDir::Notifiee {
 public:
  explicit LoomKernelIntfStatusDir(IOSm* sm) : sm_(sm) {}
  void onIntfStatusAndDeviceName(const Knet::IntfId& id) override { sm_->handleInterface(id); }
  void catchUp() { sm_->handleInterface(); }

 private:
  IOSm* sm_;
};

class IOSm::LoomUnresTimer : public Keel::Timer::Notifiee {
 public:
  explicit LoomUnresTimer(IOSm* sm) : sm_(sm) {}
  void onTime() override { sm_->handleUnresolvedPackets(); }
  void catchUp() { onTime(); }

 private:
  IOSm* sm_;
};

class IOSm::Loom_PamIn : public Knet::IpPam::Notifiee {
 public:
  explicit Loom_PamIn(IOSm* sm) : sm_(sm) {}
  void onReadable() override { sm_->rxPkt(); }
  void onTxPkts() override { sm_->handleTxSuccess(); }
  void onTxErrors() override { sm_->handleTxError(); }
  // On a new socket: what it may have reported before, errors first.
  void catchUp() {
    onTxErrors();
    onTxPkts();
    onReadable();
  }

 private:
  IOSm* sm_;
};

class IOSm::Loom_TxMessageInfoIn : public MessageInfo::Notifiee {
 public:
  explicit Loom_TxMessageInfoIn(IOSm* sm) : sm_(sm) {}
  void onCount() override { sm_->txPkt(); }
  void catchUp() { onCount(); }

 private:
  IOSm* sm_;
};

// Replaces the reactor of a watched object (callers have made sure it is another object): a new
// active reactor, caught up with what the object holds unless `catchUp` is false; none for null.
template <class R, class E>
void IOSm::reactorIs(std::unique_ptr<R>& reactor, const Loom::Ptr<E>& watched, bool catchUp) {
  reactor.reset();
  if (!watched) return;
  reactor = std::make_unique<R>(this);
  reactor->notifierIs(watched);
  reactor->hasNotificationActiveIs(true);
  if (catchUp) reactor->catchUp();
}

// ---- Construction

IOSm::IOSm(Loom::Ptr<PamManager> pimPamManager, Loom::Ptr<Cask::MessageCounters> pimCounters,
           Loom::Ptr<const Status> pimStatus, Loom::Ptr<const ConfigColl> pimConfigColl,
           Loom::Ptr<const IpGen::IntfStatus> ipGenIntfStatus, Loom::Ptr<const Acl::AclTypeConfig> aclConfig,
           Loom::Ptr<const Interface::DeviceIntfStatusDir> kernelIntfStatusDir,
           Loom::Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir, Loom::Ptr<PimAttrLogSm> pimAttrLogSm,
           Loom::Ptr<Keel::Timer> unresTimer, Loom::Ptr<const McastBoundary::Status> mcastBoundaryStatus)
    : pimPamManager_(std::move(pimPamManager)),
      pimCounters_(std::move(pimCounters)),
      pimStatus_(std::move(pimStatus)),
      pimConfigColl_(std::move(pimConfigColl)),
      ipGenIntfStatus_(std::move(ipGenIntfStatus)),
      aclConfig_(std::move(aclConfig)),
      kernelIntfStatusDir_(std::move(kernelIntfStatusDir)),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      pimAttrLogSm_(std::move(pimAttrLogSm)),
      unresTimer_(std::move(unresTimer)),
      mcastBoundaryStatus_(std::move(mcastBoundaryStatus)) {
  // The manager's reactor takes up its socket and transmit record at once, and the timer's runs a
  // review; the status's interfaces and the devices are taken up below and by handleInitialized.
  reactorIs(loomPimPamManager_, pimPamManager_, true);
  reactorIs(loomPimStatus_, pimStatus_, false);
  reactorIs(loomKernelIntfStatusDir_, kernelIntfStatusDir_, false);
  reactorIs(loomUnresTimer_, unresTimer_, true);
  handlePamFilter();
  if (loomPimStatus_) loomPimStatus_->catchUp();
  handleInitialized();
}

IOSm::~IOSm() {
  loom_TxMessageInfoIn_.reset();
  loom_PamIn_.reset();
  loomUnresTimer_.reset();
  loomKernelIntfStatusDir_.reset();
  loomPimStatus_.reset();
  loomPimPamManager_.reset();
  pimIntf_.clear();
}

Loom::Ptr<IOSm> IOSmIs(Loom::Ptr<PamManager> pimPamManager, Loom::Ptr<Cask::MessageCounters> pimCounters,
                       Loom::Ptr<const Status> pimStatus, Loom::Ptr<const ConfigColl> pimConfigColl,
                       Loom::Ptr<const IpGen::IntfStatus> ipGenIntfStatus,
                       Loom::Ptr<const Acl::AclTypeConfig> aclConfig,
                       Loom::Ptr<const Interface::DeviceIntfStatusDir> kernelIntfStatusDir,
                       Loom::Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
                       Loom::Ptr<PimAttrLogSm> pimAttrLogSm, Loom::Ptr<Keel::Timer> unresTimer,
                       Loom::Ptr<const McastBoundary::Status> mcastBoundaryStatus) {
  Loom::Ptr<IOSm> sm =
      new IOSm(std::move(pimPamManager), std::move(pimCounters), std::move(pimStatus), std::move(pimConfigColl),
               std::move(ipGenIntfStatus), std::move(aclConfig), std::move(kernelIntfStatusDir),
               std::move(allIntfStatusDir), std::move(pimAttrLogSm), std::move(unresTimer),
               std::move(mcastBoundaryStatus));
  sm->hasNotificationActiveIs(true);
  return sm;
}

Loom::Ptr<IOSm> iOSmFactory(Loom::Ptr<PamManager> pimPamManager, Loom::Ptr<Cask::MessageCounters> pimCounters,
                            Loom::Ptr<const Status> pimStatus, Loom::Ptr<const ConfigColl> pimConfigColl,
                            Loom::Ptr<const IpGen::IntfStatus> ipGenIntfStatus,
                            Loom::Ptr<const Acl::AclTypeConfig> aclConfig,
                            Loom::Ptr<const Interface::DeviceIntfStatusDir> kernelIntfStatusDir,
                            Loom::Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
                            Loom::Ptr<PimAttrLogSm> pimAttrLogSm, Loom::Ptr<Keel::Timer> unresTimer,
                            Loom::Ptr<const McastBoundary::Status> mcastBoundaryStatus) {
  return IOSmIs(std::move(pimPamManager), std::move(pimCounters), std::move(pimStatus), std::move(pimConfigColl),
                std::move(ipGenIntfStatus), std::move(aclConfig), std::move(kernelIntfStatusDir),
                std::move(allIntfStatusDir), std::move(pimAttrLogSm), std::move(unresTimer),
                std::move(mcastBoundaryStatus));
}

// ---- Watched objects

void IOSm::pimPamManagerIs(const Loom::Ptr<PamManager>& m) {
  if (m == pimPamManager_) return;
  pimPamManager_ = m;
  rxIntfDelAll();
  if (!m) {
    loom_PamIn_.reset();
    loom_TxMessageInfoIn_.reset();
  }
  reactorIs(loomPimPamManager_, m, true);
}

void IOSm::pimStatusIs(const Loom::Ptr<const Status>& s) {
  if (s == pimStatus_) return;
  pimStatus_ = s;
  rxIntfDelAll();
  reactorIs(loomPimStatus_, s, true);
  if (!s) pimIntfDelAll();
}

void IOSm::kernelIntfStatusDirIs(const Loom::Ptr<const Interface::DeviceIntfStatusDir>& d) {
  if (d == kernelIntfStatusDir_) return;
  kernelIntfStatusDir_ = d;
  reactorIs(loomKernelIntfStatusDir_, d, true);
}

void IOSm::unresTimerIs(const Loom::Ptr<Keel::Timer>& t) {
  if (t == unresTimer_) return;
  unresTimer_ = t;
  reactorIs(loomUnresTimer_, t, true);
}

void IOSm::loom_PamInIs(Knet::IpPam* pam) { reactorIs(loom_PamIn_, Loom::Ptr<Knet::IpPam>(pam), true); }

void IOSm::loom_TxMessageInfoInIs(const Loom::Ptr<MessageInfo>& info) {
  reactorIs(loom_TxMessageInfoIn_, info, true);
}

void IOSm::pimIntfIs(const Loom::Ptr<const Pim::Intf>& intf) {
  LOOM_ASSERT(intf, "null _pimIntf parameter to mutator for Routing::Pim::IO::IOSm::pimIntf not allowed");
  auto& sm = pimIntf_[intf->intfId()];
  if (sm && sm->notifier() == intf) return;
  sm = std::make_unique<PimIntfSm>(this, intf);
  sm->hasNotificationActiveIs(active_);
}
void IOSm::pimIntfDel(const Knet::IntfId& id) { pimIntf_.erase(id); }
void IOSm::pimIntfDelAll() { pimIntf_.clear(); }

void IOSm::hasNotificationActiveIs(bool v) {
  active_ = v;
  rxIntfDelAll();
  if (loomPimPamManager_) loomPimPamManager_->hasNotificationActiveIs(v);
  if (loomPimStatus_) loomPimStatus_->hasNotificationActiveIs(v);
  if (loomKernelIntfStatusDir_) loomKernelIntfStatusDir_->hasNotificationActiveIs(v);
  if (loomUnresTimer_) loomUnresTimer_->hasNotificationActiveIs(v);
  if (loom_PamIn_) loom_PamIn_->hasNotificationActiveIs(v);
  if (loom_TxMessageInfoIn_) loom_TxMessageInfoIn_->hasNotificationActiveIs(v);
  for (auto& [id, sm] : pimIntf_) sm->hasNotificationActiveIs(v);
}

void IOSm::rxIntfIs(U32 ifIndex, const Loom::Ptr<const KernelIntf>& k, const Loom::Ptr<const Intf>& p,
                    const Loom::Ptr<const Pim::Intf>& pim) {
  if (!active_ || ifIndex >= rxIntfIndexLimit) return;
  if (ifIndex >= rxIntf_.size()) rxIntf_.resize(ifIndex + 1);
  rxIntf_[ifIndex] = RxIntf{k, k->renames(), p, pim};
}

void IOSm::loomDoZombieReactors(bool zombie) {
  if (zombie) hasNotificationActiveIs(false);
}

// ---- Counters

namespace {

Cask::MessageCounters::Count countOf(MessageCounterDirection dir, MessageCounterType ct) {
  using C = Cask::MessageCounters::Count;
  const bool rx = dir != MessageCounterDirection::directionTx;
  switch (ct) {
    case MessageCounterType::counterInvalid: return rx ? C::rxInvalid : C::txInvalid;
    case MessageCounterType::counterFiltered: return rx ? C::rxFiltered : C::txFiltered;
    default: return rx ? C::rxValid : C::txValid;
  }
}

}  // namespace

// Consecutive counts are mostly for one interface: the last one found is tried first.
IOSm::IntfCounters& IOSm::intfCounters(const Knet::IntfId& intfId) {
  if (lastIntfCounters_ && lastIntfCounters_->intfId() == intfId) return *lastIntfCounters_;
  lastIntfCounters_ = &intfCounters_.try_emplace(intfId, intfId).first->second;
  return *lastIntfCounters_;
}

// One entry: its handle when cached, else found (or made) once and kept; subtypes beyond the
// cache's reach take the table's lookup every time.
[[gnu::always_inline]] inline void IOSm::countIn(IntfCounters& c, U8 type, Packet::MessageSubtype subtype,
                          Cask::MessageCounters::Count count) {
  if (subtype != Cask::CounterKey::anySubtype && subtype >= 16) [[unlikely]] {
    const long s = pimCounters_->counterSlotIs({c.intfId_, type, subtype});
    if (s >= 0) pimCounters_->counterInc(s, count);
    return;
  }
  long& s = c.slot_[type * 17u + (subtype == Cask::CounterKey::anySubtype ? 0u : subtype + 1u)];
  if (s == IntfCounters::unknownSlot) [[unlikely]] s = pimCounters_->counterSlotIs({c.intfId_, type, subtype});
  if (s >= 0) pimCounters_->counterInc(s, count);
}

// Totals, the interface, and each with the subtype.
void IOSm::updateCounter(MessageCounterDirection dir, Knet::PimMessageType type, Packet::MessageSubtype subtype,
                         IntfCounters* intf, MessageCounterType ct) {
  if (pimCounters_) {
    const U64 generation = pimCounters_->slotGeneration();
    if (totalCounters_.generation_ != generation) [[unlikely]] totalCounters_.forget(generation);
    if (intf && intf->generation_ != generation) [[unlikely]] intf->forget(generation);
    const U8 t = type.type();
    const auto count = countOf(dir, ct);
    countIn(totalCounters_, t, Cask::CounterKey::anySubtype, count);
    if (intf) countIn(*intf, t, Cask::CounterKey::anySubtype, count);
    if (subtype < Cask::CounterKey::anySubtype) {
      countIn(totalCounters_, t, subtype, count);
      if (intf) countIn(*intf, t, subtype, count);
    }
  }
  if (!pimPamManager_) return;
  const auto& counter =
      dir == MessageCounterDirection::directionTx ? pimPamManager_->txPamCounter() : pimPamManager_->rxPamCounter();
  if (counter) counter->processedInc(1);
}

// Finds (or makes, with every count 0) the key's entry and raises the count of the direction and
// type by one, in one write.
void IOSm::incCounter(MessageCounterDirection dir, MessageCounterType ct,
                      const Loom::Ptr<Cask::MessageCounters>& counters, const Cask::CounterKey& key) {
  if (!counters) return;
  const long s = counters->counterSlotIs(key);
  if (s >= 0) counters->counterInc(s, countOf(dir, ct));
}

// ---- Initialisation and the handlers

void IOSm::trace(int level, const char* text) const { PIMIO_TRACE(level, text); }
void IOSm::trace(int level, const std::string& text) const { PIMIO_TRACE(level, text); }

void IOSm::handleInitialized() {
  trace(8, "handleInitialized");
  if (Knet::IpPam* pam = pimPam()) {
    Knet::PktManager::instance().maxPktSizeIs(65535);
    pam->maxRxPktDataIs(65535);
    trace(3, "Enabling Pam " + pam->name());
    pam->enabledIs(true);
  }
  if (mcastBoundaryStatus_) mcastBoundary_ = Boundary::mcastBoundaryFactory("PimIO", mcastBoundaryStatus_);
  handleInterface();
  initialized_ = true;
}


}  // namespace Routing::Pim::IO
