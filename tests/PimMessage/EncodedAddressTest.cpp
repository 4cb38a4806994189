// The three address encodings: read, write and valid(). The failures a message's golden packets
// and cuts reach are tested with the messages; these are the ones no message test reaches.
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
    g.prefixIs(prefix), g.flagsIs(GroupFlags(flags));
    s.prefixIs(prefix), s.flagsIs(SourceFlags(flags));
  }
  auto on(auto f) { return kind == Kind::unicast ? f(u) : kind == Kind::group ? f(g) : f(s); }
  bool valid() { return on([](auto& a) { return a.valid(); }); }
  U32 read(const Bytes& b) {
    const Loom::Ptr<Knet::Pkt> p = pkt(b);  // the reader does not own the bytes
    Knet::PktReader r(p, 0);
    return on([&](auto& a) { return a.read(r); });
  }
  U32 write(const Loom::Ptr<Knet::Pkt>& p) {
    Knet::PktWriter w(p, 0);
    return on([&](auto& a) { return a.write(w); });
  }
  // What was read: the address, or the prefix and the flags.
  std::string value() const {
    if (kind == Kind::unicast) return u.address().str();
    return kind == Kind::group ? text(g.prefix()) + " " + std::to_string(g.flags().value())
                               : text(s.prefix()) + " " + std::to_string(s.flags().value());
  }
};

const std::string group = "Invalid Encoded Group Address - ", source = "Invalid Encoded Source Address - ";

TEST(EncodedAddress, ReadTable) {
  struct Case {
    Kind kind;
    Bytes bytes;
    U32 count;
    std::string error;  // the first failure text, "" for none
    std::string value;  // what was read, "" when not checked
  };
  const Case cases[] = {
      {Kind::unicast, concat({{0x02, 0x00, 0x20, 0x01, 0x0d, 0xb8}, Bytes(11), {0x01}}), 18, "", "2001:db8::1"},
      {Kind::unicast, {0x01}, 0,
       "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: 1 Expected: 2", ""},
      {Kind::unicast, concat({{0x02, 0x00}, Bytes(15)}), 0,
       "Invalid Encoded Unicast Address - Ip6 Address Length - Remaining: 15 Expected: 16", ""},
      {Kind::group, {0x01, 0x00, 0x80, 32, 224, 1, 1, 1}, 8, "", "224.1.1.1/32 128"},
      {Kind::group, {0x01, 0x00, 0x00, 32, 224, 1, 1}, 0, group + "Ip Address Length - Remaining: 3 Expected: 4", ""},
      {Kind::group, {0x09, 0x00, 0x00, 32, 224, 1, 1, 1}, 0, group + "Invalid Family - Value: \x09", ""},
      // An over-long mask is consumed and leaves the all-zero prefix; flags keep what was read.
      {Kind::group, {0x01, 0x00, 0x80, 33, 224, 1, 1, 1}, 8, group + "Incorrect Prefix Range - 224.1.1.1/!",
       "0.0.0.0/0 128"},
      {Kind::source, {0x01, 0x00, 0x07, 32, 10, 0, 0, 1}, 8, "", "10.0.0.1/32 7"},
      {Kind::source, {0x00, 0x00, 0x00, 32, 10, 0, 0, 1}, 0, source + "Invalid Family - Value: " + '\0', ""},
      {Kind::source, {0x01, 0x00, 0x04, 40, 10, 0, 0, 1}, 8, source + "Incorrect Prefix Range - 10.0.0.1/(",
       "0.0.0.0/0 4"},
  };
  for (const Case& c : cases) {
    Loom::TraceCapture cap(1);
    Encoded a(c.kind);
    EXPECT_EQ(a.read(c.bytes), c.count) << c.error;
    EXPECT_EQ(firstError(cap), c.error);
    EXPECT_TRUE(c.value.empty() || a.value() == c.value) << a.value();
  }
}

TEST(EncodedAddress, ValidTable) {
  const std::string unset = "Unsupported Address Family - Address Family: ipUnknown(0)";
  const std::tuple<Kind, Knet::IpGenPrefix, std::string> cases[] = {
      {Kind::unicast, {}, "Invalid Encoded Unicast Address - " + unset},
      {Kind::unicast, {ip("ff02::d"), 128}, "Invalid Encoded Unicast Address - Not Unicast - Address: ff02::d"},
      {Kind::group, {}, group + unset},
      {Kind::source, {}, group + unset},  // the source test reports an unknown family with the group's words
  };
  for (const auto& [kind, prefix, error] : cases) {
    Loom::TraceCapture cap(1);
    EXPECT_FALSE(Encoded(kind, prefix).valid()) << error;
    EXPECT_EQ(firstError(cap), error);
  }
}

TEST(EncodedAddress, WriteTable) {
  struct Case {
    Kind kind;
    Knet::IpGenPrefix prefix;
    U8 flags;
    U32 room, count;
    std::string error;
    Bytes bytes;  // expected bytes of the room after the write
  };
  const Case cases[] = {
      {Kind::unicast, {}, 0, 6, 0, "Invalid Encoded Unicast Address - Invalid Family - Value: ipUnknown(0)", Bytes(6)},
      // The write uses the one length text for both families.
      {Kind::unicast, {ip("2001:db8::1"), 128}, 0, 10, 0,
       "Invalid Encoded Unicast Address - Ip Address Length - Remaining: 8 Expected: 16", concat({{0x02, 0x00}, Bytes(8)})},
      {Kind::group, {ip("ff0e::5"), 16}, 0x01, 20, 20, "",
       concat({{0x02, 0x00, 0x01, 16, 0xff, 0x0e}, Bytes(13), {0x05}})},
      // Family, encoding and flags stay written when the room runs out.
      {Kind::group, {ip("239.1.1.1"), 32}, 0x80, 7, 0, group + "Ip Address Length - Remaining: 3 Expected: 4",
       {0x01, 0x00, 0x80, 0, 0, 0, 0}},
      {Kind::group, {ip("239.1.1.1"), 32}, 0, 3, 0, group + "Family and Encoding Length - Remaining: 3 Expected: 4",
       {0, 0, 0}},
      {Kind::source, {ip("2001:db8::1"), 128}, 0x04, 19, 0, source + "Ip Address Length - Remaining: 15 Expected: 16",
       concat({{0x02, 0x00, 0x04}, Bytes(16)})},
  };
  for (const Case& c : cases) {
    auto p = pkt(Bytes(c.room));
    Loom::TraceCapture cap(1);
    EXPECT_EQ(Encoded(c.kind, c.prefix, c.flags).write(p), c.count) << c.error;
    EXPECT_EQ(firstError(cap), c.error);
    EXPECT_EQ(Bytes(p->data(), p->data() + p->size()), c.bytes) << c.error;
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
  Loom::TraceCapture cap(1);
  EXPECT_FALSE(EncodedGroupAddress().address().isSet());
  EXPECT_EQ(firstError(cap), "Unsupported address family ipUnknown(0)");
}

TEST(EncodedAddressDeathTest, SourceAddressOfNoFamilyIsAProgrammingError) {
  EncodedSourceAddress s;
  EXPECT_DEATH((void)s.address(), "Unknown address family");
  EXPECT_DEATH(s.addressIs(Knet::IpGenAddr()), "Unknown address family");
}

}  // namespace
}  // namespace Routing::Pim::Packet
