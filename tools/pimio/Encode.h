#pragma once
// pimio encode: JSON Lines as decode --json prints them, encoded into a pcap file.
#include <ostream>
#include <string>

namespace Pimio::Cli {

struct EncodeOptions {
  std::string input = "-";  // JSON Lines, "-" for standard input
  std::string output;       // the pcap file to write
};

// Encodes every line of the input into frames of the output (one per packet: one for most
// messages, as many as the encoder needs for a Join/Prune), and reports lines that cannot be
// encoded, and entries that the encoder dropped, on `err` with their line numbers. Returns the exit status: 0 when every line was
// encoded or skipped, 1 when some line failed (the others are written), 2 when the input or the
// output cannot be opened or written.
int encodeLines(const EncodeOptions& options, std::ostream& err);

}  // namespace Pimio::Cli
