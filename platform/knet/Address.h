#pragma once
// Network value types: address family, generic IPv4/IPv6 address and prefix, interface id, PIM
// message type.
#include <array>
#include <bit>
#include <compare>
#include <cstring>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "loom/Types.h"

namespace Knet {

// Address families carry the IANA numbers that PIM also puts on the wire.
enum class AddressFamily : U8 { ipUnknown = 0, ipv4 = 1, ipv6 = 2 };
std::ostream& operator<<(std::ostream& os, AddressFamily af);

static_assert(std::endian::native == std::endian::little, "addresses are stored as little-endian words");

// An IPv4 or IPv6 address tagged with its family, or unset (family ipUnknown, all zero).
// The bytes come first, as two words, so that copies and comparisons are two 8-byte moves.
class IpGenAddr {
 public:
  IpGenAddr() = default;
  // IPv4 address from a host-order number (0x0a000001 is 10.0.0.1).
  static IpGenAddr ipv4(U32 hostOrder);
  // Address of the given family from its network-order bytes (4 or 16 of them); unset for
  // another family.
  static IpGenAddr fromBytes(AddressFamily af, const U8* bytes) {
    // Whole words are stored, so that the word reads of a comparison that follows right away
    // are forwarded from the stores instead of waiting for them.
    IpGenAddr a;
    U64 w0 = 0, w1 = 0;
    if (af == AddressFamily::ipv4) {
      U32 v;
      std::memcpy(&v, bytes, 4);
      w0 = v;  // the four bytes land first in memory on this little-endian target
    } else if (af == AddressFamily::ipv6) {
      std::memcpy(&w0, bytes, 8);
      std::memcpy(&w1, bytes + 8, 8);
    } else {
      return a;
    }
    // One 16-byte store: a copy that reads the address back as 16 bytes is then forwarded from
    // it (two 8-byte stores read back as one 16-byte load stall the pipeline).
    using Words = U64 __attribute__((vector_size(16)));
    const Words words = {w0, w1};
    std::memcpy(a.words_, &words, sizeof(words));
    a.family_ = static_cast<U64>(af);
    return a;
  }
  // Parses dotted IPv4 or textual IPv6; nullopt when the text is neither.
  static std::optional<IpGenAddr> parse(std::string_view text);

  AddressFamily af() const { return static_cast<AddressFamily>(family_); }
  bool isSet() const { return af() != AddressFamily::ipUnknown; }
  // 4 for IPv4, 16 for IPv6, 0 when unset.
  U32 byteLength() const { return af() == AddressFamily::ipv4 ? 4 : af() == AddressFamily::ipv6 ? 16 : 0; }
  const U8* bytes() const { return reinterpret_cast<const U8*>(words_); }
  // The IPv4 address as a host-order number (0 for other families).
  U32 v4() const;
  bool isMulticast() const {
    const U8 first = static_cast<U8>(words_[0]);  // the first address byte
    if (af() == AddressFamily::ipv4) return (first & 0xf0) == 0xe0;
    return af() == AddressFamily::ipv6 && first == 0xff;
  }
  bool isZero() const {
    return (words_[0] | words_[1]) == 0;
  }
  bool isLinkLocal() const;
  std::string str() const;

  friend bool operator==(const IpGenAddr& a, const IpGenAddr& b) {
    return ((a.words_[0] ^ b.words_[0]) | (a.words_[1] ^ b.words_[1])) == 0 && a.family_ == b.family_;
  }
  // Orders by family, then by the address bytes.
  friend std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b) {
    if (a.af() != b.af()) return a.af() <=> b.af();
    const U64 a0 = a.word(0), b0 = b.word(0);
    if (a0 != b0) return a0 <=> b0;
    return a.word(1) <=> b.word(1);
  }

 private:
  // Bytes 8i to 8i+7 as a big-endian number: ordering the words orders the bytes.
  U64 word(int i) const {
    return __builtin_bswap64(words_[i]);
  }
  // The 16 address bytes in network order, as two words (the IPv4 bytes are the first four, the
  // rest zero). Words rather than bytes, so that the compiler keeps an address in two registers.
  U64 words_[2]{};
  // The family, widened to a word: it is written whole, so that copying an address (two or three
  // word moves) never reads a word of which only one byte was just stored.
  U64 family_ = static_cast<U64>(AddressFamily::ipUnknown);
};
std::ostream& operator<<(std::ostream& os, const IpGenAddr& a);

// An address with a prefix length. A length beyond the family's width raises
// Loom::RangeException. The address is kept as given (host bits are not cleared).
class IpGenPrefix {
 public:
  IpGenPrefix() = default;
  IpGenPrefix(const IpGenAddr& address, U8 length) : address_(address), length_(length) {
    if (length > maxLength(address.af())) [[unlikely]] throwLength(address, length);
  }
  // "addr/len"; nullopt on bad text, a bad length raises as the constructor does.
  static std::optional<IpGenPrefix> parse(std::string_view text);

  AddressFamily af() const { return address_.af(); }
  const IpGenAddr& address() const { return address_; }
  U8 length() const { return length_; }
  static constexpr U8 maxLength(AddressFamily af) {
    return af == AddressFamily::ipv4 ? 32 : af == AddressFamily::ipv6 ? 128 : 0;
  }
  bool isHostPrefix() const { return af() != AddressFamily::ipUnknown && length_ == maxLength(af()); }
  // True if addr lies inside this prefix (same family, leading `length` bits equal).
  bool contains(const IpGenAddr& addr) const;

  friend bool operator==(const IpGenPrefix&, const IpGenPrefix&) = default;
  friend std::strong_ordering operator<=>(const IpGenPrefix&, const IpGenPrefix&) = default;

 private:
  [[noreturn, gnu::cold]] static void throwLength(const IpGenAddr& address, U8 length);
  IpGenAddr address_;
  U8 length_ = 0;
};
std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p);

// The platform's interface identifier: the interface name. The empty id means "no interface"
// and stands for totals.
class IntfId {
 public:
  IntfId() = default;
  explicit IntfId(std::string name) : name_(std::move(name)) {}
  static const IntfId& empty() {
    static const IntfId e;
    return e;
  }
  bool isEmpty() const { return name_.empty(); }
  const std::string& name() const { return name_; }
  friend bool operator==(const IntfId&, const IntfId&) = default;
  friend auto operator<=>(const IntfId&, const IntfId&) = default;

 private:
  std::string name_;
};
std::ostream& operator<<(std::ostream& os, const IntfId& id);

// The whole first byte of a PIM header: version in the high nibble, type in the low nibble.
class PimMessageType {
 public:
  constexpr PimMessageType() = default;
  constexpr explicit PimMessageType(U8 value) : value_(value) {}
  constexpr U8 value() const { return value_; }
  constexpr U8 version() const { return value_ >> 4; }
  constexpr U8 type() const { return value_ & 0x0f; }
  // Name of the type number ("hello", "joinPrune", ...); "type11" to "type15" for the numbers
  // that have no message.
  const char* name() const;
  friend constexpr bool operator==(PimMessageType, PimMessageType) = default;

 private:
  U8 value_ = 0;
};
std::ostream& operator<<(std::ostream& os, PimMessageType t);
// Type from a name as name() gives it; nullopt for an unknown name.
std::optional<PimMessageType> pimMessageTypeFromName(std::string_view name);

constexpr PimMessageType pimHello() { return PimMessageType(0x20); }
constexpr PimMessageType pimRegister() { return PimMessageType(0x21); }
constexpr PimMessageType pimRegisterStop() { return PimMessageType(0x22); }
constexpr PimMessageType pimJoinPrune() { return PimMessageType(0x23); }
constexpr PimMessageType pimBootstrap() { return PimMessageType(0x24); }
constexpr PimMessageType pimAssert() { return PimMessageType(0x25); }
constexpr PimMessageType pimGraft() { return PimMessageType(0x26); }
constexpr PimMessageType pimGraftAck() { return PimMessageType(0x27); }
constexpr PimMessageType pimCandidateRpAdvertisement() { return PimMessageType(0x28); }
constexpr PimMessageType pimStateRefresh() { return PimMessageType(0x29); }
constexpr PimMessageType pimDfElection() { return PimMessageType(0x2A); }

// ALL-PIM-ROUTERS: 224.0.0.13 and ff02::d.
const IpGenAddr& allPimRouters(AddressFamily af);

}  // namespace Knet

template <>
struct std::hash<Knet::IpGenAddr> {
  size_t operator()(const Knet::IpGenAddr& a) const noexcept {
    U64 lo, hi;
    std::memcpy(&lo, a.bytes(), 8);
    std::memcpy(&hi, a.bytes() + 8, 8);
    return std::hash<U64>()(lo * 0x9e3779b97f4a7c15ULL ^ hi ^ static_cast<U64>(a.af()));
  }
};

template <>
struct std::hash<Knet::IntfId> {
  size_t operator()(const Knet::IntfId& i) const noexcept { return std::hash<std::string>()(i.name()); }
};
