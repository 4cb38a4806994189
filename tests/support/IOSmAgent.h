#pragma once
// The agent's side of one I/O state machine, wired as an agent would wire it: a packet access
// manager (its socket in the test's own namespace), a real shared-memory counter table, the
// agent's status, configuration and access lists, and a timer wheel on a clock the test moves.
#include <unistd.h>

#include <string>

#include "PimIO/IOSm.h"

namespace Routing::Pim::IO::Test {

struct IOSmAgent {
  Loom::Ptr<PamManager> manager = pamManagerFactory(Knet::AddressFamily::ipv4, "", false);
  Loom::Ptr<Cask::MessageCounters> counters =
      Cask::messageCountersFactory("iosm" + std::to_string(getpid()), Knet::AddressFamily::ipv4, 64);
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
