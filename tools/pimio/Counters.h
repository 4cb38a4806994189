#pragma once
// pimio counters: the message counter table that a running agent keeps in shared memory, read from
// this process: as a table, as JSON, or in the Prometheus text format.
#include <optional>
#include <ostream>
#include <string>

namespace Pimio::Cli {

struct CountersOptions {
  std::string vrf;                       // the agent's VRF; empty: "default"
  int af = 4;                            // 4 or 6
  std::optional<std::string> interface;  // only this interface's counts
  bool json = false;
  bool prometheus = false;
  double watch = 0;  // seconds between two readings; 0: read once
  int count = 0;     // readings with --watch; 0: until interrupted
};

// Prints the counts to `out`, problems to `err`. Returns 0, 1 when there is no table for the VRF
// and family, 2 when the table is corrupt.
int showCounters(const CountersOptions& options, std::ostream& out, std::ostream& err);

}  // namespace Pimio::Cli
