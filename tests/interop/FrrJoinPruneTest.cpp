// Join/Prunes sent by FRRouting's pimd, decoded by pimio: the capture kept in samples/ and, where
// the machine allows it, one made live by scripts/frr-capture's joinprune scenario. There r2 joins
// (*,239.1.2.3) toward the RP r1 (10.99.0.1) for a receiver behind it, and (S,G) toward the
// source 10.66.0.2 behind r1 once traffic flows.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/tools/CliTestSupport.h"

namespace {

using Json = nlohmann::json;
using PimioTest::quoted;
using PimioTest::RunResult;

constexpr const char* kGroup = "239.1.2.3";
constexpr const char* kRp = "10.99.0.1";
constexpr const char* kSource = "10.66.0.2";

class FrrJoinPrune : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("pimio_frr_jp_" + std::to_string(getpid()));
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  RunResult run(const std::string& command) const { return PimioTest::sh(dir_.string(), command); }

  // Decodes a capture as JSON Lines; every PIM packet must decode.
  std::vector<Json> decodeJson(const std::string& capture) const {
    const RunResult r = run("PIMIO decode --json " + quoted(capture));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find(", failed 0,"), std::string::npos) << r.err;
    std::vector<Json> lines;
    for (const std::string& l : r.outLines()) lines.push_back(Json::parse(l));
    return lines;
  }

  std::filesystem::path dir_;
};

// The number of packets of each type ("hello", "joinPrune", "unsupported").
std::map<std::string, int> countByType(const std::vector<Json>& lines) {
  std::map<std::string, int> counts;
  for (const Json& l : lines) {
    EXPECT_FALSE(l.contains("error")) << l.dump();
    ++counts[l.value("type", std::string("failed"))];
  }
  return counts;
}

int countOf(const std::map<std::string, int>& counts, const std::string& type) {
  const auto it = counts.find(type);
  return it == counts.end() ? 0 : it->second;
}

// What pimd's Join/Prunes hold: sent by r2 to its RPF neighbor r1 on the LAN, for the one group,
// with the (*,G) join toward the RP and the (S,G) join toward the source; nothing dropped.
// Returns how many hold a (*,G) join and how many an (S,G) join.
std::pair<int, int> expectPimdJoins(const std::vector<Json>& lines) {
  int starG = 0, sg = 0;
  for (const Json& l : lines) {
    if (l["type"] != "joinPrune") continue;
    SCOPED_TRACE(l.dump());
    EXPECT_EQ(l["src"], "10.99.0.2");
    EXPECT_EQ(l["dst"], "224.0.0.13");
    EXPECT_EQ(l["upstream"], kRp);
    EXPECT_EQ(l["bidir"], false);
    // 3.5 times the join/prune period of 2 seconds.
    EXPECT_EQ(l["holdTime"], 7);
    EXPECT_EQ(l["report"]["suppressed"], 0);
    EXPECT_EQ(l["report"]["filtered"], 0);
    EXPECT_FALSE(l.contains("warnings"));
    if (l["groups"].size() != 1) {
      ADD_FAILURE() << "expected one group";
      continue;
    }
    const Json& g = l["groups"][0];
    EXPECT_EQ(g["group"], kGroup);
    EXPECT_EQ(g["groupFlags"], 0);
    if (!g["starG"].is_null()) {
      EXPECT_EQ(g["starG"], (Json{{"rp", kRp}, {"join", true}}));
      ++starG;
    }
    for (const Json& s : g["joined"]) {
      EXPECT_EQ(s, kSource);
      ++sg;
    }
    EXPECT_TRUE(g["joinedRpt"].empty());
  }
  return {starG, sg};
}

TEST_F(FrrJoinPrune, CommittedCaptureDecodesWithoutFailure) {
  const std::vector<Json> lines = decodeJson(std::string(PIMIO_SAMPLES) + "/frr-joinprune.pcap");
  const std::map<std::string, int> counts = countByType(lines);
  EXPECT_EQ(countOf(counts, "hello") + countOf(counts, "joinPrune"), int(lines.size())) << "other types than these two";
  // Two routers saying Hello every second, and r2's joins: triggered, then every 2 seconds.
  EXPECT_GE(countOf(counts, "hello"), 8);
  EXPECT_GE(countOf(counts, "joinPrune"), 3);
  const auto [starG, sg] = expectPimdJoins(lines);
  EXPECT_GE(starG, 1);
  EXPECT_GE(sg, 1);
}

// pimd's packets, decoded and encoded again by pimio, carry the same tree (pimd orders a group's
// joins its own way, so the bytes may differ).
TEST_F(FrrJoinPrune, CommittedCaptureEncodesToTheSameTrees) {
  const std::string sample = std::string(PIMIO_SAMPLES) + "/frr-joinprune.pcap";
  const std::string again = (dir_ / "again.pcap").string();
  const RunResult r = run("PIMIO decode --json " + quoted(sample) + " | grep '\"joinPrune\"' | PIMIO encode -o " +
                          quoted(again));
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<Json> before;
  for (Json& l : decodeJson(sample)) {
    if (l["type"] == "joinPrune") before.push_back(l);
  }
  const std::vector<Json> after = decodeJson(again);
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = 0; i < after.size(); ++i) {
    for (const char* member : {"groups", "upstream", "holdTime", "reserved", "reserved2", "report"}) {
      EXPECT_EQ(after[i][member], before[i][member]) << member;
    }
  }
}

TEST_F(FrrJoinPrune, LiveRoutersInNamespacesDecodeWithoutFailure) {
  std::string missing;
  if (geteuid() != 0) missing = "root (network namespaces)";
  for (const char* path : {"/usr/lib/frr/pimd", "/usr/lib/frr/zebra", "/usr/bin/tcpdump", "/usr/sbin/ip"}) {
    if (missing.empty() && !std::filesystem::exists(path)) missing = path;
  }
  if (missing.empty() && !PimioTest::haveProgram("python3")) missing = "python3";
  if (!missing.empty()) {
    if (PimioTest::underCi()) FAIL() << "needs " << missing;
    GTEST_SKIP() << "needs " << missing << " (install frr, tcpdump and python3, run as root)";
  }
  const std::string capture = (dir_ / "frr-live.pcap").string();
  const RunResult r = run("timeout 90 " + quoted(std::string(PIMIO_SCRIPTS) + "/frr-capture") +
                          " --scenario joinprune --seconds 8 " + quoted(capture));
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const std::vector<Json> lines = decodeJson(capture);
  const std::map<std::string, int> counts = countByType(lines);
  EXPECT_GE(countOf(counts, "hello"), 8);
  ASSERT_GE(countOf(counts, "joinPrune"), 1) << "pimd sent no Join/Prune";
  EXPECT_GE(expectPimdJoins(lines).first, 1) << "no (*,G) join";
}

}  // namespace
