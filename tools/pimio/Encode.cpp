#include "tools/pimio/Encode.h"

#include <fstream>
#include <iostream>
#include <optional>
#include <vector>

#include "tools/pimio/Capture.h"
#include "knet/IpPacket.h"
#include "tools/pimio/MessageCodec.h"
#include "tools/pimio/PacketTrace.h"

namespace Pimio::Cli {

namespace {

using Routing::Pim::Packet::Message;
using Routing::Pim::Packet::traceError;
using Routing::Pim::Packet::traceFilter;

// What became of one input line: encoded IP packets (with their destination), or a reason.
struct LineResult {
  enum class Outcome { encoded, skipped, failed, blank };
  Outcome outcome = Outcome::failed;
  std::vector<Loom::Ptr<Knet::Pkt>> pkts;
  Knet::IpGenAddr dst;
  std::string why;    // skipped or failed: the reason; encoded: what the encoder dropped, if anything

  static LineResult failure(std::string why) { return {Outcome::failed, {}, {}, std::move(why)}; }
  static LineResult skip(std::string why) { return {Outcome::skipped, {}, {}, std::move(why)}; }
};

// No message takes more packets than this; each packet carries at least one entry, so a line
// that asks for more has made the encoder go round in circles.
constexpr U32 kMaxPacketsPerLine = 65536;

// Reads an address member of the family; `fallback` stands in when the member is absent.
std::optional<Knet::IpGenAddr> addressMember(const Json& line, const char* name, Knet::AddressFamily af,
                                              const Knet::IpGenAddr* fallback, std::string& error) {
  if (!line.contains(name)) {
    if (fallback) return *fallback;
    error = std::string("missing \"") + name + "\"";
    return std::nullopt;
  }
  Knet::IpGenAddr a;
  if (!valueOf(line.at(name), a, error) || a.af() != af) {
    error = std::string(name) + ": expected an " + (af == Knet::AddressFamily::ipv6 ? "IPv6" : "IPv4") +
            " address, got " + line.at(name).dump();
    return std::nullopt;
  }
  return a;
}

// Writes the message into as many packets as its encoder needs: while the encoder says that more
// is left, writes again, until a write makes no progress or the packets reach their bound. A
// write after the first that finds nothing left ends the message.
LineResult writePackets(const MessageCodec& codec, Message& message, const Knet::IpGenAddr& src,
                        const Knet::IpGenAddr& dst) {
  LineResult r{LineResult::Outcome::encoded, {}, dst, {}};
  std::vector<std::string> dropped;
  std::string lastStop;
  while (true) {
    if (r.pkts.size() == kMaxPacketsPerLine) {
      return LineResult::failure("the encoder still has more after " + std::to_string(kMaxPacketsPerLine) + " packets");
    }
    const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(Knet::maxPimMessageSize(src.af()));
    PacketTrace trace(traceFilter);
    const U32 written = codec.write(message, pkt);
    if (written == 0 && !r.pkts.empty() && codec.drained && message.failure() == codec.drained) break;
    // Failures, and the groups that the encoder filtered (which may be why it had none to write).
    const std::vector<std::string> texts = trace.texts({traceError, traceFilter});
    if (written == 0) {
      return LineResult::failure(texts.empty() ? "encoder failed without a failure text" : joined(texts));
    }
    // What the encoder could not write or filtered, then the log messages it raised.
    const std::vector<std::string> logs = trace.logs();
    dropped.insert(dropped.end(), texts.begin(), texts.end());
    dropped.insert(dropped.end(), logs.begin(), logs.end());
    pkt->sizeIs(written);
    Knet::addIpHeader(*pkt, src, dst);
    r.pkts.push_back(pkt);
    std::string stop;
    if (!codec.more || !codec.more(message, stop)) break;
    if (stop == lastStop) return LineResult::failure("the encoder made no progress: " + stop);
    lastStop = stop;
  }
  r.why = joined(dropped);
  return r;
}

// Builds the message that one line describes, encodes it and adds the IP header.
LineResult encodeLine(const std::string& text) {
  if (text.find_first_not_of(" \t\r") == std::string::npos) return {LineResult::Outcome::blank, {}, {}, {}};
  Json line;
  try {
    line = Json::parse(text);
  } catch (const Json::parse_error& e) {
    return LineResult::failure(std::string("bad JSON: ") + e.what());
  }
  if (!line.is_object()) return LineResult::failure("expected a JSON object");
  if (line.contains("error")) return LineResult::skip("a packet that failed to decode");
  if (!line.contains("type")) return LineResult::failure("missing \"type\"");
  if (!line.at("type").is_string()) return LineResult::failure("type: expected a name, got " + line.at("type").dump());
  const std::string type = line.at("type").get<std::string>();
  if (type == "unsupported") {
    const Json pimType = line.value("pimType", Json("unknown"));
    const std::string name = pimType.is_string() ? pimType.get<std::string>() : pimType.dump();
    return LineResult::skip("unsupported message type " + name);
  }
  std::string error;

  const Json family = line.value("family", Json());
  if (family != 4 && family != 6) return LineResult::failure("family: expected 4 or 6, got " + family.dump());
  const Knet::AddressFamily af = family == 6 ? Knet::AddressFamily::ipv6 : Knet::AddressFamily::ipv4;
  const auto src = addressMember(line, "src", af, nullptr, error);
  if (!src) return LineResult::failure(error);
  const auto dst = addressMember(line, "dst", af, &Knet::allPimRouters(af), error);
  if (!dst) return LineResult::failure(error);

  Json attributes = line;
  for (const char* member : packetMembers) attributes.erase(member);
  const MessageCodec* codec = codecForLine(type, attributes, error);
  if (!codec) return LineResult::failure(error);
  const Loom::Ptr<Message> message = codec->createForLine ? codec->createForLine() : codec->cls->create();
  if (!codec->fromJson(attributes, *message, error)) return LineResult::failure(error);
  message->srcIpIs(*src);
  message->dstIpIs(*dst);

  return writePackets(*codec, *message, *src, *dst);
}

}  // namespace

int encodeLines(const EncodeOptions& options, std::ostream& err) {
  std::ifstream file;
  const bool fromStdin = options.input.empty() || options.input == "-";
  if (!fromStdin) {
    file.open(options.input);
    if (!file) {
      err << "pimio encode: " << options.input << ": cannot open\n";
      return 2;
    }
  }
  std::istream& in = fromStdin ? std::cin : file;
  std::string error;
  const std::unique_ptr<CaptureWriter> writer = CaptureWriter::open(options.output, error);
  if (!writer) {
    err << "pimio encode: " << options.output << ": " << error << '\n';
    return 2;
  }

  U64 encoded = 0, failed = 0, skipped = 0, lineNumber = 0, packets = 0;
  std::string text;
  while (std::getline(in, text)) {
    ++lineNumber;
    LineResult r;
    try {
      r = encodeLine(text);
    } catch (const std::exception& e) {
      r = LineResult::failure(std::string("internal error: ") + e.what());
    }
    switch (r.outcome) {
      case LineResult::Outcome::encoded:
        for (const Loom::Ptr<Knet::Pkt>& pkt : r.pkts) writer->writeIpPacket(pkt, r.dst);
        if (!r.why.empty()) err << "line " << lineNumber << ": dropped: " << r.why << '\n';
        ++encoded;
        packets += r.pkts.size();
        break;
      case LineResult::Outcome::skipped:
        err << "line " << lineNumber << ": skipped: " << r.why << '\n';
        ++skipped;
        break;
      case LineResult::Outcome::failed:
        err << "line " << lineNumber << ": FAILED: " << r.why << '\n';
        ++failed;
        break;
      case LineResult::Outcome::blank:
        break;
    }
  }
  err << "encoded " << encoded << ", failed " << failed << ", skipped " << skipped;
  if (packets != encoded) err << ", packets " << packets;
  err << '\n';
  if (in.bad()) {
    err << "pimio encode: " << options.input << ": read error after line " << lineNumber << '\n';
    return 2;
  }
  if (!writer->close(error)) {
    err << "pimio encode: " << options.output << ": " << error << '\n';
    return 2;
  }
  return failed ? 1 : 0;
}

}  // namespace Pimio::Cli
