// The three address encodings: read, write and valid(), every failure text.
#include "PimMessage/EncodedAddress.h"

#include <sstream>

#include "loom/Exception.h"
#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;

enum class Kind { unicast, group, source };

// Reads one encoding of the kind from the bytes; returns the count and a text of what was read.
std::pair<U32, std::string> readAs(Kind kind, const Bytes& b) {
  std::ostringstream os;
  U32 n = 0;
  switch (kind) {
    case Kind::unicast: {
      EncodedUnicastAddress a;
      n = a.readUnicastAddress(pkt(b), 0);
      os << a.address();
      break;
    }
    case Kind::group: {
      EncodedGroupAddress a;
      n = a.readGroupAddress(pkt(b), 0);
      os << a.prefix() << " " << unsigned(a.flags().value());
      break;
    }
    case Kind::source: {
      EncodedSourceAddress a;
      n = a.readSourceAddress(pkt(b), 0);
      os << a.prefix() << " " << unsigned(a.flags().value());
      break;
    }
  }
  return {n, os.str()};
}

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

Bytes cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes dropLast(Bytes a) {
  a.pop_back();
  return a;
}

TEST(EncodedAddress, ReadTable) {
  const ReadCase cases[] = {
      // Encoded-Unicast
      {"unicast v4", Kind::unicast, {0x01, 0x00, 10, 0, 0, 1}, 6, "", "10.0.0.1"},
      {"unicast v6", Kind::unicast, cat({0x02, 0x00}, v6Bytes), 18, "", "2001:db8::1"},
      {"unicast multicast reads", Kind::unicast, {0x01, 0x00, 224, 0, 0, 1}, 6, "", "224.0.0.1"},
      {"unicast empty", Kind::unicast, {}, 0,
       "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: 0 Expected: 2", ""},
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
      {"group range", Kind::group, {0x01, 0x00, 0x00, 4, 224, 0, 0, 0}, 8, "", "224.0.0.0/4 0"},
      {"group three bytes", Kind::group, {0x01, 0x00, 0x00}, 0,
       "Invalid Encoded Group Address - Family and Encoding Length - Remaining: 3 Expected: 4", ""},
      {"group encoding 1", Kind::group, {0x01, 0x01, 0x00, 32, 224, 1, 1, 1}, 0,
       "Invalid Encoded Group Address - Invalid Encoding - Value: \x01", ""},
      {"group v4 short", Kind::group, {0x01, 0x00, 0x00, 32, 224, 1, 1}, 0,
       "Invalid Encoded Group Address - Ip Address Length - Remaining: 3 Expected: 4", ""},
      {"group v6 short", Kind::group, dropLast(cat({0x02, 0x00, 0x00, 128}, v6Group)), 0,
       "Invalid Encoded Group Address - Ip Address Length - Remaining: 15 Expected: 16", ""},
      {"group family 9", Kind::group, {0x09, 0x00, 0x00, 32, 224, 1, 1, 1}, 0,
       "Invalid Encoded Group Address - Invalid Family - Value: \x09", ""},
      // An over-long mask is consumed and leaves the all-zero prefix; flags keep what was read.
      {"group mask 33", Kind::group, {0x01, 0x00, 0x80, 33, 224, 1, 1, 1}, 8,
       "Invalid Encoded Group Address - Incorrect Prefix Range - 224.1.1.1/!", "0.0.0.0/0 128"},
      {"group v6 mask 129", Kind::group, cat({0x02, 0x00, 0x00, 129}, v6Group), 20,
       "Invalid Encoded Group Address - Incorrect Prefix Range - ff0e::5/\x81", "::/0 0"},
      // Encoded-Source: the same layout and texts with "Source".
      {"source v4", Kind::source, {0x01, 0x00, 0x07, 32, 10, 0, 0, 1}, 8, "", "10.0.0.1/32 7"},
      {"source v6", Kind::source, cat({0x02, 0x00, 0x04, 128}, v6Bytes), 20, "", "2001:db8::1/128 4"},
      {"source two bytes", Kind::source, {0x01, 0x00}, 0,
       "Invalid Encoded Source Address - Family and Encoding Length - Remaining: 2 Expected: 4", ""},
      {"source encoding 2", Kind::source, {0x01, 0x02, 0x00, 32, 10, 0, 0, 1}, 0,
       "Invalid Encoded Source Address - Invalid Encoding - Value: \x02", ""},
      {"source v4 short", Kind::source, {0x01, 0x00, 0x00, 32, 10}, 0,
       "Invalid Encoded Source Address - Ip Address Length - Remaining: 1 Expected: 4", ""},
      {"source family 0", Kind::source, {0x00, 0x00, 0x00, 32, 10, 0, 0, 1}, 0,
       std::string("Invalid Encoded Source Address - Invalid Family - Value: ") + '\0', ""},
      {"source mask 40", Kind::source, {0x01, 0x00, 0x04, 40, 10, 0, 0, 1}, 8,
       "Invalid Encoded Source Address - Incorrect Prefix Range - 10.0.0.1/(", "0.0.0.0/0 4"},
  };
  for (const ReadCase& c : cases) {
    Loom::TraceCapture cap(1);
    auto [n, value] = readAs(c.kind, c.bytes);
    EXPECT_EQ(n, c.count) << c.name;
    EXPECT_EQ(firstError(cap), c.error) << c.name;
    if (!c.value.empty()) {
      EXPECT_EQ(value, c.value) << c.name;
    }
  }
}

TEST(EncodedAddress, ReadAtOffsetInsideALargerPacket) {
  const Bytes b = {0xff, 0xff, 0x01, 0x00, 10, 1, 2, 3, 0xff};
  EncodedUnicastAddress a;
  EXPECT_EQ(a.readUnicastAddress(pkt(b), 2), 6u);
  EXPECT_EQ(a.address(), ip("10.1.2.3"));
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
      {"unicast zero passes", Kind::unicast, {ip("0.0.0.0"), 32}, ""},
      {"unicast broadcast passes", Kind::unicast, {ip("255.255.255.255"), 32}, ""},
      {"unicast v6 multicast", Kind::unicast, {ip("ff02::d"), 128},
       "Invalid Encoded Unicast Address - Not Unicast - Address: ff02::d"},
      {"unicast unset", Kind::unicast, {},
       "Invalid Encoded Unicast Address - Unsupported Address Family - Address Family: ipUnknown(0)"},
      {"group ok", Kind::group, {ip("239.1.2.3"), 32}, ""},
      {"group range ok", Kind::group, {ip("224.0.0.0"), 4}, ""},
      {"group unicast", Kind::group, {ip("10.0.0.1"), 32}, "Invalid Encoded Group Address - Not Multicast - Address: 10.0.0.1"},
      {"group zero prefix", Kind::group, {ip("0.0.0.0"), 0}, "Invalid Encoded Group Address - Not Multicast - Address: 0.0.0.0"},
      {"group unset", Kind::group, {},
       "Invalid Encoded Group Address - Unsupported Address Family - Address Family: ipUnknown(0)"},
      {"source ok", Kind::source, {ip("10.0.0.1"), 32}, ""},
      {"source v6 ok", Kind::source, {ip("2001:db8::1"), 128}, ""},
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
    bool valid = false;
    switch (c.kind) {
      case Kind::unicast: {
        EncodedUnicastAddress a;
        a.addressIs(c.prefix.address());
        valid = a.valid();
        break;
      }
      case Kind::group: {
        EncodedGroupAddress a;
        a.prefixIs(c.prefix);
        valid = a.valid();
        break;
      }
      case Kind::source: {
        EncodedSourceAddress a;
        a.prefixIs(c.prefix);
        valid = a.valid();
        break;
      }
    }
    EXPECT_EQ(valid, c.error.empty()) << c.name;
    EXPECT_EQ(firstError(cap), c.error) << c.name;
  }
}

TEST(EncodedAddress, ValidFailsEvenWithTracingOff) {
  EncodedSourceAddress a;
  a.prefixIs({ip("10.0.0.1"), 24});
  Loom::traceLevelIs("PimMessage", 0);
  EXPECT_FALSE(a.valid());
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
      {"unicast one byte", Kind::unicast, {ip("10.0.0.1"), 32}, 0, 1, 0,
       "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: 1 Expected: 2", {0}},
      {"unicast unset", Kind::unicast, {}, 0, 6, 0,
       "Invalid Encoded Unicast Address - Invalid Family - Value: ipUnknown(0)", Bytes(6)},
      {"unicast multicast", Kind::unicast, {ip("224.0.0.5"), 32}, 0, 6, 0,
       "Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.5", {0x01, 0x00, 0, 0, 0, 0}},
      {"unicast v4 short", Kind::unicast, {ip("10.0.0.1"), 32}, 0, 5, 0,
       "Invalid Encoded Unicast Address - Ip Address Length - Remaining: 3 Expected: 4", {0x01, 0x00, 0, 0, 0}},
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
      {"group unset", Kind::group, {}, 0, 8, 0, "Invalid Encoded Group Address - Invalid Family - Value: ipUnknown(0)",
       Bytes(8)},
      {"source v4", Kind::source, {ip("10.0.0.1"), 32}, 0x07, 8, 8, "", {0x01, 0x00, 0x07, 32, 10, 0, 0, 1}},
      {"source multicast", Kind::source, {ip("232.1.1.1"), 32}, 0x04, 8, 0,
       "Invalid Encoded Source Address - Not Unicast - Address: 232.1.1.1", {0x01, 0x00, 0x04, 0, 0, 0, 0, 0}},
      {"source v6 short", Kind::source, {ip("2001:db8::1"), 128}, 0x04, 19, 0,
       "Invalid Encoded Source Address - Ip Address Length - Remaining: 15 Expected: 16",
       cat({0x02, 0x00, 0x04}, Bytes(16))},
  };
  for (const WriteCase& c : cases) {
    auto p = pkt(Bytes(c.room));
    Loom::TraceCapture cap(1);
    U32 n = 0;
    switch (c.kind) {
      case Kind::unicast: {
        EncodedUnicastAddress a;
        a.addressIs(c.prefix.address());
        n = a.writeUnicastAddress(p, 0);
        break;
      }
      case Kind::group: {
        EncodedGroupAddress a;
        a.prefixIs(c.prefix);
        a.flagsIs(GroupFlags(c.flags));
        n = a.writeGroupAddress(p, 0);
        break;
      }
      case Kind::source: {
        EncodedSourceAddress a;
        a.prefixIs(c.prefix);
        a.flagsIs(SourceFlags(c.flags));
        n = a.writeSourceAddress(p, 0);
        break;
      }
    }
    EXPECT_EQ(n, c.count) << c.name;
    EXPECT_EQ(firstError(cap), c.error) << c.name;
    EXPECT_EQ(Bytes(p->data(), p->data() + p->size()), c.bytes) << c.name;
  }
}

TEST(EncodedAddress, WrittenBytesReadBack) {
  EncodedGroupAddress g;
  g.groupAddressIs(GroupAddress{ip("ff3e::8000:1"), GroupFlags(0x81)});
  EXPECT_TRUE(g.isHostPrefix());
  auto p = pkt(Bytes(20));
  ASSERT_EQ(g.writeGroupAddress(p, 0), 20u);
  EncodedGroupAddress back;
  ASSERT_EQ(back.readGroupAddress(p, 0), 20u);
  EXPECT_EQ(back.groupAddress(), g.groupAddress());
  EXPECT_EQ(back.prefix(), g.prefix());

  EncodedSourceAddress s;
  s.sourceAddressIs(SourceAddress{ip("192.0.2.7"), SourceFlags(0x05)});
  auto q = pkt(Bytes(8));
  ASSERT_EQ(s.writeSourceAddress(q, 0), 8u);
  EncodedSourceAddress sback;
  ASSERT_EQ(sback.readSourceAddress(q, 0), 8u);
  EXPECT_EQ(sback.sourceAddress(), s.sourceAddress());
  EXPECT_TRUE(sback.valid());
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

TEST(EncodedAddress, Renderings) {
  const GroupAddress g{ip("224.1.1.1"), GroupFlags(0x80)};
  const SourceAddress s{ip("10.0.0.1"), SourceFlags(0x07)};
  std::ostringstream os;
  os << g << " " << s;
  EXPECT_EQ(os.str(), "( address=224.1.1.1, flags=0x80(B)) ( address=10.0.0.1 flags=0x07(S,W,R))");
  EXPECT_EQ(valueToStrep(g), "Value('Routing::Pim::Packet::GroupAddress', ** {'address': 224.1.1.1, 'flags': 0x80(B)})");
  EXPECT_EQ(valueToStrep(s),
            "Value('Routing::Pim::Packet::SourceAddress', ** {'address': 10.0.0.1, 'flags': 0x07(S,W,R)})");
}

}  // namespace
}  // namespace Routing::Pim::Packet
