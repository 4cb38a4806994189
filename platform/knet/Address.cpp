#include "knet/Address.h"

#include <arpa/inet.h>

#include <charconv>

#include "loom/Exception.h"

namespace Knet {

std::ostream& operator<<(std::ostream& os, AddressFamily af) {
  switch (af) {
    case AddressFamily::ipv4: return os << "ipv4";
    case AddressFamily::ipv6: return os << "ipv6";
    default: return os << "ipUnknown(" << static_cast<unsigned>(af) << ")";
  }
}

IpGenAddr IpGenAddr::ipv4(U32 hostOrder) {
  IpGenAddr a;
  a.family_ = static_cast<U64>(AddressFamily::ipv4);
  a.words_[0] = __builtin_bswap32(hostOrder);
  return a;
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
  char buf[INET6_ADDRSTRLEN + 1];
  if (text.empty() || text.size() >= sizeof(buf)) return std::nullopt;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = 0;
  U8 bytes[16];
  if (inet_pton(AF_INET, buf, bytes) == 1) return fromBytes(AddressFamily::ipv4, bytes);
  if (inet_pton(AF_INET6, buf, bytes) == 1) return fromBytes(AddressFamily::ipv6, bytes);
  return std::nullopt;
}

U32 IpGenAddr::v4() const {
  return af() == AddressFamily::ipv4 ? __builtin_bswap32(static_cast<U32>(words_[0])) : 0;
}

bool IpGenAddr::isLinkLocal() const {
  const U8* b = bytes();
  if (af() == AddressFamily::ipv4) return b[0] == 169 && b[1] == 254;
  if (af() == AddressFamily::ipv6) return b[0] == 0xfe && (b[1] & 0xc0) == 0x80;
  return false;
}

std::string IpGenAddr::str() const {
  char buf[INET6_ADDRSTRLEN];
  if (af() == AddressFamily::ipv4) return inet_ntop(AF_INET, bytes(), buf, sizeof(buf));
  if (af() == AddressFamily::ipv6) return inet_ntop(AF_INET6, bytes(), buf, sizeof(buf));
  return "unset";
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& a) { return os << a.str(); }

void IpGenPrefix::throwLength(const IpGenAddr& address, U8 length) {
  throw Loom::RangeException("IpGenPrefix: length " + std::to_string(length) + " exceeds " +
                             std::to_string(maxLength(address.af())) + " for " + address.str());
}

std::optional<IpGenPrefix> IpGenPrefix::parse(std::string_view text) {
  size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  auto addr = IpGenAddr::parse(text.substr(0, slash));
  if (!addr) return std::nullopt;
  std::string_view num = text.substr(slash + 1);
  unsigned len = 0;
  auto [p, ec] = std::from_chars(num.data(), num.data() + num.size(), len);
  if (ec != std::errc() || p != num.data() + num.size() || num.empty() || len > 255) return std::nullopt;
  return IpGenPrefix(*addr, static_cast<U8>(len));
}

bool IpGenPrefix::contains(const IpGenAddr& addr) const {
  if (addr.af() != af()) return false;
  U32 full = length_ / 8;
  if (std::memcmp(addr.bytes(), address_.bytes(), full) != 0) return false;
  U32 rest = length_ % 8;
  if (rest == 0) return true;
  U8 mask = static_cast<U8>(0xff << (8 - rest));
  return (addr.bytes()[full] & mask) == (address_.bytes()[full] & mask);
}

std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p) {
  return os << p.address() << '/' << static_cast<unsigned>(p.length());
}

std::ostream& operator<<(std::ostream& os, const IntfId& id) {
  return os << (id.isEmpty() ? "<none>" : id.name());
}

namespace {
constexpr const char* kTypeNames[16] = {
    "hello",     "register", "registerStop",   "joinPrune",    "bootstrap", "assert",
    "graft",     "graftAck", "candidateRpAdv", "stateRefresh", "dfElection", "type11",
    "type12",    "type13",   "type14",         "type15"};
}

const char* PimMessageType::name() const { return kTypeNames[type()]; }

std::ostream& operator<<(std::ostream& os, PimMessageType t) { return os << t.name(); }

std::optional<PimMessageType> pimMessageTypeFromName(std::string_view name) {
  for (U8 i = 0; i < 16; ++i) {
    if (name == kTypeNames[i]) return PimMessageType(0x20 | i);
  }
  return std::nullopt;
}

const IpGenAddr& allPimRouters(AddressFamily af) {
  static const IpGenAddr v4 = IpGenAddr::ipv4(0xe000000d);
  static const IpGenAddr v6 = *IpGenAddr::parse("ff02::d");
  static const IpGenAddr none;
  if (af == AddressFamily::ipv4) return v4;
  if (af == AddressFamily::ipv6) return v6;
  return none;
}

}  // namespace Knet
