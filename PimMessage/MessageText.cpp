// Text of messages and records in traces: one fixed layout per class so that traces can be read
// and compared.
#include <sstream>

#include "PimMessage/EncodedAddress.h"
#include "PimMessage/HelloMessage.h"
#include "PimMessage/Message.h"

namespace Routing::Pim::Packet {

void Message::print(std::ostream& os) const { os << "type=" << pimMessageType_; }

std::ostream& operator<<(std::ostream& os, const Message* m) {
  m->print(os);
  return os;
}

std::ostream& operator<<(std::ostream& os, const HelloMessage* m) { return os << static_cast<const Message*>(m); }

void HelloMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " | ";
  const char* sep = "";
  auto next = [&]() -> std::ostream& {
    os << sep;
    sep = ", ";
    return os;
  };
  if (holdTimeOption_) next() << "Option: holdtime=" << holdTime_;
  if (lanPruneDelayOption_) {
    // The stream keeps the boolean-word setting afterwards.
    next() << "Option: tbit=" << std::boolalpha << tBit() << ", propagationDelay=" << propagationDelay()
           << ", override=" << overrideInterval_;
  }
  if (drPriorityOption_) next() << "Option: drPriority=" << drPriority_;
  if (generationIdOption_) next() << "Option: generationId=" << generationId_;
  if (!secondaryAddr_.empty()) {
    next() << "Option: secondary address=[ ";
    for (size_t i = 0; i < secondaryAddr_.size(); ++i) os << (i ? ", " : "") << secondaryAddr_[i];
    os << " ]";
  }
  if (bidirectionalCapable_) next() << "Option: bidirectional capable";
  if (tcpConnectionOption_) next() << "Option: sctpConnectionId = " << tcpConnectionId_;
  if (sctpConnectionOption_) next() << "Option: sctpConnectionId=" << sctpConnectionId_;
  if (interfaceIdOption_) next() << "Option: [ RouterId :" << routerId_ << " InterfaceId:" << interfaceId_ << "]";
}

std::ostream& operator<<(std::ostream& os, HelloPropagationDelay d) { return os << d.value(); }

std::string valueToStrep(HelloPropagationDelay d) { return std::to_string(d.value()); }

std::ostream& operator<<(std::ostream& os, const GroupAddress& g) {
  return os << "( address=" << g.address << ", flags=" << g.flags << ")";
}

std::ostream& operator<<(std::ostream& os, const SourceAddress& s) {
  return os << "( address=" << s.address << " flags=" << s.flags << ")";
}

std::string valueToStrep(const GroupAddress& g) {
  std::ostringstream os;
  os << "Value('Routing::Pim::Packet::GroupAddress', ** {'address': " << g.address << ", 'flags': " << g.flags
     << "})";
  return os.str();
}

std::string valueToStrep(const SourceAddress& s) {
  std::ostringstream os;
  os << "Value('Routing::Pim::Packet::SourceAddress', ** {'address': " << s.address << ", 'flags': " << s.flags
     << "})";
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const EncodedGroupAddress* g) {
  return os << "( address=" << g->prefix().address() << ", flags=" << g->flags() << ")";
}

std::ostream& operator<<(std::ostream& os, const EncodedSourceAddress* s) {
  return os << "( address=" << s->prefix().address() << " flags=" << s->flags() << ")";
}

}  // namespace Routing::Pim::Packet
