// The fuzz harness outside the fuzzer: the committed seeds and the inputs that once broke an
// invariant run through it again, and malformed variants of the seeds (cut at every length, every
// byte flipped) run through `pimio decode` (the fuzzers themselves take the codec's readers much
// further). An invariant that breaks aborts the test binary with the harness's message.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "fuzz/FuzzHarness.h"
#include "loom/Trace.h"
#include "tests/tools/CliTestSupport.h"

namespace {

namespace fs = std::filesystem;
using PimioTest::Bytes;

// The inputs under fuzz/<kind>/<target>/: target and bytes.
std::vector<std::pair<std::string, Bytes>> inputs(const char* kind) {
  std::vector<std::pair<std::string, Bytes>> out;
  const fs::path dir = fs::path(PIMIO_FUZZ_DIR) / kind;
  if (!fs::exists(dir)) return out;
  for (const auto& file : fs::recursive_directory_iterator(dir)) {
    if (!file.is_regular_file()) continue;
    std::ifstream in(file.path(), std::ios::binary);
    out.emplace_back(file.path().parent_path().filename().string(), Bytes(std::istreambuf_iterator<char>(in), {}));
  }
  return out;
}

// The seeds of the type readers, each once, and their variants: cut at every length from `from`
// on, and with each byte from `from` on flipped.
std::vector<std::pair<std::string, Bytes>> variants(size_t from) {
  std::vector<std::pair<std::string, Bytes>> out;
  std::set<Bytes> seen;
  for (const auto& [target, b] : inputs("corpus")) {
    if (target == "any" || !seen.insert(b).second) continue;
    for (size_t n = from; n < b.size(); ++n) out.emplace_back(target, Bytes(b.begin(), b.begin() + n));
    for (size_t at = from; at < b.size(); ++at) {
      out.emplace_back(target, b);
      out.back().second[at] ^= 0xff;
    }
  }
  return out;
}

class FuzzReplay : public ::testing::Test {
 protected:
  void SetUp() override { Loom::traceConfigIs("*=0"); }
  void TearDown() override { Loom::traceConfigIs("*=1"); }
};

TEST_F(FuzzReplay, SeedsAndInputsThatOnceFailedKeepEveryInvariant) {
  std::set<std::string> targets;
  for (const char* kind : {"corpus", "regressions"}) {
    for (const auto& [target, b] : inputs(kind)) {
      ASSERT_TRUE(PimFuzz::knownTarget(target)) << kind << "/" << target;
      targets.insert(target);
      PimFuzz::fuzzOne(target, b.data(), b.size());
    }
  }
  EXPECT_EQ(targets.size(), 9u) << "a target without seeds (fuzz/make-corpus writes them)";
}

// In IPv4 and IPv6 packets with the checksum made right, in one capture, through `pimio decode`:
// every packet is decoded or fails with a text; none is lost.
TEST_F(FuzzReplay, MalformedVariantsThroughTheCommandLine) {
  std::vector<PimioTest::CapturedFrame> frames;
  for (const auto& [target, b] : variants(1)) {
    frames.push_back({PimioTest::ethernet(PimioTest::pimIp(b[0] & 1, Bytes(b.begin() + 1, b.end())))});
  }
  const fs::path dir = fs::temp_directory_path() / ("pimio_sweep_" + std::to_string(getpid()));
  fs::create_directories(dir);
  PimioTest::writeCapture((dir / "sweep.pcap").string(), 1, frames);
  const PimioTest::RunResult r = PimioTest::sh(dir.string(), "PIMIO decode --json " + (dir / "sweep.pcap").string());
  fs::remove_all(dir);
  EXPECT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> lines = r.outLines();
  ASSERT_EQ(lines.size(), frames.size()) << "a packet was lost";
  size_t failed = 0;
  for (const std::string& l : lines) {
    const nlohmann::json j = nlohmann::json::parse(l);
    failed += j.contains("error");
    EXPECT_TRUE(j.contains("error") ? !j["error"].get<std::string>().empty() : j.contains("type")) << l;
  }
  EXPECT_GT(failed, frames.size() / 2) << "most variants should fail";
}

}  // namespace
