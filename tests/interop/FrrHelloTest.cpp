// Hellos sent by another router implementation, FRRouting's pimd, decoded by pimio: the capture
// kept in samples/ and, where the machine allows it, one made live in network namespaces.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::json;

struct CommandResult {
  int status = -1;
  std::string out;
};

// Runs a shell command and collects its standard output.
CommandResult run(const std::string& command) {
  CommandResult r;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return r;
  std::array<char, 4096> buf;
  size_t n;
  while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) r.out.append(buf.data(), n);
  int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

std::vector<Json> decodeJson(const std::string& capture) {
  CommandResult r = run(std::string(PIMIO_BINARY) + " decode --json '" + capture + "' 2>/dev/null");
  EXPECT_EQ(r.status, 0) << capture;
  std::vector<Json> lines;
  size_t pos = 0;
  while (pos < r.out.size()) {
    size_t end = r.out.find('\n', pos);
    if (end == std::string::npos) end = r.out.size();
    if (end > pos) lines.push_back(Json::parse(r.out.substr(pos, end - pos)));
    pos = end + 1;
  }
  return lines;
}

bool underCi() {
  const char* ci = std::getenv("CI");
  return ci && std::string(ci) == "true";
}

// What every Hello of pimd must show, whatever its addresses.
void expectPimdHellos(const std::vector<Json>& lines, size_t atLeast) {
  ASSERT_GE(lines.size(), atLeast);
  for (const Json& l : lines) {
    ASSERT_FALSE(l.contains("error")) << l.dump();
    EXPECT_EQ(l["type"], "hello") << l.dump();
    EXPECT_EQ(l["family"], 4);
    EXPECT_EQ(l["dst"], "224.0.0.13");
    EXPECT_TRUE(l["holdTimeOption"]);
    EXPECT_TRUE(l["drPriorityOption"]);
    EXPECT_TRUE(l["generationIdOption"]);
    EXPECT_TRUE(l["lanPruneDelayOption"]);
  }
}

// The routers of scripts/frr-capture list a secondary IPv4 address (odd routers) and their IPv6
// link-local address, which an IPv4 Hello skips with a warning.
void expectAddressLists(const std::vector<Json>& lines) {
  size_t withSecondary = 0, skippedLinkLocal = 0;
  for (const Json& l : lines) {
    for (const Json& a : l["secondaryAddr"]) {
      EXPECT_EQ(a.get<std::string>().rfind("10.98.0.", 0), 0u) << l.dump();
      ++withSecondary;
    }
    for (const Json& w : l.value("warnings", Json::array())) {
      EXPECT_EQ(w.get<std::string>().rfind("Warning: Pim Hello - Address List Option - Family: ipv4 Skipping Address: fe80::", 0), 0u)
          << w;
      ++skippedLinkLocal;
    }
  }
  EXPECT_GT(withSecondary, 0u);
  EXPECT_GT(skippedLinkLocal, 0u);
}

TEST(FrrHello, CommittedCaptureDecodesWithoutFailure) {
  const auto lines = decodeJson(std::string(PIMIO_SAMPLES) + "/frr-hellos.pcap");
  expectPimdHellos(lines, 8);
  expectAddressLists(lines);
  // Each router's holdtime is 3.5 times its Hello period of 1 second.
  for (const Json& l : lines) EXPECT_EQ(l["holdTime"], 3);
}

TEST(FrrHello, LiveRoutersInNamespacesDecodeWithoutFailure) {
  std::string missing;
  if (geteuid() != 0) missing = "root (network namespaces)";
  for (const char* path : {"/usr/lib/frr/pimd", "/usr/lib/frr/zebra", "/usr/bin/tcpdump", "/usr/sbin/ip"}) {
    if (missing.empty() && !std::filesystem::exists(path)) missing = path;
  }
  if (!missing.empty()) {
    if (underCi()) FAIL() << "needs " << missing;
    GTEST_SKIP() << "needs " << missing << " (install frr and tcpdump, run as root)";
  }
  const std::string capture = ::testing::TempDir() + "/frr-live.pcap";
  CommandResult r = run("timeout 90 '" + std::string(PIMIO_SCRIPTS) + "/frr-capture' --routers 3 --seconds 4 '" + capture + "'");
  ASSERT_EQ(r.status, 0) << r.out;
  const auto lines = decodeJson(capture);
  // Three routers with a Hello period of 1 second, over 4 seconds.
  expectPimdHellos(lines, 9);
  expectAddressLists(lines);
  std::filesystem::remove(capture);
}

}  // namespace
