// The three address encodings: read, write and valid(), every failure text.
#include "PimMessage/EncodedAddress.h"

#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;

enum class Kind { unicast, group, source };

// One address of the kind, reached through its class's own operations.
struct Encoded {
  Kind kind;
  EncodedUnicastAddress u;
  EncodedGroupAddress g;
  EncodedSourceAddress s;

  Encoded(Kind k, const Knet::IpGenPrefix& prefix = {}, U8 flags = 0) : kind(k) {
    if (!prefix.address().isSet()) return;
    u.addressIs(prefix.address());
    g.prefixIs(prefix);
    g.flagsIs(GroupFlags(flags));
    s.prefixIs(prefix);
    s.flagsIs(SourceFlags(flags));
  }
  U32 read(const Bytes& b) {
    return kind == Kind::unicast ? u.readUnicastAddress(pkt(b), 0)
           : kind == Kind::group ? g.readGroupAddress(pkt(b), 0)
                                 : s.readSourceAddress(pkt(b), 0);
  }
  bool valid() const { return kind == Kind::unicast ? u.valid() : kind == Kind::group ? g.valid() : s.valid(); }
  U32 write(const Loom::Ptr<Knet::Pkt>& p) {
    return kind == Kind::unicast ? u.writeUnicastAddress(p, 0)
           : kind == Kind::group ? g.writeGroupAddress(p, 0)
                                 : s.writeSourceAddress(p, 0);
  }
  // What was read: the address, or the prefix and the flags.
  std::string value() const {
    if (kind == Kind::unicast) return u.address().str();
    return kind == Kind::group ? text(g.prefix()) + " " + std::to_string(g.flags().value())
                               : text(s.prefix()) + " " + std::to_string(s.flags().value());
  }
};

struct ReadCase {
  const char* name;
  Kind kind;
  Bytes bytes;
  U32 count;
  std::string error;  // the first failure text, "" for none
  std::string value;  // what was read, "" when not checked
};

const Bytes v6Bytes = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};  // 2001:db8::1
const Bytes v6Group = {0xff, 0x0e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x05};       // ff0e::5

Bytes cat(const Bytes& a, const Bytes& b) { return concat({a, b}); }

Bytes dropLast(Bytes a) {
  a.pop_back();
  return a;
}

TEST(EncodedAddress, ReadTable) {
  const ReadCase cases[] = {
      // Encoded-Unicast
      {"unicast v4", Kind::unicast, {0x01, 0x00, 10, 0, 0, 1}, 6, "", "10.0.0.1"},
      {"unicast v6", Kind::unicast, cat({0x02, 0x00}, v6Bytes), 18, "", "2001:db8::1"},
      {"unicast one byte", Kind::unicast, {0x01}, 0,
       "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: 1 Expected: 2", ""},
      // The encoding is tested before the family, and quoted as the raw byte.
      {"unicast encoding 1", Kind::unicast, {0x07, 0x01, 10, 0, 0, 1}, 0,
       "Invalid Encoded Unicast Address - Invalid Encoding - Value: \x01", ""},
      {"unicast v4 short", Kind::unicast, {0x01, 0x00, 10, 0, 0}, 0,
       "Invalid Encoded Unicast Address - Ip Address Length - Remaining: 3 Expected: 4", ""},
      {"unicast v6 short", Kind::unicast, dropLast(cat({0x02, 0x00}, v6Bytes)), 0, "Invalid Encoded Unicast Address - Ip6 Address Length - Remaining: 15 Expected: 16", ""},
      {"unicast family 3", Kind::unicast, {0x03, 0x00, 10, 0, 0, 1}, 0,
       "Invalid Unicast Address - Invalid Family - Value: \x03", ""},
      // Encoded-Group
      {"group v4", Kind::group, {0x01, 0x00, 0x80, 32, 224, 1, 1, 1}, 8, "", "224.1.1.1/32 128"},
      {"group v6", Kind::group, cat({0x02, 0x00, 0x01, 128}, v6Group), 20, "", "ff0e::5/128 1"},
      {"group three bytes", Kind::group, {0x01, 0x00, 0x00}, 0,
       "Invalid Encoded Group Address - Family and Encoding Length - Remaining: 3 Expected: 4", ""},
      {"group encoding 1", Kind::group, {0x01, 0x01, 0x00, 32, 224, 1, 1, 1}, 0,
       "Invalid Encoded Group Address - Invalid Encoding - Value: \x01", ""},
      {"group v4 short", Kind::group, {0x01, 0x00, 0x00, 32, 224, 1, 1}, 0,
       "Invalid Encoded Group Address - Ip Address Length - Remaining: 3 Expected: 4", ""},
      {"group family 9", Kind::group, {0x09, 0x00, 0x00, 32, 224, 1, 1, 1}, 0,
       "Invalid Encoded Group Address - Invalid Family - Value: \x09", ""},
      // An over-long mask is consumed and leaves the all-zero prefix; flags keep what was read.
      {"group mask 33", Kind::group, {0x01, 0x00, 0x80, 33, 224, 1, 1, 1}, 8,
       "Invalid Encoded Group Address - Incorrect Prefix Range - 224.1.1.1/!", "0.0.0.0/0 128"},
      // Encoded-Source: the same layout and texts with "Source".
      {"source v4", Kind::source, {0x01, 0x00, 0x07, 32, 10, 0, 0, 1}, 8, "", "10.0.0.1/32 7"},
      {"source two bytes", Kind::source, {0x01, 0x00}, 0,
       "Invalid Encoded Source Address - Family and Encoding Length - Remaining: 2 Expected: 4", ""},
      {"source encoding 2", Kind::source, {0x01, 0x02, 0x00, 32, 10, 0, 0, 1}, 0,
       "Invalid Encoded Source Address - Invalid Encoding - Value: \x02", ""},
      {"source family 0", Kind::source, {0x00, 0x00, 0x00, 32, 10, 0, 0, 1}, 0,
       std::string("Invalid Encoded Source Address - Invalid Family - Value: ") + '\0', ""},
      {"source mask 40", Kind::source, {0x01, 0x00, 0x04, 40, 10, 0, 0, 1}, 8,
       "Invalid Encoded Source Address - Incorrect Prefix Range - 10.0.0.1/(", "0.0.0.0/0 4"},
  };
  for (const ReadCase& c : cases) {
    Loom::TraceCapture cap(1);
    Encoded a(c.kind);
    EXPECT_EQ(a.read(c.bytes), c.count) << c.name;
    EXPECT_EQ(firstError(cap), c.error) << c.name;
    if (!c.value.empty()) {
      EXPECT_EQ(a.value(), c.value) << c.name;
    }
  }
}

struct ValidCase {
  const char* name;
  Kind kind;
  Knet::IpGenPrefix prefix;
  std::string error;  // "" when valid
};

TEST(EncodedAddress, ValidTable) {
  const ValidCase cases[] = {
      {"unicast ok", Kind::unicast, {ip("10.0.0.1"), 32}, ""},
      {"unicast v6 multicast", Kind::unicast, {ip("ff02::d"), 128},
       "Invalid Encoded Unicast Address - Not Unicast - Address: ff02::d"},
      {"unicast unset", Kind::unicast, {},
       "Invalid Encoded Unicast Address - Unsupported Address Family - Address Family: ipUnknown(0)"},
      {"group ok", Kind::group, {ip("239.1.2.3"), 32}, ""},
      {"group unicast", Kind::group, {ip("10.0.0.1"), 32}, "Invalid Encoded Group Address - Not Multicast - Address: 10.0.0.1"},
      {"group unset", Kind::group, {},
       "Invalid Encoded Group Address - Unsupported Address Family - Address Family: ipUnknown(0)"},
      {"source ok", Kind::source, {ip("10.0.0.1"), 32}, ""},
      {"source multicast", Kind::source, {ip("224.1.1.1"), 32},
       "Invalid Encoded Source Address - Not Unicast - Address: 224.1.1.1"},
      {"source zeros", Kind::source, {ip("0.0.0.0"), 32}, "Invalid Encoded Source Address - All Zeros - Address: 0.0.0.0"},
      {"source not host", Kind::source, {ip("10.0.0.1"), 24},
       "Invalid Encoded Source Address - Not Host Prefix - Prefix: 10.0.0.1/24"},
      // The source test reports an unknown family with the group's words.
      {"source unset", Kind::source, {},
       "Invalid Encoded Group Address - Unsupported Address Family - Address Family: ipUnknown(0)"},
  };
  for (const ValidCase& c : cases) {
    Loom::TraceCapture cap(1);
    EXPECT_EQ(Encoded(c.kind, c.prefix).valid(), c.error.empty()) << c.name;
    EXPECT_EQ(firstError(cap), c.error) << c.name;
  }
}

struct WriteCase {
  const char* name;
  Kind kind;
  Knet::IpGenPrefix prefix;
  U8 flags;
  U32 room;
  U32 count;
  std::string error;
  Bytes bytes;  // expected bytes of the room after the write
};

TEST(EncodedAddress, WriteTable) {
  const WriteCase cases[] = {
      {"unicast v4", Kind::unicast, {ip("10.0.0.1"), 32}, 0, 6, 6, "", {0x01, 0x00, 10, 0, 0, 1}},
      {"unicast v6", Kind::unicast, {ip("2001:db8::1"), 128}, 0, 18, 18, "", cat({0x02, 0x00}, v6Bytes)},
      {"unicast unset", Kind::unicast, {}, 0, 6, 0,
       "Invalid Encoded Unicast Address - Invalid Family - Value: ipUnknown(0)", Bytes(6)},
      {"unicast multicast", Kind::unicast, {ip("224.0.0.5"), 32}, 0, 6, 0,
       "Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.5", {0x01, 0x00, 0, 0, 0, 0}},
      // The write uses the one length text for both families.
      {"unicast v6 short", Kind::unicast, {ip("2001:db8::1"), 128}, 0, 10, 0,
       "Invalid Encoded Unicast Address - Ip Address Length - Remaining: 8 Expected: 16", cat({0x02, 0x00}, Bytes(8))},
      {"group v4", Kind::group, {ip("239.1.1.1"), 32}, 0x80, 8, 8, "", {0x01, 0x00, 0x80, 32, 239, 1, 1, 1}},
      {"group v6 range", Kind::group, {ip("ff0e::5"), 16}, 0x01, 20, 20, "", cat({0x02, 0x00, 0x01, 16}, v6Group)},
      // Family, encoding and flags stay written when the room runs out.
      {"group seven bytes", Kind::group, {ip("239.1.1.1"), 32}, 0x80, 7, 0,
       "Invalid Encoded Group Address - Ip Address Length - Remaining: 3 Expected: 4", {0x01, 0x00, 0x80, 0, 0, 0, 0}},
      {"group three bytes", Kind::group, {ip("239.1.1.1"), 32}, 0, 3, 0,
       "Invalid Encoded Group Address - Family and Encoding Length - Remaining: 3 Expected: 4", {0, 0, 0}},
      {"group unicast", Kind::group, {ip("10.1.1.1"), 32}, 0, 8, 0,
       "Invalid Encoded Group Address - Not Multicast - Address: 10.1.1.1", {0x01, 0x00, 0x00, 0, 0, 0, 0, 0}},
      {"source multicast", Kind::source, {ip("232.1.1.1"), 32}, 0x04, 8, 0,
       "Invalid Encoded Source Address - Not Unicast - Address: 232.1.1.1", {0x01, 0x00, 0x04, 0, 0, 0, 0, 0}},
      {"source v6 short", Kind::source, {ip("2001:db8::1"), 128}, 0x04, 19, 0,
       "Invalid Encoded Source Address - Ip Address Length - Remaining: 15 Expected: 16",
       cat({0x02, 0x00, 0x04}, Bytes(16))},
  };
  for (const WriteCase& c : cases) {
    auto p = pkt(Bytes(c.room));
    Loom::TraceCapture cap(1);
    EXPECT_EQ(Encoded(c.kind, c.prefix, c.flags).write(p), c.count) << c.name;
    EXPECT_EQ(firstError(cap), c.error) << c.name;
    EXPECT_EQ(Bytes(p->data(), p->data() + p->size()), c.bytes) << c.name;
  }
}

TEST(EncodedAddress, SettersKeepOrSetFlags) {
  EncodedGroupAddress g;
  g.flagsIs(GroupFlags(0x80));
  g.addressIs(ip("224.1.1.1"));
  EXPECT_EQ(g.flags(), GroupFlags(0x80));
  EXPECT_EQ(g.prefix().length(), 32);
  g.groupAddressIs(GroupAddress{ip("ff05::1"), GroupFlags(0x01)});
  EXPECT_EQ(g.flags(), GroupFlags(0x01));
  EXPECT_EQ(g.prefix().length(), 128);
}

TEST(EncodedAddress, GroupAddressOfNoFamilyIsUnsetWithATrace) {
  EncodedGroupAddress g;
  Loom::TraceCapture cap(1);
  EXPECT_FALSE(g.address().isSet());
  EXPECT_EQ(firstError(cap), "Unsupported address family ipUnknown(0)");
}

TEST(EncodedAddressDeathTest, SourceAddressOfNoFamilyIsAProgrammingError) {
  EncodedSourceAddress s;
  EXPECT_DEATH((void)s.address(), "Unknown address family");
  EXPECT_DEATH(s.addressIs(Knet::IpGenAddr()), "Unknown address family");
}

}  // namespace
}  // namespace Routing::Pim::Packet
