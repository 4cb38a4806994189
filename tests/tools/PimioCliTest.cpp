// Tests of the pimio command line, run as a user runs it: the built binary on capture files that
// the tests write (or the committed sample), its output, summary and exit status.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/tools/CliTestSupport.h"

namespace PimioTest {
namespace {

using nlohmann::json;

const std::string samplePcap = std::string(PIMIO_SAMPLES) + "/hellos.pcap";
const std::string sampleJsonl = std::string(PIMIO_SAMPLES) + "/hellos.jsonl";

class PimioCli : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "_" + info->name();
    for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    dir_ = std::filesystem::temp_directory_path() / ("pimio_cli_" + std::to_string(getpid()) + "_" + name);
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string path(const std::string& file) const { return (dir_ / file).string(); }
  RunResult run(const std::string& command) const { return sh(dir_.string(), command); }
  // Writes the frames to a capture in the test's directory and decodes it.
  RunResult decode(int linkType, const std::vector<CapturedFrame>& frames, const std::string& flags = "") {
    const std::string file = path("in.pcap");
    writeCapture(file, linkType, frames);
    return run("PIMIO decode " + flags + " " + quoted(file));
  }

  std::filesystem::path dir_;
};

std::string summary(int decoded, int failed, int unsupported, int notPim) {
  return "decoded " + std::to_string(decoded) + ", failed " + std::to_string(failed) + ", unsupported " +
         std::to_string(unsupported) + ", not PIM " + std::to_string(notPim);
}

// ---- The sample ----

// The messages that samples/hellos.jsonl describes, as the codec renders them.
const std::vector<std::string> sampleText = {
    "1: RX: <PIM type=hello | Option: holdtime=105>",
    "2: RX: <PIM type=hello | Option: holdtime=105, Option: tbit=true, propagationDelay=500, override=2500, "
    "Option: drPriority=10, Option: generationId=439041101>",
    "3: RX: <PIM type=hello | Option: holdtime=105, Option: generationId=2864434397, "
    "Option: secondary address=[ 198.51.100.1, 198.51.100.2, 203.0.113.9 ]>",
    "4: RX: <PIM type=hello | Option: holdtime=105, Option: drPriority=1, Option: bidirectional capable>",
    "5: RX: <PIM type=hello | Option: holdtime=105, Option: [ RouterId :3221226069 InterfaceId:7]>",
    "6: RX: <PIM type=hello | Option: holdtime=105, Option: sctpConnectionId = 192.0.2.6, "
    "Option: sctpConnectionId=192.0.2.6>",
    "7: RX: <PIM type=hello | Option: holdtime=0>",
    "8: RX: <PIM type=hello | Option: holdtime=105>",
    "9: RX: <PIM type=hello | Option: holdtime=105, Option: tbit=false, propagationDelay=500, override=2500, "
    "Option: drPriority=4294967295, Option: generationId=305419896, "
    "Option: secondary address=[ 2001:db8::2, 2001:db8:1::2 ]>",
    "10: RX: <PIM type=hello | Option: holdtime=65535, Option: bidirectional capable, "
    "Option: sctpConnectionId = 2001:db8::3, Option: sctpConnectionId=2001:db8::3, "
    "Option: [ RouterId :16909060 InterfaceId:42]>",
};

// Every Hello attribute at its default, in the order decode prints them.
const json helloDefaults = json::parse(R"({
  "reserved":0, "holdTimeOption":false, "holdTime":0, "lanPruneDelayOption":false,
  "implPropagationDelay":0, "tBit":false, "propagationDelay":0, "overrideInterval":0,
  "drPriorityOption":false, "drPriority":0, "generationIdOption":false, "generationId":0,
  "bidirectionalCapable":false, "secondaryAddr":[], "tcpConnectionOption":false,
  "tcpConnectionId":null, "sctpConnectionOption":false, "sctpConnectionId":null,
  "interfaceIdOption":false, "interfaceId":0, "routerId":0})");
const std::vector<std::string> helloAttributeOrder = {
    "reserved", "holdTimeOption", "holdTime", "lanPruneDelayOption", "implPropagationDelay", "tBit",
    "propagationDelay", "overrideInterval", "drPriorityOption", "drPriority", "generationIdOption",
    "generationId", "bidirectionalCapable", "secondaryAddr", "tcpConnectionOption", "tcpConnectionId",
    "sctpConnectionOption", "sctpConnectionId", "interfaceIdOption", "interfaceId", "routerId"};

// What differs from the defaults in each line of the sample.
const std::vector<std::string> sampleJson = {
    R"({"frame":1,"family":4,"src":"192.0.2.1","dst":"224.0.0.13","holdTimeOption":true,"holdTime":105})",
    R"({"frame":2,"family":4,"src":"192.0.2.2","dst":"224.0.0.13","holdTimeOption":true,"holdTime":105,
        "lanPruneDelayOption":true,"implPropagationDelay":33268,"tBit":true,"propagationDelay":500,
        "overrideInterval":2500,"drPriorityOption":true,"drPriority":10,"generationIdOption":true,
        "generationId":439041101})",
    R"({"frame":3,"family":4,"src":"192.0.2.3","dst":"224.0.0.13","holdTimeOption":true,"holdTime":105,
        "generationIdOption":true,"generationId":2864434397,
        "secondaryAddr":["198.51.100.1","198.51.100.2","203.0.113.9"]})",
    R"({"frame":4,"family":4,"src":"192.0.2.4","dst":"224.0.0.13","holdTimeOption":true,"holdTime":105,
        "drPriorityOption":true,"drPriority":1,"bidirectionalCapable":true})",
    R"({"frame":5,"family":4,"src":"192.0.2.5","dst":"224.0.0.13","holdTimeOption":true,"holdTime":105,
        "interfaceIdOption":true,"routerId":3221226069,"interfaceId":7})",
    R"({"frame":6,"family":4,"src":"192.0.2.6","dst":"224.0.0.13","holdTimeOption":true,"holdTime":105,
        "tcpConnectionOption":true,"tcpConnectionId":"192.0.2.6","sctpConnectionOption":true,
        "sctpConnectionId":"192.0.2.6"})",
    R"({"frame":7,"family":4,"src":"192.0.2.1","dst":"224.0.0.13","holdTimeOption":true,"holdTime":0})",
    R"({"frame":8,"family":6,"src":"fe80::1","dst":"ff02::d","holdTimeOption":true,"holdTime":105})",
    R"({"frame":9,"family":6,"src":"fe80::2","dst":"ff02::d","holdTimeOption":true,"holdTime":105,
        "lanPruneDelayOption":true,"implPropagationDelay":500,"propagationDelay":500,"overrideInterval":2500,
        "drPriorityOption":true,"drPriority":4294967295,"generationIdOption":true,"generationId":305419896,
        "secondaryAddr":["2001:db8::2","2001:db8:1::2"]})",
    R"({"frame":10,"family":6,"src":"fe80::3","dst":"ff02::d","holdTimeOption":true,"holdTime":65535,
        "bidirectionalCapable":true,"interfaceIdOption":true,"routerId":16909060,"interfaceId":42,
        "tcpConnectionOption":true,"tcpConnectionId":"2001:db8::3","sctpConnectionOption":true,
        "sctpConnectionId":"2001:db8::3"})",
};

TEST_F(PimioCli, SampleDecodesAsText) {
  const RunResult r = run("PIMIO decode " + quoted(samplePcap));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.outLines(), sampleText);
  EXPECT_EQ(r.errLines(), std::vector<std::string>{summary(10, 0, 0, 0)});
}

TEST_F(PimioCli, SampleDecodesAsJson) {
  const RunResult r = run("PIMIO decode --json " + quoted(samplePcap));
  EXPECT_EQ(r.status, 0);
  const std::vector<std::string> lines = r.outLines();
  ASSERT_EQ(lines.size(), sampleJson.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    SCOPED_TRACE(lines[i]);
    json expected = helloDefaults;
    expected["type"] = "hello";
    expected.update(json::parse(sampleJson[i]));
    EXPECT_EQ(json::parse(lines[i]), expected);
    // The members come in a fixed order: the packet first, then the attributes as declared.
    std::vector<std::string> keys;
    const nlohmann::ordered_json ordered = nlohmann::ordered_json::parse(lines[i]);
    for (const auto& member : ordered.items()) keys.push_back(member.key());
    std::vector<std::string> order = {"frame", "family", "src", "dst", "type"};
    order.insert(order.end(), helloAttributeOrder.begin(), helloAttributeOrder.end());
    EXPECT_EQ(keys, order);
  }
}

TEST_F(PimioCli, SampleIsWhatEncodeMakesOfItsJsonLines) {
  const RunResult r = run("PIMIO encode --out " + quoted(path("out.pcap")) + " " + quoted(sampleJsonl));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.errLines(), std::vector<std::string>{"encoded 10, failed 0, skipped 0"});
  EXPECT_EQ(readFile(path("out.pcap")), readFile(samplePcap)) << "samples/hellos.pcap is stale or encode changed";
}

TEST_F(PimioCli, DecodeJsonThenEncodeReproducesTheSampleByteForByte) {
  const RunResult r =
      run("PIMIO decode --json " + quoted(samplePcap) + " | PIMIO encode --out " + quoted(path("out.pcap")));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(run("cmp " + quoted(samplePcap) + " " + quoted(path("out.pcap"))).status, 0);
}

TEST_F(PimioCli, DashStandsForStandardInputAndOutput) {
  const RunResult r = run("PIMIO encode -o - - < " + quoted(sampleJsonl) + " | PIMIO decode -");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.outLines(), sampleText);
}

// ---- Link types and file formats ----

struct LinkCase {
  const char* name;
  int linkType;
  Bytes (*frame)(const Bytes& ip);
};

const LinkCase linkCases[] = {
    {"Ethernet802.1Q", DLT_EN10MB, [](const Bytes& ip) { return ethernet(ip, {0x8100}); }},
    {"EthernetQinQ", DLT_EN10MB, [](const Bytes& ip) { return ethernet(ip, {0x88a8, 0x8100}); }},
    {"LinuxSll", DLT_LINUX_SLL, linuxSll},
    {"LinuxSll2", DLT_LINUX_SLL2, linuxSll2},
    {"RawIp", DLT_RAW, [](const Bytes& ip) { return ip; }},
};

// The sample's IP packets in another framing decode to the same lines.
TEST_F(PimioCli, OtherLinkTypesDecodeLikeEthernet) {
  const std::string expected = run("PIMIO decode --json " + quoted(samplePcap)).out;
  ASSERT_FALSE(expected.empty());
  for (const LinkCase& c : linkCases) {
    SCOPED_TRACE(c.name);
    std::vector<CapturedFrame> frames;
    for (const Bytes& f : readCapture(samplePcap)) frames.push_back({c.frame(ipOfEthernet(f))});
    const RunResult r = decode(c.linkType, frames, "--json");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, expected);
    EXPECT_EQ(r.errLines(), std::vector<std::string>{summary(10, 0, 0, 0)});
  }
}

// Raw IPv4 and raw IPv6 captures hold one family each.
TEST_F(PimioCli, RawIpv4AndIpv6LinkTypesDecode) {
  const std::vector<std::string> text = run("PIMIO decode " + quoted(samplePcap)).outLines();
  const std::vector<Bytes> sample = readCapture(samplePcap);
  for (const auto& [linkType, family] : {std::pair{228, 4}, std::pair{229, 6}}) {
    std::vector<CapturedFrame> frames;
    std::vector<std::string> expected;
    for (size_t i = 0; i < sample.size(); ++i) {
      const Bytes ip = ipOfEthernet(sample[i]);
      if ((ip[0] >> 4) != family) continue;
      frames.push_back({ip});
      // Frame numbers restart in the new file; the message text stays.
      expected.push_back(std::to_string(frames.size()) + text[i].substr(text[i].find(':')));
    }
    const RunResult r = decode(linkType, frames);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.outLines(), expected) << "link type " << linkType;
  }
}

TEST_F(PimioCli, PcapngDecodesLikePcap) {
  if (!haveProgram("editcap")) {
    if (underCi()) FAIL() << "editcap (Wireshark) is needed to make a pcapng file and is missing";
    GTEST_SKIP() << "editcap (Wireshark) not installed: cannot make a pcapng file";
  }
  const std::string pcapng = path("hellos.pcapng");
  ASSERT_EQ(run("editcap -F pcapng " + quoted(samplePcap) + " " + quoted(pcapng)).status, 0);
  ASSERT_EQ(readFile(pcapng).substr(0, 4), std::string("\x0a\x0d\x0d\x0a")) << "not a pcapng file";
  const RunResult r = run("PIMIO decode --json " + quoted(pcapng));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, run("PIMIO decode --json " + quoted(samplePcap)).out);
}

// ---- Packets that are not what they should be ----

enum class Outcome { decoded, failed, unsupported, notPim };

struct PacketCase {
  const char* name;
  Outcome outcome;
  Bytes frame;                        // an Ethernet frame
  std::string text;                   // decoded: the message text; unsupported: the type's name
  std::vector<std::string> problems;  // failed: failure texts; decoded: warnings
  U32 wireLength = 0;                 // longer than the frame for a cut capture
  std::string reason = {};            // failed: the JSON "error" when it is not the first text
  std::vector<std::string> trace = {};  // failed: the JSON "trace" when it holds warnings too
};

// holdtime 105: 20 00 df93 | 0001 0002 0069.
const Bytes holdtime105{0x00, 0x01, 0x00, 0x02, 0x00, 0x69};

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes cut(const Bytes& b, size_t n) { return Bytes(b.begin(), b.end() - static_cast<std::ptrdiff_t>(n)); }

// ---- Hand-made Join/Prunes ----

// Source flags: S (sparse), W (wildcard), R (RPT).
constexpr U8 sg = 0x04;
constexpr U8 sgRpt = 0x05;
constexpr U8 starG = 0x07;

Bytes addressBytes(const std::string& text) {
  const bool v6 = text.find(':') != std::string::npos;
  Bytes b(v6 ? 16 : 4);
  if (inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), b.data()) != 1) throw std::invalid_argument(text);
  return b;
}

U8 familyOf(const std::string& text) { return text.find(':') != std::string::npos ? 2 : 1; }
U8 hostMask(const std::string& text) { return familyOf(text) == 2 ? 128 : 32; }

// Encoded-Unicast: family, encoding 0, the address.
Bytes encodedUnicast(const std::string& a) { return concat({familyOf(a), 0}, addressBytes(a)); }
// Encoded-Group and Encoded-Source: family, encoding 0, flags, mask length, the address.
Bytes encodedGroup(const std::string& a, U8 flags = 0, int mask = -1) {
  return concat({familyOf(a), 0, flags, static_cast<U8>(mask < 0 ? hostMask(a) : mask)}, addressBytes(a));
}
Bytes encodedSource(const std::string& a, U8 flags) { return concat({familyOf(a), 0, flags, hostMask(a)}, addressBytes(a)); }

struct JpGroup {
  Bytes group;
  std::vector<Bytes> joins;
  std::vector<Bytes> prunes;
};

// The body of a Join/Prune: upstream neighbor, reserved, group count, holdtime, the groups.
Bytes joinPruneBody(const std::string& upstream, U16 holdtime, const std::vector<JpGroup>& groups) {
  Bytes b = concat(encodedUnicast(upstream), {0x00, static_cast<U8>(groups.size()), U8(holdtime >> 8), U8(holdtime)});
  for (const JpGroup& g : groups) {
    b = concat(b, g.group);
    b = concat(b, {U8(g.joins.size() >> 8), U8(g.joins.size()), U8(g.prunes.size() >> 8), U8(g.prunes.size())});
    for (const Bytes& s : g.joins) b = concat(b, s);
    for (const Bytes& s : g.prunes) b = concat(b, s);
  }
  return b;
}

// An IPv4 Join/Prune from 192.0.2.9 to ALL-PIM-ROUTERS, or an IPv6 one from fe80::9.
Bytes joinPrune4(const Bytes& body) { return ipv4(pimMessage(0x23, body)); }
Bytes joinPrune6(const Bytes& body) { return ipv6Pim(0x23, body); }

std::vector<PacketCase> packetCases() {
  const std::vector<Bytes> sample = readCapture(samplePcap);
  const Bytes ipv6Hello = ipOfEthernet(sample[7]);  // fe80::1 -> ff02::d, holdtime 105
  const std::string hello105 = "type=hello | Option: holdtime=105";
  std::vector<PacketCase> cases;

  // A wrong checksum: 0xdf94 in place of 0xdf93; the sum then comes out as 0xfffe.
  Bytes badChecksum = pimMessage(0x20, holdtime105);
  badChecksum[3] = 0x94;
  cases.push_back({"Ipv4BadPimChecksum", Outcome::failed, ethernet(ipv4(badChecksum)), "",
                   {"Invalid Pim Message - Checksum - Received: 57236 Calculated: 65534",
                    "Invalid Pim Hello - Header - Read Error"}});
  // IPv6: the holdtime changed from 105 to 106 under the same checksum.
  Bytes badIpv6 = ipv6Hello;
  badIpv6[40 + 9] = 106;
  cases.push_back({"Ipv6BadPimChecksum", Outcome::failed, ethernet(badIpv6), "",
                   {"Invalid Pim Message - Checksum - Received: " + std::to_string(readU16Be(ipv6Hello, 42)) +
                        " Calculated: 65534",
                    "Invalid Pim Hello - Header - Read Error"}});
  // The capture holds 4 bytes less than the IP header says.
  cases.push_back({"TruncatedCaptureIpv4", Outcome::failed, cut(sample[1], 4),
                   "", {"Truncated capture - IP length 54 captured 50"}, U32(sample[1].size())});
  cases.push_back({"TruncatedCaptureIpv6", Outcome::failed, cut(sample[7], 4),
                   "", {"Truncated capture - IP length 50 captured 46"}, U32(sample[7].size())});
  // Hellos that end inside an option, their IP lengths and checksums consistent.
  cases.push_back({"HelloEndsInOptionValue", Outcome::failed,
                   ethernet(ipv4(pimMessage(0x20, {0x00, 0x01, 0x00, 0x02}))), "",
                   {"Invalid Pim Hello - Holdtime Option Length - Remaining: 0 Expected: 2"}});
  cases.push_back({"HelloEndsInOptionHeader", Outcome::failed,
                   ethernet(ipv4(pimMessage(0x20, concat(holdtime105, {0x00, 0x14})))), "",
                   {"Invalid Pim Hello - Hello Option Length - Remaining: 2 Expected: 4"}});
  cases.push_back({"HelloOfThreeBytes", Outcome::failed, ethernet(ipv4({0x20, 0x00, 0xdf})), "",
                   {"Invalid Pim Message - Missing Pim Header - Remaining: 3",
                    "Invalid Pim Hello - Header - Read Error"}});
  cases.push_back({"EmptyIpPayload", Outcome::failed, ethernet(ipv4({})), "",
                   {"Missing Pim Header - Empty IP Payload"}});
  cases.push_back({"PimVersion3", Outcome::failed, ethernet(ipv4(pimMessage(0x30, holdtime105))), "",
                   {"Invalid Pim Version - Received Value: 3"}});

  // Irregular options that do not fail a Hello are reported with it.
  cases.push_back({"UnknownOptionWarns", Outcome::decoded,
                   ethernet(ipv4(pimMessage(0x20, concat(holdtime105, {0x00, 0x28, 0x00, 0x02, 0xab, 0xcd})))),
                   hello105, {"Warning: Pim Hello - Unsupport Hello Option - Type: 40"}});
  cases.push_back({"MalformedTcpOptionIsSkipped", Outcome::decoded,
                   ethernet(ipv4(pimMessage(0x20, concat(holdtime105, {0x00, 0x1b, 0x00, 0x0a, 0x00, 0x01, 0x00, 0x00,
                                                                       1, 2, 3, 4, 5, 6})))),
                   hello105,
                   {"Invalid Pim Hello - Pim over Tcp Option - IPv4 address family has unexpected length 10"}});

  // The IP layer.
  Bytes badHeader = ipv4(pimMessage(0x20, holdtime105));
  badHeader[8] = 2;  // TTL changed under the old header checksum
  cases.push_back({"Ipv4HeaderChecksum", Outcome::failed, ethernet(badHeader), "",
                   {"Invalid IPv4 Header - Checksum - Received: " + std::to_string(readU16Be(badHeader, 10))}});
  Bytes shortHeader = ipv4(pimMessage(0x20, holdtime105));
  shortHeader[0] = 0x44;
  ipv4ChecksumIs(shortHeader);
  cases.push_back({"Ipv4HeaderLength16", Outcome::failed, ethernet(shortHeader), "",
                   {"Invalid IPv4 Header - Header Length: 16"}});
  Bytes shortTotal = ipv4(pimMessage(0x20, holdtime105));
  shortTotal[3] = 10;
  ipv4ChecksumIs(shortTotal);
  cases.push_back({"Ipv4TotalLengthBelowHeader", Outcome::failed, ethernet(shortTotal), "",
                   {"Invalid IPv4 Header - Total Length: 10 Header Length: 20"}});
  cases.push_back({"Ipv4WithRouterAlertOption", Outcome::decoded,
                   ethernet(ipv4(pimMessage(0x20, holdtime105), 103, 0, {0x94, 0x04, 0x00, 0x00})), hello105, {}});
  // Ethernet pads short frames; the IP total length says where the message ends.
  cases.push_back({"EthernetPadding", Outcome::decoded,
                   concat(ethernet(ipv4(pimMessage(0x20, holdtime105))), Bytes(16, 0)), hello105, {}});
  cases.push_back({"Ipv4FirstFragment", Outcome::failed, ethernet(ipv4(pimMessage(0x20, holdtime105), 103, 0x2000)),
                   "", {"Fragmented IP packet - Offset: 0 More Fragments: 1 - not reassembled"}});
  cases.push_back({"Ipv4LaterFragment", Outcome::failed, ethernet(ipv4(Bytes(8, 0), 103, 0x0001)), "",
                   {"Fragmented IP packet - Offset: 8 More Fragments: 0 - not reassembled"}});

  // IPv6 extension headers in front of the message.
  const Ipv6Extension hopByHop{0, {0, 0, 0x05, 0x02, 0x00, 0x00, 0x01, 0x00}};  // router alert, Pad1 x2
  const Ipv6Extension destination{60, {0, 0, 0x01, 0x04, 0, 0, 0, 0}};
  const Ipv6Extension routing{43, {0, 0, 0, 0, 0, 0, 0, 0}};
  const Ipv6Extension authentication{51, concat({0, 4, 0, 0}, Bytes(20, 0x11))};
  const Ipv6Extension atomicFragment{44, {0, 0, 0x00, 0x00, 0, 0, 0, 1}};
  cases.push_back({"Ipv6ExtensionHeaders", Outcome::decoded,
                   ethernet(withExtensions(ipv6Hello,
                                           {hopByHop, destination, routing, authentication, atomicFragment})),
                   hello105, {}});
  cases.push_back({"Ipv6FirstFragment", Outcome::failed,
                   ethernet(withExtensions(ipv6Hello, {{44, {0, 0, 0x00, 0x01, 0, 0, 0, 1}}})), "",
                   {"Fragmented IP packet - Offset: 0 More Fragments: 1 - not reassembled"}});
  cases.push_back({"Ipv6LaterFragment", Outcome::failed,
                   ethernet(withExtensions(ipv6Hello, {{44, {0, 0, 0x00, 0x08, 0, 0, 0, 1}}})), "",
                   {"Fragmented IP packet - Offset: 8 More Fragments: 0 - not reassembled"}});
  Bytes shortPayload = withExtensions(ipv6Hello, {hopByHop});
  shortPayload[5] = 4;
  cases.push_back({"Ipv6PayloadShorterThanExtensions", Outcome::failed, ethernet(shortPayload), "",
                   {"Invalid IPv6 Header - Extension Headers: 8 bytes Payload Length: 4"}});

  // Join/Prunes that fail. The decoder's notes about entries it drops on the way, and the
  // counters it traces before "Zero Valid Num Groups", are not the reason of the failure.
  const JpGroup starGJoin{encodedGroup("239.1.2.3"), {encodedSource("10.99.0.1", starG)}, {}};
  const Bytes oneGroup = joinPruneBody("10.99.0.1", 210, {starGJoin});
  const std::string zeroValid = "Invalid Pim Join/Prune - Zero Valid Num Groups";
  cases.push_back({"JoinPruneWithoutGroups", Outcome::failed, ethernet(joinPrune4(joinPruneBody("10.99.0.1", 210, {}))),
                   "", {"0, 0, 0", zeroValid}, 0, zeroValid});
  cases.push_back({"JoinPruneGroupWithoutSources", Outcome::failed,
                   ethernet(joinPrune4(joinPruneBody("10.99.0.1", 210, {{encodedGroup("239.1.2.3"), {}, {}}}))), "",
                   {"Invalid Pim Join/Prune - Zero Num Sources In Group 239.1.2.3", "0, 0, 0", zeroValid}, 0, zeroValid});
  cases.push_back({"JoinPruneTrailingBytes", Outcome::failed, ethernet(joinPrune4(concat(oneGroup, {0, 0}))), "",
                   {"Invalid Pim Join/Prune - End of Message - Remaining: 2"}});
  const Bytes conflict =
      joinPruneBody("10.99.0.1", 210, {{encodedGroup("239.1.2.3"), {encodedSource("10.1.1.1", sg)}, {encodedSource("10.1.1.1", sg)}}});
  cases.push_back({"JoinPruneConflictThenTrailingBytes", Outcome::failed, ethernet(joinPrune4(concat(conflict, {0, 0, 0, 0}))),
                   "",
                   {"Invalid Pim Join/Prune Source - Source 10.1.1.1 is both joined and pruned (S,G) source.  Only "
                    "processing  it as a pruned (S,G) source.",
                    "Invalid Pim Join/Prune - End of Message - Remaining: 4"},
                   0, "Invalid Pim Join/Prune - End of Message - Remaining: 4"});
  // A source that fails the address checks is skipped, with a level-1 text and a warning.
  const Bytes multicastSource = joinPruneBody(
      "10.99.0.1", 210, {{encodedGroup("239.1.2.3"), {encodedSource("224.1.1.1", sg), encodedSource("10.1.1.1", sg)}, {}}});
  cases.push_back({"JoinPruneSkippedSourceThenTrailingBytes", Outcome::failed,
                   ethernet(joinPrune4(concat(multicastSource, {0, 0}))), "",
                   {"Invalid Encoded Source Address - Not Unicast - Address: 224.1.1.1",
                    "Invalid Pim Join/Prune - End of Message - Remaining: 2"},
                   0, "Invalid Pim Join/Prune - End of Message - Remaining: 2",
                   {"Invalid Encoded Source Address - Not Unicast - Address: 224.1.1.1",
                    "Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: 224.1.1.1",
                    "Invalid Pim Join/Prune - End of Message - Remaining: 2"}});
  Bytes twoGroupsClaimed = oneGroup;
  twoGroupsClaimed[7] = 2;  // the group count
  cases.push_back({"JoinPruneEndsBeforeSecondGroup", Outcome::failed, ethernet(joinPrune4(twoGroupsClaimed)), "",
                   {"Invalid Encoded Group Address - Family and Encoding Length - Remaining: 0 Expected: 4",
                    "Invalid Pim Join/Prune - Group Address - Parse Error"}});
  Bytes twoJoinsClaimed = oneGroup;
  twoJoinsClaimed[19] = 2;  // the joined count of the group
  cases.push_back({"JoinPruneEndsInJoinList", Outcome::failed, ethernet(joinPrune4(twoJoinsClaimed)), "",
                   {"Invalid Encoded Source Address - Family and Encoding Length - Remaining: 0 Expected: 4",
                    "Invalid Pim Join/Prune - Joined Source Address - Parse Error"}});
  // The upstream neighbor, the counts and holdtime, the group address and 2 bytes of its counts.
  const Bytes endsInCounts(oneGroup.begin(), oneGroup.begin() + 20);
  cases.push_back({"JoinPruneEndsInGroupCounts", Outcome::failed, ethernet(joinPrune4(endsInCounts)), "",
                   {"Invalid Pim Join/Prune - Number of Sources - Remaining: 2 Expected: 4"}});
  cases.push_back({"JoinPruneEndsAfterUpstream", Outcome::failed,
                   ethernet(joinPrune4(concat(encodedUnicast("10.99.0.1"), {0, 1}))), "",
                   {"Invalid Pim Join/Prune - J/P Info Length - Remaining: 2 Expected: 4"}});
  cases.push_back({"JoinPruneMulticastUpstream", Outcome::failed,
                   ethernet(joinPrune4(joinPruneBody("224.0.0.2", 210, {starGJoin}))), "",
                   {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.2",
                    "Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Address: 224.0.0.2"}});
  cases.push_back({"JoinPruneIpv6UpstreamInIpv4", Outcome::failed,
                   ethernet(joinPrune4(joinPruneBody("2001:db8::2", 210, {starGJoin}))), "",
                   {"Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Family - Family: ipv4Upstream Address: "
                    "2001:db8::2"}});
  Bytes jpBadChecksum = pimMessage(0x23, oneGroup);
  jpBadChecksum[3] ^= 0x01;
  cases.push_back({"JoinPruneBadChecksum", Outcome::failed, ethernet(ipv4(jpBadChecksum)), "",
                   {"Invalid Pim Message - Checksum - Received: " + std::to_string(readU16Be(jpBadChecksum, 2)) +
                        " Calculated: 65534",
                    "Invalid Pim Join/Prune - Header - Parse Error"}});
  // Read again in bidirectional mode, a message of B groups fails there for its trailing bytes.
  const Bytes bidirGroup = joinPruneBody(
      "10.99.0.1", 210, {{encodedGroup("239.1.2.3", 0x80), {encodedSource("10.99.0.1", starG)}, {}}});
  cases.push_back({"JoinPruneBidirTrailingBytes", Outcome::failed, ethernet(joinPrune4(concat(bidirGroup, {0, 0}))), "",
                   {"Invalid Pim Join/Prune - End of Message - Remaining: 2"}});

  // A value the library bounds: the failure is the library's text.
  cases.push_back({"BootstrapHashMaskAbove128", Outcome::failed,
                   ethernet(ipv4(pimMessage(0x24, {0, 0, 129, 0, 0x01, 0x00, 10, 0, 0, 1}))), "",
                   {"BootstrapMessage::hashMaskLen < 0 or > 128 not allowed"}});

  // Types without a decoder: the dense-mode messages.
  cases.push_back({"Graft", Outcome::unsupported, ethernet(ipv4(pimMessage(0x26, Bytes(8, 0)))), "graft", {}});
  cases.push_back({"StateRefresh", Outcome::unsupported, ethernet(ipv4(pimMessage(0x29, Bytes(8, 0)))), "stateRefresh", {}});
  cases.push_back({"TypeWithoutName", Outcome::unsupported, ethernet(ipv4(pimMessage(0x2c, {}))), "type12", {}});

  // Frames that carry no PIM.
  Bytes mld = ipv6Hello;
  mld[6] = 58;
  cases.push_back({"Ipv6Icmp", Outcome::notPim, ethernet(withExtensions(mld, {hopByHop})), "", {}});
  cases.push_back({"Udp", Outcome::notPim, ethernet(ipv4(Bytes(12, 0), 17)), "", {}});
  cases.push_back({"Arp", Outcome::notPim, ethernetOfType(0x0806, Bytes(28, 0)), "", {}});
  cases.push_back({"Runt", Outcome::notPim, Bytes(10, 0xff), "", {}});
  cases.push_back({"Ipv4HeaderCutShort", Outcome::notPim, ethernet(Bytes{0x45, 0, 0, 40, 0, 0, 0, 0, 1}), "", {}});
  return cases;
}

std::string joined(const std::vector<std::string>& texts) {
  std::string out;
  for (const std::string& t : texts) out += (out.empty() ? "" : "; ") + t;
  return out;
}

std::vector<CapturedFrame> framesOf(const std::vector<PacketCase>& cases) {
  std::vector<CapturedFrame> frames;
  for (const PacketCase& c : cases) frames.push_back({c.frame, c.wireLength});
  return frames;
}

TEST_F(PimioCli, BadPacketsAreReportedAsText) {
  const std::vector<PacketCase> cases = packetCases();
  const RunResult r = decode(DLT_EN10MB, framesOf(cases));
  EXPECT_EQ(r.status, 0);
  std::vector<std::string> expected;
  int decoded = 0, failed = 0, unsupported = 0, notPim = 0;
  for (size_t i = 0; i < cases.size(); ++i) {
    const PacketCase& c = cases[i];
    const std::string n = std::to_string(i + 1) + ": ";
    switch (c.outcome) {
      case Outcome::decoded:
        ++decoded;
        expected.push_back(n + "RX: <PIM " + c.text + ">" +
                           (c.problems.empty() ? "" : " WARNINGS: " + joined(c.problems)));
        break;
      case Outcome::failed:
        ++failed;
        expected.push_back(n + "FAILED: " + joined(c.problems));
        break;
      case Outcome::unsupported:
        ++unsupported;
        expected.push_back(n + "UNSUPPORTED " + c.text);
        break;
      case Outcome::notPim:
        ++notPim;
        break;
    }
  }
  EXPECT_EQ(r.outLines(), expected);
  EXPECT_EQ(r.errLines(), std::vector<std::string>{summary(decoded, failed, unsupported, notPim)});
}

TEST_F(PimioCli, BadPacketsAreReportedAsJson) {
  const std::vector<PacketCase> cases = packetCases();
  const RunResult r = decode(DLT_EN10MB, framesOf(cases), "--json");
  EXPECT_EQ(r.status, 0);
  const std::vector<std::string> lines = r.outLines();
  size_t next = 0;
  for (size_t i = 0; i < cases.size(); ++i) {
    const PacketCase& c = cases[i];
    if (c.outcome == Outcome::notPim) continue;
    SCOPED_TRACE(c.name);
    ASSERT_LT(next, lines.size());
    const json line = json::parse(lines[next++]);
    EXPECT_EQ(line["frame"], i + 1);
    switch (c.outcome) {
      case Outcome::decoded:
        EXPECT_EQ(line["type"], "hello");
        if (c.problems.empty()) {
          EXPECT_FALSE(line.contains("warnings"));
        } else {
          EXPECT_EQ(line["warnings"], c.problems);
        }
        break;
      case Outcome::failed:
        EXPECT_EQ(line["error"], c.reason.empty() ? c.problems.front() : c.reason);
        EXPECT_EQ(line["trace"], c.trace.empty() ? c.problems : c.trace);
        EXPECT_FALSE(line.contains("type"));
        break;
      case Outcome::unsupported:
        EXPECT_EQ(line["type"], "unsupported");
        EXPECT_EQ(line["pimType"], c.text);
        break;
      case Outcome::notPim:
        break;
    }
  }
  EXPECT_EQ(next, lines.size());
}

// ---- Files that cannot be decoded ----

TEST_F(PimioCli, UnreadableInputsExitWithStatus2) {
  writeFile(path("notes.txt"), "these are not packets\n");
  writeCapture(path("ppp.pcap"), DLT_PPP, {{Bytes{0xff, 0x03, 0x00, 0x21}}});
  struct {
    std::string file;
    std::string message;
  } const cases[] = {
      {path("missing.pcap"), "pimio decode: " + path("missing.pcap") + ": No such file or directory"},
      {path("notes.txt"), "pimio decode: " + path("notes.txt") + ": unknown file format"},
      {path("ppp.pcap"), "pimio decode: " + path("ppp.pcap") +
                             ": unsupported link type 9 (PPP); known: Ethernet, Linux cooked (SLL, SLL2), raw IP"},
  };
  for (const auto& c : cases) {
    const RunResult r = run("PIMIO decode " + quoted(c.file));
    EXPECT_EQ(r.status, 2) << c.file;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.errLines(), std::vector<std::string>{c.message});
  }
}

TEST_F(PimioCli, DamagedCaptureReportsWhatWasReadAndExitsWith2) {
  const std::string file = path("cut.pcap");
  std::filesystem::copy_file(samplePcap, file);
  std::filesystem::resize_file(file, std::filesystem::file_size(file) - 5);
  const RunResult r = run("PIMIO decode " + quoted(file));
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.outLines(), std::vector<std::string>(sampleText.begin(), sampleText.end() - 1));
  ASSERT_EQ(r.errLines().size(), 2u) << r.err;
  EXPECT_EQ(r.errLines()[0], summary(9, 0, 0, 0));
  EXPECT_TRUE(r.errLines()[1].starts_with("pimio decode: " + file + ": damaged capture after frame 9: ")) << r.err;
}

// ---- Encode ----

// Encoding puts the headers of a router's Hello around the message.
TEST_F(PimioCli, EncodeFramesTheMessageAsARouterSendsIt) {
  writeFile(path("in.jsonl"),
            R"({"family":4,"src":"192.0.2.1","type":"hello"})" "\n"
            R"({"family":4,"src":"192.0.2.1","dst":"192.0.2.99","type":"hello"})" "\n"
            R"({"family":6,"src":"fe80::1","type":"hello"})" "\n"
            R"({"family":4,"src":"192.0.2.1","dst":"239.129.2.3","type":"hello"})" "\n"
            R"({"family":6,"src":"fe80::1","dst":"ff02::1:ff00:abcd","type":"hello"})" "\n");
  ASSERT_EQ(run("PIMIO encode -o " + quoted(path("out.pcap")) + " " + quoted(path("in.jsonl"))).status, 0);
  const std::vector<Bytes> frames = readCapture(path("out.pcap"));
  ASSERT_EQ(frames.size(), 5u);
  const Bytes source{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
  // The low 23 bits of an IPv4 group, the low 32 bits of an IPv6 group; a fixed one for unicast.
  const Bytes destinations[] = {{0x01, 0x00, 0x5e, 0x00, 0x00, 0x0d},
                                {0x02, 0x00, 0x00, 0x00, 0x00, 0x02},
                                {0x33, 0x33, 0x00, 0x00, 0x00, 0x0d},
                                {0x01, 0x00, 0x5e, 0x01, 0x02, 0x03},
                                {0x33, 0x33, 0xff, 0x00, 0xab, 0xcd}};
  for (size_t i = 0; i < frames.size(); ++i) {
    const Bytes& f = frames[i];
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 6), destinations[i]) << "frame " << i + 1;
    EXPECT_EQ(Bytes(f.begin() + 6, f.begin() + 12), source);
  }
  // IPv4: version 4, header 20, TOS 192, total length 24, id 0, no flags, TTL 1, PIM.
  EXPECT_EQ(Bytes(frames[0].begin() + 12, frames[0].begin() + 24),
            (Bytes{0x08, 0x00, 0x45, 0xc0, 0x00, 0x18, 0x00, 0x00, 0x00, 0x00, 0x01, 103}));
  EXPECT_EQ(Bytes(frames[1].begin() + 30, frames[1].begin() + 34), (Bytes{192, 0, 2, 99}));
  // IPv6: traffic class 192, payload length 4, next header PIM, hop limit 1.
  EXPECT_EQ(Bytes(frames[2].begin() + 12, frames[2].begin() + 22),
            (Bytes{0x86, 0xdd, 0x6c, 0x00, 0x00, 0x00, 0x00, 0x04, 103, 0x01}));
  const RunResult r = run("PIMIO decode --json " + quoted(path("out.pcap")));
  EXPECT_EQ(json::parse(r.outLines().at(1))["dst"], "192.0.2.99");
}

TEST_F(PimioCli, ImplPropagationDelayWinsOverItsViews) {
  struct {
    const char* attributes;
    U16 impl;
  } const cases[] = {
      {R"("tBit":true,"propagationDelay":300)", 0x8000 | 300},
      {R"("propagationDelay":300)", 300},
      {R"("implPropagationDelay":100,"tBit":true,"propagationDelay":300)", 100},
  };
  std::string input;
  for (const auto& c : cases) {
    input += std::string(R"({"family":4,"src":"192.0.2.1","type":"hello","lanPruneDelayOption":true,)") +
             c.attributes + "}\n";
  }
  writeFile(path("in.jsonl"), input);
  ASSERT_EQ(run("PIMIO encode -o " + quoted(path("out.pcap")) + " " + quoted(path("in.jsonl"))).status, 0);
  const std::vector<std::string> lines = run("PIMIO decode --json " + quoted(path("out.pcap"))).outLines();
  ASSERT_EQ(lines.size(), std::size(cases));
  for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(json::parse(lines[i])["implPropagationDelay"], cases[i].impl);
}

TEST_F(PimioCli, LinesThatCannotBeEncodedAreReportedAndSkipped) {
  const std::string good = R"({"family":4,"src":"192.0.2.1","type":"hello","holdTimeOption":true,"holdTime":105})";
  const std::string v4 = R"({"family":4,"src":"192.0.2.1","type":"hello",)";
  const std::string jp = R"({"family":4,"src":"10.0.0.1","type":"joinPrune","upstream":"10.0.0.2",)";
  struct {
    std::string line;
    std::string report;  // "" for a line that is encoded
  } const cases[] = {
      {good, ""},
      {"   ", ""},  // blank lines are passed over
      {"not json", "FAILED: bad JSON: "},
      {"[1,2]", "FAILED: expected a JSON object"},
      {R"({"family":4,"src":"192.0.2.1"})", R"(FAILED: missing "type")"},
      {R"({"family":4,"src":"192.0.2.1","type":0})", "FAILED: type: expected a name, got 0"},
      {R"({"src":"192.0.2.1","type":"hello"})", "FAILED: family: expected 4 or 6, got null"},
      {R"({"family":4,"type":"hello"})", R"(FAILED: missing "src")"},
      {R"({"family":6,"src":"192.0.2.1","type":"hello"})", R"(FAILED: src: expected an IPv6 address, got "192.0.2.1")"},
      {R"({"family":4,"src":"192.0.2.1","dst":"ff02::d","type":"hello"})",
       R"(FAILED: dst: expected an IPv4 address, got "ff02::d")"},
      {R"({"family":4,"src":"192.0.2.1","type":"graft"})", R"(FAILED: type: no encoder for "graft")"},
      {v4 + R"("holdtime":105})", R"(FAILED: unknown attribute "holdtime")"},
      {v4 + R"("holdTime":"105"})", R"(FAILED: holdTime: expected an unsigned integer up to 65535, got "105")"},
      {v4 + R"("holdTime":65536})", "FAILED: holdTime: expected an unsigned integer up to 65535, got 65536"},
      {v4 + R"("drPriority":-1})", "FAILED: drPriority: expected an unsigned integer up to 4294967295, got -1"},
      {v4 + R"("holdTimeOption":1})", "FAILED: holdTimeOption: expected true or false, got 1"},
      {v4 + R"("secondaryAddr":"10.0.0.1"})", R"(FAILED: secondaryAddr: expected a list of addresses, got "10.0.0.1")"},
      {v4 + R"("secondaryAddr":[null]})", "FAILED: secondaryAddr: expected an IPv4 or IPv6 address, got null"},
      {v4 + R"("tcpConnectionId":"10.0.0"})",
       R"(FAILED: tcpConnectionId: expected an IPv4 or IPv6 address or null, got "10.0.0")"},
      {v4 + R"("propagationDelay":32768})",
       "FAILED: propagationDelay: HelloPropagationDelay::value < HelloPropagationDelay::min or > "
       "HelloPropagationDelay::max not allowed"},
      // The encoder's own failure texts.
      {v4 + R"("secondaryAddr":["2001:db8::1"]})",
       "FAILED: Invalid Pim Hello - Address List Option - Family: ipv6 Address: 2001:db8::1"},
      {v4 + R"("secondaryAddr":["224.0.0.1"]})",
       "FAILED: Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1; "
       "Invalid Pim Hello - Address List Option - Unicast Address - Write Error"},
      {v4 + R"("tcpConnectionOption":true})",
       "FAILED: Invalid Pim Hello - tcpConnectionId Option - Family: ipUnknown(0)"},
      // Join/Prune trees that cannot be read, and the encoder's failures.
      {jp + R"("groups":5})", "FAILED: groups: expected a list of groups, got 5"},
      {jp + R"("groups":[{"joined":[]}]})", R"(FAILED: groups: group 1: missing "group")"},
      {jp + R"("groups":[{"group":null}]})", "FAILED: groups: group 1: group: expected an IPv4 or IPv6 address, got null"},
      {jp + R"("groups":[{"group":"239.1.1.1","joins":[]}]})", R"(FAILED: groups: group 1: unknown member "joins")"},
      {jp + R"("groups":[{"group":"239.1.1.1","starG":{"join":true}}]})",
       R"(FAILED: groups: group 1: starG: missing "rp")"},
      {jp + R"("groups":[{"group":"239.1.1.1","starG":"10.0.0.9"}]})",
       R"(FAILED: groups: group 1: starG: expected {"rp":ADDR,"join":BOOL} or null, got "10.0.0.9")"},
      {jp + R"("groups":[{"group":"239.1.1.1","starG":{"rp":"10.0.0.9","wcSuppressed":1}}]})",
       "FAILED: groups: group 1: starG: wcSuppressed: expected true or false, got 1"},
      {jp + R"("groups":[{"group":"239.1.1.1","joined":["10.1.1.1"]},{"group":"239.1.1.1"}]})",
       "FAILED: groups: group 2: group 239.1.1.1 is listed twice"},
      {jp + R"("groups":[{"group":"239.1.1.1","joined":"10.1.1.1"}]})",
       R"(FAILED: groups: group 1: joined: expected a list of addresses, got "10.1.1.1")"},
      {jp + R"("groups":[{"group":"239.1.1.1","groupFlags":256}]})",
       "FAILED: groups: group 1: groupFlags: expected an unsigned integer up to 255, got 256"},
      {jp + R"("report":3,"groups":[]})", R"(FAILED: report: expected {"processed":N,"suppressed":N,"filtered":N}, got 3)"},
      {jp + R"("mtu":-1,"groups":[]})", "FAILED: mtu: expected an unsigned integer up to 4294967295, got -1"},
      {jp + R"("periodic":"yes","groups":[]})", R"(FAILED: periodic: expected true or false, got "yes")"},
      {jp + R"("groups":[]})", "FAILED: Invalid Pim Join/Prune - Zero Num Groups"},
      {R"({"family":4,"src":"10.0.0.1","type":"joinPrune","groups":[{"group":"239.1.1.1","joined":["10.1.1.1"]}]})",
       "FAILED: Invalid Pim Join/Prune - Invalid Family - Family: ipUnknown(0) Upstream Address: unset"},
      {jp + R"("mtu":70000,"groups":[{"group":"239.1.1.1","joined":["10.1.1.1"]}]})",
       "FAILED: Invalid Pim Join/Prune - MTU is bigger than buffer - MTU: 69976 Buffer: 65515"},
      {jp + R"("mtu":40,"groups":[{"group":"239.1.1.1","joined":["10.1.1.1"]}]})",
       "FAILED: Invalid Pim Join/Prune - Insufficient MTU Size - Remaining: 2 Minimum Expected: 20"},
      // Groups that the encoder filters are named when nothing is left to write.
      {jp + R"("groups":[{"group":"239.1.1.1","groupFlags":128,"joined":["10.1.1.1"]}]})",
       "FAILED: Pim Join/Prune - Bidirectional Filter - Filtered Group Address: 239.1.1.1 Bidirectional: 1 "
       "Msg Bidirectional Support: 0; Invalid Pim Join/Prune - Zero Num Groups"},
      // What decode --json prints for packets it could not decode.
      {R"({"frame":3,"family":4,"src":"192.0.2.1","dst":"224.0.0.13","error":"x","trace":["x"]})",
       "skipped: a packet that failed to decode"},
      {R"({"frame":4,"family":4,"src":"192.0.2.1","dst":"224.0.0.13","type":"unsupported","pimType":"joinPrune"})",
       "skipped: unsupported message type joinPrune"},
      {good, ""},
  };
  std::string input;
  std::vector<std::string> expected;
  int encoded = 0, failed = 0, skipped = 0;
  for (size_t i = 0; i < std::size(cases); ++i) {
    input += cases[i].line + "\n";
    const std::string& report = cases[i].report;
    if (report.empty()) {
      encoded += cases[i].line == good;
      continue;
    }
    (report.starts_with("FAILED") ? failed : skipped) += 1;
    expected.push_back("line " + std::to_string(i + 1) + ": " + report);
  }
  writeFile(path("in.jsonl"), input);
  const RunResult r = run("PIMIO encode --out " + quoted(path("out.pcap")) + " < " + quoted(path("in.jsonl")));
  EXPECT_EQ(r.status, 1);
  std::vector<std::string> errors = r.errLines();
  ASSERT_EQ(errors.size(), expected.size() + 1) << r.err;
  for (size_t i = 0; i < expected.size(); ++i) {
    // The JSON parser's own message follows "bad JSON: ".
    if (expected[i].ends_with("bad JSON: ")) {
      EXPECT_TRUE(errors[i].starts_with(expected[i])) << errors[i];
    } else {
      EXPECT_EQ(errors[i], expected[i]);
    }
  }
  EXPECT_EQ(errors.back(), "encoded " + std::to_string(encoded) + ", failed " + std::to_string(failed) +
                               ", skipped " + std::to_string(skipped));
  EXPECT_EQ(run("PIMIO decode " + quoted(path("out.pcap"))).outLines(),
            (std::vector<std::string>{"1: RX: <PIM type=hello | Option: holdtime=105>",
                                      "2: RX: <PIM type=hello | Option: holdtime=105>"}));
}

TEST_F(PimioCli, EncodeExitsWith2WhenItCannotOpenItsFiles) {
  const std::string noDir = path("no/such/dir/out.pcap");
  const RunResult noOutput = run("PIMIO encode --out " + quoted(noDir) + " " + quoted(sampleJsonl));
  EXPECT_EQ(noOutput.status, 2);
  EXPECT_TRUE(noOutput.err.starts_with("pimio encode: " + noDir + ": ")) << noOutput.err;
  const RunResult noInput = run("PIMIO encode --out " + quoted(path("out.pcap")) + " " + quoted(path("missing.jsonl")));
  EXPECT_EQ(noInput.status, 2);
  EXPECT_EQ(noInput.err, "pimio encode: " + path("missing.jsonl") + ": cannot open\n");
}

// ---- Join/Prune ----

// One hand-made Join/Prune: the line decode prints for it, in text (the message text) and JSON
// (the members behind "type"), and whether it is canonical, that is laid out as the encoder lays
// out a tree: groups and sources in address order, (S,G,rpt) joins, (S,G) joins, the (*,G)
// entry, (S,G,rpt) prunes, (S,G) prunes.
struct JoinPruneCase {
  const char* name;
  Bytes ip;
  std::string text;
  std::vector<std::string> warnings;
  std::string json;
  bool canonical;
};

std::vector<JoinPruneCase> joinPruneCases() {
  const std::string noEntries = R"("joinedRpt":[],"joined":[],"prunedRpt":[],"pruned":[])";
  return {
      {"StarGJoin",
       joinPrune4(joinPruneBody("10.99.0.1", 7, {{encodedGroup("239.1.2.3"), {encodedSource("10.99.0.1", starG)}, {}}})),
       "type=joinPrune | upstream=10.99.0.1, holdtime=7, numGroups=1, groups=[ group=( address=239.1.2.3, "
       "flags=0x00 ) / join= 10.99.0.1, (*,G) ]",
       {},
       R"({"reserved":0,"bidir":false,"upstream":"10.99.0.1","reserved2":0,"holdTime":7,"groups":[
           {"group":"239.1.2.3","groupFlags":0,"starG":{"rp":"10.99.0.1","join":true},)" + noEntries + R"(}],
           "report":{"processed":1,"suppressed":0,"filtered":0}})",
       true},
      // Groups out of order; every kind of entry. The tree keeps groups in address order.
      {"EveryKindInTwoGroups",
       joinPrune4(joinPruneBody(
           "10.0.0.2", 210,
           {{encodedGroup("239.1.1.2"), {encodedSource("10.3.3.3", sgRpt)}, {encodedSource("10.2.2.2", sg)}},
            {encodedGroup("239.1.1.1"),
             {encodedSource("10.1.1.1", sg), encodedSource("10.0.0.9", starG)},
             {encodedSource("10.1.1.2", sgRpt), encodedSource("10.1.1.3", sg)}}})),
       "type=joinPrune | upstream=10.0.0.2, holdtime=210, numGroups=2, groups=[ group=( address=239.1.1.1, "
       "flags=0x00 ) / join=10.1.1.1, (S,G) / join= 10.0.0.9, (*,G) / prune=10.1.1.2, (S,G,rpt) / "
       "prune=10.1.1.3, (S,G) / group=( address=239.1.1.2, flags=0x00 ) / join=10.3.3.3, (S,G,rpt) / "
       "prune=10.2.2.2, (S,G) ]",
       {},
       R"({"reserved":0,"bidir":false,"upstream":"10.0.0.2","reserved2":0,"holdTime":210,"groups":[
           {"group":"239.1.1.1","groupFlags":0,"starG":{"rp":"10.0.0.9","join":true},"joinedRpt":[],
            "joined":["10.1.1.1"],"prunedRpt":["10.1.1.2"],"pruned":["10.1.1.3"]},
           {"group":"239.1.1.2","groupFlags":0,"starG":null,"joinedRpt":["10.3.3.3"],"joined":[],
            "prunedRpt":[],"pruned":["10.2.2.2"]}],
           "report":{"processed":6,"suppressed":0,"filtered":0}})",
       false},
      {"Ipv6",
       joinPrune6(joinPruneBody(
           "fe80::2", 210,
           {{encodedGroup("ff3e::1"), {encodedSource("2001:db8::5", sg)}, {encodedSource("2001:db8::9", starG)}}})),
       "type=joinPrune | upstream=fe80::2, holdtime=210, numGroups=1, groups=[ group=( address=ff3e::1, "
       "flags=0x00 ) / join=2001:db8::5, (S,G) / prune= 2001:db8::9, (*,G) ]",
       {},
       R"({"reserved":0,"bidir":false,"upstream":"fe80::2","reserved2":0,"holdTime":210,"groups":[
           {"group":"ff3e::1","groupFlags":0,"starG":{"rp":"2001:db8::9","join":false},"joinedRpt":[],
            "joined":["2001:db8::5"],"prunedRpt":[],"pruned":[]}],
           "report":{"processed":2,"suppressed":0,"filtered":0}})",
       true},
      // Every group has the B flag: decoded again in bidirectional mode.
      {"BidirectionalGroups",
       joinPrune4(joinPruneBody("10.0.0.2", 210,
                                {{encodedGroup("239.1.1.1", 0x80), {encodedSource("10.0.0.9", starG)}, {}},
                                 {encodedGroup("239.1.1.2", 0x81), {}, {encodedSource("10.0.0.9", starG)}}})),
       "type=joinPrune | upstream=10.0.0.2, holdtime=210, numGroups=2, groups=[ group=( address=239.1.1.1, "
       "flags=0x80(B) ) / join= 10.0.0.9, (*,G) / group=( address=239.1.1.2, flags=0x81(B,Z) ) / "
       "prune= 10.0.0.9, (*,G) ]",
       {},
       R"({"reserved":0,"bidir":true,"upstream":"10.0.0.2","reserved2":0,"holdTime":210,"groups":[
           {"group":"239.1.1.1","groupFlags":128,"starG":{"rp":"10.0.0.9","join":true},)" + noEntries + R"(},
           {"group":"239.1.1.2","groupFlags":129,"starG":{"rp":"10.0.0.9","join":false},)" + noEntries + R"(}],
           "report":{"processed":2,"suppressed":0,"filtered":0}})",
       true},
      // A sparse-mode group beside a bidirectional one: sparse mode, the other group filtered.
      {"MixedModes",
       joinPrune4(joinPruneBody("10.0.0.2", 210,
                                {{encodedGroup("239.1.1.1", 0x80), {encodedSource("10.0.0.9", starG)}, {}},
                                 {encodedGroup("239.1.1.2"), {encodedSource("10.1.1.1", sg)}, {}}})),
       "type=joinPrune | upstream=10.0.0.2, holdtime=210, numGroups=1, groups=[ group=( address=239.1.1.2, "
       "flags=0x00 ) / join=10.1.1.1, (S,G) ]",
       {},
       R"({"reserved":0,"bidir":false,"upstream":"10.0.0.2","reserved2":0,"holdTime":210,"groups":[
           {"group":"239.1.1.2","groupFlags":0,"starG":null,"joinedRpt":[],"joined":["10.1.1.1"],"prunedRpt":[],
            "pruned":[]}],
           "report":{"processed":1,"suppressed":0,"filtered":1}})",
       false},
      // Entries that contradict each other or are malformed are dropped with a note.
      {"JoinedAndPrunedSource",
       joinPrune4(joinPruneBody("10.0.0.2", 210,
                                {{encodedGroup("239.1.1.1"), {encodedSource("10.1.1.1", sg)}, {encodedSource("10.1.1.1", sg)}}})),
       "type=joinPrune | upstream=10.0.0.2, holdtime=210, numGroups=1, groups=[ group=( address=239.1.1.1, "
       "flags=0x00 ) / prune=10.1.1.1, (S,G) ]",
       {"Invalid Pim Join/Prune Source - Source 10.1.1.1 is both joined and pruned (S,G) source.  Only processing  "
        "it as a pruned (S,G) source."},
       R"({"reserved":0,"bidir":false,"upstream":"10.0.0.2","reserved2":0,"holdTime":210,"groups":[
           {"group":"239.1.1.1","groupFlags":0,"starG":null,"joinedRpt":[],"joined":[],"prunedRpt":[],
            "pruned":["10.1.1.1"]}],
           "report":{"processed":1,"suppressed":1,"filtered":0}})",
       false},
      {"WildcardWithoutRptAndAPrefixGroup",
       joinPrune4(joinPruneBody("10.0.0.2", 210,
                                {{encodedGroup("239.1.1.0", 0, 24), {encodedSource("10.1.1.1", sg)}, {}},
                                 {encodedGroup("239.1.1.1"), {encodedSource("10.1.1.1", 0x06), encodedSource("10.1.1.2", sg)}, {}}})),
       "type=joinPrune | upstream=10.0.0.2, holdtime=210, numGroups=1, groups=[ group=( address=239.1.1.1, "
       "flags=0x00 ) / join=10.1.1.2, (S,G) ]",
       {"Warning: Pim Join/Prune - Group Address - Skipping Invalid Prefix: 239.1.1.0",
        "Invalid Pim Join/Prune - WC set, RPT cleared"},
       R"({"reserved":0,"bidir":false,"upstream":"10.0.0.2","reserved2":0,"holdTime":210,"groups":[
           {"group":"239.1.1.1","groupFlags":0,"starG":null,"joinedRpt":[],"joined":["10.1.1.2"],"prunedRpt":[],
            "pruned":[]}],
           "report":{"processed":1,"suppressed":0,"filtered":1}})",
       false},
  };
}

std::vector<CapturedFrame> framesOf(const std::vector<JoinPruneCase>& cases) {
  std::vector<CapturedFrame> frames;
  for (const JoinPruneCase& c : cases) frames.push_back({ethernet(c.ip)});
  return frames;
}

TEST_F(PimioCli, JoinPrunesDecodeAsOneLineOfText) {
  const std::vector<JoinPruneCase> cases = joinPruneCases();
  const RunResult r = decode(DLT_EN10MB, framesOf(cases));
  EXPECT_EQ(r.status, 0);
  std::vector<std::string> expected;
  for (size_t i = 0; i < cases.size(); ++i) {
    const JoinPruneCase& c = cases[i];
    expected.push_back(std::to_string(i + 1) + ": RX: <PIM " + c.text + ">" +
                       (c.warnings.empty() ? "" : " WARNINGS: " + joined(c.warnings)));
  }
  EXPECT_EQ(r.outLines(), expected);
  EXPECT_EQ(r.errLines(), std::vector<std::string>{summary(int(cases.size()), 0, 0, 0)});
}

TEST_F(PimioCli, JoinPrunesDecodeAsJson) {
  const std::vector<JoinPruneCase> cases = joinPruneCases();
  const RunResult r = decode(DLT_EN10MB, framesOf(cases), "--json");
  EXPECT_EQ(r.status, 0);
  const std::vector<std::string> lines = r.outLines();
  ASSERT_EQ(lines.size(), cases.size());
  for (size_t i = 0; i < cases.size(); ++i) {
    const JoinPruneCase& c = cases[i];
    SCOPED_TRACE(c.name);
    const bool v6 = (c.ip[0] >> 4) == 6;
    nlohmann::ordered_json expected = nlohmann::ordered_json::parse(
        R"({"frame":)" + std::to_string(i + 1) + R"(,"family":)" + (v6 ? "6" : "4") + R"(,"src":)" +
        (v6 ? R"("fe80::9","dst":"ff02::d")" : R"("192.0.2.9","dst":"224.0.0.13")") + R"(,"type":"joinPrune"})");
    expected.update(nlohmann::ordered_json::parse(c.json));
    if (!c.warnings.empty()) expected["warnings"] = c.warnings;
    // The members in a fixed order, too.
    EXPECT_EQ(nlohmann::ordered_json::parse(lines[i]), expected);
  }
}

// Canonical packets come back byte for byte from what decode prints; the others come back as the
// encoder lays out what the decoder kept.
TEST_F(PimioCli, JoinPrunesComeBackFromTheirJsonLines) {
  const std::vector<JoinPruneCase> cases = joinPruneCases();
  const RunResult first = decode(DLT_EN10MB, framesOf(cases), "--json");
  writeFile(path("decoded.jsonl"), first.out);
  const RunResult r = run("PIMIO encode -o " + quoted(path("again.pcap")) + " " + quoted(path("decoded.jsonl")));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.errLines(), std::vector<std::string>{"encoded " + std::to_string(cases.size()) + ", failed 0, skipped 0"});
  const std::vector<Bytes> again = readCapture(path("again.pcap"));
  ASSERT_EQ(again.size(), cases.size());
  for (size_t i = 0; i < cases.size(); ++i) {
    if (cases[i].canonical) {
      EXPECT_EQ(ipOfEthernet(again[i]), cases[i].ip) << cases[i].name;
    }
  }
  // Decoded again, every packet says what it said the first time.
  const std::vector<std::string> before = first.outLines();
  const std::vector<std::string> after = run("PIMIO decode --json " + quoted(path("again.pcap"))).outLines();
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = 0; i < cases.size(); ++i) {
    json a = json::parse(after[i]), b = json::parse(before[i]);
    for (json* j : {&a, &b}) {
      // What the decoder dropped the first time is not in the packet the second time.
      j->erase("report");
      j->erase("warnings");
    }
    EXPECT_EQ(a, b) << cases[i].name;
  }
}

// The entries of a Join/Prune line or tree, one text each, such as "239.1.1.1 joined 10.1.1.1".
std::vector<std::string> entriesOf(const json& groups, bool leaveOutSuppressed = false) {
  std::vector<std::string> out;
  for (const json& g : groups) {
    const std::string group = g["group"].get<std::string>() + " flags " + g.value("groupFlags", json(0)).dump();
    const json suppressed = leaveOutSuppressed ? g.value("joinSuppress", json::array()) : json::array();
    for (const char* list : {"joinedRpt", "joined", "prunedRpt", "pruned"}) {
      for (const json& s : g.value(list, json::array())) {
        if (std::string(list) == "joined" && std::find(suppressed.begin(), suppressed.end(), s) != suppressed.end()) {
          continue;
        }
        out.push_back(group + " " + list + " " + s.get<std::string>());
      }
    }
    const json starG = g.value("starG", json());
    if (starG.is_null()) continue;
    const bool join = starG.value("join", true);
    // A periodic message refuses a (*,G) prune, and leaves out a suppressed (*,G) join unless the
    // group has (S,G,rpt) prunes.
    const bool suppressedJoin = starG.value("wcSuppressed", false) && g.value("prunedRpt", json::array()).empty();
    if (leaveOutSuppressed && (!join || suppressedJoin)) continue;
    out.push_back(group + " starG " + (join ? "join " : "prune ") + starG["rp"].get<std::string>());
  }
  std::sort(out.begin(), out.end());
  return out;
}

// A tree of `groups` groups with every kind of entry, its addresses in the family of `sample`.
json bigTree(bool v6, int groups) {
  auto source = [&](int g, int s) {
    return v6 ? "2001:db8:" + std::to_string(g) + "::" + std::to_string(s)
              : "10." + std::to_string(g) + "." + std::to_string(s) + ".1";
  };
  json out = json::array();
  for (int g = 1; g <= groups; ++g) {
    json group = {{"group", v6 ? "ff3e::" + std::to_string(g) : "239.1." + std::to_string(g) + ".1"},
                  {"groupFlags", g % 4 == 0 ? 1 : 0}};
    json joined = json::array(), prunedRpt = json::array(), pruned = json::array(), joinedRpt = json::array();
    for (int s = 1; s <= 6; ++s) joined.push_back(source(g, s));
    for (int s = 20; s <= 21; ++s) pruned.push_back(source(g, s));
    if (g % 3 == 0) {
      // (S,G,rpt) joins go without a (*,G) join, which would cover them.
      for (int s = 30; s <= 32; ++s) joinedRpt.push_back(source(g, s));
    } else {
      group["starG"] = {{"rp", source(99, 1)}, {"join", true}};
      for (int s = 10; s <= 13; ++s) prunedRpt.push_back(source(g, s));
    }
    group["joined"] = joined;
    group["joinedRpt"] = joinedRpt;
    group["prunedRpt"] = prunedRpt;
    group["pruned"] = pruned;
    out.push_back(group);
  }
  return out;
}

// A tree too big for one packet goes out in as many as it takes, none bigger than the MTU, and
// together they carry the tree: each entry once, triggered or periodic (where the suppressed
// joins stay out).
TEST_F(PimioCli, JoinPruneTreeIsSplitIntoPacketsOfTheMtu) {
  struct {
    const char* name;
    bool v6;
    U32 mtu;
    bool periodic;
  } const cases[] = {
      {"Ipv4Triggered", false, 200, false},
      {"Ipv4Periodic", false, 256, true},
      {"Ipv6Triggered", true, 400, false},
      {"Ipv6Periodic", true, 600, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    json groups = bigTree(c.v6, 9);
    std::string dropped;
    if (c.periodic) {
      groups[0]["joinSuppress"] = {groups[0]["joined"][0], groups[0]["joined"][3]};
      // A (*,G) join is suppressed only in a group without (S,G,rpt) prunes.
      groups[1]["prunedRpt"] = json::array();
      groups[1]["starG"]["wcSuppressed"] = true;
      groups[3]["starG"]["wcSuppressed"] = true;
      groups[4]["starG"]["join"] = false;
      dropped = "line 1: dropped: Invalid Pim Join/Prune - Periodic (*,G)-Prune";
    }
    json line = {{"family", c.v6 ? 6 : 4},      {"src", c.v6 ? "fe80::1" : "10.0.0.1"},
                 {"type", "joinPrune"},         {"upstream", c.v6 ? "fe80::2" : "10.0.0.2"},
                 {"holdTime", 210},             {"mtu", c.mtu},
                 {"periodic", c.periodic},      {"groups", groups}};
    writeFile(path("tree.jsonl"), line.dump() + "\n");
    const RunResult r = run("PIMIO encode -o " + quoted(path("tree.pcap")) + " " + quoted(path("tree.jsonl")));
    EXPECT_EQ(r.status, 0) << r.err;
    const std::vector<Bytes> frames = readCapture(path("tree.pcap"));
    EXPECT_GT(frames.size(), 2u);
    std::vector<std::string> report;
    if (!dropped.empty()) report.push_back(dropped);
    report.push_back("encoded 1, failed 0, skipped 0, packets " + std::to_string(frames.size()));
    EXPECT_EQ(r.errLines(), report);
    for (const Bytes& f : frames) {
      const Bytes ip = ipOfEthernet(f);
      EXPECT_LE(ip.size(), c.mtu);
    }
    const RunResult decoded = run("PIMIO decode --json " + quoted(path("tree.pcap")));
    EXPECT_EQ(decoded.errLines(), std::vector<std::string>{summary(int(frames.size()), 0, 0, 0)});
    std::vector<std::string> carried;
    for (const std::string& text : decoded.outLines()) {
      const json l = json::parse(text);
      EXPECT_EQ(l["upstream"], line["upstream"]);
      EXPECT_EQ(l["holdTime"], 210);
      EXPECT_FALSE(l.contains("warnings")) << text;
      EXPECT_EQ(l["report"]["suppressed"], 0);
      EXPECT_EQ(l["report"]["filtered"], 0);
      const std::vector<std::string> entries = entriesOf(l["groups"]);
      carried.insert(carried.end(), entries.begin(), entries.end());
    }
    std::sort(carried.begin(), carried.end());
    EXPECT_EQ(carried, entriesOf(groups, c.periodic));
  }
}

// The 256th group goes into the next packet, however big the MTU.
TEST_F(PimioCli, JoinPruneTakesAtMost255GroupsAPacket) {
  json groups = json::array();
  for (int g = 0; g < 300; ++g) {
    groups.push_back({{"group", "239.2." + std::to_string(g / 256) + "." + std::to_string(g % 256)},
                      {"starG", {{"rp", "10.0.0.9"}, {"join", true}}}});
  }
  const json line = {{"family", 4}, {"src", "10.0.0.1"}, {"type", "joinPrune"}, {"upstream", "10.0.0.2"},
                     {"holdTime", 210}, {"mtu", 9000}, {"groups", groups}};
  writeFile(path("tree.jsonl"), line.dump() + "\n");
  const RunResult r = run("PIMIO encode -o " + quoted(path("tree.pcap")) + " " + quoted(path("tree.jsonl")));
  EXPECT_EQ(r.errLines(), std::vector<std::string>{"encoded 1, failed 0, skipped 0, packets 2"});
  const std::vector<std::string> lines = run("PIMIO decode --json " + quoted(path("tree.pcap"))).outLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(json::parse(lines[0])["groups"].size(), 255u);
  EXPECT_EQ(json::parse(lines[1])["groups"].size(), 45u);
  EXPECT_EQ(json::parse(lines[1])["groups"][0]["group"], "239.2.0.255");
}

// Entries that the encoder leaves out are reported with the line, which is still encoded.
TEST_F(PimioCli, JoinPruneEntriesTheEncoderDropsAreReported) {
  const std::string v4 = R"({"family":4,"src":"10.0.0.1","type":"joinPrune","upstream":"10.0.0.2",)";
  struct {
    std::string line;
    std::string dropped;
    std::vector<std::string> kept;  // the entries of the packet
  } const cases[] = {
      {v4 + R"("groups":[{"group":"239.1.1.1","joined":["10.1.1.1","2001:db8::1","224.1.1.1"]}]})",
       "Invalid Encoded Source Address - Not Unicast - Address: 224.1.1.1; "
       "Pim Join/Prune - Joined Source Address - Write Error; "
       "Pim Join/Prune - Invalid Family - Family: ipv6 Source Address: 2001:db8::1; "
       "%PIM_MESSAGE_INVALID_ENCODED_SOURCE: Attempted to send Join/Prune message with a non-unicast encoded source "
       "224.1.1.1; "
       "%PIM_MESSAGE_AF_MISMATCH: Attempted to send ipv4 Join/Prune message with 2001:db8::1 address in the message",
       {"239.1.1.1 flags 0 joined 10.1.1.1"}},
      {v4 + R"("groups":[{"group":"239.1.1.1","groupFlags":128,"joined":["10.1.1.1"]},
                         {"group":"239.1.1.2","joined":["10.1.1.2"]}]})",
       "Pim Join/Prune - Bidirectional Filter - Filtered Group Address: 239.1.1.1 Bidirectional: 1 "
       "Msg Bidirectional Support: 0",
       {"239.1.1.2 flags 0 joined 10.1.1.2"}},
      {v4 + R"("groups":[{"group":"10.1.1.1","joined":["10.1.1.1"]},{"group":"239.1.1.2","joined":["10.1.1.2"]}]})",
       "Invalid Encoded Group Address - Not Multicast - Address: 10.1.1.1; "
       "Pim Join/Prune - Group Address - Write Error; "
       "%PIM_MESSAGE_INVALID_ENCODED_GROUP: Attempted to send Join/Prune message with a non-multicast encoded group "
       "10.1.1.1",
       {"239.1.1.2 flags 0 joined 10.1.1.2"}},
      {v4 + R"("groups":[{"group":"239.1.1.1","starG":{"rp":"2001:db8::1"}},{"group":"239.1.1.2","joined":["10.1.1.2"]}]})",
       "Invalid Pim Join/Prune - Invalid Family - Family: ipv6 (*,G) RP Address: 2001:db8::1; "
       "%PIM_MESSAGE_AF_MISMATCH: Attempted to send ipv4 Join/Prune message with 2001:db8::1 address in the message",
       {"239.1.1.2 flags 0 joined 10.1.1.2"}},
      {v4 + R"("periodic":true,"groups":[{"group":"239.1.1.1","starG":{"rp":"10.0.0.9","join":false},
                                           "joined":["10.1.1.1"]}]})",
       "Invalid Pim Join/Prune - Periodic (*,G)-Prune", {"239.1.1.1 flags 0 joined 10.1.1.1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    std::string line = c.line;
    std::erase(line, '\n');
    writeFile(path("in.jsonl"), line + "\n");
    const RunResult r = run("PIMIO encode -o " + quoted(path("out.pcap")) + " " + quoted(path("in.jsonl")));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.errLines(), (std::vector<std::string>{"line 1: dropped: " + c.dropped, "encoded 1, failed 0, skipped 0"}));
    const std::vector<std::string> lines = run("PIMIO decode --json " + quoted(path("out.pcap"))).outLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(entriesOf(json::parse(lines[0])["groups"]), c.kept);
  }
}

// The encoder reads back what it writes (the tool runs it with its message trace on); a packet
// that no receiver would take ends the message, and the rest of the tree is not sent.
TEST_F(PimioCli, JoinPrunePacketThatCannotBeReadBackEndsTheMessage) {
  writeFile(path("in.jsonl"), R"({"family":4,"src":"10.0.0.1","type":"joinPrune","upstream":"10.0.0.2","mtu":60,)"
                              R"("groups":[{"group":"239.1.1.1","joined":["0.0.0.0"]},)"
                              R"({"group":"239.1.1.2","joined":["10.1.1.1"]}]})" "\n");
  const RunResult r = run("PIMIO encode -o " + quoted(path("out.pcap")) + " " + quoted(path("in.jsonl")));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.errLines(), (std::vector<std::string>{
                              "line 1: dropped: Invalid Pim Join/Prune - Debug Error - Read Error On TX Packet",
                              "encoded 1, failed 0, skipped 0"}));
  const std::vector<std::string> lines = run("PIMIO decode --json " + quoted(path("out.pcap"))).outLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(json::parse(lines[0])["error"], "Invalid Pim Join/Prune - Zero Valid Num Groups");
}

// ---- Command line ----

// Register, Register-Stop and Assert: written from JSON lines, decoded as text and as JSON with
// every attribute, and what decode prints encodes to the same packets again. A data Register
// carries its inner packet as hex; a Null-Register gets the codec's own dummy header.
TEST_F(PimioCli, RegisterRegisterStopAndAssertGoBothWays) {
  const std::string inner = "4500002100074000" "3f1100000a420002" "ef010203" "13881388000d0000" "70696d696f";
  const std::vector<std::string> lines = {
      R"({"family":4,"src":"10.99.0.2","dst":"10.99.0.1","type":"register","inner":")" + inner + R"("})",
      R"({"family":6,"src":"2001:db8::2","dst":"2001:db8::1","type":"register","null":true,"border":true,
          "innerSrc":"2001:db8:66::2","innerGroup":"ff3e::1:2:3"})",
      R"({"family":4,"src":"10.99.0.1","dst":"10.99.0.2","type":"registerStop","group":"239.1.2.3","source":"0.0.0.0"})",
      R"({"family":4,"src":"10.99.0.3","dst":"224.0.0.13","type":"assert","group":"239.1.2.3","groupFlags":128,
          "source":"10.66.0.2","rpt":true,"metricPreference":101,"metric":20})",
  };
  std::string input;
  for (const std::string& l : lines) input += json::parse(l).dump() + "\n";
  writeFile(path("in.jsonl"), input);
  RunResult r = run("PIMIO encode -o " + quoted(path("out.pcap")) + " " + quoted(path("in.jsonl")));
  ASSERT_EQ(r.status, 0) << r.err;

  r = run("PIMIO decode " + quoted(path("out.pcap")));
  EXPECT_EQ(r.outLines(),
            (std::vector<std::string>{
                "1: RX: <PIM type=register | null bit=0, border bit=0 | Encapsulated src=10.66.0.2 dst=239.1.2.3 "
                "outer dst=10.99.0.1 outer src=10.99.0.2>",
                "2: RX: <PIM type=register | null bit=1, border bit=1 | Encapsulated src=2001:db8:66::2 "
                "dst=ff3e::1:2:3 outer dst=2001:db8::1 outer src=2001:db8::2>",
                "3: RX: <PIM type=registerStop | source=0.0.0.0, group=( address=239.1.2.3, flags=0x00 ) "
                "outer dst=10.99.0.2 outer src=10.99.0.1>",
                "4: RX: <PIM type=assert | source=10.66.0.2, group=( address=239.1.2.3, flags=0x80(B) ), rpt=1, "
                "preference=101, metric=20>"}));
  EXPECT_EQ(r.errLines(), std::vector<std::string>{summary(4, 0, 0, 0)});

  r = run("PIMIO decode --json " + quoted(path("out.pcap")));
  const std::vector<std::string> expected = {
      R"({"frame":1,"family":4,"src":"10.99.0.2","dst":"10.99.0.1","type":"register","reserved":0,
          "implRegisterFlags":0,"border":false,"null":false,"innerSrc":"10.66.0.2","innerGroup":"239.1.2.3",
          "inner":")" + inner + R"("})",
      R"({"frame":2,"family":6,"src":"2001:db8::2","dst":"2001:db8::1","type":"register","reserved":0,
          "implRegisterFlags":3221225472,"border":true,"null":true,"innerSrc":"2001:db8:66::2",
          "innerGroup":"ff3e::1:2:3","inner":null})",
      R"({"frame":3,"family":4,"src":"10.99.0.1","dst":"10.99.0.2","type":"registerStop","reserved":0,
          "group":"239.1.2.3","groupFlags":0,"source":"0.0.0.0"})",
      R"({"frame":4,"family":4,"src":"10.99.0.3","dst":"224.0.0.13","type":"assert","reserved":0,
          "group":"239.1.2.3","groupFlags":128,"source":"10.66.0.2","implMetricPreference":2147483749,"rpt":true,
          "metricPreference":101,"metric":20})",
  };
  const std::vector<std::string> got = r.outLines();
  ASSERT_EQ(got.size(), expected.size());
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(nlohmann::ordered_json::parse(got[i]), nlohmann::ordered_json::parse(expected[i])) << i + 1;
  }

  writeFile(path("again.jsonl"), r.out);
  r = run("PIMIO encode -o " + quoted(path("again.pcap")) + " " + quoted(path("again.jsonl")));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readCapture(path("again.pcap")), readCapture(path("out.pcap")));
}

// Bootstrap and Candidate-RP Advertisement: written from JSON lines, decoded as text and as JSON,
// and what decode prints encodes to the same packets again; a bound of the library (the hash mask
// length) refuses a line with the library's text.
TEST_F(PimioCli, BootstrapAndCandidateRpAdvertisementGoBothWays) {
  const std::vector<std::string> lines = {
      R"({"family":4,"src":"10.0.0.1","dst":"224.0.0.13","type":"bootstrap","fragmentTag":4660,"hashMaskLen":30,
          "bsrPriority":64,"bsrAddress":"10.0.0.1","groups":[{"prefix":"224.0.0.0/4","rpCount":2,"fragRpCount":2,
          "rps":[{"address":"10.0.0.2","holdtime":150,"priority":192},{"address":"10.0.0.3","holdtime":150,"priority":1}]}]})",
      R"({"family":6,"src":"fe80::1","dst":"ff02::d","type":"bootstrap","noForward":true,"hashMaskLen":126,
          "bsrAddress":"2001:db8::1","groups":[]})",
      R"({"family":4,"src":"10.0.0.1","dst":"224.0.0.13","type":"bootstrap","hashMaskLen":129,"bsrAddress":"10.0.0.1"})",
      R"({"family":4,"src":"10.0.0.5","dst":"10.0.0.1","type":"candidateRpAdv","prefixCount":2,"priority":192,
          "holdtime":150,"rpAddress":"10.0.0.5","ranges":[{"prefix":"224.0.0.0/4"},{"prefix":"239.255.0.0/16","groupFlags":128}]})",
  };
  std::string input;
  for (const std::string& l : lines) input += json::parse(l).dump() + "\n";
  writeFile(path("in.jsonl"), input);
  RunResult r = run("PIMIO encode -o " + quoted(path("out.pcap")) + " " + quoted(path("in.jsonl")));
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_EQ(r.errLines(),
            (std::vector<std::string>{"line 3: FAILED: hashMaskLen: BootstrapMessage::hashMaskLen < 0 or > 128 not allowed",
                                      "encoded 3, failed 1, skipped 0"}));

  r = run("PIMIO decode " + quoted(path("out.pcap")));
  const std::string nul(1, '\0');  // the RPs' reserved byte, written as a raw character
  EXPECT_EQ(r.outLines(),
            (std::vector<std::string>{
                "1: RX: <PIM type=bootstrap Forward=True, fragmentTag=4660, hashMaskLen=30, bsrPriority=64 | "
                "bsrAddress=10.0.0.1 |  GroupData=[ group=( prefix=224.0.0.0/4, flags=0x00, rpCount=2, fragRpCount=2, "
                "RpList=[ rp=( address=10.0.0.2, Holdtime=150, Priority=192, reserved=" + nul + " ), "
                "rp=( address=10.0.0.3, Holdtime=150, Priority=1, reserved=" + nul + " ) ] ) ]>",
                "2: RX: <PIM type=bootstrap Forward=False, fragmentTag=0, hashMaskLen=126, bsrPriority=0 | "
                "bsrAddress=2001:db8::1>",
                "3: RX: <PIM type=candidateRpAdv prefixCount=2, priority=192, holdtime=150 | rpAddress=10.0.0.5 | "
                "GroupData=[ 224.0.0.0/4, groupFlags: 0x00, 239.255.0.0/16, groupFlags: 0x80(B) ]>"}));

  r = run("PIMIO decode --json " + quoted(path("out.pcap")));
  const std::vector<std::string> expected = {
      R"({"frame":1,"family":4,"src":"10.0.0.1","dst":"224.0.0.13","type":"bootstrap","reserved":0,"noForward":false,
          "fragmentTag":4660,"hashMaskLen":30,"bsrPriority":64,"bsrAddress":"10.0.0.1","groups":[
          {"prefix":"224.0.0.0/4","groupFlags":0,"rpCount":2,"fragRpCount":2,"reserved":0,"rps":[
           {"address":"10.0.0.2","holdtime":150,"priority":192,"reserved":0},
           {"address":"10.0.0.3","holdtime":150,"priority":1,"reserved":0}]}]})",
      R"({"frame":2,"family":6,"src":"fe80::1","dst":"ff02::d","type":"bootstrap","reserved":128,"noForward":true,
          "fragmentTag":0,"hashMaskLen":126,"bsrPriority":0,"bsrAddress":"2001:db8::1","groups":[]})",
      R"({"frame":3,"family":4,"src":"10.0.0.5","dst":"10.0.0.1","type":"candidateRpAdv","reserved":0,"prefixCount":2,
          "priority":192,"holdtime":150,"rpAddress":"10.0.0.5","ranges":[{"prefix":"224.0.0.0/4","groupFlags":0},
          {"prefix":"239.255.0.0/16","groupFlags":128}]})",
  };
  const std::vector<std::string> got = r.outLines();
  ASSERT_EQ(got.size(), expected.size());
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(nlohmann::ordered_json::parse(got[i]), nlohmann::ordered_json::parse(expected[i])) << i + 1;
  }
  writeFile(path("again.jsonl"), r.out);
  r = run("PIMIO encode -o " + quoted(path("again.pcap")) + " " + quoted(path("again.jsonl")));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readCapture(path("again.pcap")), readCapture(path("out.pcap")));
}

// DF election: the class follows the subtype, named by "reserved" or "dfElectionType"; each class
// takes only its own attributes; what decode prints encodes to the same packets again.
TEST_F(PimioCli, DfElectionSubtypesGoBothWays) {
  const std::vector<std::string> lines = {
      R"({"family":4,"src":"10.0.0.2","type":"dfElection","dfElectionType":"dfElectionOffer","rpAddress":"10.0.0.9",
          "senderMetricPreference":110,"senderMetric":20})",
      R"({"family":4,"src":"10.0.0.2","type":"dfElection","dfElectionType":"dfElectionBackoff","rpAddress":"10.0.0.9",
          "senderMetricPreference":110,"senderMetric":20,"offeringAddress":"10.0.0.3","offeringMetricPreference":100,
          "offeringMetric":10,"interval":1000})",
      R"({"family":6,"src":"fe80::2","type":"dfElection","reserved":64,"rpAddress":"2001:db8::9",
          "winningAddress":"2001:db8::3","winningMetricPreference":100,"winningMetric":10})",
      R"({"family":4,"src":"10.0.0.2","type":"dfElection","dfElectionType":"dfElectionWinner","rpAddress":"10.0.0.9",
          "interval":5})",
      R"({"family":4,"src":"10.0.0.2","type":"dfElection","dfElectionType":"dfElectionRunnerUp","rpAddress":"10.0.0.9"})",
  };
  std::string input;
  for (const std::string& l : lines) input += json::parse(l).dump() + "\n";
  writeFile(path("in.jsonl"), input);
  RunResult r = run("PIMIO encode -o " + quoted(path("out.pcap")) + " " + quoted(path("in.jsonl")));
  EXPECT_EQ(r.errLines(),
            (std::vector<std::string>{
                "line 4: FAILED: unknown attribute \"interval\"",
                "line 5: FAILED: dfElectionType: expected dfElectionOffer, dfElectionWinner, dfElectionBackoff or "
                "dfElectionPass, got \"dfElectionRunnerUp\"",
                "encoded 3, failed 2, skipped 0"}));

  r = run("PIMIO decode " + quoted(path("out.pcap")));
  EXPECT_EQ(r.outLines(),
            (std::vector<std::string>{
                "1: RX: <PIM type=dfElection | type=dfElectionOffer, rpAddress=10.0.0.9, senderMetricPreference=110, "
                "senderMetric=20>",
                "2: RX: <PIM type=dfElection | type=dfElectionBackoff, rpAddress=10.0.0.9, senderMetricPreference=110, "
                "senderMetric=20, offeringAddress=10.0.0.3, offeringMetricPreference=100, offeringMetric=10, interval=1000>",
                "3: RX: <PIM type=dfElection | type=dfElectionPass, rpAddress=2001:db8::9, senderMetricPreference=0, "
                "senderMetric=0, winningAddress=2001:db8::3, winningMetricPreference=100, winningMetric=10>"}));

  r = run("PIMIO decode --json " + quoted(path("out.pcap")));
  const std::vector<std::string> got = r.outLines();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(nlohmann::ordered_json::parse(got[0]),
            nlohmann::ordered_json::parse(
                R"({"frame":1,"family":4,"src":"10.0.0.2","dst":"224.0.0.13","type":"dfElection","reserved":16,
                    "dfElectionType":"dfElectionOffer","rpAddress":"10.0.0.9","senderMetricPreference":110,"senderMetric":20})"));
  writeFile(path("again.jsonl"), r.out);
  r = run("PIMIO encode -o " + quoted(path("again.pcap")) + " " + quoted(path("again.jsonl")));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readCapture(path("again.pcap")), readCapture(path("out.pcap")));
}

TEST_F(PimioCli, TraceOptionPassesTheCodecsLinesOn) {
  const RunResult r = run("PIMIO --trace PimMessage=4 decode " + quoted(samplePcap));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.outLines(), sampleText);
  EXPECT_NE(r.err.find("PimMessage/4 readHelloMessage: RX: <PIM type=hello | Option: holdtime=105>\n"),
            std::string::npos)
      << r.err;
  // Without --trace nothing but the summary.
  EXPECT_EQ(run("PIMIO decode " + quoted(samplePcap)).errLines().size(), 1u);
}

TEST_F(PimioCli, UsageErrorsExitWith2AndHelpWith0) {
  struct {
    const char* args;
    int status;
    const char* says;  // on standard output for help, standard error otherwise
  } const cases[] = {
      {"", 2, "A subcommand is required"},
      {"--trace PimMessage decode x", 2, "--trace: expected UNIT=LEVEL,..."},
      {"--trace PimMessage=10 decode x", 2, "--trace: expected UNIT=LEVEL,..."},
      {"decode", 2, "FILE is required"},
      {"encode in.jsonl", 2, "--out is required"},
      {"frobnicate", 2, "A subcommand is required"},
      {"--help", 0, "--trace UNIT=LEVEL,..."},
      {"decode --help", 0, "Exit status: 0 when the capture was read to its end"},
      {"encode --help", 0, "Exit status: 0 when every line was encoded or skipped; 1 when some lines failed"},
      {"decode --help", 0, "is decoded\nagain in bidirectional mode (\"bidir\":true)"},
      {"encode --help", 0, "\"mtu\"          the largest IP packet to make, default 1500"},
  };
  for (const auto& c : cases) {
    const RunResult r = run(std::string("PIMIO ") + c.args);
    EXPECT_EQ(r.status, c.status) << c.args;
    const std::string& text = c.status == 0 ? r.out : r.err;
    EXPECT_NE(text.find(c.says), std::string::npos) << c.args << ": " << text;
  }
}

}  // namespace
}  // namespace PimioTest
