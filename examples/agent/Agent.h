#pragma once
// A minimal PIM agent on the I/O library: one instance of one address family in the current
// network namespace, driven by one event loop. It says Hello on its PIM interfaces, keeps a table
// of the neighbors it hears, sends periodic Join/Prunes for configured state to one upstream
// neighbor and prints every message it receives and every neighbor that comes or goes.
#include <ifaddrs.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "PimIO/IOSm.h"
#include "PimIO/PamWatch.h"
#include "keel/EventLoop.h"

namespace PimAgent {

using Routing::Pim::IO::MessageInfo;

// (S,G) state, or (*,G) toward the RP when the source is unset.
struct JoinState {
  Knet::IpGenAddr group, source;
};

struct Options {
  Knet::AddressFamily af = Knet::AddressFamily::ipv4;
  std::vector<std::string> interfaces;
  double helloInterval = 30;
  std::vector<JoinState> joins;
  Knet::IpGenAddr rp, upstream;
  double jpInterval = 60;
  std::string vrf = "default";
  double duration = 0;  // 0: run until SIGINT or SIGTERM
  bool json = false;
  // Prints only the neighbors that come and go, not every message (for floods).
  bool quiet = false;
  // Originates Bootstraps every bsrInterval seconds on every PIM interface, with this agent as
  // the BSR and one range (the family's whole multicast range) whose RP is `rp`, or the agent.
  bool bsr = false;
  double bsrInterval = 60;
};

// One line of output: text for people, or a JSON object with the same fields.
struct Event {
  std::string event, interface, address, type, text;
  long holdtime = -1;  // -1: the event has none
};

class Agent {
 public:
  explicit Agent(Options options);
  ~Agent();
  // Reads the interfaces from the kernel and wires the state machine; false with `error` set when
  // an interface does not exist or has no address of the family.
  bool start(std::string& error);
  // Runs the loop until the duration has passed or a signal came; says goodbye on every interface.
  void run();

  // A PIM neighbor heard on one interface.
  using NeighborKey = std::pair<Knet::IntfId, Knet::IpGenAddr>;
  class Neighbor;

 private:
  class RxSlot;
  class TimerReactor;
  class SignalWatch;
  bool intfAdd(const ifaddrs* list, const std::string& name, std::string& error);
  void onHelloTime();
  void onJoinPruneTime();
  void onBootstrapTime();
  void stop();
  void onReceived(const MessageInfo& info);
  void neighborIs(const Knet::IntfId& intf, const Knet::IpGenAddr& addr, U16 holdtime);
  void neighborDel(const NeighborKey& key, const char* why);
  void helloSend(const Knet::IntfId& intf, U16 holdtime);
  void joinPruneSend();
  void send(const Knet::IntfId& intf, const Loom::Ptr<Routing::Pim::Packet::Message>& m);
  void print(const Event& e) const;
  Keel::Time now() const { return wheel_->clock().now(); }

  const Options options_;
  const U32 generationId_;
  Keel::MonotonicClock clock_;
  Loom::Ptr<Keel::TimerWheel> wheel_;
  Loom::Ptr<Keel::EventLoop> loop_;
  Loom::Ptr<Routing::Pim::IO::PamManager> manager_;
  Loom::Ptr<Routing::Pim::Cask::MessageCounters> counters_;
  Loom::Ptr<Routing::Pim::Status> status_;
  Loom::Ptr<IpGen::IntfStatus> ipStatus_;
  Loom::Ptr<Interface::DeviceIntfStatusDir> devices_;
  Loom::Ptr<Routing::Pim::IO::IOSm> io_;
  std::unique_ptr<Routing::Pim::IO::PamWatch> pamWatch_;
  std::vector<std::unique_ptr<RxSlot>> rxSlots_;
  std::unique_ptr<TimerReactor> helloTimer_, joinPruneTimer_, bootstrapTimer_, endTimer_;
  Knet::IpGenAddr bsrAddress_;  // the first interface's primary (IPv4) or global (IPv6) address
  U16 fragmentTag_ = U16(generationId_);
  std::unique_ptr<SignalWatch> signals_;
  std::map<Knet::IntfId, std::vector<Knet::IpGenAddr>> secondaries_;  // IPv4 addresses beside the primary
  std::map<NeighborKey, std::unique_ptr<Neighbor>> neighbor_;
};

}  // namespace PimAgent
