#pragma once
// The Hello message (PIM type 0): a router's Hello options, each with a presence flag, and the
// secondary address list. Options: Holdtime, LAN Prune Delay, DR Priority, Generation ID,
// Bidirectional Capable, Address List, PIM-over-TCP and PIM-over-SCTP capable, Interface
// Identifier (RFC 7761 4.9.2, RFC 5015, RFC 6395, RFC 6559).
#include <string_view>
#include <vector>

#include "PimMessage/Message.h"
#include "knet/Cursor.h"
#include "loom/SmallVector.h"

namespace Routing::Pim::Packet {

// The rows of the Hello's text table: the failures of a read or write, the connection options
// that a read skips, and the missing holdtime that a read accepts.
enum class HelloText : U8 {
  readHeader,
  optionLength,
  holdtimeSize,
  lanPruneDelaySize,
  drPrioritySize,
  generationIdSize,
  bidirSize,
  interfaceIdSize,
  holdtimeLength,
  lanPruneDelayLength,
  drPriorityLength,
  generationIdLength,
  addressListLength,
  addressParse,
  noHoldtime,
  tcpSize,
  tcpIpv4Length,
  tcpIpv6Length,
  tcpReadFamily,
  tcpIdFamily,
  tcpWriteFamily,
  tcpWriteSpace,
  sctpSize,
  sctpIpv4Length,
  sctpIpv6Length,
  sctpReadFamily,
  sctpIdFamily,
  sctpWriteFamily,
  sctpWriteSpace,
  writeHeaderSpace,
  writeHoldtime,
  writeLanPruneDelay,
  writeDrPriority,
  writeGenerationId,
  writeBidir,
  writeAddressFamily,
  writeAddress,
  writeInterfaceId,
  writeHeader,
};
template <>
inline constexpr TextTable textTableOf<HelloText> = TextTable::hello;
std::string_view textOf(HelloText row);

enum HelloOptionTypeConstants : U16 {
  helloHoldTime = 1,
  helloLanPruneDelay = 2,
  helloDrPriority = 19,
  helloGenerationId = 20,
  helloBidirectionalCapable = 22,
  helloAddressList = 24,
  helloPimOverTcpCapable = 27,
  helloPimOverSctpCapable = 28,
  helloInterfaceIdentifier = 31,
};

// The type-length header in front of every option value.
struct HelloOptionHeader {
  HelloOptionTypeConstants helloType{};
  U16 lengthU16 = 0;
  static constexpr U32 size = 4;
};

// The LAN Prune Delay's first 16 bits: T bit in bit 15, propagation delay in bits 0 to 14.
using HelloImplPropagationDelay = U16;

// A propagation delay in milliseconds, 0 to 32767.
class HelloPropagationDelay {
 public:
  static constexpr U16 min = 0;
  static constexpr U16 max = 32767;
  constexpr HelloPropagationDelay() = default;
  constexpr explicit HelloPropagationDelay(U16 v) : value_(v) {}
  constexpr U16 value() const { return value_; }
  // Parses a decimal value; one outside min..max raises Loom::RangeException.
  static HelloPropagationDelay fromString(std::string_view text);
  friend constexpr bool operator==(HelloPropagationDelay, HelloPropagationDelay) = default;

 private:
  U16 value_ = 0;
};
std::ostream& operator<<(std::ostream& os, HelloPropagationDelay d);
std::string valueToStrep(HelloPropagationDelay d);

class HelloMessage : public Message {
 public:
  HelloMessage();

  bool holdTimeOption() const { return holdTimeOption_; }
  void holdTimeOptionIs(bool v) { holdTimeOption_ = v; }
  U16 holdTime() const { return holdTime_; }
  void holdTimeIs(U16 v) { holdTime_ = v; }

  bool lanPruneDelayOption() const { return lanPruneDelayOption_; }
  void lanPruneDelayOptionIs(bool v) { lanPruneDelayOption_ = v; }
  HelloImplPropagationDelay implPropagationDelay() const { return implPropagationDelay_; }
  void implPropagationDelayIs(HelloImplPropagationDelay v) { implPropagationDelay_ = v; }
  bool tBit() const { return implPropagationDelay_ & 0x8000; }
  void tBitIs(bool v) { implPropagationDelay_ = static_cast<U16>((implPropagationDelay_ & 0x7fff) | (v ? 0x8000 : 0)); }
  HelloPropagationDelay propagationDelay() const { return HelloPropagationDelay(implPropagationDelay_ & 0x7fff); }
  void propagationDelayIs(HelloPropagationDelay d) {
    implPropagationDelay_ = static_cast<U16>((implPropagationDelay_ & 0x8000) | (d.value() & 0x7fff));
  }
  U16 overrideInterval() const { return overrideInterval_; }
  void overrideIntervalIs(U16 v) { overrideInterval_ = v; }

  bool drPriorityOption() const { return drPriorityOption_; }
  void drPriorityOptionIs(bool v) { drPriorityOption_ = v; }
  U32 drPriority() const { return drPriority_; }
  void drPriorityIs(U32 v) { drPriority_ = v; }

  bool generationIdOption() const { return generationIdOption_; }
  void generationIdOptionIs(bool v) { generationIdOption_ = v; }
  U32 generationId() const { return generationId_; }
  void generationIdIs(U32 v) { generationId_ = v; }

  bool bidirectionalCapable() const { return bidirectionalCapable_; }
  void bidirectionalCapableIs(bool v) { bidirectionalCapable_ = v; }

  // The address list, in the order the addresses were added; an address is held once.
  using SecondaryAddrList = Loom::SmallVector<Knet::IpGenAddr, 4>;
  const SecondaryAddrList& secondaryAddr() const { return secondaryAddr_; }
  bool secondaryAddrHas(const Knet::IpGenAddr& a) const;
  // Adds (present true) or removes (present false) an address.
  void secondaryAddrIs(const Knet::IpGenAddr& a, bool present = true);
  void secondaryAddrDel(const Knet::IpGenAddr& a) { secondaryAddrIs(a, false); }
  void secondaryAddrDelAll() { secondaryAddr_.clear(); }

  bool tcpConnectionOption() const { return tcpConnectionOption_; }
  void tcpConnectionOptionIs(bool v) { tcpConnectionOption_ = v; }
  const Knet::IpGenAddr& tcpConnectionId() const { return tcpConnectionId_; }
  void tcpConnectionIdIs(const Knet::IpGenAddr& v) { tcpConnectionId_ = v; }

  bool sctpConnectionOption() const { return sctpConnectionOption_; }
  void sctpConnectionOptionIs(bool v) { sctpConnectionOption_ = v; }
  const Knet::IpGenAddr& sctpConnectionId() const { return sctpConnectionId_; }
  void sctpConnectionIdIs(const Knet::IpGenAddr& v) { sctpConnectionId_ = v; }

  bool interfaceIdOption() const { return interfaceIdOption_; }
  void interfaceIdOptionIs(bool v) { interfaceIdOption_ = v; }
  U32 interfaceId() const { return interfaceId_; }
  void interfaceIdIs(U32 v) { interfaceId_ = v; }
  U32 routerId() const { return routerId_; }
  void routerIdIs(U32 v) { routerId_ = v; }

  // Reads the options behind the header: bytes from the header to the end of the last option,
  // or 0 on failure.
  U32 readHelloMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  // Writes header and options: bytes written, or 0 on failure.
  U32 writeHelloMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);

  void print(std::ostream& os) const override;

 private:
  U32 readAddressList(Knet::PktReader& r, U16 length);
  void readConnectionOption(Knet::PktReader& value, U16 type);

  bool holdTimeOption_ = false;
  U16 holdTime_ = 0;
  bool lanPruneDelayOption_ = false;
  HelloImplPropagationDelay implPropagationDelay_ = 0;
  U16 overrideInterval_ = 0;
  bool drPriorityOption_ = false;
  U32 drPriority_ = 0;
  bool generationIdOption_ = false;
  U32 generationId_ = 0;
  bool bidirectionalCapable_ = false;
  SecondaryAddrList secondaryAddr_;
  bool tcpConnectionOption_ = false;
  Knet::IpGenAddr tcpConnectionId_;
  bool sctpConnectionOption_ = false;
  Knet::IpGenAddr sctpConnectionId_;
  bool interfaceIdOption_ = false;
  U32 interfaceId_ = 0;
  U32 routerId_ = 0;
};

Loom::Ptr<HelloMessage> helloMessageFactory();
std::ostream& operator<<(std::ostream& os, const HelloMessage* m);

}  // namespace Routing::Pim::Packet
