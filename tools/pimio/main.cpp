// pimio: the command line of the PIM packet I/O library. Verbs: decode a capture, encode JSON
// Lines into a capture, read a running agent's message counters.
#include <iostream>

#include <CLI/CLI.hpp>

#include "loom/Trace.h"
#include "tools/pimio/Counters.h"
#include "tools/pimio/Decode.h"
#include "tools/pimio/Encode.h"
#include "tools/pimio/Lab.h"

namespace {

// What decode prints and how it ends, for its --help.
constexpr const char* kDecodeHelp =
    R"(Decodes every PIM packet (IPv4 or IPv6, IP protocol 103) of a pcap or pcapng capture whose
link type is Ethernet (802.1Q tags are skipped), Linux cooked (SLL, SLL2) or raw IP. Frames
of other protocols are counted as not PIM. One line per PIM packet, numbered by its 1-based
frame in the capture:
  N: RX: <PIM message text>            decoded; " WARNINGS: a; b" follows if the decoder
                                       traced warnings, skipped a malformed option or dropped
                                       a Join/Prune entry
  N: FAILED: text; text                the decoder's failure texts, or the IP layer's
                                       ("Truncated capture - IP length 64 captured 60";
                                       fragments are not reassembled and fail)
  N: UNSUPPORTED name                  a message type that pimio does not decode yet
A Join/Prune's text lists its groups and their entries on one line, separated by " / ":
  type=joinPrune | upstream=10.0.0.2, holdtime=210, numGroups=1, groups=[ group=( address=
  239.1.1.1, flags=0x00 ) / join=10.1.1.1, (S,G) / join= 10.0.0.9, (*,G) ]
With --json, one JSON object per line instead:
  {"frame":N,"family":4|6,"src":...,"dst":...,"type":"hello",<every attribute>[,"warnings":[...]]}
  {"frame":N,"family":...,"src":...,"dst":...,"error":"reason","trace":[every failure text]}
  {"frame":N,"family":...,"src":...,"dst":...,"type":"unsupported","pimType":"bootstrap"}
A Join/Prune's attributes ("type":"joinPrune"):
  "reserved"   the header's reserved byte
  "bidir"      whether it was decoded as bidirectional PIM (see below)
  "upstream", "reserved2", "holdTime"   the upstream neighbor, the byte after it, the holdtime
  "groups"     [{"group":ADDR,"groupFlags":N (0x80 B, 0x01 Z),
                 "starG":{"rp":ADDR,"join":true (join) or false (prune)} or null,
                 "joinedRpt":[ADDR...],"joined":[...],"prunedRpt":[...],"pruned":[...]}...]
               the (*,G), (S,G,rpt) and (S,G) entries kept, groups and sources in address order
  "report"     {"processed":N,"suppressed":N,"filtered":N}: entries kept, dropped in conflicts,
               and dropped by filters (family, invalid group, bidirectional mode)
A capture does not tell the interface's multicast boundary or whether it runs bidirectional PIM:
Join/Prunes are decoded without a boundary and in sparse mode, where groups with the B flag are
filtered; a message that keeps no group that way, having filtered one for its B flag, is decoded
again in bidirectional mode ("bidir":true), and that outcome is printed.
A summary goes to standard error: "decoded N, failed N, unsupported N, not PIM N".
Exit status: 0 when the capture was read to its end, whatever its packets held; 2 when it cannot
be opened, is not a capture, has an unknown link type or is damaged.)";

// What encode reads and writes and how it ends, for its --help.
constexpr const char* kEncodeHelp =
    R"(Encodes JSON Lines in the form that decode --json prints into a pcap file of Ethernet
frames, one frame per packet. Every attribute that a line names is set and the others keep
their defaults; a name that the message type does not have fails the line. "family" (4 or 6)
and "src" are required; "dst" defaults to ALL-PIM-ROUTERS (224.0.0.13 or ff02::d). For a
Hello, implPropagationDelay wins over tBit and propagationDelay, which count only without it.
A Join/Prune line carries the whole tree in decode's form ("report" is checked and ignored)
and may add:
  "mtu"          the largest IP packet to make, default 1500
  "periodic"     true for a periodic message (suppression applies, nothing is deleted),
                 default false (triggered)
  "joinSuppress" in a group: (S,G) joins to leave out of a periodic message
  "wcSuppressed" in "starG": leave the (*,G) join out of a periodic message
  "bidir"        true to send the groups with the B flag, which are otherwise filtered
The encoder packs groups up to the MTU and leaves a bookmark where it stopped; encode writes
packet after packet from the bookmark until nothing is left, so one line may give several
frames (at most 65536; a write that makes no progress fails the line). Entries that the
encoder drops (another family, not unicast, a periodic (*,G) prune) are reported as
"line N: dropped: texts". The encoder runs with its message trace on, so it reads back each
packet it writes, as it does for an agent tracing at level 4: a packet that the reader would
reject (all its sources 0.0.0.0, say) ends the message with "Read Error On TX Packet".
The IP header is the one a router sends: TOS/traffic class 192, TTL/hop limit 1. The Ethernet
destination is the multicast MAC of the destination (02:00:00:00:00:02 for unicast), the
source 02:00:00:00:00:01; time stamps count the frames in seconds, so equal input gives equal
files. Lines of failed decodes ("error") and of unsupported types are skipped with a note;
lines that cannot be encoded are reported with their line number and the encoder's failure
texts. A summary goes to standard error: "encoded N, failed N, skipped N", followed by
", packets N" when lines took more than one packet each.
Exit status: 0 when every line was encoded or skipped; 1 when some lines failed (the others
are written); 2 when the input or the output cannot be opened or written.)";

// What counters prints and how it ends, for its --help.
constexpr const char* kCountersHelp =
    R"help(Reads the message counter table that an agent running the pimio library keeps in shared
memory (/dev/shm/pimio-<vrf>-ipv4 or -ipv6) while it runs, without disturbing it. One line per
interface, message type and subtype, the totals of all interfaces ("(all)") and of all subtypes
("all") first, with six counts: messages received and handed to the agent (rx-valid), dropped by
policy or not wanted (rx-filtered), rejected as invalid (rx-invalid), and the same for sent ones.
--json prints {"vrf":...,"af":4,"table":...,"counters":[{"interface":null|NAME,"type":"hello",
"subtype":"all","rx":{"valid":N,"filtered":N,"invalid":N},"tx":{...}}...]}.
--prometheus prints one metric family, pimio_messages_total, with the labels vrf, af, interface,
type, subtype, direction (rx, tx) and kind (valid, filtered, invalid), for a scrape by a textfile
collector or a wrapper.
Exit status: 0 when the table was read; 1 when there is no table for that VRF and family (no
agent runs it); 2 when the table is corrupt or of another layout, or on a usage error.)help";

// What lab does and how it ends, for its --help.
constexpr const char* kLabHelp =
    R"help(Builds a LAN in network namespaces (a bridge; names lab<PID>-*) with FRRouting's pimd (and zebra)
and two example agents on the pimio library (pimio-agent), plus a third agent that is the BSR
behind pimd and a host that sends a stream and joins a group behind it. Shows, as each happens:
pimd up; neighbors in every direction (the agents list pimd, pimd's 'show ip pim neighbor' lists
the agents, the agents list each other); pimio-a's (S,G) Join acted on by pimd (its join state and
route); pimd's Join/Prune, its forward of the BSR's Bootstrap and its Assert, decoded by both
agents; the same agents over IPv6 link-local addresses; their message counters. Everything is
removed at the end, also on Ctrl-C. Needs root, iproute2 and the frr package.
Exit status: 0 when every step passed; 1 when a step failed (named on the last line, or in
"failed" with --json); 2 when the lab could not be built or started; 130 when interrupted.)help";

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"pimio: decode and encode PIM version 2 messages with the pimio codec, and read an agent's counters."};
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

  Pimio::Cli::CountersOptions counters;
  CLI::App* countersCmd = app.add_subcommand("counters", "Read a running agent's PIM message counters.");
  countersCmd->footer(kCountersHelp);
  countersCmd->add_option("--vrf", counters.vrf, "The agent's VRF (default: the default VRF).");
  countersCmd->add_option("--af", counters.af, "Address family, 4 or 6 (default 4).")->check(CLI::IsMember({4, 6}));
  countersCmd->add_option("--interface", counters.interface, "Only the counts of this interface.");
  auto* json = countersCmd->add_flag("--json", counters.json, "One JSON object instead of the table.");
  countersCmd->add_flag("--prometheus", counters.prometheus, "The Prometheus text exposition format.")->excludes(json);
  countersCmd->add_option("--watch", counters.watch, "Read again every SECONDS until interrupted.")
      ->check(CLI::PositiveNumber);
  countersCmd->add_option("--count", counters.count, "With --watch: stop after N readings.")
      ->check(CLI::PositiveNumber);

  Pimio::Cli::LabOptions lab;
  CLI::App* labCmd = app.add_subcommand("lab", "Run a live PIM LAN: pimio agents and FRRouting's pimd as neighbors.");
  labCmd->footer(kLabHelp);
  labCmd->add_flag("--json", lab.json, "The summary as one JSON object; progress goes to standard error.");
  labCmd->add_option("--timeout", lab.timeout, "Seconds that the steps may take together.")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  labCmd->add_option("--frr-dir", lab.frrDir, "Where FRRouting's zebra and pimd are.")->capture_default_str();
  labCmd->add_option("--agent", lab.agent, "The pimio-agent program (default: beside pimio, or the build's).");
  labCmd->add_flag("--keep", lab.keep, "Keep the work directory: configurations, logs, what each agent printed.");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int status = app.exit(e);
    return status == 0 ? 0 : 2;
  }
  if (decodeCmd->parsed()) return Pimio::Cli::decodeCapture(decode, std::cout, std::cerr);
  if (countersCmd->parsed()) return Pimio::Cli::showCounters(counters, std::cout, std::cerr);
  if (labCmd->parsed()) return Pimio::Cli::runLab(lab, std::cout, lab.json ? std::cerr : std::cout);
  return Pimio::Cli::encodeLines(encode, std::cerr);
}
