#pragma once
// Collects the codec's trace lines while one message is decoded or encoded. The tool reports the
// failure and warning texts itself; lines that the user asked to see (--trace or PIMIO_TRACE)
// are passed on to standard error when the collection ends.
#include <optional>
#include <string>
#include <vector>

#include "loom/Trace.h"

namespace Pimio::Cli {

class PacketTrace {
 public:
  PacketTrace();
  ~PacketTrace();
  PacketTrace(const PacketTrace&) = delete;
  PacketTrace& operator=(const PacketTrace&) = delete;

  // Failure texts (level 1), in the order traced.
  std::vector<std::string> failures() const { return texts(false); }
  // Failure and warning texts (levels 1 and 5), in the order traced.
  std::vector<std::string> problems() const { return texts(true); }

 private:
  std::vector<std::string> texts(bool warnings) const;
  std::optional<Loom::TraceCapture> capture_;
};

// Texts joined by "; ", as the tool prints several on one line.
std::string joined(const std::vector<std::string>& texts);

}  // namespace Pimio::Cli
