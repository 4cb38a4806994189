#pragma once
// The agent's side of one I/O state machine, wired as an agent would wire it: a packet access
// manager, a real shared-memory counter table, the
// agent's status, configuration and access lists, and a timer wheel on a clock the test moves.
#include <unistd.h>

#include <string>

#include "PimIO/IOSm.h"

namespace Routing::Pim::IO::Test {

struct IOSmAgent {
  // The manager's socket is of `af`, in network namespace `ns` ("" the test's own), writing IP
  // headers itself when `overrideIpHeader`.
  explicit IOSmAgent(Knet::AddressFamily af = Knet::AddressFamily::ipv4, const std::string& ns = "",
                     bool overrideIpHeader = false)
      : manager(pamManagerFactory(af, ns, overrideIpHeader)),
        counters(Cask::messageCountersFactory("iosm" + std::to_string(getpid()), af, 256)) {}
  Loom::Ptr<PamManager> manager;
  Loom::Ptr<Cask::MessageCounters> counters;
  Loom::Ptr<Status> status = statusFactory("blue");
  Loom::Ptr<ConfigColl> config = configCollFactory();
  Loom::Ptr<Acl::AclTypeConfig> acl = Acl::aclTypeConfigFactory();
  Loom::Ptr<IpGen::IntfStatus> ipStatus = IpGen::intfStatusFactory();
  Loom::Ptr<Interface::DeviceIntfStatusDir> devices = Interface::deviceIntfStatusDirFactory();
  Keel::ManualClock clock;
  Loom::Ptr<Keel::TimerWheel> wheel = Keel::timerWheelFactory(clock);
  Loom::Ptr<Keel::Timer> timer = wheel->timerNew();
  Loom::Ptr<McastBoundary::Status> boundary = McastBoundary::statusFactory();
  ~IOSmAgent() { counters->unlink(); }

  Loom::Ptr<IOSm> sm(bool withManager = true) {
    return iOSmFactory(withManager ? manager : nullptr, counters, status, config, ipStatus, acl,
                       devices, Interface::allIntfStatusDirFactory(), pimAttrLogSmFactory(), timer, boundary);
  }
  // Moves the clock to `t` and fires what is due.
  void advanceTo(Keel::Time t) {
    clock.nowIs(t);
    wheel->advance();
  }
};

}  // namespace Routing::Pim::IO::Test
