// pimio-agent: a minimal PIM agent on the pimio library, one address family in the current
// network namespace. Options from the command line; events on standard output.
#include <iostream>

#include <CLI/CLI.hpp>

#include "examples/agent/Agent.h"

namespace {

// "G" or "G,S" of the family; nullopt when either address does not parse or is of another family.
std::optional<PimAgent::JoinState> joinState(const std::string& text, Knet::AddressFamily af) {
  const auto comma = text.find(',');
  const auto group = Knet::IpGenAddr::parse(text.substr(0, comma));
  if (!group || group->af() != af) return std::nullopt;
  PimAgent::JoinState j{*group, {}};
  if (comma != std::string::npos) {
    const auto source = Knet::IpGenAddr::parse(text.substr(comma + 1));
    if (!source || source->af() != af) return std::nullopt;
    j.source = *source;
  }
  return j;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"A minimal PIM agent: Hellos and a neighbor table on each PIM interface, periodic Join/Prunes for\n"
               "configured state to one upstream neighbor, and one line per message received and per neighbor\n"
               "that comes up or goes down. Runs in the current network namespace until SIGINT or SIGTERM."};
  PimAgent::Options o;
  int af = 4;
  std::vector<std::string> joins;
  std::string rp, upstream;
  app.add_option("--af", af, "Address family: 4 or 6")->capture_default_str()->check(CLI::IsMember({4, 6}));
  app.add_option("--interface", o.interfaces, "A kernel device that is a PIM interface (repeatable)")->required();
  app.add_option("--hello-interval", o.helloInterval, "Seconds between Hellos; the holdtime is 3.5 times it")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("--join", joins, "State to join: G for (*,G) toward --rp, or G,S for (S,G) (repeatable)");
  app.add_option("--rp", rp, "The RP of the (*,G) joins");
  app.add_option("--upstream", upstream, "The neighbor that the Join/Prunes are for");
  app.add_option("--jp-interval", o.jpInterval, "Seconds between Join/Prunes; the holdtime is 3.5 times it")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("--vrf", o.vrf, "The VRF name, which names the counter table (/dev/shm/pimio-VRF-ipv4)")
      ->capture_default_str();
  app.add_option("--duration", o.duration, "Exit after this many seconds (default: run until a signal)")
      ->check(CLI::NonNegativeNumber);
  app.add_flag("--json", o.json, "One JSON object per event instead of text lines");
  app.add_flag("--quiet", o.quiet, "Print only neighbors coming and going, not each message");
  app.add_flag("--bsr", o.bsr, "Originate Bootstraps as the BSR, with --rp (or this agent) the RP of every group");
  app.add_option("--bsr-interval", o.bsrInterval, "Seconds between Bootstraps")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);

  o.af = af == 4 ? Knet::AddressFamily::ipv4 : Knet::AddressFamily::ipv6;
  const std::string f = std::to_string(af);
  auto address = [&](const std::string& text, const char* what) {
    const auto a = Knet::IpGenAddr::parse(text);
    if (!a || a->af() != o.af) throw CLI::ValidationError(what, "not an IPv" + f + " address: " + text);
    return *a;
  };
  try {
    if (!rp.empty()) o.rp = address(rp, "--rp");
    if (!upstream.empty()) o.upstream = address(upstream, "--upstream");
    for (const auto& text : joins) {
      const auto j = joinState(text, o.af);
      if (!j) throw CLI::ValidationError("--join", "not G or G,S of the family: " + text);
      if (!j->source.isSet() && !o.rp.isSet()) throw CLI::ValidationError("--join", "(*," + text + ") needs --rp");
      o.joins.push_back(*j);
    }
    if (!o.joins.empty() && !o.upstream.isSet()) throw CLI::ValidationError("--join", "needs --upstream");
  } catch (const CLI::Error& e) {
    return app.exit(e);
  }

  PimAgent::Agent agent(o);
  std::string error;
  if (!agent.start(error)) {
    std::cerr << "pimio-agent: " << error << '\n';
    return 1;
  }
  agent.run();
  return 0;
}
