#include "fuzz/FuzzHarness.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "PimMessage/BootstrapMessage.h"
#include "PimMessage/CrpAdvMessage.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/JoinPruneMessage.h"
#include "PimMessage/MessageTable.h"
#include "knet/Checksum.h"
#include "knet/PimHdr.h"
#include "loom/Exception.h"
#include "loom/Trace.h"

namespace PimFuzz {
namespace {

using namespace Routing::Pim::Packet;
using Knet::IpGenAddr;
using Knet::Pkt;
using PktPtr = Loom::Ptr<Pkt>;

// The room an encoder gets, and the MTU a Join/Prune is written with: one packet holds any
// tree that an input can carry.
constexpr U32 writeRoom = 70000;

[[noreturn]] void violated(const char* what, const std::string& detail) {
  std::fprintf(stderr, "fuzz invariant violated: %s\n%s\n", what, detail.c_str());
  std::abort();
}

// The class of a message by its type byte and, for DF election, the subtype in its reserved byte,
// from the codec's table; null for a type or subtype without one.
const MessageClass* classFor(U8 typeByte, U8 reserved) {
  return messageClassOf(Knet::PimMessageType(static_cast<U8>(0x20 | (typeByte & 0x0f))), reserved).row;
}

Loom::Ptr<Message> create(const MessageClass& c) {
  Loom::Ptr<Message> m = c.create();
  if (auto* jp = dynamic_cast<JoinPruneMessage*>(m.ptr())) jp->mtuIs(writeRoom);
  return m;
}

struct Target {
  const char* name;
  int type;  // the type nibble the reader is for; -1: by the input's type byte
};
constexpr Target targets[] = {{"hello", 0},     {"register", 1},       {"registerStop", 2},
                              {"joinPrune", 3}, {"bootstrap", 4},      {"assert", 5},
                              {"candidateRpAdv", 8}, {"dfElection", 10}, {"any", -1}};

// The checksum as a sender computes it: over the whole message, or a Register's header and
// flags; for IPv6 with the pseudo-header.
void fixChecksum(std::vector<U8>& b, const IpGenAddr& src, const IpGenAddr& dst) {
  if (b.size() < 4) return;
  const size_t covered = (b[0] == 0x21) ? std::min<size_t>(8, b.size()) : b.size();
  b[2] = b[3] = 0;
  U32 partial = 0;
  if (src.af() == Knet::AddressFamily::ipv6) {
    U8 ph[Knet::PimPseudoHdrIpv6::size];
    Knet::PimPseudoHdrIpv6{src, dst, static_cast<U32>(covered), Knet::ipProtoPim}.serialize(ph);
    partial = Knet::onesComplementSum(ph, sizeof(ph));
  }
  const U16 sum = Knet::internetChecksum(b.data(), covered, partial);
  b[2] = static_cast<U8>(sum >> 8);
  b[3] = static_cast<U8>(sum);
}

std::string textOf(const Message& m) {
  std::ostringstream os;
  os << &m;
  return os.str();
}

std::string hex(const U8* p, size_t n) {
  std::string s;
  char buf[4];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(buf, sizeof(buf), "%02x", p[i]);
    s += buf;
  }
  return s;
}

// What the encoder refuses although the decoder takes it, on purpose: a Hello keeps a secondary
// address that is not unicast (it is added before it is tested, and warned about) but never
// sends one; a Hello's TCP or SCTP connection address of the other family is read but only the
// message's own is written; the decoder keeps every RP of a Bootstrap fragment and does not check
// an RP's family; the advertisement for all groups (no range) and ranges of mixed scope are
// received but never sent. A write records its first failure, which may be an encoded address's,
// so the refusal is looked for among the failures it traced.
const Failure encoderOnlyRefusals[] = {
    HelloText::writeAddress,      HelloText::tcpIdFamily,         HelloText::sctpIdFamily,
    BootstrapText::passedMismatch, BootstrapText::writeFamily,     CrpAdvText::prefixCount,
    CrpAdvText::prefixCountMismatch, CrpAdvText::invalidScope,
};

bool refusedOnPurpose(const Loom::TraceCapture& cap) {
  for (const auto& l : cap.lines()) {
    if (l.level != 1) continue;
    for (const Failure& r : encoderOnlyRefusals) {
      if (std::string_view(l.text).starts_with(r.text())) return true;
    }
  }
  return false;
}

bool anyFailureText(const Loom::TraceCapture& cap) {
  for (const auto& l : cap.lines()) {
    if (l.level == 1 && !l.text.empty()) return true;
  }
  return false;
}

}  // namespace

bool knownTarget(std::string_view target) {
  for (const Target& t : targets) {
    if (target == t.name) return true;
  }
  return false;
}

void fuzzOne(std::string_view target, const U8* data, size_t size) {
  if (size < 1) return;
  const Target* t = nullptr;
  for (const Target& x : targets) {
    if (target == x.name) t = &x;
  }
  if (!t) violated("unknown target", std::string(target));
  const bool v6 = data[0] & 1;
  const IpGenAddr src = *IpGenAddr::parse(v6 ? "fe80::1" : "10.0.0.1");
  const IpGenAddr dst = *IpGenAddr::parse(v6 ? "ff02::d" : "224.0.0.13");
  std::vector<U8> bytes(data + 1, data + size);
  if (data[0] & 2) fixChecksum(bytes, src, dst);
  const U8 typeByte = bytes.empty() ? 0 : bytes[0];
  const U8 reserved = bytes.size() > 1 ? bytes[1] : 0;
  const MessageClass* cls = classFor(t->type < 0 ? typeByte : static_cast<U8>(t->type), reserved);
  if (!cls) return;  // a type without a reader
  const Loom::Ptr<Message> m = create(*cls);
  m->srcIpIs(src);
  m->dstIpIs(dst);

  const PktPtr pkt = Knet::pktFactory(bytes);
  const U32 available = pkt->size();
  U32 n = 0;
  {
    Loom::TraceCapture cap(1);
    try {
      n = cls->read(*m, pkt, 0, nullptr);
    } catch (const Loom::RangeException& e) {
      // The one failure that is thrown: a value outside a bound of the library.
      if (std::string_view(e.what()).empty()) violated("a range exception without a text", hex(bytes.data(), bytes.size()));
      return;
    }
    if (n > available) violated("read more than the bytes available", hex(bytes.data(), bytes.size()));
    if (n == 0) {
      // A failed read records what failed and traces it: the receive path counts by the one and
      // operators read the other.
      if (!m->failure()) violated("a failed read without a recorded failure", hex(bytes.data(), bytes.size()));
      if (!anyFailureText(cap)) violated("a failed read without a failure text", hex(bytes.data(), bytes.size()));
      return;
    }
  }

  // Encode what was read, read that, and encode again.
  const std::string first = textOf(*m);
  const PktPtr out = Knet::pktFactory(writeRoom);
  U32 written = 0;
  {
    Loom::TraceCapture cap(1);
    written = cls->write(*m, out, 0, nullptr);
    if (written == 0) {
      if (refusedOnPurpose(cap)) return;
      std::string why;
      for (const auto& l : cap.lines()) why += l.text + "\n";
      violated("a message read does not encode", first + "\n" + why + hex(bytes.data(), bytes.size()));
    }
  }
  out->sizeIs(written);
  const std::vector<U8> encoded(out->data(), out->data() + written);
  const MessageClass* againCls = classFor(encoded[0], encoded[1]);
  if (againCls != cls) violated("what was encoded reads as another class", first + "\n" + hex(encoded.data(), encoded.size()));
  const Loom::Ptr<Message> again = create(*againCls);
  again->srcIpIs(src);
  again->dstIpIs(dst);
  U32 readAgain = 0;
  {
    Loom::TraceCapture cap(1);
    readAgain = cls->read(*again, Knet::pktFactory(encoded), 0, nullptr);
    if (readAgain != written) {
      std::string why;
      for (const auto& l : cap.lines()) why += l.text + "\n";
      violated("what was encoded does not read back", first + "\n" + why + hex(encoded.data(), encoded.size()));
    }
  }
  if (textOf(*again) != first) violated("the message read back differs", first + "\n" + textOf(*again));
  const PktPtr out2 = Knet::pktFactory(writeRoom);
  const U32 written2 = cls->write(*again, out2, 0, nullptr);
  if (written2 != written || std::memcmp(out2->data(), encoded.data(), written) != 0) {
    violated("encoding is not stable", hex(encoded.data(), encoded.size()) + "\n" + hex(out2->data(), written2));
  }
}

}  // namespace PimFuzz
