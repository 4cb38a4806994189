// Registers, Register-Stops and Asserts sent by FRRouting's pimd, decoded by pimio: from the
// captures kept in samples/ and, where the machine allows it, made live by scripts/frr-capture.
//   register: a source (10.66.0.2, to 239.1.2.3) behind r2, which is not the RP; r2 registers
//             with the RP r1 (10.99.0.1), which has no receiver and answers Register-Stop; r2
//             then probes with Null-Registers.
//   assert:   r1 and r2 both reach the source 10.66.0.100 and both forward it onto the LAN, where
//             they elect the forwarder with Asserts.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
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

class FrrRegisterAssert : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("pimio_frr_ra_" + std::to_string(getpid()));
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  RunResult run(const std::string& command) const { return PimioTest::sh(dir_.string(), command); }

  // Decodes a capture as JSON Lines; every PIM packet must decode.
  std::vector<Json> decodeJson(const std::string& capture) const {
    const RunResult r = run("PIMIO decode --json " + quoted(capture));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find(", failed 0, unsupported 0,"), std::string::npos) << r.err;
    std::vector<Json> lines;
    for (const std::string& l : r.outLines()) lines.push_back(Json::parse(l));
    return lines;
  }

  // What the live lab needs and this machine lacks; empty when it can run.
  static std::string labMissing() {
    if (geteuid() != 0) return "root (network namespaces)";
    for (const char* path : {"/usr/lib/frr/pimd", "/usr/lib/frr/zebra", "/usr/bin/tcpdump", "/usr/sbin/ip"}) {
      if (!std::filesystem::exists(path)) return path;
    }
    if (!PimioTest::haveProgram("python3")) return "python3";
    return "";
  }

  std::vector<Json> capture(const std::string& scenario, int seconds) {
    const std::string file = (dir_ / (scenario + ".pcap")).string();
    const RunResult r = run("timeout 120 " + quoted(std::string(PIMIO_SCRIPTS) + "/frr-capture") + " --scenario " +
                            scenario + " --seconds " + std::to_string(seconds) + " " + quoted(file));
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    return decodeJson(file);
  }

  std::filesystem::path dir_;
};

// The packets of each type, printed for the record and returned.
std::map<std::string, int> countsByType(const std::vector<Json>& lines, const std::string& what) {
  std::map<std::string, int> counts;
  for (const Json& l : lines) ++counts[l.value("type", std::string("failed"))];
  std::cout << "[ COUNTS   ] " << what << ":";
  for (const auto& [type, n] : counts) std::cout << " " << type << " " << n;
  std::cout << std::endl;
  return counts;
}

std::vector<Json> ofType(const std::vector<Json>& lines, const std::string& type) {
  std::vector<Json> out;
  for (const Json& l : lines) {
    EXPECT_FALSE(l.contains("error")) << l.dump();
    if (l["type"] == type) out.push_back(l);
  }
  return out;
}

// What pimd's Registers and Register-Stops hold: the data Register carries the source's UDP
// packet to the group; a Null-Register carries a bare dummy header; the Register-Stop names the
// group and the source. Returns the number of data and of Null-Registers.
std::pair<int, int> expectRegisters(const std::vector<Json>& lines, const char* source) {
  int data = 0, null = 0;
  for (const Json& l : ofType(lines, "register")) {
    SCOPED_TRACE(l.dump());
    EXPECT_EQ(l["innerSrc"], source);
    EXPECT_EQ(l["innerGroup"], kGroup);
    EXPECT_EQ(l["border"], false);
    EXPECT_FALSE(l.contains("warnings"));
    if (l["null"] == true) {
      EXPECT_TRUE(l["inner"].is_null());
      ++null;
    } else {
      // The inner packet is handed on from its IP header: version 4, UDP (protocol 17).
      const std::string inner = l["inner"];
      EXPECT_EQ(inner.substr(0, 1), "4");
      EXPECT_EQ(inner.substr(18, 2), "11");
      ++data;
    }
  }
  const std::vector<Json> stops = ofType(lines, "registerStop");
  EXPECT_GE(stops.size(), 1u) << "the RP sent no Register-Stop";
  for (const Json& l : stops) {
    EXPECT_EQ(l["group"], kGroup);
    EXPECT_EQ(l["source"], source);
  }
  return {data, null};
}

void expectAsserts(const std::vector<Json>& lines) {
  const std::vector<Json> asserts = ofType(lines, "assert");
  ASSERT_GE(asserts.size(), 1u) << "no router asserted";
  for (const Json& l : asserts) {
    SCOPED_TRACE(l.dump());
    EXPECT_EQ(l["dst"], "224.0.0.13");
    EXPECT_EQ(l["group"], kGroup);
    EXPECT_EQ(l["source"], "10.66.0.100");
    EXPECT_EQ(l["groupFlags"], 0);
    // An (S,G) assert between routers that reach the source alike.
    EXPECT_EQ(l["rpt"], false);
  }
}

TEST_F(FrrRegisterAssert, CommittedRegisterCaptureDecodesWithoutFailure) {
  const std::vector<Json> lines = decodeJson(std::string(PIMIO_SAMPLES) + "/frr-register.pcap");
  const auto [data, null] = expectRegisters(lines, "10.66.0.2");
  EXPECT_GE(data, 1);
  EXPECT_GE(null, 1);
}

TEST_F(FrrRegisterAssert, CommittedAssertCaptureDecodesWithoutFailure) {
  const std::vector<Json> lines = decodeJson(std::string(PIMIO_SAMPLES) + "/frr-assert.pcap");
  expectAsserts(lines);
  EXPECT_GE(ofType(lines, "joinPrune").size(), 1u);
}

// Data Registers and Register-Stops encoded from what decode prints decode to the same lines.
TEST_F(FrrRegisterAssert, CommittedDataRegistersAndStopsComeBackFromTheirJson) {
  const std::string sample = std::string(PIMIO_SAMPLES) + "/frr-register.pcap";
  const std::string again = (dir_ / "again.pcap").string();
  const RunResult r = run("PIMIO decode --json " + quoted(sample) +
                          " | grep -e '\"null\":false' -e '\"registerStop\"' | PIMIO encode -o " + quoted(again));
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<Json> before;
  for (const Json& l : decodeJson(sample)) {
    if (l["type"] == "registerStop" || (l["type"] == "register" && l["null"] == false)) before.push_back(l);
  }
  const std::vector<Json> after = decodeJson(again);
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = 0; i < after.size(); ++i) {
    Json a = after[i], b = before[i];
    a.erase("frame");
    b.erase("frame");
    EXPECT_EQ(a, b);
  }
}

TEST_F(FrrRegisterAssert, LiveRegistersDecodeWithoutFailure) {
  if (const std::string missing = labMissing(); !missing.empty()) {
    if (PimioTest::underCi()) FAIL() << "needs " << missing;
    GTEST_SKIP() << "needs " << missing << " (install frr, tcpdump and python3, run as root)";
  }
  const std::vector<Json> lines = capture("register", 13);
  const std::map<std::string, int> counts = countsByType(lines, "live register lab");
  EXPECT_EQ(counts.count("failed"), 0u);
  const auto [data, null] = expectRegisters(lines, "10.66.0.2");
  EXPECT_GE(data, 1) << "pimd sent no data Register";
}

TEST_F(FrrRegisterAssert, LiveAssertsDecodeWithoutFailure) {
  if (const std::string missing = labMissing(); !missing.empty()) {
    if (PimioTest::underCi()) FAIL() << "needs " << missing;
    GTEST_SKIP() << "needs " << missing << " (install frr, tcpdump and python3, run as root)";
  }
  // Four routers, a source and receivers: besides the Asserts, pimd sends Hellos, Join/Prunes,
  // and Registers that the RP stops.
  const std::vector<Json> lines = capture("assert", 10);
  const std::map<std::string, int> counts = countsByType(lines, "live assert lab");
  EXPECT_EQ(counts.count("failed"), 0u);
  for (const char* type : {"hello", "joinPrune"}) EXPECT_GE(counts.count(type), 1u) << "no " << type;
  expectAsserts(lines);
}

}  // namespace
