#pragma once
// pimio lab: a live PIM LAN in network namespaces, on which two example agents built on the pimio
// library and FRRouting's pimd are neighbors, exchange Join/Prunes, Bootstraps and Asserts, and
// show it step by step.
#include <ostream>
#include <string>

namespace Pimio::Cli {

struct LabOptions {
  bool json = false;          // the summary as one JSON object on the output; progress on the error stream
  double timeout = 90;        // seconds that the steps after the set-up may take together
  std::string frrDir = "/usr/lib/frr";  // where zebra and pimd are
  std::string agent;          // the pimio-agent program; empty: beside this program, or the build's
  bool keep = false;          // keep the work directory (configurations, logs, the agents' output)
};

// Builds the lab, runs its steps and removes it again (also on SIGINT and SIGTERM). Progress goes
// to `progress`, the summary to `out`. Returns 0 when every step passed, 1 when a step failed,
// 2 when the lab could not be built (no root, a program missing), 130 when interrupted.
int runLab(const LabOptions& options, std::ostream& out, std::ostream& progress);

}  // namespace Pimio::Cli
