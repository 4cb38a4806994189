#pragma once
// The three PIM address encodings: Encoded-Unicast, Encoded-Group and Encoded-Source
// (RFC 7761, 4.9.1). Reading checks only the layout (room, encoding type, family, mask length);
// valid() tells whether the address is acceptable where the protocol needs it. Writing checks both.
//
// They are values that a message makes where it reads or writes one. read() and write() work on
// the message's cursor and move it past the address only when they succeed; the (pkt, offset)
// forms make a cursor of their own. A failure is traced and recorded (failure()); valid()
// continues the read before it and keeps the read's failure if it had one.
#include <cstring>
#include <ostream>
#include <string>

#include "PimData/PimFlags.h"
#include "PimMessage/Failure.h"
#include "knet/Address.h"
#include "knet/Cursor.h"
#include "knet/Pkt.h"
#include "loom/Entity.h"

namespace Routing::Pim::Packet {

using Routing::Pim::GroupFlags;
using Routing::Pim::SourceFlags;

// The rows of the encoded addresses' text table.
enum class EncodedAddressText : U8 {
  unicastFamilyLength,
  unicastInvalidEncoding,
  unicastIpLength,
  unicastIp6Length,
  unicastReadFamily,
  unicastWriteFamily,
  unicastNotUnicast,
  unicastUnsupportedFamily,
  groupFamilyLength,
  groupInvalidEncoding,
  groupIpLength,
  groupPrefixRange,
  groupInvalidFamily,
  groupNotMulticast,
  groupUnsupportedFamily,
  groupAddressFamily,
  sourceFamilyLength,
  sourceInvalidEncoding,
  sourceIpLength,
  sourcePrefixRange,
  sourceInvalidFamily,
  sourceNotUnicast,
  sourceAllZeros,
  sourceNotHostPrefix,
};
template <>
inline constexpr TextTable textTableOf<EncodedAddressText> = TextTable::encodedAddress;
std::string_view textOf(EncodedAddressText row);

// Encoding type 0 (native) is the only one supported.
constexpr U8 defaultEncoding = 0;

// The first two bytes that all three encodings share.
struct EncodedAddressCommonHeader {
  U8 addressFamily = 0;
  U8 encoding = 0;
};

struct GroupAddress {
  Knet::IpGenAddr address;
  GroupFlags flags;
  friend bool operator==(const GroupAddress&, const GroupAddress&) = default;
};
std::ostream& operator<<(std::ostream& os, const GroupAddress& g);
std::string valueToStrep(const GroupAddress& g);

struct SourceAddress {
  Knet::IpGenAddr address;
  SourceFlags flags;
  friend bool operator==(const SourceAddress&, const SourceAddress&) = default;
};
std::ostream& operator<<(std::ostream& os, const SourceAddress& s);
std::string valueToStrep(const SourceAddress& s);

class EncodedUnicastAddress : public Loom::Entity, public FailureRecord {
 public:
  static constexpr U32 ipv4SizeInBytes = 6;
  static constexpr U32 ipv6SizeInBytes = 18;

  const Knet::IpGenAddr& address() const { return address_; }
  void addressIs(const Knet::IpGenAddr& v) { address_ = v; }

  U32 read(Knet::PktReader& r);
  U32 write(Knet::PktWriter& w);

  // The fast path of decoders: reads the encoding under the cursor if it is a unicast address of
  // the family in the native encoding (what read() and valid() accept) and returns its size.
  // Returns 0 and reads nothing for anything else, which read() then takes with its texts.
  [[gnu::always_inline]] static U32 readValidUnicast(Knet::PktReader& r, Knet::AddressFamily af, Knet::IpGenAddr& out) {
    const U32 width = af == Knet::AddressFamily::ipv4 ? 4 : 16;
    if (!r.fits(2 + width)) return 0;
    const U8* p = r.data() + r.offset();
    if (p[0] != static_cast<U8>(af) || p[1] != defaultEncoding) return 0;
    const Knet::IpGenAddr a = Knet::IpGenAddr::fromBytes(af, p + 2);
    if (a.isMulticast()) return 0;
    out = a;
    return r.skip(2 + width) ? 2 + width : 0;
  }

  U32 readUnicastAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  U32 writeUnicastAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  bool valid() const;

 private:
  Knet::IpGenAddr address_;
};

class EncodedGroupAddress : public Loom::Entity, public FailureRecord {
 public:
  static constexpr U32 ipv4SizeInBytes = 8;
  static constexpr U32 ipv6SizeInBytes = 20;

  const Knet::IpGenPrefix& prefix() const { return prefix_; }
  void prefixIs(const Knet::IpGenPrefix& v) { prefix_ = v; }
  GroupFlags flags() const { return flags_; }
  void flagsIs(GroupFlags v) { flags_ = v; }

  // The prefix's address; unset (with a trace) for a prefix of no known family.
  Knet::IpGenAddr address() const;
  GroupAddress groupAddress() const { return GroupAddress{address(), flags_}; }
  bool isHostPrefix() const { return prefix_.isHostPrefix(); }
  // Sets the host prefix of the address; flags stay.
  void addressIs(const Knet::IpGenAddr& a);
  void groupAddressIs(const GroupAddress& g);

  U32 read(Knet::PktReader& r);
  U32 write(Knet::PktWriter& w);
  U32 readGroupAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  U32 writeGroupAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  bool valid() const;

  // The fast path of decoders: reads the encoding under the cursor if it is a well-formed
  // multicast host group of the family (native encoding, host mask) and returns its size.
  // Returns 0 and reads nothing for anything else, which read() and valid() then take with their
  // checks and texts.
  static U32 readValidHostGroup(Knet::PktReader& r, Knet::AddressFamily af, GroupAddress& out) {
    const U32 width = af == Knet::AddressFamily::ipv4 ? 4 : 16;
    if (!r.fits(4 + width)) return 0;
    const U8* p = r.data() + r.offset();
    if (p[0] != static_cast<U8>(af) || p[1] != defaultEncoding || p[3] != Knet::IpGenPrefix::maxLength(af)) return 0;
    const Knet::IpGenAddr a = Knet::IpGenAddr::fromBytes(af, p + 4);
    if (!a.isMulticast()) return 0;
    out.address = a;
    out.flags = GroupFlags(p[2]);
    return r.skip(4 + width) ? 4 + width : 0;
  }

  // The same for a multicast range of any valid mask length (a Bootstrap's group ranges).
  [[gnu::always_inline]] static U32 readValidRange(Knet::PktReader& r, Knet::AddressFamily af, Knet::IpGenAddr& address,
                                                   U8& length, U8& flags) {
    const U32 width = af == Knet::AddressFamily::ipv4 ? 4 : 16;
    if (!r.fits(4 + width)) return 0;
    const U8* p = r.data() + r.offset();
    if (p[0] != static_cast<U8>(af) || p[1] != defaultEncoding || p[3] > Knet::IpGenPrefix::maxLength(af)) return 0;
    const Knet::IpGenAddr a = Knet::IpGenAddr::fromBytes(af, p + 4);
    if (!a.isMulticast()) return 0;
    address = a;
    length = p[3];
    flags = p[2];
    return r.skip(4 + width) ? 4 + width : 0;
  }

 private:
  Knet::IpGenPrefix prefix_;
  GroupFlags flags_;
};
std::ostream& operator<<(std::ostream& os, const EncodedGroupAddress* g);

class EncodedSourceAddress : public Loom::Entity, public FailureRecord {
 public:
  static constexpr U32 ipv4SizeInBytes = 8;
  static constexpr U32 ipv6SizeInBytes = 20;

  const Knet::IpGenPrefix& prefix() const { return prefix_; }
  void prefixIs(const Knet::IpGenPrefix& v) { prefix_ = v; }
  SourceFlags flags() const { return flags_; }
  void flagsIs(SourceFlags v) { flags_ = v; }

  // The prefix's address. A prefix of no known family is a programming error.
  Knet::IpGenAddr address() const;
  SourceAddress sourceAddress() const { return SourceAddress{address(), flags_}; }
  bool isHostPrefix() const { return prefix_.isHostPrefix(); }
  void addressIs(const Knet::IpGenAddr& a);
  void sourceAddressIs(const SourceAddress& s);

  U32 read(Knet::PktReader& r);
  U32 write(Knet::PktWriter& w);
  U32 readSourceAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  U32 writeSourceAddress(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset);
  bool valid() const;

  // The fast path of decoders that read long source lists: reads the encoding under the cursor
  // if it is a well-formed source of the family that valid() accepts (native encoding, host
  // mask, unicast, not all zeros) and returns its size. Returns 0 and reads nothing for anything
  // else, which read() and valid() then take with their checks and texts.
  static U32 readValidHostSource(Knet::PktReader& r, Knet::AddressFamily af, SourceAddress& out) {
    const U32 width = af == Knet::AddressFamily::ipv4 ? 4 : 16;
    if (!r.fits(4 + width)) return 0;
    const U8* p = r.data() + r.offset();
    if (p[0] != static_cast<U8>(af) || p[1] != defaultEncoding || p[3] != Knet::IpGenPrefix::maxLength(af)) return 0;
    const Knet::IpGenAddr a = Knet::IpGenAddr::fromBytes(af, p + 4);
    if (a.isMulticast() || a.isZero()) return 0;
    out.address = a;
    out.flags = SourceFlags(p[2]);
    return r.skip(4 + width) ? 4 + width : 0;
  }

  // The fast path of encoders that write long source lists: writes a unicast source of a known
  // family as a host prefix under the cursor, when it fits, and returns its size. Returns 0 and
  // writes nothing for anything else, which write() then refuses with its texts.
  static U32 writeHostSource(Knet::PktWriter& w, const Knet::IpGenAddr& a, SourceFlags flags) {
    const U32 width = a.byteLength();
    if (width == 0 || a.isMulticast() || !w.fits(4 + width)) return 0;
    U8* p = w.data() + w.offset();
    p[0] = static_cast<U8>(a.af());
    p[1] = defaultEncoding;
    p[2] = flags.value();
    p[3] = static_cast<U8>(8 * width);
    std::memcpy(p + 4, a.bytes(), width);
    return w.skip(4 + width) ? 4 + width : 0;
  }

 private:
  Knet::IpGenPrefix prefix_;
  SourceFlags flags_;
};
std::ostream& operator<<(std::ostream& os, const EncodedSourceAddress* s);


}  // namespace Routing::Pim::Packet
