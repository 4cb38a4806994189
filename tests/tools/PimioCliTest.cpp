// Tests of the pimio command line, run as a user runs it: the built binary on capture files that
// the tests write (or the committed sample), its output, summary and exit status.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>

#include "tests/tools/CliTestSupport.h"

namespace PimioTest {
namespace {

using nlohmann::json;
using Lines = std::vector<std::string>;

const std::string samplePcap = std::string(PIMIO_SAMPLES) + "/hellos.pcap";
const std::string sampleJsonl = std::string(PIMIO_SAMPLES) + "/hellos.jsonl";

class PimioCli : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("pimio_cli_" + std::to_string(getpid()) + "_" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string path(const std::string& file) const { return (dir_ / file).string(); }
  RunResult run(const std::string& command) const { return sh(dir_.string(), command); }
  RunResult decode(const std::string& file, const std::string& flags = "") const {
    return run("PIMIO decode " + flags + " " + quoted(file));
  }
  RunResult decode(int linkType, const std::vector<CapturedFrame>& frames, const std::string& flags = "") const {
    writeCapture(path("in.pcap"), linkType, frames);
    return decode(path("in.pcap"), flags);
  }
  // Encodes the lines into `out`.
  RunResult encode(const Lines& lines, const std::string& out = "out.pcap") const {
    std::string input;
    for (const std::string& l : lines) input += l + "\n";
    writeFile(path("in.jsonl"), input);
    return run("PIMIO encode -o " + quoted(path(out)) + " " + quoted(path("in.jsonl")));
  }

  std::filesystem::path dir_;
};

std::string summary(int decoded, int failed, int unsupported, int notPim) {
  return "decoded " + std::to_string(decoded) + ", failed " + std::to_string(failed) + ", unsupported " +
         std::to_string(unsupported) + ", not PIM " + std::to_string(notPim);
}

std::string joined(const Lines& texts) {
  std::string out;
  for (const std::string& t : texts) out += (out.empty() ? "" : "; ") + t;
  return out;
}

// ---- The sample: samples/hellos.jsonl ----

// Text (with --trace, the codec's lines too) and JSON; the members of a JSON line in a fixed order,
// every Hello attribute among them.
TEST_F(PimioCli, SampleDecodesAsTextAndJson) {
  RunResult r = decode(samplePcap);
  EXPECT_EQ(r.status, 0);
  ASSERT_EQ(r.outLines().size(), 10u);
  EXPECT_EQ(r.outLines()[1], "2: RX: <PIM type=hello | Option: holdtime=105, Option: tbit=true, propagationDelay=500, "
                             "override=2500, Option: drPriority=10, Option: generationId=439041101>");
  EXPECT_EQ(r.errLines(), Lines{summary(10, 0, 0, 0)});  // without --trace nothing but the summary
  const RunResult traced = run("PIMIO --trace PimMessage=4 decode " + quoted(samplePcap));
  EXPECT_EQ(traced.out, r.out);
  EXPECT_NE(traced.err.find("PimMessage/4 readHelloMessage: RX: <PIM type=hello | Option: holdtime=105>\n"),
            std::string::npos);
  r = decode(samplePcap, "--json");
  ASSERT_EQ(r.outLines().size(), 10u);
  EXPECT_EQ(r.outLines()[9],
            nlohmann::ordered_json::parse(R"({"frame":10,"family":6,"src":"fe80::3","dst":"ff02::d","type":"hello",
      "reserved":0,"holdTimeOption":true,"holdTime":65535,"lanPruneDelayOption":false,"implPropagationDelay":0,
      "tBit":false,"propagationDelay":0,"overrideInterval":0,"drPriorityOption":false,"drPriority":0,
      "generationIdOption":false,"generationId":0,"bidirectionalCapable":true,"secondaryAddr":[],
      "tcpConnectionOption":true,"tcpConnectionId":"2001:db8::3","sctpConnectionOption":true,
      "sctpConnectionId":"2001:db8::3","interfaceIdOption":true,"interfaceId":42,"routerId":16909060})").dump());
  EXPECT_EQ(json::parse(r.outLines()[1])["implPropagationDelay"], 33268);
}

// The sample is what encode makes of its JSON lines and of what decode prints; "-" stands for
// standard input and output.
TEST_F(PimioCli, SampleGoesBothWays) {
  RunResult r = run("PIMIO encode --out " + quoted(path("out.pcap")) + " " + quoted(sampleJsonl));
  EXPECT_EQ(r.errLines(), Lines{"encoded 10, failed 0, skipped 0"});
  EXPECT_EQ(readFile(path("out.pcap")), readFile(samplePcap)) << "samples/hellos.pcap is stale or encode changed";
  r = run("PIMIO decode --json " + quoted(samplePcap) + " | PIMIO encode --out " + quoted(path("again.pcap")));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readFile(path("again.pcap")), readFile(samplePcap));
  r = run("PIMIO encode -o - - < " + quoted(sampleJsonl) + " | PIMIO decode -");
  EXPECT_EQ(r.outLines(), decode(samplePcap).outLines());
}

// The sample's IP packets in other framings decode to the same lines; raw IPv4 and IPv6 captures
// hold one family each, their frames numbered anew.
TEST_F(PimioCli, OtherLinkTypesDecodeLikeEthernet) {
  auto sll = [](const Bytes& ip) {
    const U16 t = etherTypeOf(ip);
    return concat({0, 2, 0, 1, 0, 6, 2, 0, 0, 0, 0, 9, 0, 0, U8(t >> 8), U8(t)}, ip);
  };
  auto sll2 = [](const Bytes& ip) {
    const U16 t = etherTypeOf(ip);
    return concat({U8(t >> 8), U8(t), 0, 0, 0, 0, 0, 3, 0, 1, 2, 6, 2, 0, 0, 0, 0, 9, 0, 0}, ip);
  };
  auto raw = [](const Bytes& ip) { return ip; };
  const struct {
    int linkType;
    std::function<Bytes(const Bytes&)> frame;
    int family;  // 0: both
  } cases[] = {{DLT_EN10MB, [](const Bytes& ip) { return ethernet(ip, {0x8100}); }, 0},
               {DLT_EN10MB, [](const Bytes& ip) { return ethernet(ip, {0x88a8, 0x8100}); }, 0},
               {DLT_LINUX_SLL, sll, 0}, {DLT_LINUX_SLL2, sll2, 0}, {DLT_RAW, raw, 0}, {228, raw, 4}, {229, raw, 6}};
  const std::vector<Bytes> sample = readCapture(samplePcap);
  const Lines text = decode(samplePcap).outLines();
  for (const auto& c : cases) {
    std::vector<CapturedFrame> frames;
    Lines expected;
    for (size_t i = 0; i < sample.size(); ++i) {
      const Bytes ip = ipOfEthernet(sample[i]);
      if (c.family && (ip[0] >> 4) != c.family) continue;
      frames.push_back({c.frame(ip)});
      expected.push_back(std::to_string(frames.size()) + text[i].substr(text[i].find(':')));
    }
    EXPECT_EQ(decode(c.linkType, frames).outLines(), expected) << "link type " << c.linkType;
  }
}

// ---- Hand-made packets ----

Bytes addressBytes(const std::string& text) {
  const bool v6 = text.find(':') != std::string::npos;
  Bytes b(v6 ? 16 : 4);
  if (inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), b.data()) != 1) throw std::invalid_argument(text);
  return b;
}
U8 familyOf(const std::string& a) { return a.find(':') != std::string::npos ? 2 : 1; }

// Encoded-Unicast: family, encoding 0, the address; Encoded-Group and -Source add flags and mask.
Bytes encodedUnicast(const std::string& a) { return concat({familyOf(a), 0}, addressBytes(a)); }
Bytes encoded(const std::string& a, U8 flags = 0) {
  return concat({familyOf(a), 0, flags, U8(familyOf(a) == 2 ? 128 : 32)}, addressBytes(a));
}
constexpr U8 sg = 0x04, sgRpt = 0x05, starG = 0x07;  // source flags: S, W, R

struct JpGroup {
  Bytes group;
  std::vector<Bytes> joins, prunes;
};
// A Join/Prune body: upstream neighbor, reserved, group count, holdtime 210, the groups.
Bytes joinPrune(const std::string& upstream, const std::vector<JpGroup>& groups) {
  Bytes b = concat(encodedUnicast(upstream), {0x00, U8(groups.size()), 0, 210});
  for (const JpGroup& g : groups) {
    b = concat(concat(b, g.group), {0, U8(g.joins.size()), 0, U8(g.prunes.size())});
    for (const Bytes& s : g.joins) b = concat(b, s);
    for (const Bytes& s : g.prunes) b = concat(b, s);
  }
  return b;
}
Bytes jp4(const Bytes& body) { return pim4(0x23, body); }

// ---- Packets that are not what they should be ----

enum class Outcome { decoded, failed, unsupported, notPim };

struct PacketCase {
  Outcome outcome;
  Bytes frame;     // an Ethernet frame
  std::string text;  // decoded: the message text; unsupported: the type's name
  Lines problems;    // failed: failure texts; decoded: warnings
  U32 wireLength = 0;     // longer than the frame for a cut capture
  std::string reason{};   // failed: the JSON "error" when it is not the first text
  Lines trace{};          // failed: the JSON "trace" when it holds warnings too
  std::string json{};     // decoded: members of the JSON line
};

std::vector<PacketCase> packetCases() {
  const std::vector<Bytes> sample = readCapture(samplePcap);
  const Bytes ipv6Hello = ipOfEthernet(sample[7]);  // fe80::1 -> ff02::d, holdtime 105
  const Bytes holdtime105{0x00, 0x01, 0x00, 0x02, 0x00, 0x69};
  const std::string hello105 = "type=hello | Option: holdtime=105";
  const Bytes hello4 = pim4(0x20, holdtime105);
  std::vector<PacketCase> cases;
  auto failed = [&](Bytes ip, Lines problems) { cases.push_back({Outcome::failed, ethernet(ip), "", problems}); };
  auto changed = [](Bytes b, size_t at, U8 v, bool fixIpv4 = false) {
    b[at] = v;
    if (fixIpv4) ipv4ChecksumIs(b);
    return b;
  };

  // The holdtime 106 under the checksum of 105: the sum takes in the IPv6 pseudo-header.
  failed(changed(ipv6Hello, 49, 106), {"Invalid Pim Message - Checksum - Received: " +
                                           std::to_string(readU16Be(ipv6Hello, 42)) + " Calculated: 65534",
                                       "Invalid Pim Hello - Header - Read Error"});
  // The capture holds 4 bytes less than the IP header says.
  cases.push_back({Outcome::failed, Bytes(sample[7].begin(), sample[7].end() - 4), "",
                   {"Truncated capture - IP length 50 captured 46"}, U32(sample[7].size())});
  failed(ipv4({}), {"Missing Pim Header - Empty IP Payload"});
  failed(pim4(0x30, holdtime105), {"Invalid Pim Version - Received Value: 3"});
  // A DF election of a subtype the table does not know (5, in the high nibble of the reserved byte).
  failed(pimIp(false, concat({0x2a, 0x50, 0, 0}, concat(encodedUnicast("10.0.0.9"), Bytes(8, 0)))),
         {"RX: Error - Unsupported Pim DF Election Type"});
  // Irregular options that do not fail a Hello: a level-5 warning, a level-1 text.
  cases.push_back({Outcome::decoded, ethernet(pim4(0x20, concat(holdtime105, {0, 0x28, 0, 2, 0xab, 0xcd}))), hello105,
                   {"Warning: Pim Hello - Unsupport Hello Option - Type: 40"}});
  cases.push_back({Outcome::decoded, ethernet(pim4(0x20, concat(holdtime105, {0, 0x1b, 0, 10, 0, 1, 0, 0, 1, 2, 3, 4, 5, 6}))),
                   hello105, {"Invalid Pim Hello - Pim over Tcp Option - IPv4 address family has unexpected length 10"}});

  // The IP layer.
  const Bytes helloPim(hello4.begin() + 20, hello4.end());
  const Bytes badHeader = changed(hello4, 8, 2);  // TTL changed under the old header checksum
  failed(badHeader, {"Invalid IPv4 Header - Checksum - Received: " + std::to_string(readU16Be(badHeader, 10))});
  failed(changed(hello4, 0, 0x44, true), {"Invalid IPv4 Header - Header Length: 16"});
  failed(changed(hello4, 3, 10, true), {"Invalid IPv4 Header - Total Length: 10 Header Length: 20"});
  cases.push_back({Outcome::decoded, ethernet(ipv4(helloPim, 103, 0, {0x94, 0x04, 0x00, 0x00})), hello105, {}});
  // Ethernet pads short frames; the IP total length says where the message ends.
  cases.push_back({Outcome::decoded, concat(ethernet(hello4), Bytes(16, 0)), hello105, {}});
  failed(ipv4(Bytes(8, 0), 103, 0x0001), {"Fragmented IP packet - Offset: 8 More Fragments: 0 - not reassembled"});
  // IPv6 extension headers in front of the message.
  const Ipv6Extension hopByHop{0, {0, 0, 0x05, 0x02, 0x00, 0x00, 0x01, 0x00}};  // router alert, Pad1 x2
  cases.push_back({Outcome::decoded,
                   ethernet(withExtensions(ipv6Hello, {hopByHop, {60, {0, 0, 0x01, 0x04, 0, 0, 0, 0}}, {43, Bytes(8, 0)},
                                                       {51, concat({0, 4, 0, 0}, Bytes(20, 0x11))},
                                                       {44, {0, 0, 0x00, 0x00, 0, 0, 0, 1}}})),
                   hello105, {}});
  failed(withExtensions(ipv6Hello, {{44, {0, 0, 0x00, 0x01, 0, 0, 0, 1}}}),
         {"Fragmented IP packet - Offset: 0 More Fragments: 1 - not reassembled"});
  failed(changed(withExtensions(ipv6Hello, {hopByHop}), 5, 4),
         {"Invalid IPv6 Header - Extension Headers: 8 bytes Payload Length: 4"});

  // Join/Prunes: the tree keeps groups and sources in address order, and each kind of entry in
  // its list; a message of B groups only is read again in bidirectional mode.
  cases.push_back({Outcome::decoded,
                   ethernet(jp4(joinPrune("10.0.0.2", {{encoded("239.1.1.2"), {encoded("10.3.3.3", sgRpt)}, {}},
                                                       {encoded("239.1.1.1"), {encoded("10.1.1.1", sg), encoded("10.0.0.9", starG)},
                                                        {encoded("10.1.1.2", sgRpt), encoded("10.1.1.3", sg)}}}))),
                   "type=joinPrune | upstream=10.0.0.2, holdtime=210, numGroups=2, groups=[ group=( address=239.1.1.1, "
                   "flags=0x00 ) / join=10.1.1.1, (S,G) / join= 10.0.0.9, (*,G) / prune=10.1.1.2, (S,G,rpt) / "
                   "prune=10.1.1.3, (S,G) / group=( address=239.1.1.2, flags=0x00 ) / join=10.3.3.3, (S,G,rpt) ]",
                   {}, 0, "", {},
                   R"({"bidir":false,"upstream":"10.0.0.2","holdTime":210,"groups":[{"group":"239.1.1.1","starG":{"rp":
                   "10.0.0.9","join":true},"joinedRpt":[],"joined":["10.1.1.1"],"prunedRpt":["10.1.1.2"],"pruned":["10.1.1.3"]},
                   {"group":"239.1.1.2","starG":null,"joinedRpt":["10.3.3.3"]}],"report":{"processed":5}})"});
  cases.push_back({Outcome::decoded, ethernet(jp4(joinPrune("10.0.0.2", {{encoded("239.1.1.1", 0x80), {encoded("10.0.0.9", starG)}, {}}}))),
                   "type=joinPrune | upstream=10.0.0.2, holdtime=210, numGroups=1, groups=[ group=( address=239.1.1.1, "
                   "flags=0x80(B) ) / join= 10.0.0.9, (*,G) ]", {}, 0, "", {}, R"({"bidir":true})"});
  // Join/Prunes that fail: the decoder's notes about entries it drops on the way, and the counters
  // it traces before "Zero Valid Num Groups", are not the reason of the failure.
  const std::string zeroValid = "Invalid Pim Join/Prune - Zero Valid Num Groups";
  cases.push_back({Outcome::failed, ethernet(jp4(joinPrune("10.99.0.1", {{encoded("239.1.2.3"), {}, {}}}))), "",
                   {"Invalid Pim Join/Prune - Zero Num Sources In Group 239.1.2.3", "0, 0, 0", zeroValid}, 0, zeroValid});
  // A source that fails the address checks is skipped, with a level-1 text and a warning.
  const std::string trailing2 = "Invalid Pim Join/Prune - End of Message - Remaining: 2";
  const std::string notUnicast = "Invalid Encoded Source Address - Not Unicast - Address: 224.1.1.1";
  const Bytes multicastSource =
      joinPrune("10.99.0.1", {{encoded("239.1.2.3"), {encoded("224.1.1.1", sg), encoded("10.1.1.1", sg)}, {}}});
  cases.push_back({Outcome::failed, ethernet(jp4(concat(multicastSource, {0, 0}))), "", {notUnicast, trailing2}, 0, trailing2,
                   {notUnicast, "Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: 224.1.1.1",
                    trailing2}});
  // Read again in bidirectional mode, a message of B groups fails there for its trailing bytes.
  failed(jp4(concat(joinPrune("10.99.0.1", {{encoded("239.1.2.3", 0x80), {encoded("10.99.0.1", starG)}, {}}}), {0, 0})),
         {trailing2});
  // A value the library bounds: the failure is the library's text.
  failed(pim4(0x24, {0, 0, 129, 0, 0x01, 0x00, 10, 0, 0, 1}), {"BootstrapMessage::hashMaskLen < 0 or > 128 not allowed"});

  // Types without a decoder, and frames that carry no PIM.
  cases.push_back({Outcome::unsupported, ethernet(pim4(0x26, Bytes(8, 0))), "graft", {}});
  cases.push_back({Outcome::unsupported, ethernet(pim4(0x2c, {})), "type12", {}});
  cases.push_back({Outcome::notPim, ethernet(withExtensions(changed(ipv6Hello, 6, 58), {hopByHop})), "", {}});
  cases.push_back({Outcome::notPim, ethernet(ipv4(Bytes(12, 0), 17)), "", {}});
  cases.push_back({Outcome::notPim, ethernet(Bytes(28, 0), {}, 0x0806), "", {}});
  cases.push_back({Outcome::notPim, Bytes(10, 0xff), "", {}});
  cases.push_back({Outcome::notPim, ethernet(Bytes{0x45, 0, 0, 40, 0, 0, 0, 0, 1}), "", {}});
  return cases;
}

TEST_F(PimioCli, BadPacketsAreReportedAsTextAndJson) {
  const std::vector<PacketCase> cases = packetCases();
  std::vector<CapturedFrame> frames;
  for (const PacketCase& c : cases) frames.push_back({c.frame, c.wireLength});
  const RunResult text = decode(DLT_EN10MB, frames);
  const RunResult js = decode(DLT_EN10MB, frames, "--json");
  EXPECT_EQ(text.status, 0);
  Lines expected;
  int counts[4] = {};
  size_t next = 0;
  for (size_t i = 0; i < cases.size(); ++i) {
    const PacketCase& c = cases[i];
    ++counts[int(c.outcome)];
    if (c.outcome == Outcome::notPim) continue;
    SCOPED_TRACE("frame " + std::to_string(i + 1));
    ASSERT_LT(next, js.outLines().size());
    const json line = json::parse(js.outLines()[next++]);
    EXPECT_EQ(line["frame"], i + 1);
    const std::string n = std::to_string(i + 1) + ": ";
    if (c.outcome == Outcome::decoded) {
      expected.push_back(n + "RX: <PIM " + c.text + ">" + (c.problems.empty() ? "" : " WARNINGS: " + joined(c.problems)));
      EXPECT_EQ(line.value("warnings", json::array()), c.problems);
      EXPECT_TRUE(c.json.empty() || within(json::parse(c.json), line)) << line.dump();
    } else if (c.outcome == Outcome::failed) {
      expected.push_back(n + "FAILED: " + joined(c.problems));
      EXPECT_EQ(line["error"], c.reason.empty() ? c.problems.front() : c.reason);
      EXPECT_EQ(line["trace"], c.trace.empty() ? c.problems : c.trace);
      EXPECT_FALSE(line.contains("type"));
    } else {
      expected.push_back(n + "UNSUPPORTED " + c.text);
      EXPECT_EQ(line["type"], "unsupported");
      EXPECT_EQ(line["pimType"], c.text);
    }
  }
  EXPECT_EQ(next, js.outLines().size());
  EXPECT_EQ(text.outLines(), expected);
  EXPECT_EQ(text.errLines(), Lines{summary(counts[0], counts[1], counts[2], counts[3])});
}

// ---- Files that cannot be decoded or written ----

TEST_F(PimioCli, UnreadableFilesExitWithStatus2) {
  writeFile(path("notes.txt"), "these are not packets\n");
  writeCapture(path("ppp.pcap"), DLT_PPP, {{Bytes{0xff, 0x03, 0x00, 0x21}}});
  std::filesystem::copy_file(samplePcap, path("cut.pcap"));
  std::filesystem::resize_file(path("cut.pcap"), std::filesystem::file_size(samplePcap) - 5);
  const Lines text = decode(samplePcap).outLines();
  const struct {
    std::string command, err;  // the standard error starts with `err`
    Lines out{};
  } cases[] = {
      {"decode " + path("missing.pcap"), "pimio decode: " + path("missing.pcap") + ": No such file or directory\n"},
      {"decode " + path("notes.txt"), "pimio decode: " + path("notes.txt") + ": unknown file format\n"},
      {"decode " + path("ppp.pcap"), "pimio decode: " + path("ppp.pcap") +
                                         ": unsupported link type 9 (PPP); known: Ethernet, Linux cooked (SLL, SLL2), raw IP\n"},
      // A damaged capture: what was read, then why it ended.
      {"decode " + path("cut.pcap"), summary(9, 0, 0, 0) + "\npimio decode: " + path("cut.pcap") +
                                         ": damaged capture after frame 9: ", Lines(text.begin(), text.end() - 1)},
      {"encode --out " + path("no/dir/out.pcap") + " " + sampleJsonl, "pimio encode: " + path("no/dir/out.pcap") + ": "},
      {"encode --out " + path("out.pcap") + " " + path("missing.jsonl"), "pimio encode: " + path("missing.jsonl") + ": cannot open\n"},
  };
  for (const auto& c : cases) {
    const RunResult r = run("PIMIO " + c.command);
    EXPECT_EQ(r.status, 2) << c.command;
    EXPECT_TRUE(r.err.starts_with(c.err)) << r.err;
    EXPECT_EQ(r.outLines(), c.out);
  }
}

// ---- Encode ----

// The destination MAC of a packet not to ALL-PIM-ROUTERS (whose frames the sample shows): that of
// the group (the low 23 bits of an IPv4 group, the low 32 of an IPv6 one), a fixed one for unicast.
TEST_F(PimioCli, EncodeFramesTheMessageForItsDestination) {
  ASSERT_EQ(encode({R"({"family":4,"src":"192.0.2.1","dst":"192.0.2.99","type":"hello"})",
                    R"({"family":4,"src":"192.0.2.1","dst":"239.129.2.3","type":"hello"})",
                    R"({"family":6,"src":"fe80::1","dst":"ff02::1:ff00:abcd","type":"hello"})"}).status, 0);
  const std::vector<Bytes> frames = readCapture(path("out.pcap"));
  const Bytes macs[] = {{0x02, 0, 0, 0, 0, 0x02}, {0x01, 0x00, 0x5e, 0x01, 0x02, 0x03}, {0x33, 0x33, 0xff, 0x00, 0xab, 0xcd}};
  ASSERT_EQ(frames.size(), std::size(macs));
  for (size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(Bytes(frames[i].begin(), frames[i].begin() + 6), macs[i]);
  EXPECT_EQ(Bytes(frames[0].begin() + 30, frames[0].begin() + 34), (Bytes{192, 0, 2, 99}));
}

// What encode says of each line; what decode prints of the packets it writes: the text where the
// row gives one, else a JSON line that holds every member of the input line. What decode --json
// prints encodes to the same packets again.
TEST_F(PimioCli, EncodeReportsEveryLine) {
  const std::string v4 = R"({"family":4,"src":"192.0.2.1","type":"hello",)";
  const std::string jp = R"({"family":4,"src":"10.0.0.1","type":"joinPrune","upstream":"10.0.0.2",)";
  const std::string df = R"({"family":4,"src":"10.0.0.2","type":"dfElection","rpAddress":"10.0.0.9",)";
  const struct {
    std::string line;
    std::string report;  // "" for a line encoded without a word
    std::string text{};  // what decode prints of the line's packet after "N: "
  } cases[] = {
      {v4 + R"("lanPruneDelayOption":true,"tBit":true,"propagationDelay":300})", "",
       "RX: <PIM type=hello | Option: tbit=true, propagationDelay=300, override=0>"},
      {v4 + R"("lanPruneDelayOption":true,"implPropagationDelay":100,"tBit":true,"propagationDelay":300})", "",
       "RX: <PIM type=hello | Option: tbit=false, propagationDelay=100, override=0>"},
      {"   ", ""},  // blank lines are passed over
      {"not json", "FAILED: bad JSON: "},
      {R"({"family":4,"src":"192.0.2.1"})", R"(FAILED: missing "type")"},
      {R"({"family":6,"src":"192.0.2.1","type":"hello"})", R"(FAILED: src: expected an IPv6 address, got "192.0.2.1")"},
      {R"({"family":4,"src":"192.0.2.1","type":"graft"})", R"(FAILED: type: no encoder for "graft")"},
      {v4 + R"("holdTime":65536})", "FAILED: holdTime: expected an unsigned integer up to 65535, got 65536"},
      {v4 + R"("tcpConnectionId":"10.0.0"})", R"(FAILED: tcpConnectionId: expected an IPv4 or IPv6 address or null, got "10.0.0")"},
      {v4 + R"("propagationDelay":32768})", "FAILED: propagationDelay: HelloPropagationDelay::value < "
                                             "HelloPropagationDelay::min or > HelloPropagationDelay::max not allowed"},
      {v4 + R"("secondaryAddr":["2001:db8::1"]})", "FAILED: Invalid Pim Hello - Address List Option - Family: ipv6 Address: 2001:db8::1"},
      {jp + R"("groups":[{"group":"239.1.1.1","joins":[]}]})", R"(FAILED: groups: group 1: unknown member "joins")"},
      {jp + R"("groups":[{"group":"239.1.1.1","starG":"10.0.0.9"}]})",
       R"(FAILED: groups: group 1: starG: expected {"rp":ADDR,"join":BOOL} or null, got "10.0.0.9")"},
      {jp + R"("groups":[{"group":"239.1.1.1","joined":["10.1.1.1"]},{"group":"239.1.1.1"}]})",
       "FAILED: groups: group 2: group 239.1.1.1 is listed twice"},
      // Groups that the encoder filters are named when nothing is left to write.
      {jp + R"("groups":[{"group":"239.1.1.1","groupFlags":128,"joined":["10.1.1.1"]}]})",
       "FAILED: Pim Join/Prune - Bidirectional Filter - Filtered Group Address: 239.1.1.1 Bidirectional: 1 "
       "Msg Bidirectional Support: 0; Invalid Pim Join/Prune - Zero Num Groups"},
      // Entries the encoder leaves out are reported with a line that is still encoded.
      {jp + R"("periodic":true,"groups":[{"group":"239.1.1.1","starG":{"rp":"10.0.0.9","join":false},"joined":["10.1.1.1"]}]})",
       "dropped: Invalid Pim Join/Prune - Periodic (*,G)-Prune",
       "RX: <PIM type=joinPrune | upstream=10.0.0.2, holdtime=0, numGroups=1, groups=[ group=( address=239.1.1.1, "
       "flags=0x00 ) / join=10.1.1.1, (S,G) ]>"},
      // The encoder reads back what it writes; a packet no receiver would take ends the message.
      {jp + R"("mtu":60,"groups":[{"group":"239.1.1.1","joined":["0.0.0.0"]},{"group":"239.1.1.2","joined":["10.1.1.1"]}]})",
       "dropped: Invalid Pim Join/Prune - Debug Error - Read Error On TX Packet",
       "FAILED: Invalid Encoded Source Address - All Zeros - Address: 0.0.0.0; Invalid Pim Join/Prune - Zero Num "
       "Sources In Group 239.1.1.1; 0, 0, 0; Invalid Pim Join/Prune - Zero Valid Num Groups"},
      // Every other type goes both ways in the tshark oracle's suite; here what it refuses, and a DF
      // election whose class follows the subtype in "reserved" (each class takes only its own attributes).
      {R"({"family":4,"src":"10.0.0.1","type":"bootstrap","hashMaskLen":129,"bsrAddress":"10.0.0.1"})",
       "FAILED: hashMaskLen: BootstrapMessage::hashMaskLen < 0 or > 128 not allowed"},
      {R"({"family":6,"src":"fe80::2","type":"dfElection","reserved":64,"rpAddress":"2001:db8::9",)"
       R"("winningAddress":"2001:db8::3","winningMetricPreference":100,"winningMetric":10})", ""},
      {df + R"("dfElectionType":"dfElectionWinner","interval":5})", R"(FAILED: unknown attribute "interval")"},
      {df + R"("dfElectionType":"dfElectionRunnerUp"})", "FAILED: dfElectionType: expected dfElectionOffer, "
                                                         "dfElectionWinner, dfElectionBackoff or dfElectionPass, got \"dfElectionRunnerUp\""},
      // What decode --json prints for packets it could not decode.
      {R"({"frame":3,"family":4,"src":"192.0.2.1","dst":"224.0.0.13","error":"x","trace":["x"]})",
       "skipped: a packet that failed to decode"},
      {R"({"frame":4,"family":4,"src":"192.0.2.1","dst":"224.0.0.13","type":"unsupported","pimType":"joinPrune"})",
       "skipped: unsupported message type joinPrune"},
  };
  Lines input, reports;
  int encoded = 0, failed = 0, skipped = 0;
  for (size_t i = 0; i < std::size(cases); ++i) {
    input.push_back(cases[i].line);
    if (!cases[i].report.empty()) reports.push_back("line " + std::to_string(i + 1) + ": " + cases[i].report);
    failed += cases[i].report.starts_with("FAILED");
    skipped += cases[i].report.starts_with("skipped");
    encoded += cases[i].line != "   " && (cases[i].report.empty() || cases[i].report.starts_with("dropped"));
  }
  RunResult r = encode(input);
  EXPECT_EQ(r.status, 1);
  const Lines errors = r.errLines();
  ASSERT_EQ(errors.size(), reports.size() + 1) << r.err;
  for (size_t i = 0; i < reports.size(); ++i) {
    // The JSON parser's own message follows "bad JSON: ".
    EXPECT_EQ(errors[i].substr(0, reports[i].ends_with(": ") ? reports[i].size() : std::string::npos), reports[i]);
  }
  EXPECT_EQ(errors.back(), "encoded " + std::to_string(encoded) + ", failed " + std::to_string(failed) + ", skipped " +
                               std::to_string(skipped));
  const Lines text = decode(path("out.pcap")).outLines();
  r = decode(path("out.pcap"), "--json");
  const Lines lines = r.outLines();
  ASSERT_EQ(lines.size(), size_t(encoded));
  size_t frame = 0;
  for (const auto& c : cases) {
    if (c.line == "   " || !(c.report.empty() || c.report.starts_with("dropped"))) continue;
    const std::string n = std::to_string(++frame) + ": ";
    if (c.text.empty()) {
      EXPECT_TRUE(within(json::parse(c.line), json::parse(lines[frame - 1]))) << c.line << "\n" << lines[frame - 1];
    } else {
      EXPECT_EQ(text[frame - 1], n + c.text);
    }
  }
  writeFile(path("again.jsonl"), r.out);
  r = run("PIMIO encode -o " + quoted(path("again.pcap")) + " " + quoted(path("again.jsonl")));
  EXPECT_EQ(r.errLines(), (Lines{"line 4: skipped: a packet that failed to decode",
                                 "encoded " + std::to_string(encoded - 1) + ", failed 0, skipped 1"}));
  std::vector<Bytes> before = readCapture(path("out.pcap"));
  before.erase(before.begin() + 3);  // the Join/Prune that does not decode
  EXPECT_EQ(readCapture(path("again.pcap")), before);
}

// A tree too big for one packet goes out in as many as it takes, none bigger than the MTU, and
// together they carry every entry.
TEST_F(PimioCli, JoinPruneTreeIsSplitIntoPacketsOfTheMtu) {
  json groups = json::array();
  for (int g = 1; g <= 9; ++g) {
    json sources = json::array();
    for (int s = 1; s <= 6; ++s) sources.push_back("10." + std::to_string(g) + "." + std::to_string(s) + ".1");
    groups.push_back({{"group", "239.1." + std::to_string(g) + ".1"}, {"starG", {{"rp", "10.0.0.9"}}}, {"joined", sources}});
  }
  const json line = {{"family", 4}, {"src", "10.0.0.1"}, {"type", "joinPrune"}, {"upstream", "10.0.0.2"},
                     {"mtu", 200}, {"groups", groups}};
  EXPECT_EQ(encode({line.dump()}).errLines(), Lines{"encoded 1, failed 0, skipped 0, packets 5"});
  int entries = 0;
  for (const Bytes& f : readCapture(path("out.pcap"))) EXPECT_LE(f.size() - 14, 200u);
  for (const std::string& l : decode(path("out.pcap"), "--json").outLines()) entries += json::parse(l)["report"]["processed"].get<int>();
  EXPECT_EQ(entries, 9 * 7);
}

// ---- Command line ----

TEST_F(PimioCli, UsageErrorsExitWith2AndHelpWith0) {
  const struct {
    const char* args;
    int status;
    const char* says;  // on standard output for help, standard error otherwise
  } cases[] = {
      {"", 2, "A subcommand is required"},
      {"--trace PimMessage decode x", 2, "--trace: expected UNIT=LEVEL,..."},
      {"decode", 2, "FILE is required"},
      {"encode in.jsonl", 2, "--out is required"},
      {"--help", 0, "--trace UNIT=LEVEL,..."},
      {"decode --help", 0, "Exit status: 0 when the capture was read to its end"},
      {"encode --help", 0, "\"mtu\"          the largest IP packet to make, default 1500"},
  };
  for (const auto& c : cases) {
    const RunResult r = run(std::string("PIMIO ") + c.args);
    EXPECT_EQ(r.status, c.status) << c.args;
    EXPECT_NE((c.status ? r.err : r.out).find(c.says), std::string::npos) << c.args;
  }
}

}  // namespace
}  // namespace PimioTest
