// Packets sent by FRRouting's pimd, decoded by pimio: from the captures kept in samples/ and, where
// the machine allows it (root, frr, tcpdump, python3), made live by scripts/frr-capture in network
// namespaces. Its scenarios:
//   hellos:    routers saying Hello every second; odd routers list a secondary IPv4 address, and
//              every router its IPv6 link-local address, which an IPv4 Hello skips with a warning.
//   joinprune: r2 joins (*,239.1.2.3) toward the RP r1 (10.99.0.1) for a receiver behind it, and
//              (S,G) toward the source 10.66.0.2 behind r1 once traffic flows.
//   register:  a source (10.66.0.2, to 239.1.2.3) behind r2, which is not the RP; r2 registers with
//              r1, which has no receiver and answers Register-Stop; r2 then probes with Null-Registers.
//   assert:    r1 and r2 both reach the source 10.66.0.100 and both forward it onto the LAN, where
//              they elect the forwarder with Asserts.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/tools/CliTestSupport.h"

namespace {

using Json = nlohmann::json;
using PimioTest::quoted;
using PimioTest::RunResult;
using Lines = std::vector<Json>;

constexpr const char* kGroup = "239.1.2.3";
constexpr const char* kRp = "10.99.0.1";

Lines ofType(const Lines& lines, const std::string& type) {
  Lines out;
  for (const Json& l : lines) {
    if (l.value("type", "") == type) out.push_back(l);
  }
  return out;
}


class Frr : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("pimio_frr_" + std::to_string(getpid()));
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  RunResult run(const std::string& command) const { return PimioTest::sh(dir_.string(), command); }

  // Decodes a capture as JSON Lines; every PIM packet must decode.
  Lines decode(const std::string& capture) const {
    const RunResult r = run("PIMIO decode --json " + quoted(capture));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find(", failed 0, unsupported 0,"), std::string::npos) << r.err;
    Lines lines;
    for (const std::string& l : r.outLines()) lines.push_back(Json::parse(l));
    return lines;
  }
  Lines committed(const std::string& name) const { return decode(std::string(PIMIO_SAMPLES) + "/frr-" + name + ".pcap"); }

  // The packets of a live scenario into `lines`; none if the lab cannot run here (the test skips, or fails under CI).
  void live(Lines& lines, const std::string& scenario, int seconds, const std::string& more = "") {
    std::string missing = geteuid() == 0 ? "" : "root (network namespaces)";
    for (const char* path : {"/usr/lib/frr/pimd", "/usr/lib/frr/zebra", "/usr/bin/tcpdump", "/usr/sbin/ip"}) {
      if (missing.empty() && !std::filesystem::exists(path)) missing = path;
    }
    if (missing.empty() && !PimioTest::haveProgram("python3")) missing = "python3";
    if (!missing.empty()) {
      if (PimioTest::underCi()) {
        ADD_FAILURE() << "needs " << missing;
      } else {
        GTEST_SKIP() << "needs " << missing << " (install frr, tcpdump and python3, run as root)";
      }
      return;
    }
    const std::string file = (dir_ / (scenario + ".pcap")).string();
    const RunResult r = run("timeout 120 " + quoted(std::string(PIMIO_SCRIPTS) + "/frr-capture") + " --scenario " +
                            scenario + more + " --seconds " + std::to_string(seconds) + " " + quoted(file));
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    lines = decode(file);
  }

  // pimio's JSON lines of the packets of `type`, encoded and decoded again, are what they were.
  void comeBack(const Lines& lines, const std::string& type, const std::vector<std::string>& members) {
    std::string input;
    Lines before;
    for (const Json& l : ofType(lines, type)) {
      if (type == "register" && l["null"] == true) continue;  // a Null-Register's header is the codec's own
      input += l.dump() + "\n";
      before.push_back(l);
    }
    PimioTest::writeFile((dir_ / "in.jsonl").string(), input);
    const RunResult r = run("PIMIO encode -o " + quoted((dir_ / "again.pcap").string()) + " " + quoted((dir_ / "in.jsonl").string()));
    ASSERT_EQ(r.status, 0) << r.err;
    const Lines after = decode((dir_ / "again.pcap").string());
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) {
      for (const std::string& m : members) EXPECT_EQ(after[i][m], before[i][m]) << m;
    }
  }

  std::filesystem::path dir_;
};

// What every Hello of pimd shows, and the address lists of the lab's routers.
void expectHellos(const Lines& lines, size_t atLeast) {
  const Lines hellos = ofType(lines, "hello");
  ASSERT_GE(hellos.size(), atLeast);
  size_t secondary = 0, skipped = 0;
  for (const Json& l : hellos) {
    SCOPED_TRACE(l.dump());
    EXPECT_EQ(l["dst"], "224.0.0.13");
    for (const char* option : {"holdTimeOption", "drPriorityOption", "generationIdOption", "lanPruneDelayOption"}) {
      EXPECT_EQ(l[option], true) << option;
    }
    for (const Json& a : l["secondaryAddr"]) secondary += a.get<std::string>().starts_with("10.98.0.");
    for (const Json& w : l.value("warnings", Json::array())) {
      skipped += w.get<std::string>().starts_with(
          "Warning: Pim Hello - Address List Option - Family: ipv4 Skipping Address: fe80::");
    }
  }
  EXPECT_GT(secondary, 0u);
  EXPECT_GT(skipped, 0u);
}

// r2's Join/Prunes to its RPF neighbor r1 for the one group: the (*,G) join toward the RP, the
// (S,G) join toward the source, nothing dropped, holdtime 3.5 times the period of 2 seconds.
void expectJoins(const Lines& lines, int atLeast, bool sg) {
  const Lines joins = ofType(lines, "joinPrune");
  ASSERT_GE(joins.size(), size_t(atLeast));
  int starGs = 0, sgs = 0;
  for (const Json& l : joins) {
    SCOPED_TRACE(l.dump());
    EXPECT_EQ(l["src"], "10.99.0.2");
    EXPECT_EQ(l["upstream"], kRp);
    EXPECT_EQ(l["holdTime"], 7);
    EXPECT_EQ(l["report"], (Json{{"processed", l["report"]["processed"]}, {"suppressed", 0}, {"filtered", 0}}));
    ASSERT_EQ(l["groups"].size(), 1u);
    const Json& g = l["groups"][0];
    EXPECT_EQ(g["group"], kGroup);
    if (!g["starG"].is_null()) starGs += g["starG"] == Json{{"rp", kRp}, {"join", true}};
    for (const Json& s : g["joined"]) sgs += s == "10.66.0.2";
  }
  EXPECT_GE(starGs, 1);
  if (sg) {
    EXPECT_GE(sgs, 1);
  }
}

// The data Register carries the source's UDP packet (version 4, protocol 17) to the group; a
// Null-Register a bare dummy header; the RP's Register-Stop names the group and the source.
void expectRegisters(const Lines& lines, bool null) {
  int data = 0, nulls = 0;
  for (const Json& l : ofType(lines, "register")) {
    SCOPED_TRACE(l.dump());
    EXPECT_EQ(l["innerSrc"], "10.66.0.2");
    EXPECT_EQ(l["innerGroup"], kGroup);
    EXPECT_EQ(l["border"], false);
    if (l["null"] == true) {
      EXPECT_TRUE(l["inner"].is_null());
      ++nulls;
    } else {
      EXPECT_EQ(l["inner"].get<std::string>().substr(0, 1) + l["inner"].get<std::string>().substr(18, 2), "411");
      ++data;
    }
  }
  EXPECT_GE(data, 1);
  if (null) {
    EXPECT_GE(nulls, 1);
  }
  const Lines stops = ofType(lines, "registerStop");
  EXPECT_GE(stops.size(), 1u) << "the RP sent no Register-Stop";
  for (const Json& l : stops) EXPECT_EQ(l["group"].get<std::string>() + " " + l["source"].get<std::string>(), "239.1.2.3 10.66.0.2");
}

// (S,G) Asserts between routers that reach the source alike.
void expectAsserts(const Lines& lines) {
  const Lines asserts = ofType(lines, "assert");
  ASSERT_GE(asserts.size(), 1u) << "no router asserted";
  for (const Json& l : asserts) {
    EXPECT_EQ(l["dst"], "224.0.0.13");
    EXPECT_EQ(l["group"], kGroup);
    EXPECT_EQ(l["source"], "10.66.0.100");
    EXPECT_EQ(l["groupFlags"], 0);
    EXPECT_EQ(l["rpt"], false);
  }
  EXPECT_GE(ofType(lines, "joinPrune").size(), 1u);
}

TEST_F(Frr, CommittedHellos) {
  const Lines lines = committed("hellos");
  expectHellos(lines, 8);
  for (const Json& l : lines) EXPECT_EQ(l["holdTime"], 3);  // 3.5 times the Hello period of 1 second
}

// pimd orders a group's joins its own way, so the bytes encoded again may differ; the trees not.
TEST_F(Frr, CommittedJoinPrunes) {
  const Lines lines = committed("joinprune");
  EXPECT_EQ(ofType(lines, "hello").size() + ofType(lines, "joinPrune").size(), lines.size()) << "other types";
  expectHellos(lines, 8);
  expectJoins(lines, 3, true);
  comeBack(lines, "joinPrune", {"groups", "upstream", "holdTime", "reserved", "reserved2", "report"});
}

TEST_F(Frr, CommittedRegisters) {
  const Lines lines = committed("register");
  expectRegisters(lines, true);
  comeBack(lines, "register", {"src", "dst", "type", "inner", "innerSrc", "innerGroup", "null", "border"});
  comeBack(lines, "registerStop", {"src", "dst", "group", "source", "groupFlags"});
}

TEST_F(Frr, CommittedAsserts) { expectAsserts(committed("assert")); }

TEST_F(Frr, LiveHellos) {
  Lines lines;
  live(lines, "hellos", 4, " --routers 3");
  if (!lines.empty()) expectHellos(lines, 9);  // 3 routers, 4 seconds
}
TEST_F(Frr, LiveJoinPrunes) {
  Lines lines;
  live(lines, "joinprune", 8);
  if (!lines.empty()) expectJoins(lines, 1, false);
}
TEST_F(Frr, LiveRegisters) {
  Lines lines;
  live(lines, "register", 13);
  if (!lines.empty()) expectRegisters(lines, false);
}
TEST_F(Frr, LiveAsserts) {
  Lines lines;
  live(lines, "assert", 10);
  if (!lines.empty()) expectAsserts(lines);
}

}  // namespace
