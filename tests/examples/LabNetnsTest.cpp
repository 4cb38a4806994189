// pimio lab from end to end: FRRouting's pimd and the example agents on one LAN, every step passed
// within its time, the agents' counts in the summary, and nothing of the lab left behind; a lab
// that cannot pass names the step that failed, and is removed all the same.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/tools/CliTestSupport.h"

namespace {

using nlohmann::json;

class Lab : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string missing;
    if (::geteuid() != 0) missing = "root (network namespaces)";
    for (const char* p : {"/usr/lib/frr/zebra", "/usr/lib/frr/pimd", "/usr/bin/vtysh"}) {
      if (missing.empty() && ::access(p, X_OK) != 0) missing = std::string(p) + " (Debian package frr)";
    }
    if (missing.empty()) return;
    if (PimioTest::underCi()) FAIL() << "the lab needs " << missing;
    GTEST_SKIP() << "the lab needs " << missing;
  }

  // Runs the lab with `args`; its summary, and its exit status in `status`.
  json lab(const std::string& args, int& status) {
    dir_ = std::filesystem::temp_directory_path() / ("pimio_lab_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_);
    const auto r = PimioTest::sh(dir_.string(), "PIMIO lab --json " + args);
    std::filesystem::remove_all(dir_);
    status = r.status;
    const json s = json::parse(r.out, nullptr, false);
    EXPECT_TRUE(s.is_object()) << r.out << r.err;
    progress_ = r.err;
    return s.is_object() ? s : json::object();
  }

  // Nothing of the lab `tag` is left: no namespace, no counter table.
  static void removed(const std::string& tag) {
    ASSERT_FALSE(tag.empty());
    const auto netns = PimioTest::sh("/tmp", "ip netns list");
    EXPECT_EQ(netns.out.find(tag + "-"), std::string::npos) << netns.out;
    for (const auto& e : std::filesystem::directory_iterator("/dev/shm")) {
      EXPECT_EQ(e.path().filename().string().find(tag), std::string::npos) << e.path();
    }
  }

  std::filesystem::path dir_;
  std::string progress_;  // the lab's progress lines
};

TEST_F(Lab, EveryStepPasses) {
  int status = -1;
  const json s = lab("--timeout 150", status);
  EXPECT_EQ(status, 0) << s.dump(1);
  EXPECT_EQ(s.value("result", ""), "pass");
  EXPECT_EQ(progress_.find("FAIL"), std::string::npos) << progress_;
  std::vector<std::string> names;
  for (const json& step : s["steps"]) {
    names.push_back(step.value("name", ""));
    EXPECT_TRUE(step.value("ok", false)) << step.dump();
    EXPECT_LE(step.value("seconds", 1e9), 150) << step.dump();
  }
  const std::vector<std::string> expected = {
      "frr-up",          "pimio-sees-frr",       "frr-sees-pimio",      "pimio-sees-pimio",
      "frr-takes-join",  "pimio-gets-join",      "pimio-gets-bootstrap", "pimio-gets-register",
      "pimio-gets-assert", "ipv6-neighbors",     "ipv6-join",           "counters"};
  EXPECT_EQ(names, expected);
  // The counts the agents kept, as read from their tables before they ended.
  for (const char* agent : {"pimio-a", "pimio-b"}) {
    for (const char* type : {"hello", "joinPrune", "bootstrap", "assert"}) {
      const json::json_pointer valid("/counters/" + std::string(agent) + "/" + type + "/rx/valid");
      EXPECT_GT(s.value(valid, 0), 0) << agent << ' ' << type;
    }
  }
  EXPECT_GT(s.value("/counters/pimio-a/joinPrune/tx/valid"_json_pointer, 0), 0);
  EXPECT_GT(s.value("/counters/pimio-b/register/rx/valid"_json_pointer, 0), 0);
  removed(s.value("lab", ""));
}

// A lab that cannot be built stops before it starts; one whose agents do not run fails at the
// steps that need them. Either way the exit status and the summary name the step.
TEST_F(Lab, NamesTheFailedStep) {
  struct Row {
    std::string args;
    int status;
    std::string failed, why;
  };
  const Row rows[] = {
      {"--frr-dir /nonexistent", 2, "prerequisites", "/nonexistent/zebra is missing"},
      {"--agent /bin/false --timeout 4", 1, "pimio-sees-frr", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.args);
    int status = -1;
    const json s = lab(row.args, status);
    EXPECT_EQ(status, row.status);
    EXPECT_EQ(s.value("result", ""), "fail");
    ASSERT_FALSE(s.value("failed", json::array()).empty()) << s.dump(1);
    EXPECT_EQ(s["failed"][0], row.failed);
    EXPECT_NE(s.value("why", "").find(row.why), std::string::npos) << s.value("why", "");
    if (s.contains("lab")) removed(s["lab"]);
  }
}

}  // namespace
