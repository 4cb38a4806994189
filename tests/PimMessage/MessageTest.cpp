// The common header: length test, checksum rules of both families and the Register exception.
#include "PimMessage/Message.h"
#include "PimMessage/MessageTable.h"

#include "support/CodecTest.h"

namespace Routing::Pim::Packet {
namespace {

using namespace PimTest;

const Knet::IpGenAddr v4Src = ip("10.0.0.1");
const Knet::IpGenAddr v4Dst = ip("224.0.0.13");

Loom::Ptr<Message> message(Knet::PimMessageType t, const Knet::IpGenAddr& src, const Knet::IpGenAddr& dst) {
  auto m = messageFactory(t);
  m->srcIpIs(src);
  m->dstIpIs(dst);
  return m;
}

// A Register: header, flags word, then a 28-byte inner IPv4/UDP packet.
Bytes registerPacket() {
  return {0x21, 0x00, 0x00, 0x00,                          // Register, checksum to fill in
          0x40, 0x00, 0x00, 0x00,                          // flags: N bit
          0x45, 0x00, 0x00, 0x1c, 0x00, 0x00, 0x00, 0x00,  // inner IPv4 header
          0x40, 0x11, 0x00, 0x00, 0x01, 0x01, 0x01, 0x01,  //   ...
          0xe0, 0x01, 0x01, 0x01,                          //   destination 224.1.1.1
          0, 0, 0, 0, 0, 0, 0, 0};                         // inner UDP header
}

// The header is read at its offset and the checksum covers the message from there on.
TEST(MessageHeader, GoldenHeaderAtAnOffset) {
  // Junk, then version 2, type 0 (Hello), reserved 7, checksum 0xdff8.
  const Bytes b = {0xde, 0xad, 0xbe, 0xef, 0x20, 0x07, 0xdf, 0xf8};
  auto m = message(Knet::pimHello(), v4Src, v4Dst);
  EXPECT_EQ(m->readHeader(pkt(b), 4), 4u);
  EXPECT_EQ(m->reserved(), 7);
  EXPECT_EQ(m->length(), 4u);
}

TEST(MessageHeader, RejectTable) {
  const Bytes hello = {0x20, 0x00, 0xdf, 0xff};
  struct Case {
    Bytes bytes;
    U32 offset;
    const char* text;
  };
  const Case cases[] = {
      {{}, 0, "Invalid Pim Message - Missing Pim Header - Remaining: 0"},
      {{0x20, 0x00, 0xdf}, 0, "Invalid Pim Message - Missing Pim Header - Remaining: 3"},
      {hello, 6, "Invalid Pim Message - Missing Pim Header - Remaining: -2"},
      // Stored 0x1234 (4660); the sum over 0x2000 and 0x1234 complements to 0xcdcb (52683).
      {{0x20, 0x00, 0x12, 0x34}, 0, "Invalid Pim Message - Checksum - Received: 4660 Calculated: 52683"},
  };
  for (const Case& c : cases) {
    auto m = message(Knet::pimHello(), v4Src, v4Dst);
    Loom::TraceCapture cap(1);
    EXPECT_EQ(m->readHeader(pkt(c.bytes), c.offset), 0u) << c.text;
    EXPECT_EQ(errors(cap), std::vector<std::string>{c.text});
  }
  // Without a family neither direction can choose its checksum.
  auto m = messageFactory(Knet::pimHello());
  m->lengthIs(4);
  checkWriteFailures({{"read", [&] { return m->readHeader(pkt(hello), 0); }, "Invalid address family"},
                      {"write", [&] { return m->writeHeader(pkt(Bytes(4)), 0); }, "Invalid address family"},
                      {"room", [] { return message(Knet::pimHello(), v4Src, v4Dst)->writeHeader(pkt(Bytes(5)), 2); },
                       "Invalid Pim Message - Header - Unavailable Space - Remaining: 3"}});
}

// A Register's checksum may cover its header and flags only, or the whole packet.
TEST(MessageHeader, RegisterChecksumRules) {
  struct Case {
    const char* name;
    Knet::IpGenAddr src, dst;
    size_t covered;  // 0: whole packet; SIZE_MAX: a wrong checksum
  };
  const Case cases[] = {
      {"v4 header and flags", v4Src, ip("10.0.0.2"), 8},
      {"v6 whole packet", ip("2001:db8::1"), ip("2001:db8::2"), 0},
      {"v6 wrong", ip("2001:db8::1"), ip("2001:db8::2"), SIZE_MAX},
  };
  for (const Case& c : cases) {
    Bytes b = registerPacket();
    fixChecksum(b, c.src, c.dst, c.covered == SIZE_MAX ? 8 : c.covered);
    if (c.covered == SIZE_MAX) b[3] ^= 0x01;
    auto m = message(Knet::pimRegister(), c.src, c.dst);
    Loom::TraceCapture cap(1);
    const U32 n = m->readHeader(pkt(b), 0);
    if (c.covered == SIZE_MAX) {
      EXPECT_EQ(n, 0u) << c.name;
      EXPECT_TRUE(startsWith(firstError(cap), "Invalid Pim Message - Register Checksum - Received: ")) << c.name;
    } else {
      EXPECT_EQ(n, 4u) << c.name << ": " << firstError(cap);
      EXPECT_EQ(m->length(), 8u) << c.name;
    }
  }
}

// Fields -> bytes: the written checksum is what the reference sum gives, and it reads back.
TEST(MessageHeader, WriteChecksumVerifiesWithTheReferenceSum) {
  struct Case {
    Knet::PimMessageType type;
    Knet::IpGenAddr src, dst;
    size_t covered;
  };
  const Case cases[] = {
      {Knet::pimHello(), v4Src, v4Dst, 0},
      {Knet::pimHello(), ip("fe80::1"), ip("ff02::d"), 0},
      {Knet::pimRegister(), v4Src, ip("10.9.9.9"), 8},
      {Knet::pimRegister(), ip("2001:db8::1"), ip("2001:db8::9"), 8},
  };
  for (const Case& c : cases) {
    auto p = pkt(registerPacket());
    auto m = message(c.type, c.src, c.dst);
    m->reservedIs(0x5a);
    m->lengthIs(c.covered ? 8 : p->size());
    ASSERT_EQ(m->writeHeader(p, 0), 4u);
    Bytes written(p->data(), p->data() + p->size());
    EXPECT_EQ(written[0], c.type.value());
    EXPECT_EQ(written[1], 0x5a);
    Bytes expected = written;
    fixChecksum(expected, c.src, c.dst, c.covered);
    EXPECT_EQ(written, expected) << c.type << " from " << c.src;
    auto back = message(c.type, c.src, c.dst);
    EXPECT_EQ(back->readHeader(p, 0), 4u);
    EXPECT_EQ(back->reserved(), 0x5a);
  }
}

// The table makes the class of each type (and DF election subtype) the codec knows, which
// renders its body; the factory makes a bare header for any type.
TEST(Message, TableMakesTheClassOfTheType) {
  struct Case {
    Knet::PimMessageType type;
    U8 reserved;
    const char* text;  // the start of the message's text; null: no class
  };
  const Case cases[] = {
      {Knet::pimHello(), 0, "type=hello | "},
      {Knet::pimRegister(), 0, "type=register | null bit=0"},
      {Knet::pimRegisterStop(), 0, "type=registerStop | source="},
      {Knet::pimJoinPrune(), 0, ""},  // a Join/Prune without data renders as nothing
      {Knet::pimBootstrap(), 0, "type=bootstrap Forward=True"},
      {Knet::pimAssert(), 0, "type=assert | source="},
      {Knet::pimCandidateRpAdvertisement(), 0, "type=candidateRpAdv prefixCount=0"},
      {Knet::pimDfElection(), 0x10, "type=dfElection | type=dfElectionOffer"},
      {Knet::pimDfElection(), 0x4f, "type=dfElection | type=dfElectionPass"},
      {Knet::pimDfElection(), 0x50, nullptr},
      {Knet::pimDfElection(), 0x0f, nullptr},
      {Knet::PimMessageType(0x26), 0, nullptr},
      {Knet::PimMessageType(0x30), 0, nullptr},
  };
  for (const Case& c : cases) {
    const MessageClassLookup found = messageClassOf(c.type, c.reserved);
    if (!c.text) {
      EXPECT_EQ(found.row, nullptr) << c.type;
      EXPECT_EQ(found.outcome, c.type == Knet::pimDfElection() ? MessageClassLookup::Outcome::unsupportedDfElectionType
                                                                : MessageClassLookup::Outcome::unsupportedType);
      continue;
    }
    ASSERT_NE(found.row, nullptr) << c.type;
    auto m = found.row->create();
    EXPECT_EQ(m->pimMessageType(), c.type);
    const std::string t = text(m.ptr());
    EXPECT_TRUE(*c.text ? startsWith(t, c.text) : t.empty()) << t;
    EXPECT_EQ(text(messageFactory(c.type).ptr()), std::string("type=") + c.type.name()) << c.type;
  }
  EXPECT_EQ(messageClasses().size(), 11u);
}

// The family of a message is its source's, else its destination's.
TEST(Message, Family) {
  Loom::Ptr<Message> m = new Message(Knet::pimDfElection());
  EXPECT_EQ(m->af(), Knet::AddressFamily::ipUnknown);
  m->dstIpIs(ip("ff02::d"));
  EXPECT_EQ(m->af(), Knet::AddressFamily::ipv6);
  m->srcIpIs(v4Src);
  EXPECT_EQ(m->af(), Knet::AddressFamily::ipv4);
}

}  // namespace
}  // namespace Routing::Pim::Packet
