#pragma once
// The base of every PIM message of the codec: the common header's fields, the address pair an
// IPv6 checksum depends on, and the operations that read and write the 4-byte header.
//
// Codec conventions: read and write operations take the packet and the offset of what they read
// or write, and return the number of bytes read or written; 0 means failure. Each failure is
// traced once at level 1 under the unit "PimMessage" with a fixed text and the offending value,
// and recorded as a value (failure(), Failure.h).
#include <ostream>
#include <string_view>

#include "knet/Address.h"
#include "knet/Pkt.h"
#include "PimMessage/Failure.h"
#include "loom/Entity.h"
#include "loom/LogMessage.h"
#include "loom/Trace.h"

namespace Routing::Pim::Packet {

// The rows of the header's text table.
enum class HeaderText : U8 {
  missingHeader,
  checksum,
  registerChecksum,
  invalidFamily,
  writeSpace,
};
template <>
inline constexpr TextTable textTableOf<HeaderText> = TextTable::header;
std::string_view textOf(HeaderText row);

// The PIM type number, the low 4 bits of the first header byte (0 to 15): it indexes the receive
// slots and the counters.
using MessageType = U8;
// A message's subtype (the DF election subtype); 255 stands for none or all.
using MessageSubtype = U8;

class Message : public Loom::Entity, public FailureRecord {
 public:
  explicit Message(Knet::PimMessageType pimMessageType);

  Knet::PimMessageType pimMessageType() const { return pimMessageType_; }
  void pimMessageTypeIs(Knet::PimMessageType v) { pimMessageType_ = v; }
  U8 messageSubtype() const { return messageSubtype_; }
  void messageSubtypeIs(U8 v) { messageSubtype_ = v; }
  U8 reserved() const { return reserved_; }
  void reservedIs(U8 v) { reserved_ = v; }
  U32 length() const { return length_; }
  void lengthIs(U32 v) { length_ = v; }
  const Knet::IpGenAddr& srcIp() const { return srcIp_; }
  void srcIpIs(const Knet::IpGenAddr& v) { srcIp_ = v; }
  const Knet::IpGenAddr& dstIp() const { return dstIp_; }
  void dstIpIs(const Knet::IpGenAddr& v) { dstIp_ = v; }

  // The PIM type number, 0 to 15.
  U8 messageType() const { return pimMessageType_.type(); }
  // The family of srcIp if set, else that of dstIp.
  Knet::AddressFamily af() const;
  U32 getMsgLength() const { return length_; }

  // Checks and reads the header at offset: 4 on success, 0 on failure.
  U32 readHeader(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  // Writes the header at offset with the checksum over the body already written: 4 or 0.
  U32 writeHeader(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);

  // The message text of traces; each message class extends it.
  virtual void print(std::ostream& os) const;

 private:
  Knet::PimMessageType pimMessageType_;
  U8 messageSubtype_ = 255;
  U8 reserved_ = 0;
  U32 length_ = 0;
  Knet::IpGenAddr srcIp_;
  Knet::IpGenAddr dstIp_;
};

// A bare message of the type: the header only, no body. The receive path holds a header in one
// before it knows the concrete class; MessageTable.h makes the concrete classes.
Loom::Ptr<Message> messageFactory(Knet::PimMessageType pimMessageType);

// A value type's decimal text form: a value above `max` raises Loom::RangeException with
// `rangeText`; anything that is not a number raises std::invalid_argument naming `type`.
U64 boundedValueFromString(std::string_view text, U64 max, const char* rangeText, const char* type);

std::ostream& operator<<(std::ostream& os, const Message* m);
// The message's text on one line. A Join/Prune's text puts each group and each entry on a line of
// its own, indented by tabs: the line breaks become " / " and the tabs go.
std::string messageTextLine(const Message& m);

// Log messages that the codec raises.
extern Loom::LogMessage PIMBSR_CRPADV_ZONE_SET;
extern Loom::LogMessage PIM_MESSAGE_INVALID_ENCODED_SOURCE;
extern Loom::LogMessage PIM_MESSAGE_INVALID_ENCODED_GROUP;
extern Loom::LogMessage PIM_MESSAGE_AF_MISMATCH;

}  // namespace Routing::Pim::Packet
