#pragma once
// pimio decode: every PIM packet of a capture file as one line of text or JSON.
#include <ostream>
#include <string>

namespace Pimio::Cli {

struct DecodeOptions {
  std::string input;  // a pcap or pcapng file, "-" for standard input
  bool json = false;  // JSON Lines instead of text
};

// Writes one line per PIM packet to `out` and the summary and errors to `err`. Returns the exit
// status: 0 when the capture was read to its end, 2 when it cannot be opened or is damaged.
int decodeCapture(const DecodeOptions& options, std::ostream& out, std::ostream& err);

}  // namespace Pimio::Cli
