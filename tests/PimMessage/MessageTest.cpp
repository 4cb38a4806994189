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

// A Register's checksum may cover its header and flags only (see the Register tests), or the
// whole packet; one that is neither fails with its own text.
TEST(MessageHeader, RegisterChecksumOfTheWholePacket) {
  for (const auto& [src, dst] : {std::pair{v4Src, ip("10.0.0.2")}, std::pair{ip("2001:db8::1"), ip("2001:db8::2")}}) {
    Bytes b = {0x21, 0, 0, 0, 0x40, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};  // header, N bit, 8 bytes of payload
    fixChecksum(b, src, dst);
    EXPECT_EQ(message(Knet::pimRegister(), src, dst)->readHeader(pkt(b), 0), 4u) << src;
    b[3] ^= 0x01;
    Loom::TraceCapture cap(1);
    EXPECT_EQ(message(Knet::pimRegister(), src, dst)->readHeader(pkt(b), 0), 0u) << src;
    EXPECT_TRUE(startsWith(firstError(cap), "Invalid Pim Message - Register Checksum - Received: ")) << src;
  }
}

// The table makes the class of each type (and DF election subtype) the codec knows, which
// renders its body (rows: type, reserved byte, start of the text or null for no class); the
// factory makes a bare header for any type.
TEST(Message, TableMakesTheClassOfTheType) {
  const std::tuple<Knet::PimMessageType, U8, const char*> cases[] = {
      {Knet::pimRegisterStop(), 0, "type=registerStop | source="},
      {Knet::pimJoinPrune(), 0, ""},  // a Join/Prune without data renders as nothing
      {Knet::pimBootstrap(), 0, "type=bootstrap Forward=True"},
      {Knet::pimCandidateRpAdvertisement(), 0, "type=candidateRpAdv prefixCount=0"},
      {Knet::pimDfElection(), 0x10, "type=dfElection | type=dfElectionOffer"},
      {Knet::pimDfElection(), 0x4f, "type=dfElection | type=dfElectionPass"},
      {Knet::pimDfElection(), 0x50, nullptr},
      {Knet::pimDfElection(), 0x0f, nullptr},
      {Knet::PimMessageType(0x30), 0, nullptr},
  };
  for (const auto& [type, reserved, start] : cases) {
    const MessageClassLookup found = messageClassOf(type, reserved);
    if (!start) {
      EXPECT_EQ(found.row, nullptr) << type;
      EXPECT_EQ(found.outcome, type == Knet::pimDfElection() ? MessageClassLookup::Outcome::unsupportedDfElectionType
                                                              : MessageClassLookup::Outcome::unsupportedType);
      continue;
    }
    ASSERT_NE(found.row, nullptr) << type;
    auto m = found.row->create();
    EXPECT_EQ(m->pimMessageType(), type);
    const std::string t = text(m.ptr());
    EXPECT_TRUE(*start ? startsWith(t, start) : t.empty()) << t;
    EXPECT_EQ(text(messageFactory(type).ptr()), std::string("type=") + type.name()) << type;
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
