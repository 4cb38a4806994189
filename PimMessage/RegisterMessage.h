#pragma once
// The Register (PIM type 1) and Register-Stop (type 2) messages (RFC 7761 4.9.3, 4.9.4).
//
// A Register carries a multicast data packet, or for a Null-Register only a dummy IP header,
// from a first-hop router to the RP; its checksum covers the PIM header and the flags word only.
// Reading a data Register hands on the received packet itself: on success `rcvdPkt` is that
// packet with its outer IP header, PIM header and flags dropped from its head, so that it starts
// at the inner IP header and nothing is copied. On failure the packet keeps its headers.
#include <ostream>
#include <string>

#include "PimData/PimFlags.h"
#include "PimMessage/Message.h"
#include "knet/Cursor.h"

namespace Routing::Pim::Packet {

// The rows of the Register's text table.
enum class RegisterText : U8 {
  headerParse,
  flagsLength,
  invalidVersion,
  innerFamily,
  unknownVersion,
  notMulticast,
  notMulticast6,
  nullChecksum,
  nullLength,
  nullLength6,
  dataLength,
  writeHeaderSpace,
  writeFlagsSpace,
  writeHeader,
  nullWithData,
  nullSpace,
  writeFamily,
  noRcvdPkt,
  writeDataLength,
  writeDataSpace,
};
template <>
inline constexpr TextTable textTableOf<RegisterText> = TextTable::registerMessage;
std::string_view textOf(RegisterText row);

// The rows of the Register-Stop's text table.
enum class RegisterStopText : U8 {
  headerParse,
  groupParse,
  groupFamily,
  groupPrefix,
  sourceParse,
  sourceFamily,
  sourceInvalid,
  endOfMessage,
  writeHeaderSpace,
  writeFamily,
  groupWrite,
  sourceWrite,
  writeHeader,
};
template <>
inline constexpr TextTable textTableOf<RegisterStopText> = TextTable::registerStop;
std::string_view textOf(RegisterStopText row);

// The Register's flags word: B (border) is bit 31, N (null) bit 30, bits 0 to 29 are reserved.
class RegisterImplFlags {
 public:
  static constexpr U32 borderBit = 0x80000000u;
  static constexpr U32 nullBit = 0x40000000u;
  static constexpr U32 reservedMask = 0x3fffffffu;
  constexpr RegisterImplFlags() = default;
  constexpr explicit RegisterImplFlags(U32 v) : value_(v) {}
  constexpr U32 value() const { return value_; }
  constexpr bool border() const { return value_ & borderBit; }
  constexpr bool null() const { return value_ & nullBit; }
  constexpr U32 reserved2() const { return value_ & reservedMask; }
  friend constexpr bool operator==(RegisterImplFlags, RegisterImplFlags) = default;

 private:
  U32 value_ = 0;
};
// "0x40000000(N)", "0xc0000000(B,N)", "0x00000000".
std::ostream& operator<<(std::ostream& os, RegisterImplFlags f);
std::string valueToStrep(RegisterImplFlags f);

class RegisterMessage : public Message {
 public:
  // Subtypes that tell the two kinds apart in counters.
  static constexpr U8 nullRegisterSubtype = 0;
  static constexpr U8 dataRegisterSubtype = 1;

  class Notifiee : public Loom::BaseNotifiee<RegisterMessage> {
   public:
    virtual void onImplRegisterFlags() {}
  };

  RegisterMessage();
  static const char* fwkType() { return "Routing::Pim::Packet::RegisterMessage"; }

  RegisterImplFlags implRegisterFlags() const { return implRegisterFlags_; }
  void implRegisterFlagsIs(RegisterImplFlags v);
  void implRegisterFlagsU32Is(U32 v) { implRegisterFlagsIs(RegisterImplFlags(v)); }
  bool borderFlag() const { return implRegisterFlags_.border(); }
  void borderFlagIs(bool v);
  bool nullFlag() const { return implRegisterFlags_.null(); }
  void nullFlagIs(bool v);
  // Sets messageSubtype from the N bit: a Null-Register is 0, a data Register 1.
  void handleMessageSubtype();

  U8 hopLimit() const { return hopLimit_; }
  void hopLimitIs(U8 v) { hopLimit_ = v; }
  // Received: the packet from its inner IP header on. To send: the packet to encapsulate.
  const Loom::Ptr<Knet::Pkt>& rcvdPkt() const { return rcvdPkt_; }
  void rcvdPktIs(const Loom::Ptr<Knet::Pkt>& v) { rcvdPkt_ = v; }
  const Knet::IpGenAddr& encapsulatedSrc() const { return encapsulatedSrc_; }
  void encapsulatedSrcIs(const Knet::IpGenAddr& v) { encapsulatedSrc_ = v; }
  const Knet::IpGenAddr& encapsulatedDst() const { return encapsulatedDst_; }
  void encapsulatedDstIs(const Knet::IpGenAddr& v) { encapsulatedDst_ = v; }

  // Reads the message at offset: 8 (header and flags) plus the bytes behind the flags, or 0.
  U32 readRegisterMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  // Writes the header, the flags and the dummy header or the packet to encapsulate: the bytes
  // written, or 0.
  U32 writeRegisterMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);

  void print(std::ostream& os) const override;

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeDel(Notifiee* n) { notifiees_.del(n); }

 private:
  U32 readInner(const Loom::Ptr<Knet::Pkt>& pkt, Knet::PktReader& r);
  U32 writeNull(Knet::PktWriter& w);
  U32 writeData(Knet::PktWriter& w);

  RegisterImplFlags implRegisterFlags_;
  U8 hopLimit_ = 0;
  Loom::Ptr<Knet::Pkt> rcvdPkt_;
  Knet::IpGenAddr encapsulatedSrc_;
  Knet::IpGenAddr encapsulatedDst_;
  Loom::NotifieeList<Notifiee> notifiees_;
};

Loom::Ptr<RegisterMessage> registerMessageFactory();
std::ostream& operator<<(std::ostream& os, const RegisterMessage* m);

class RegisterStopMessage : public Message {
 public:
  RegisterStopMessage();
  static const char* fwkType() { return "Routing::Pim::Packet::RegisterStopMessage"; }

  const Knet::IpGenAddr& group() const { return group_; }
  void groupIs(const Knet::IpGenAddr& v) { group_ = v; }
  GroupFlags groupFlags() const { return groupFlags_; }
  void groupFlagsIs(GroupFlags v) { groupFlags_ = v; }
  // All zeros for a wildcard Register-Stop.
  const Knet::IpGenAddr& source() const { return source_; }
  void sourceIs(const Knet::IpGenAddr& v) { source_ = v; }

  U32 readRegisterStopMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  U32 writeRegisterStopMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);

  void print(std::ostream& os) const override;

 private:
  Knet::IpGenAddr group_;
  GroupFlags groupFlags_;
  Knet::IpGenAddr source_;
};

Loom::Ptr<RegisterStopMessage> registerStopMessageFactory();
std::ostream& operator<<(std::ostream& os, const RegisterStopMessage* m);

}  // namespace Routing::Pim::Packet
