#include "PimMessage/HelloMessage.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

#include "PimMessage/EncodedAddress.h"
#include "knet/Cursor.h"
#include "loom/Exception.h"

namespace Routing::Pim::Packet {
namespace {

using T = HelloText;

// ---- Failure texts ----
constexpr std::array<TextRow<HelloText>, 39> texts{{
    {T::readHeader, "Invalid Pim Hello - Header - Read Error"},
    {T::optionLength, "Invalid Pim Hello - Hello Option Length - Remaining: "},
    {T::holdtimeSize, "Invalid Pim Hello - Holdtime Option Size - Received Value: "},
    {T::lanPruneDelaySize, "Invalid Pim Hello - Lan Prune Delay Option Size - Received Value: "},
    {T::drPrioritySize, "Invalid Pim Hello - Dr Priority Option Size - Received Value: "},
    {T::generationIdSize, "Invalid Pim Hello - Generation Id Option Size - Received Value: "},
    {T::bidirSize, "Invalid Pim Hello - Non-zero Bidirectional Capable Option Size - Received Value: "},
    {T::interfaceIdSize, "Invalid Pim Hello - Interface Identifier Option Size - Received Value: "},
    {T::holdtimeLength, "Invalid Pim Hello - Holdtime Option Length - Remaining: "},
    {T::lanPruneDelayLength, "Invalid Pim Hello - Lan Prune Delay Option Length - Remaining: "},
    {T::drPriorityLength, "Invalid Pim Hello - Dr Priority Option Length - Remaining: "},
    {T::generationIdLength, "Invalid Pim Hello - Generation Id Option Length - Remaining: "},
    {T::addressListLength, "Invalid Pim Hello - Address List Option Length - Remaining: "},
    {T::addressParse, "Invalid Pim Hello - Address List Option - Unicast Address - Parse Error"},
    {T::noHoldtime, "Invalid Pim Hello - No Holdtime Option"},
    {T::tcpSize, "Invalid Pim Hello - Pim over Tcp Option Size - Received Value: "},
    {T::tcpIpv4Length, "Invalid Pim Hello - Pim over Tcp Option - IPv4 address family has unexpected length "},
    {T::tcpIpv6Length, "Invalid Pim Hello - Pim over Tcp Option - IPv6 address family has unexpected length "},
    {T::tcpReadFamily, "Invalid Pim Hello - Pim over Tcp Option - Invalid address family "},
    {T::tcpIdFamily, "Invalid Pim Hello - tcpConnectionId Option - Family: "},
    {T::tcpWriteFamily, "Invalid Pim Hello - TCP capable Option - Invalid address family "},
    {T::tcpWriteSpace, "Invalid Pim Hello - TCP capable  Option - Unavailable Space - Remaining: "},
    {T::sctpSize, "Invalid Pim Hello - Pim over Sctp Option Size - Received Value: "},
    {T::sctpIpv4Length, "Invalid Pim Hello - Pim over Sctp Option - IPv4 address family has unexpected length "},
    {T::sctpIpv6Length, "Invalid Pim Hello - Pim over Sctp Option - IPv6 address family has unexpected length "},
    {T::sctpReadFamily, "Invalid Pim Hello - Pim over Sctp Option - Invalid address family "},
    {T::sctpIdFamily, "Invalid Pim Hello - sctpConnectionId Option - Family: "},
    {T::sctpWriteFamily, "Invalid Pim Hello - SCTP capable Option - Invalid address family "},
    {T::sctpWriteSpace, "Invalid Pim Hello - STCP capable  Option - Unavailable Space - Remaining: "},
    {T::writeHeaderSpace, "Invalid Pim Hello - Header - Unavailable Space - Remaining: "},
    {T::writeHoldtime, "Invalid Pim Hello - Holdtime Option - Unavailable Space - Remaining: "},
    {T::writeLanPruneDelay, "Invalid Pim Hello - Lan Prune Delay Option - Unavailable Space - Remaining: "},
    {T::writeDrPriority, "Invalid Pim Hello - Dr Priority Option - Unavailable Space - Remaining: "},
    // The address list's header shares this text.
    {T::writeGenerationId, "Invalid Pim Hello - Generation Id Option - Unavailable Space - Remaining: "},
    {T::writeBidir, "Invalid Pim Hello - Bidirectional Capable Option - Unavailable Space - Remaining: "},
    {T::writeAddressFamily, "Invalid Pim Hello - Address List Option - Family: "},
    {T::writeAddress, "Invalid Pim Hello - Address List Option - Unicast Address - Write Error"},
    {T::writeInterfaceId, "Invalid Pim Hello - InterfaceId Option - Unavailable Space - Remaining: "},
    {T::writeHeader, "Invalid Pim Hello - Header - Write Error"},
}};
static_assert(rowsInOrder(texts));

constexpr std::string_view text(T row) { return texts[static_cast<size_t>(row)].text; }

// ---- Warnings: the read goes on ----
constexpr const char* kSkipInvalid = "Warning: Pim Hello - Address List Option - Skipping Invalid Address: ";
constexpr const char* kSkipFamily = "Warning: Pim Hello - Address List Option - Family: ";
constexpr const char* kUnsupported = "Warning: Pim Hello - Unsupport Hello Option - Type: ";

// The PIM-over-TCP and PIM-over-SCTP capable options differ only in their rows and fields.
struct ConnectionRows {
  T size;
  T ipv4Length;
  T ipv6Length;
  T readFamily;
  T idFamily;
  T writeFamily;
  T writeSpace;
};
constexpr ConnectionRows tcpRows{T::tcpSize,     T::tcpIpv4Length,  T::tcpIpv6Length, T::tcpReadFamily,
                                 T::tcpIdFamily, T::tcpWriteFamily, T::tcpWriteSpace};
constexpr ConnectionRows sctpRows{T::sctpSize,     T::sctpIpv4Length,  T::sctpIpv6Length, T::sctpReadFamily,
                                  T::sctpIdFamily, T::sctpWriteFamily, T::sctpWriteSpace};
constexpr const ConnectionRows& connectionRows(U16 type) { return type == helloPimOverTcpCapable ? tcpRows : sctpRows; }

// ---- Options of one fixed length, read by table ----
struct FixedOption {
  U16 length = 0;             // the one length accepted
  std::optional<T> size;      // unset: the type has no row here
  std::optional<T> room;      // unset: no room test of its own
  void (*apply)(HelloMessage&, Knet::PktReader&) = nullptr;
};

constexpr std::array<FixedOption, 32> makeFixedOptions() {
  std::array<FixedOption, 32> t{};
  t[helloHoldTime] = {2, T::holdtimeSize, T::holdtimeLength, [](HelloMessage& m, Knet::PktReader& r) {
                        m.holdTimeOptionIs(true);
                        m.holdTimeIs(r.readU16Be());
                      }};
  t[helloLanPruneDelay] = {4, T::lanPruneDelaySize, T::lanPruneDelayLength, [](HelloMessage& m, Knet::PktReader& r) {
                             m.lanPruneDelayOptionIs(true);
                             m.implPropagationDelayIs(r.readU16Be());
                             m.overrideIntervalIs(r.readU16Be());
                           }};
  t[helloDrPriority] = {4, T::drPrioritySize, T::drPriorityLength, [](HelloMessage& m, Knet::PktReader& r) {
                          m.drPriorityOptionIs(true);
                          m.drPriorityIs(r.readU32Be());
                        }};
  t[helloGenerationId] = {4, T::generationIdSize, T::generationIdLength, [](HelloMessage& m, Knet::PktReader& r) {
                            m.generationIdOptionIs(true);
                            m.generationIdIs(r.readU32Be());
                          }};
  t[helloBidirectionalCapable] = {0, T::bidirSize, std::nullopt,
                                  [](HelloMessage& m, Knet::PktReader&) { m.bidirectionalCapableIs(true); }};
  // A value cut short runs past the end of the packet, which the option length text tells.
  t[helloInterfaceIdentifier] = {8, T::interfaceIdSize, std::nullopt, [](HelloMessage& m, Knet::PktReader& r) {
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

std::string_view textOf(HelloText row) { return text(row); }

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
  if (readHeader(pkt, offset) == 0) return PIM_FAIL(T::readHeader);
  Knet::PktReader r(pkt, offset + 4);
  while (!r.atEnd()) {
    if (r.remaining() < 4) return PIM_FAIL(T::optionLength, r.remaining(), " Expected: ", 4);
    const U16 type = r.readU16Be();
    const U16 length = r.readU16Be();
    const FixedOption* fixed = type < fixedOptions.size() && fixedOptions[type].size ? &fixedOptions[type] : nullptr;
    const bool connection = type == helloPimOverTcpCapable || type == helloPimOverSctpCapable;
    if (fixed) {
      if (length != fixed->length) return PIM_FAIL(*fixed->size, length);
      if (fixed->room && r.remaining() < length) return PIM_FAIL(*fixed->room, r.remaining(), " Expected: ", length);
    } else if (type == helloAddressList) {
      if (r.remaining() < length) return PIM_FAIL(T::addressListLength, r.remaining(), " Expected: ", length);
      if (length > 0 && readAddressList(r, length) == 0) return 0;
      continue;
    } else if (connection) {
      if (length < 5) return PIM_FAIL(connectionRows(type).size, length);
    } else {
      PIM_TRACE(traceWarning, kUnsupported << type);
    }
    std::optional<Knet::PktReader> value = r.take(length);
    // A value that runs past the packet is not read.
    if (!value) return PIM_FAIL(T::optionLength, r.remaining() - length, " Expected: ", 4);
    if (fixed) fixed->apply(*this, *value);
    if (connection) readConnectionOption(*value, type);
  }
  // Not a failure: the user of the message applies the protocol's default holdtime.
  if (!holdTimeOption_) PIM_TRACE(tracePacking, text(T::noHoldtime));
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return r.offset() - offset;
}

// Walks the address list address by address on the message's cursor rather than on the option's:
// an address that crosses the option's end is read whole and reading goes on behind it. Returns
// the bytes read, or 0.
U32 HelloMessage::readAddressList(Knet::PktReader& r, U16 length) {
  const Knet::PktOffset start = r.offset();
  EncodedUnicastAddress address;
  do {
    if (address.read(r) == 0) {
      failureIs(address.failure());
      return PIM_FAIL(T::addressParse);
    }
    const Knet::IpGenAddr& a = address.address();
    if (a.af() == af()) {
      // The address is kept even when it is not valid: it is added before the test.
      secondaryAddrIs(a);
      if (!address.valid()) PIM_TRACE(traceWarning, kSkipInvalid << a);
    } else {
      PIM_TRACE(traceWarning, kSkipFamily << af() << " Skipping Address: " << a);
    }
  } while (r.offset() - start < length);
  return r.offset() - start;
}

// Reads the value of a connection option (its length checked). A malformed one is skipped with a
// trace; it never fails the message.
void HelloMessage::readConnectionOption(Knet::PktReader& value, U16 type) {
  const bool tcp = type == helloPimOverTcpCapable;
  const ConnectionRows& t = connectionRows(type);
  const S64 length = value.remaining();
  const U16 family = value.readU16Be();
  if (!value.skip(2)) return;  // the reserved field
  const Knet::AddressFamily af = familyOf(family);
  if ((af == Knet::AddressFamily::ipv4 && length == 8) || (af == Knet::AddressFamily::ipv6 && length == 20)) {
    const Knet::IpGenAddr id = value.readAddress(af);
    if (tcp) {
      tcpConnectionOption_ = true;
      tcpConnectionId_ = id;
    } else {
      sctpConnectionOption_ = true;
      sctpConnectionId_ = id;
    }
  } else if (af == Knet::AddressFamily::ipv4) {
    PIM_TRACE(traceError, text(t.ipv4Length) << length);
  } else if (af == Knet::AddressFamily::ipv6) {
    PIM_TRACE(traceError, text(t.ipv6Length) << length);
  } else {
    PIM_TRACE(traceError, text(t.readFamily) << family << " with length " << length);
  }
}

U32 HelloMessage::writeHelloMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset) {
  LOOM_BLOCK_TIMER("U32 Routing::Pim::Packet::HelloMessage::writeHelloMessage(const Ptr&, U32)");
  failureClear();
  Knet::PktWriter w(pkt, offset);
  if (w.remaining() < 4) return PIM_FAIL(T::writeHeaderSpace, w.remaining());
  w.skip(4);  // the header, written last
  // Whether `need` bytes are left for an option; if not, the write fails with `row`.
  auto room = [&](S64 need, T row) {
    if (w.remaining() >= need) return true;
    PIM_FAIL(row, w.remaining(), " Expected: ", need);
    return false;
  };

  if (holdTimeOption_) {
    if (!room(6, T::writeHoldtime)) return 0;
    w.writeU16Be(helloHoldTime);
    w.writeU16Be(2);
    w.writeU16Be(holdTime_);
  }
  if (lanPruneDelayOption_) {
    if (!room(8, T::writeLanPruneDelay)) return 0;
    w.writeU16Be(helloLanPruneDelay);
    w.writeU16Be(4);
    w.writeU16Be(implPropagationDelay_);
    w.writeU16Be(overrideInterval_);
  }
  if (drPriorityOption_) {
    if (!room(8, T::writeDrPriority)) return 0;
    w.writeU16Be(helloDrPriority);
    w.writeU16Be(4);
    w.writeU32Be(drPriority_);
  }
  if (generationIdOption_) {
    if (!room(8, T::writeGenerationId)) return 0;
    w.writeU16Be(helloGenerationId);
    w.writeU16Be(4);
    w.writeU32Be(generationId_);
  }
  if (bidirectionalCapable_) {
    if (!room(4, T::writeBidir)) return 0;
    w.writeU16Be(helloBidirectionalCapable);
    w.writeU16Be(0);
  }
  if (!secondaryAddr_.empty()) {
    if (!room(4, T::writeGenerationId)) return 0;
    w.writeU16Be(helloAddressList);
    const Knet::PktOffset lengthAt = w.offset();
    w.writeU16Be(0);
    EncodedUnicastAddress address;
    for (const Knet::IpGenAddr& a : secondaryAddr_) {
      if (a.af() != af()) return PIM_FAIL(T::writeAddressFamily, a.af(), " Address: ", a);
      address.addressIs(a);
      if (address.write(w) == 0) {
        failureIs(address.failure());
        return PIM_FAIL(T::writeAddress);
      }
    }
    w.patchU16Be(lengthAt, static_cast<U16>(w.offset() - lengthAt - 2));
  }
  for (bool tcp : {true, false}) {
    if (!(tcp ? tcpConnectionOption_ : sctpConnectionOption_)) continue;
    const ConnectionRows& t = tcp ? tcpRows : sctpRows;
    const Knet::IpGenAddr& id = tcp ? tcpConnectionId_ : sctpConnectionId_;
    if (id.af() != af()) return PIM_FAIL(t.idFamily, id.af());
    U16 length = 0;
    if (id.af() == Knet::AddressFamily::ipv4) {
      length = 8;
    } else if (id.af() == Knet::AddressFamily::ipv6) {
      length = 20;
    } else {
      return PIM_FAIL(t.writeFamily, id.af());
    }
    if (!room(4 + length, t.writeSpace)) return 0;
    w.writeU16Be(tcp ? helloPimOverTcpCapable : helloPimOverSctpCapable);
    w.writeU16Be(length);
    w.writeU16Be(static_cast<U16>(id.af()));
    w.writeU16Be(0);
    w.writeAddress(id);
  }
  if (interfaceIdOption_) {
    if (!room(12, T::writeInterfaceId)) return 0;
    w.writeU16Be(helloInterfaceIdentifier);
    w.writeU16Be(8);
    w.writeU32Be(routerId_);
    w.writeU32Be(interfaceId_);
  }
  lengthIs(w.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return PIM_FAIL(T::writeHeader);
  PIM_TRACE(traceDetail, "TX: <PIM " << this << ">");
  return length();
}

}  // namespace Routing::Pim::Packet
