// pimio: the command line of the PIM packet I/O library. Verbs: decode a capture, encode JSON
// Lines into a capture.
#include <iostream>

#include <CLI/CLI.hpp>

#include "loom/Trace.h"
#include "tools/pimio/Decode.h"
#include "tools/pimio/Encode.h"

namespace {

// What decode prints and how it ends, for its --help.
constexpr const char* kDecodeHelp =
    R"(Decodes every PIM packet (IPv4 or IPv6, IP protocol 103) of a pcap or pcapng capture whose
link type is Ethernet (802.1Q tags are skipped), Linux cooked (SLL, SLL2) or raw IP. Frames
of other protocols are counted as not PIM. One line per PIM packet, numbered by its 1-based
frame in the capture:
  N: RX: <PIM message text>            decoded; " WARNINGS: a; b" follows if the decoder
                                       traced warnings or skipped a malformed option
  N: FAILED: text; text                the decoder's failure texts, or the IP layer's
                                       ("Truncated capture - IP length 64 captured 60";
                                       fragments are not reassembled and fail)
  N: UNSUPPORTED name                  a message type that pimio does not decode yet
With --json, one JSON object per line instead:
  {"frame":N,"family":4|6,"src":...,"dst":...,"type":"hello",<every attribute>[,"warnings":[...]]}
  {"frame":N,"family":...,"src":...,"dst":...,"error":"first failure text","trace":[...]}
  {"frame":N,"family":...,"src":...,"dst":...,"type":"unsupported","pimType":"joinPrune"}
A summary goes to standard error: "decoded N, failed N, unsupported N, not PIM N".
Exit status: 0 when the capture was read to its end, whatever its packets held; 2 when it cannot
be opened, is not a capture, has an unknown link type or is damaged.)";

// What encode reads and writes and how it ends, for its --help.
constexpr const char* kEncodeHelp =
    R"(Encodes JSON Lines in the form that decode --json prints into a pcap file of Ethernet
frames, one frame per line. Every attribute that a line names is set and the others keep
their defaults; a name that the message type does not have fails the line. "family" (4 or 6)
and "src" are required; "dst" defaults to ALL-PIM-ROUTERS (224.0.0.13 or ff02::d). For a
Hello, implPropagationDelay wins over tBit and propagationDelay, which count only without it.
The IP header is the one a router sends: TOS/traffic class 192, TTL/hop limit 1. The Ethernet
destination is the multicast MAC of the destination (02:00:00:00:00:02 for unicast), the
source 02:00:00:00:00:01; time stamps count the frames in seconds, so equal input gives equal
files. Lines of failed decodes ("error") and of unsupported types are skipped with a note;
lines that cannot be encoded are reported with their line number and the encoder's failure
texts. A summary goes to standard error: "encoded N, failed N, skipped N".
Exit status: 0 when every line was encoded or skipped; 1 when some lines failed (the others
are written); 2 when the input or the output cannot be opened or written.)";

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"pimio: decode and encode PIM version 2 messages with the pimio codec."};
  app.require_subcommand(1);
  app.fallthrough();
  app.footer("Exit status 2 also stands for a usage error. Run 'pimio VERB --help' for a verb's options.");
  app.add_option_function<std::string>(
         "--trace",
         [](const std::string& config) {
           if (!Loom::traceConfigIs(config)) {
             throw CLI::ValidationError("--trace",
                                        "expected UNIT=LEVEL,... with levels 0 to 9, got \"" + config + "\"");
           }
         },
         "Trace levels by source unit, e.g. PimMessage=4 or *=1 (1 errors, 4 message text and detail, 5 "
         "warnings, up to 9). The codec's unit is PimMessage. Trace lines go to standard error.")
      ->type_name("UNIT=LEVEL,...");

  Pimio::Cli::DecodeOptions decode;
  CLI::App* decodeCmd = app.add_subcommand("decode", "Decode the PIM packets of a capture file.");
  decodeCmd->footer(kDecodeHelp);
  decodeCmd->add_option("FILE", decode.input, "The pcap or pcapng file to read, - for standard input.")->required();
  decodeCmd->add_flag("--json", decode.json, "Print JSON Lines (one object per PIM packet) instead of text.");

  Pimio::Cli::EncodeOptions encode;
  CLI::App* encodeCmd = app.add_subcommand("encode", "Encode JSON Lines into a pcap file.");
  encodeCmd->footer(kEncodeHelp);
  encodeCmd->add_option("--out,-o", encode.output, "The pcap file to write (created or truncated).")->required();
  encodeCmd->add_option("INPUT", encode.input, "The JSON Lines to read; standard input if absent or -.");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int status = app.exit(e);
    return status == 0 ? 0 : 2;
  }
  if (decodeCmd->parsed()) return Pimio::Cli::decodeCapture(decode, std::cout, std::cerr);
  return Pimio::Cli::encodeLines(encode, std::cerr);
}
