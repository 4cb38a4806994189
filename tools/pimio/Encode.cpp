#include "tools/pimio/Encode.h"

#include <fstream>
#include <iostream>
#include <optional>

#include "tools/pimio/Capture.h"
#include "tools/pimio/IpPacket.h"
#include "tools/pimio/MessageCodec.h"
#include "tools/pimio/PacketTrace.h"

namespace Pimio::Cli {

namespace {

using Routing::Pim::Packet::Message;

// What became of one input line: an encoded IP packet (with its destination), or a reason.
struct LineResult {
  enum class Outcome { encoded, skipped, failed, blank };
  Outcome outcome = Outcome::failed;
  Loom::Ptr<Knet::Pkt> pkt;
  Knet::IpGenAddr dst;
  std::string why;

  static LineResult failure(std::string why) { return {Outcome::failed, nullptr, {}, std::move(why)}; }
  static LineResult skip(std::string why) { return {Outcome::skipped, nullptr, {}, std::move(why)}; }
};

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

// Builds the message that one line describes, encodes it and adds the IP header.
LineResult encodeLine(const std::string& text) {
  if (text.find_first_not_of(" \t\r") == std::string::npos) return {LineResult::Outcome::blank, nullptr, {}, {}};
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
  const MessageCodec* codec = codecFor(type);
  if (!codec) return LineResult::failure("type: no encoder for \"" + type + "\"");

  const Json family = line.value("family", Json());
  if (family != 4 && family != 6) return LineResult::failure("family: expected 4 or 6, got " + family.dump());
  const Knet::AddressFamily af = family == 6 ? Knet::AddressFamily::ipv6 : Knet::AddressFamily::ipv4;
  std::string error;
  const auto src = addressMember(line, "src", af, nullptr, error);
  if (!src) return LineResult::failure(error);
  const auto dst = addressMember(line, "dst", af, &Knet::allPimRouters(af), error);
  if (!dst) return LineResult::failure(error);

  Json attributes = line;
  for (const char* member : packetMembers) attributes.erase(member);
  const Loom::Ptr<Message> message = codec->create();
  if (!codec->fromJson(attributes, *message, error)) return LineResult::failure(error);
  message->srcIpIs(*src);
  message->dstIpIs(*dst);

  const Loom::Ptr<Knet::Pkt> pkt = Knet::pktFactory(maxPimMessageSize(af));
  PacketTrace trace;
  const U32 written = codec->write(*message, pkt);
  if (written == 0) {
    const std::string why = joined(trace.failures());
    return LineResult::failure(why.empty() ? "encoder failed without a failure text" : why);
  }
  pkt->sizeIs(written);
  addIpHeader(*pkt, *src, *dst);
  return {LineResult::Outcome::encoded, pkt, *dst, {}};
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

  U64 encoded = 0, failed = 0, skipped = 0, lineNumber = 0;
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
        writer->writeIpPacket(r.pkt, r.dst);
        ++encoded;
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
  err << "encoded " << encoded << ", failed " << failed << ", skipped " << skipped << '\n';
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
