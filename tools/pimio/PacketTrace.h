#pragma once
// Collects the codec's trace lines and log messages while one message is decoded or encoded. The
// tool reports the failure and warning texts itself; trace lines that the user asked to see
// (--trace or PIMIO_TRACE) are passed on to standard error when the collection ends. Log messages
// are kept here rather than sent to syslog: a tool that reads files has no operator to tell.
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "loom/LogMessage.h"
#include "loom/Trace.h"

namespace Pimio::Cli {

class PacketTrace {
 public:
  // Collects lines up to `level` at least (warnings by default), more if the user asked for more.
  explicit PacketTrace(int level = 5);
  ~PacketTrace();
  PacketTrace(const PacketTrace&) = delete;
  PacketTrace& operator=(const PacketTrace&) = delete;

  // The texts of the levels given, in the order traced.
  std::vector<std::string> texts(std::initializer_list<int> levels) const;
  // Failure texts (level 1).
  std::vector<std::string> failures() const { return texts({1}); }
  // Failure and warning texts (levels 1 and 5).
  std::vector<std::string> problems() const { return texts({1, 5}); }
  // The log messages raised, as "%NAME: text".
  std::vector<std::string> logs() const;

 private:
  std::optional<Loom::TraceCapture> capture_;
  Loom::LogCapture logCapture_;
};

// Texts joined by "; ", as the tool prints several on one line.
std::string joined(const std::vector<std::string>& texts);

}  // namespace Pimio::Cli
