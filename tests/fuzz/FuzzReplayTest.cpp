// The fuzz harness outside the fuzzer: every committed seed and every input that once broke an
// invariant runs through it again, and a sweep of malformed variants of the seeds (cut at every
// length, every byte flipped) runs through the codec's readers and through `pimio decode`.
// An invariant that breaks aborts the test binary with the harness's message.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "fuzz/FuzzHarness.h"
#include "knet/Checksum.h"
#include "loom/Trace.h"
#include "tests/tools/CliTestSupport.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<U8>;

struct Input {
  std::string target;
  std::string file;
  Bytes bytes;
};

// The inputs under fuzz/<kind>/<target>/.
std::vector<Input> inputs(const char* kind) {
  std::vector<Input> out;
  const fs::path dir = fs::path(PIMIO_FUZZ_DIR) / kind;
  if (!fs::exists(dir)) return out;
  for (const auto& target : fs::directory_iterator(dir)) {
    if (!target.is_directory()) continue;
    for (const auto& file : fs::directory_iterator(target.path())) {
      std::ifstream in(file.path(), std::ios::binary);
      out.push_back({target.path().filename().string(), file.path().filename().string(),
                     Bytes(std::istreambuf_iterator<char>(in), {})});
    }
  }
  return out;
}

class FuzzReplay : public ::testing::Test {
 protected:
  void SetUp() override { Loom::traceConfigIs("*=0"); }
  void TearDown() override { Loom::traceConfigIs("*=1"); }
};

TEST_F(FuzzReplay, SeedsKeepEveryInvariant) {
  const std::vector<Input> seeds = inputs("corpus");
  ASSERT_GE(seeds.size(), 100u) << "the seed corpus is missing (fuzz/make-corpus writes it)";
  std::set<std::string> targets;
  for (const Input& i : seeds) {
    ASSERT_TRUE(PimFuzz::knownTarget(i.target)) << i.target;
    targets.insert(i.target);
    PimFuzz::fuzzOne(i.target, i.bytes.data(), i.bytes.size());
  }
  EXPECT_EQ(targets.size(), 9u) << "a target without seeds";
}

TEST_F(FuzzReplay, InputsThatOnceFailedKeepEveryInvariant) {
  for (const Input& i : inputs("regressions")) {
    SCOPED_TRACE(i.target + "/" + i.file);
    ASSERT_TRUE(PimFuzz::knownTarget(i.target)) << i.target;
    PimFuzz::fuzzOne(i.target, i.bytes.data(), i.bytes.size());
  }
}

// Every seed cut at every length and with every byte flipped, with the checksum left as it is
// and made right (selector bit 1), through the reader of its type.
TEST_F(FuzzReplay, MalformedVariantsOfEverySeed) {
  size_t variants = 0;
  std::set<Bytes> seen;
  for (const Input& i : inputs("corpus")) {
    if (i.target == "any" || !seen.insert(i.bytes).second) continue;
    for (const U8 fix : {U8(0), U8(2)}) {
      Bytes b = i.bytes;
      b[0] = static_cast<U8>((b[0] & 1) | fix);
      for (size_t n = 1; n < b.size(); ++n, ++variants) PimFuzz::fuzzOne(i.target, b.data(), n);
      for (size_t at = 1; at < b.size(); ++at, ++variants) {
        b[at] ^= 0xff;
        PimFuzz::fuzzOne(i.target, b.data(), b.size());
        b[at] ^= 0xff;
      }
    }
  }
  EXPECT_GT(variants, 10000u);
}

// The same variants framed in IPv4 and IPv6 packets, in one capture, through `pimio decode`:
// every packet is decoded or fails with a text; none is lost.
TEST_F(FuzzReplay, MalformedVariantsThroughTheCommandLine) {
  std::vector<PimioTest::CapturedFrame> frames;
  std::set<Bytes> seen;
  for (const Input& i : inputs("corpus")) {
    if (i.target == "any" || !seen.insert(i.bytes).second) continue;
    const bool v6 = i.bytes[0] & 1;
    const Bytes message(i.bytes.begin() + 1, i.bytes.end());
    // The packet with the checksum made right for its addresses, so that the variants get past
    // the header: IPv4 192.0.2.9 and IPv6 fe80::9, to ALL-PIM-ROUTERS.
    auto frame = [&](Bytes pim) {
      Bytes packet;
      if (v6) {
        packet = PimioTest::ipv6Pim(0, {});
        packet.resize(40);
        packet[4] = static_cast<U8>(pim.size() >> 8);
        packet[5] = static_cast<U8>(pim.size());
      }
      if (pim.size() >= 4) {
        const size_t covered = pim[0] == 0x21 ? 8 : pim.size();
        pim[2] = pim[3] = 0;
        U32 partial = 0;
        if (v6) {
          Bytes pseudo(packet.begin() + 8, packet.begin() + 40);
          pseudo.insert(pseudo.end(), {0, 0, U8(covered >> 8), U8(covered), 0, 0, 0, 103});
          partial = Knet::onesComplementSum(pseudo.data(), pseudo.size());
        }
        const U16 sum = Knet::internetChecksum(pim.data(), std::min(covered, pim.size()), partial);
        pim[2] = static_cast<U8>(sum >> 8);
        pim[3] = static_cast<U8>(sum);
      }
      if (v6) {
        packet.insert(packet.end(), pim.begin(), pim.end());
      } else {
        packet = PimioTest::ipv4(pim);
      }
      frames.push_back({PimioTest::ethernet(packet)});
    };
    for (size_t n = 0; n < message.size(); ++n) frame(Bytes(message.begin(), message.begin() + n));
    Bytes b = message;
    for (size_t at = 0; at < b.size(); ++at) {
      b[at] ^= 0xff;
      frame(b);
      b[at] ^= 0xff;
    }
  }
  const fs::path dir = fs::temp_directory_path() / ("pimio_sweep_" + std::to_string(getpid()));
  fs::create_directories(dir);
  const std::string capture = (dir / "sweep.pcap").string();
  PimioTest::writeCapture(capture, 1, frames);
  const PimioTest::RunResult r = PimioTest::sh(dir.string(), "PIMIO decode --json " + PimioTest::quoted(capture));
  fs::remove_all(dir);
  EXPECT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> lines = r.outLines();
  ASSERT_EQ(lines.size(), frames.size()) << "a packet was lost";
  size_t failed = 0;
  for (const std::string& l : lines) {
    const nlohmann::json j = nlohmann::json::parse(l);
    if (j.contains("error")) {
      ++failed;
      EXPECT_FALSE(j["error"].get<std::string>().empty()) << l;
    } else {
      EXPECT_TRUE(j.contains("type")) << l;
    }
  }
  EXPECT_GT(failed, frames.size() / 2) << "most variants should fail";
}

}  // namespace
