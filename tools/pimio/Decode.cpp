#include "tools/pimio/Decode.h"

#include <sstream>
#include <vector>

#include "loom/Exception.h"
#include "tools/pimio/Capture.h"
#include "knet/IpPacket.h"
#include "tools/pimio/MessageCodec.h"
#include "tools/pimio/PacketTrace.h"

namespace Pimio::Cli {

namespace {

using Knet::IpPacket;
using Routing::Pim::Packet::Message;

constexpr const char* kEmptyPayload = "Missing Pim Header - Empty IP Payload";
constexpr const char* kVersion = "Invalid Pim Version - Received Value: ";
constexpr const char* kSilentFailure = "Decoder failed without a failure text";
constexpr const char* kInternal = "Internal error while decoding: ";

// What became of one PIM packet.
struct Decoded {
  enum class Outcome { decoded, failed, unsupported };
  Outcome outcome = Outcome::failed;
  const MessageCodec* codec = nullptr;    // decoded
  Loom::Ptr<Message> message;             // decoded
  Knet::PimMessageType type;              // unsupported
  std::vector<std::string> failures;      // failed: why (level-1 texts)
  std::vector<std::string> problems;      // level-1 and level-5 texts, decoded or failed

  // The reason of a failure: the trace line of the failure that the decoder recorded (the first
  // failure of the read; the other level-1 lines are about entries it dropped and went on).
  std::string reason() const {
    if (message && message->failure()) {
      const std::string_view text = message->failure().text();
      for (const std::string& f : failures) {
        if (f.starts_with(text)) return f;
      }
    }
    return failures.front();
  }

  static Decoded failure(std::string text) {
    Decoded d;
    d.failures = {text};
    d.problems = {std::move(text)};
    return d;
  }
};

// Reads the message with the codec's read operation, and again if the codec asks for it (a
// Join/Prune of bidirectional groups).
void readMessage(Decoded& d, const Loom::Ptr<Knet::Pkt>& pkt) {
  constexpr int kAttempts = 2;
  for (int attempt = 1;; ++attempt) {
    PacketTrace trace;
    const U32 read = d.codec->read(*d.message, pkt);
    if (attempt < kAttempts && d.codec->readAgain && d.codec->readAgain(*d.message, read)) continue;
    d.problems = trace.problems();
    if (read != 0) {
      d.outcome = Decoded::Outcome::decoded;
      return;
    }
    d.failures = trace.failures();
    if (d.failures.empty()) d.failures.push_back(kSilentFailure);
    return;
  }
}

// Decodes the message by its type byte.
Decoded decodeMessage(const IpPacket& ip) {
  if (ip.pim.empty()) return Decoded::failure(kEmptyPayload);
  const Knet::PimMessageType type(ip.pim[0]);
  if (type.version() != 2) return Decoded::failure(kVersion + std::to_string(type.version()));
  // The class by type and, for DF election, by the subtype in the reserved byte, as the receive
  // path chooses it.
  const auto found = Routing::Pim::Packet::messageClassOf(type, ip.pim.size() > 1 ? ip.pim[1] : 0);
  using Outcome = Routing::Pim::Packet::MessageClassLookup::Outcome;
  if (found.outcome == Outcome::unsupportedDfElectionType) {
    return Decoded::failure(std::string(Routing::Pim::Packet::unsupportedDfElectionTypeText));
  }
  Decoded d;
  if (found.outcome == Outcome::unsupportedType) {
    d.outcome = Decoded::Outcome::unsupported;
    d.type = type;
    return d;
  }
  d.codec = &codecFor(*found.row);
  d.message = found.row->create();
  d.message->srcIpIs(ip.src);
  d.message->dstIpIs(ip.dst);
  readMessage(d, Knet::pktFactory(ip.pim));
  return d;
}

// Never lets a packet stop the run: whatever escapes the codec becomes this packet's failure.
Decoded decode(const IpPacket& ip) {
  if (ip.kind == IpPacket::Kind::failed) return Decoded::failure(ip.failure);
  try {
    return decodeMessage(ip);
  } catch (const Loom::RangeException& e) {
    // A value out of the library's bounds (a Bootstrap's hash mask length above 128) is the
    // packet's fault, told in the library's words.
    return Decoded::failure(e.what());
  } catch (const std::exception& e) {
    return Decoded::failure(kInternal + std::string(e.what()));
  }
}

std::string textLine(U32 frame, const Decoded& d) {
  std::ostringstream os;
  os << frame << ": ";
  switch (d.outcome) {
    case Decoded::Outcome::decoded:
      os << "RX: <PIM " << messageTextLine(*d.message) << ">";
      if (!d.problems.empty()) os << " WARNINGS: " << joined(d.problems);
      break;
    case Decoded::Outcome::failed:
      os << "FAILED: " << joined(d.failures);
      break;
    case Decoded::Outcome::unsupported:
      os << "UNSUPPORTED " << d.type.name();
      break;
  }
  return os.str();
}

std::string jsonLine(U32 frame, const IpPacket& ip, const Decoded& d) {
  Json line = packetJson(frame, ip.src, ip.dst);
  switch (d.outcome) {
    case Decoded::Outcome::decoded:
      line["type"] = d.codec->name();
      d.codec->toJson(*d.message, line);
      if (!d.problems.empty()) line["warnings"] = d.problems;
      break;
    case Decoded::Outcome::failed:
      line["error"] = d.reason();
      line["trace"] = d.problems;
      break;
    case Decoded::Outcome::unsupported:
      line["type"] = "unsupported";
      line["pimType"] = d.type.name();
      break;
  }
  // Bytes of a packet that are not UTF-8 cannot reach a text, but be safe rather than throw.
  return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

struct Counts {
  U64 decoded = 0;
  U64 failed = 0;
  U64 unsupported = 0;
  U64 notPim = 0;
};

}  // namespace

int decodeCapture(const DecodeOptions& options, std::ostream& out, std::ostream& err) {
  std::string error;
  const std::unique_ptr<CaptureReader> reader = CaptureReader::open(options.input, error);
  if (!reader) {
    err << "pimio decode: " << options.input << ": " << error << '\n';
    return 2;
  }
  Counts counts;
  Frame frame;
  while (reader->next(frame)) {
    const auto ipBytes = reader->ipPacket(frame);
    const IpPacket ip = ipBytes ? Knet::parseIpPacket(*ipBytes) : IpPacket{};
    if (ip.kind == IpPacket::Kind::notPim) {
      ++counts.notPim;
      continue;
    }
    const Decoded d = decode(ip);
    switch (d.outcome) {
      case Decoded::Outcome::decoded: ++counts.decoded; break;
      case Decoded::Outcome::failed: ++counts.failed; break;
      case Decoded::Outcome::unsupported: ++counts.unsupported; break;
    }
    out << (options.json ? jsonLine(frame.number, ip, d) : textLine(frame.number, d)) << '\n';
  }
  out.flush();
  err << "decoded " << counts.decoded << ", failed " << counts.failed << ", unsupported " << counts.unsupported
      << ", not PIM " << counts.notPim << '\n';
  if (!reader->error().empty()) {
    err << "pimio decode: " << options.input << ": damaged capture after frame " << frame.number << ": "
        << reader->error() << '\n';
    return 2;
  }
  return 0;
}

}  // namespace Pimio::Cli
