#include "PimMessage/HelloMessage.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "PimMessage/EncodedAddress.h"
#include "knet/Cursor.h"
#include "loom/Exception.h"

namespace Routing::Pim::Packet {
namespace {

// ---- Failure and warning texts ----
constexpr const char* kReadHeader = "Invalid Pim Hello - Header - Read Error";
constexpr const char* kOptionLength = "Invalid Pim Hello - Hello Option Length - Remaining: ";
constexpr const char* kAddressListLength = "Invalid Pim Hello - Address List Option Length - Remaining: ";
constexpr const char* kAddressParse = "Invalid Pim Hello - Address List Option - Unicast Address - Parse Error";
constexpr const char* kSkipInvalid = "Warning: Pim Hello - Address List Option - Skipping Invalid Address: ";
constexpr const char* kSkipFamily = "Warning: Pim Hello - Address List Option - Family: ";
constexpr const char* kUnsupported = "Warning: Pim Hello - Unsupport Hello Option - Type: ";
constexpr const char* kNoHoldtime = "Invalid Pim Hello - No Holdtime Option";

constexpr const char* kWriteHeaderSpace = "Invalid Pim Hello - Header - Unavailable Space - Remaining: ";
constexpr const char* kWriteHoldtime = "Invalid Pim Hello - Holdtime Option - Unavailable Space - Remaining: ";
constexpr const char* kWriteLanPruneDelay = "Invalid Pim Hello - Lan Prune Delay Option - Unavailable Space - Remaining: ";
constexpr const char* kWriteDrPriority = "Invalid Pim Hello - Dr Priority Option - Unavailable Space - Remaining: ";
// The address list's header shares the Generation ID text.
constexpr const char* kWriteGenerationId = "Invalid Pim Hello - Generation Id Option - Unavailable Space - Remaining: ";
constexpr const char* kWriteBidir = "Invalid Pim Hello - Bidirectional Capable Option - Unavailable Space - Remaining: ";
constexpr const char* kWriteAddressFamily = "Invalid Pim Hello - Address List Option - Family: ";
constexpr const char* kWriteAddress = "Invalid Pim Hello - Address List Option - Unicast Address - Write Error";
constexpr const char* kWriteInterfaceId = "Invalid Pim Hello - InterfaceId Option - Unavailable Space - Remaining: ";
constexpr const char* kWriteHeader = "Invalid Pim Hello - Header - Write Error";

// The PIM-over-TCP and PIM-over-SCTP capable options differ only in their texts and fields.
struct ConnectionTexts {
  const char* size;
  const char* ipv4Length;
  const char* ipv6Length;
  const char* readFamily;
  const char* idFamily;
  const char* writeFamily;
  const char* writeSpace;
};
constexpr ConnectionTexts tcpTexts{
    "Invalid Pim Hello - Pim over Tcp Option Size - Received Value: ",
    "Invalid Pim Hello - Pim over Tcp Option - IPv4 address family has unexpected length ",
    "Invalid Pim Hello - Pim over Tcp Option - IPv6 address family has unexpected length ",
    "Invalid Pim Hello - Pim over Tcp Option - Invalid address family ",
    "Invalid Pim Hello - tcpConnectionId Option - Family: ",
    "Invalid Pim Hello - TCP capable Option - Invalid address family ",
    "Invalid Pim Hello - TCP capable  Option - Unavailable Space - Remaining: ",
};
constexpr ConnectionTexts sctpTexts{
    "Invalid Pim Hello - Pim over Sctp Option Size - Received Value: ",
    "Invalid Pim Hello - Pim over Sctp Option - IPv4 address family has unexpected length ",
    "Invalid Pim Hello - Pim over Sctp Option - IPv6 address family has unexpected length ",
    "Invalid Pim Hello - Pim over Sctp Option - Invalid address family ",
    "Invalid Pim Hello - sctpConnectionId Option - Family: ",
    "Invalid Pim Hello - SCTP capable Option - Invalid address family ",
    "Invalid Pim Hello - STCP capable  Option - Unavailable Space - Remaining: ",
};

// ---- Options of one fixed length, read by table ----
struct FixedOption {
  U16 length = 0;                    // the one length accepted
  const char* sizeText = nullptr;    // null: the type has no row here
  const char* roomText = nullptr;    // null: no room test of its own
  void (*apply)(HelloMessage&, Knet::PktReader&) = nullptr;
};

constexpr std::array<FixedOption, 32> makeFixedOptions() {
  std::array<FixedOption, 32> t{};
  t[helloHoldTime] = {2, "Invalid Pim Hello - Holdtime Option Size - Received Value: ",
                      "Invalid Pim Hello - Holdtime Option Length - Remaining: ",
                      [](HelloMessage& m, Knet::PktReader& r) {
                        m.holdTimeOptionIs(true);
                        m.holdTimeIs(r.readU16Be());
                      }};
  t[helloLanPruneDelay] = {4, "Invalid Pim Hello - Lan Prune Delay Option Size - Received Value: ",
                           "Invalid Pim Hello - Lan Prune Delay Option Length - Remaining: ",
                           [](HelloMessage& m, Knet::PktReader& r) {
                             m.lanPruneDelayOptionIs(true);
                             m.implPropagationDelayIs(r.readU16Be());
                             m.overrideIntervalIs(r.readU16Be());
                           }};
  t[helloDrPriority] = {4, "Invalid Pim Hello - Dr Priority Option Size - Received Value: ",
                        "Invalid Pim Hello - Dr Priority Option Length - Remaining: ",
                        [](HelloMessage& m, Knet::PktReader& r) {
                          m.drPriorityOptionIs(true);
                          m.drPriorityIs(r.readU32Be());
                        }};
  t[helloGenerationId] = {4, "Invalid Pim Hello - Generation Id Option Size - Received Value: ",
                          "Invalid Pim Hello - Generation Id Option Length - Remaining: ",
                          [](HelloMessage& m, Knet::PktReader& r) {
                            m.generationIdOptionIs(true);
                            m.generationIdIs(r.readU32Be());
                          }};
  t[helloBidirectionalCapable] = {0, "Invalid Pim Hello - Non-zero Bidirectional Capable Option Size - Received Value: ",
                                  nullptr, [](HelloMessage& m, Knet::PktReader&) { m.bidirectionalCapableIs(true); }};
  // A short packet is caught by the length test that follows every option.
  t[helloInterfaceIdentifier] = {8, "Invalid Pim Hello - Interface Identifier Option Size - Received Value: ", nullptr,
                                 [](HelloMessage& m, Knet::PktReader& r) {
                                   m.routerIdIs(r.readU32Be());
                                   m.interfaceIdIs(r.readU32Be());
                                   m.interfaceIdOptionIs(true);
                                 }};
  return t;
}
constexpr std::array<FixedOption, 32> fixedOptions = makeFixedOptions();

constexpr Knet::AddressFamily familyOf(U16 wire) {
  return wire == 1 ? Knet::AddressFamily::ipv4 : wire == 2 ? Knet::AddressFamily::ipv6 : Knet::AddressFamily::ipUnknown;
}

}  // namespace

// ---- HelloPropagationDelay ----

HelloPropagationDelay HelloPropagationDelay::fromString(std::string_view text) {
  return HelloPropagationDelay(static_cast<U16>(boundedValueFromString(
      text, max, "HelloPropagationDelay::value < HelloPropagationDelay::min or > HelloPropagationDelay::max not allowed",
      "HelloPropagationDelay")));
}

// ---- HelloMessage ----

HelloMessage::HelloMessage() : Message(Knet::pimHello()) {}

Loom::Ptr<HelloMessage> helloMessageFactory() { return new HelloMessage; }

bool HelloMessage::secondaryAddrHas(const Knet::IpGenAddr& a) const {
  return std::find(secondaryAddr_.begin(), secondaryAddr_.end(), a) != secondaryAddr_.end();
}

void HelloMessage::secondaryAddrIs(const Knet::IpGenAddr& a, bool present) {
  auto it = std::find(secondaryAddr_.begin(), secondaryAddr_.end(), a);
  if (present && it == secondaryAddr_.end()) secondaryAddr_.push_back(a);
  if (!present && it != secondaryAddr_.end()) secondaryAddr_.erase(it);
}

U32 HelloMessage::readHelloMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_BLOCK_TIMER("U32 Routing::Pim::Packet::HelloMessage::readHelloMessage(const Ptr&, U32)");
  if (readHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kReadHeader);
    return 0;
  }
  const S64 size = pkt->size();
  U64 pos = U64(offset) + 4;
  S64 remaining = size - S64(pos);
  if (remaining > 0 && remaining < 4) {
    PIM_TRACE(traceError, kOptionLength << remaining << " Expected: " << 4);
    return 0;
  }
  while (remaining > 0) {
    Knet::PktReader r(pkt, static_cast<U32>(pos));
    const U16 type = r.readU16Be();
    const U16 length = r.readU16Be();
    const S64 valueRoom = remaining - 4;
    if (type < fixedOptions.size() && fixedOptions[type].sizeText) {
      const FixedOption& o = fixedOptions[type];
      if (length != o.length) {
        PIM_TRACE(traceError, o.sizeText << length);
        return 0;
      }
      if (o.roomText && valueRoom < o.length) {
        PIM_TRACE(traceError, o.roomText << valueRoom << " Expected: " << o.length);
        return 0;
      }
      if (valueRoom >= o.length) o.apply(*this, r);
      pos += 4 + length;
    } else if (type == helloAddressList) {
      if (valueRoom < length) {
        PIM_TRACE(traceError, kAddressListLength << valueRoom << " Expected: " << length);
        return 0;
      }
      pos += 4;
      if (length > 0 && !readAddressList(pkt, pos, valueRoom, length)) return 0;
    } else if (type == helloPimOverTcpCapable || type == helloPimOverSctpCapable) {
      if (length < 5) {
        PIM_TRACE(traceError, (type == helloPimOverTcpCapable ? tcpTexts : sctpTexts).size << length);
        return 0;
      }
      readConnectionOption(pkt, pos + 4, valueRoom, type, length);
      pos += 4 + length;
    } else {
      PIM_TRACE(traceWarning, kUnsupported << type);
      pos += 4 + length;
    }
    remaining = size - S64(pos);
    if (remaining == 0) break;
    if (remaining < 4) {
      PIM_TRACE(traceError, kOptionLength << remaining << " Expected: " << 4);
      return 0;
    }
  }
  // Not a failure: the user of the message applies the protocol's default holdtime.
  if (!holdTimeOption_) PIM_TRACE(tracePacking, kNoHoldtime);
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return static_cast<U32>(pos - offset);
}

// Walks the address list address by address; an address that crosses the option's end is read
// whole and the position ends behind it.
bool HelloMessage::readAddressList(const Loom::Ptr<Knet::Pkt>& pkt, U64& pos, S64 valueRoom, U16 length) {
  EncodedUnicastAddress scratch;
  S64 left = length;
  do {
    const U32 n = scratch.readUnicastAddress(pkt, static_cast<U32>(pos));
    if (n == 0) {
      PIM_TRACE(traceError, kAddressParse);
      return false;
    }
    const Knet::IpGenAddr& a = scratch.address();
    if (a.af() == af()) {
      // The address is kept even when it is not valid: it is added before the test.
      secondaryAddrIs(a);
      if (!scratch.valid()) PIM_TRACE(traceWarning, kSkipInvalid << a);
    } else {
      PIM_TRACE(traceWarning, kSkipFamily << af() << " Skipping Address: " << a);
    }
    pos += n;
    left -= n;
    valueRoom -= n;
  } while (left >= 1);
  return true;
}

// A malformed connection option is skipped with a trace; it never fails the message.
void HelloMessage::readConnectionOption(const Loom::Ptr<Knet::Pkt>& pkt, U64 pos, S64 valueRoom, U16 type,
                                        U16 length) {
  // A value that runs past the packet is not read; the length test after the option fails it.
  if (valueRoom < length) return;
  const bool tcp = type == helloPimOverTcpCapable;
  const ConnectionTexts& t = tcp ? tcpTexts : sctpTexts;
  Knet::PktReader r(pkt, static_cast<U32>(pos));
  const U16 family = r.readU16Be();
  if (!r.skip(2)) return;  // the reserved field: within the value, whose room was checked
  const U32 addressLength = length - 4u;
  const Knet::AddressFamily af = familyOf(family);
  if ((af == Knet::AddressFamily::ipv4 && addressLength == 4) || (af == Knet::AddressFamily::ipv6 && addressLength == 16)) {
    const Knet::IpGenAddr id = r.readAddress(af);
    if (tcp) {
      tcpConnectionOption_ = true;
      tcpConnectionId_ = id;
    } else {
      sctpConnectionOption_ = true;
      sctpConnectionId_ = id;
    }
  } else if (af == Knet::AddressFamily::ipv4) {
    PIM_TRACE(traceError, t.ipv4Length << length);
  } else if (af == Knet::AddressFamily::ipv6) {
    PIM_TRACE(traceError, t.ipv6Length << length);
  } else {
    PIM_TRACE(traceError, t.readFamily << family << " with length " << length);
  }
}

U32 HelloMessage::writeHelloMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_BLOCK_TIMER("U32 Routing::Pim::Packet::HelloMessage::writeHelloMessage(const Ptr&, U32)");
  S64 remaining = S64(pkt->size()) - S64(offset);
  if (remaining < 4) {
    PIM_TRACE(traceError, kWriteHeaderSpace << remaining);
    return 0;
  }
  remaining -= 4;
  Knet::PktWriter w(pkt, offset + 4);
  // Reserves `need` bytes of the remaining room, or traces `text` and refuses.
  auto room = [&remaining](S64 need, const char* text) {
    if (remaining < need) {
      PIM_TRACE(traceError, text << remaining << " Expected: " << need);
      return false;
    }
    remaining -= need;
    return true;
  };

  if (holdTimeOption_) {
    if (!room(6, kWriteHoldtime)) return 0;
    w.writeU16Be(helloHoldTime);
    w.writeU16Be(2);
    w.writeU16Be(holdTime_);
  }
  if (lanPruneDelayOption_) {
    if (!room(8, kWriteLanPruneDelay)) return 0;
    w.writeU16Be(helloLanPruneDelay);
    w.writeU16Be(4);
    w.writeU16Be(implPropagationDelay_);
    w.writeU16Be(overrideInterval_);
  }
  if (drPriorityOption_) {
    if (!room(8, kWriteDrPriority)) return 0;
    w.writeU16Be(helloDrPriority);
    w.writeU16Be(4);
    w.writeU32Be(drPriority_);
  }
  if (generationIdOption_) {
    if (!room(8, kWriteGenerationId)) return 0;
    w.writeU16Be(helloGenerationId);
    w.writeU16Be(4);
    w.writeU32Be(generationId_);
  }
  if (bidirectionalCapable_) {
    if (!room(4, kWriteBidir)) return 0;
    w.writeU16Be(helloBidirectionalCapable);
    w.writeU16Be(0);
  }
  if (!secondaryAddr_.empty()) {
    if (!room(4, kWriteGenerationId)) return 0;
    w.writeU16Be(helloAddressList);
    const U32 lengthAt = w.offset();
    w.writeU16Be(0);
    EncodedUnicastAddress scratch;
    U32 written = 0;
    for (const Knet::IpGenAddr& a : secondaryAddr_) {
      if (a.af() != af()) {
        PIM_TRACE(traceError, kWriteAddressFamily << a.af() << " Address: " << a);
        return 0;
      }
      scratch.addressIs(a);
      const U32 n = scratch.writeUnicastAddress(pkt, w.offset());
      if (n == 0) {
        PIM_TRACE(traceError, kWriteAddress);
        return 0;
      }
      w.skip(n);
      written += n;
    }
    w.patchU16Be(lengthAt, static_cast<U16>(written));
    remaining -= written;
  }
  for (bool tcp : {true, false}) {
    if (!(tcp ? tcpConnectionOption_ : sctpConnectionOption_)) continue;
    const ConnectionTexts& t = tcp ? tcpTexts : sctpTexts;
    const Knet::IpGenAddr& id = tcp ? tcpConnectionId_ : sctpConnectionId_;
    if (id.af() != af()) {
      PIM_TRACE(traceError, t.idFamily << id.af());
      return 0;
    }
    U16 length = 0;
    if (id.af() == Knet::AddressFamily::ipv4) {
      length = 8;
    } else if (id.af() == Knet::AddressFamily::ipv6) {
      length = 20;
    } else {
      PIM_TRACE(traceError, t.writeFamily << id.af());
      return 0;
    }
    if (!room(4 + length, t.writeSpace)) return 0;
    w.writeU16Be(tcp ? helloPimOverTcpCapable : helloPimOverSctpCapable);
    w.writeU16Be(length);
    w.writeU16Be(static_cast<U16>(id.af()));
    w.writeU16Be(0);
    w.writeAddress(id);
  }
  if (interfaceIdOption_) {
    if (!room(12, kWriteInterfaceId)) return 0;
    w.writeU16Be(helloInterfaceIdentifier);
    w.writeU16Be(8);
    w.writeU32Be(routerId_);
    w.writeU32Be(interfaceId_);
  }
  lengthIs(w.offset() - offset);
  if (writeHeader(pkt, offset) == 0) {
    PIM_TRACE(traceError, kWriteHeader);
    return 0;
  }
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return length();
}

}  // namespace Routing::Pim::Packet
