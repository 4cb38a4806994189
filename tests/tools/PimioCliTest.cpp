// Tests of the pimio command line, run as a user runs it: the built binary on capture files that
// the tests write (or the committed sample), its output, summary and exit status.
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
};

// holdtime 105: 20 00 df93 | 0001 0002 0069.
const Bytes holdtime105{0x00, 0x01, 0x00, 0x02, 0x00, 0x69};

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes cut(Bytes b, size_t n) {
  b.resize(b.size() - n);
  return b;
}

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

  // Types without a decoder yet.
  cases.push_back({"JoinPrune", Outcome::unsupported, ethernet(ipv4(pimMessage(0x23, Bytes(8, 0)))), "joinPrune", {}});
  cases.push_back({"Register", Outcome::unsupported, ethernet(ipv4(pimMessage(0x21, Bytes(8, 0)))), "register", {}});
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
        EXPECT_EQ(line["error"], c.problems.front());
        EXPECT_EQ(line["trace"], c.problems);
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
      {R"({"family":4,"src":"192.0.2.1","type":"joinPrune"})", R"(FAILED: type: no encoder for "joinPrune")"},
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

// ---- Command line ----

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
