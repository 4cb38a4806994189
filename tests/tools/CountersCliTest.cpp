// pimio counters against a live table in shared memory, written by this process as an agent would.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "PimIO/MessageCounters.h"
#include "tests/tools/CliTestSupport.h"

namespace PimioTest {
namespace {

using Routing::Pim::Cask::CounterKey;
using Routing::Pim::Cask::MessageCounterData;
using Lines = std::vector<std::string>;

class PimioCounters : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(dir_);
    table_ = Routing::Pim::Cask::messageCountersFactory(vrf_, Knet::AddressFamily::ipv4, 64);
    ASSERT_TRUE(table_->usable());
    // Totals of Hellos, the Hellos of eth1, and DF election Winners (subtype 2) on eth1.
    table_->msgCounterIs({CounterKey{Knet::IntfId(), 0, 255}, 0, 1, 3, 0, 0, 7});
    table_->msgCounterIs({CounterKey{Knet::IntfId("eth1"), 0, 255}, 0, 1, 2, 0, 0, 7});
    table_->msgCounterIs({CounterKey{Knet::IntfId("eth1"), 10, 2}, 4, 0, 0, 0, 0, 0});
  }
  void TearDown() override {
    if (table_) table_->unlink();
    std::filesystem::remove_all(dir_);
  }
  RunResult run(const std::string& args) const { return sh(dir_, "PIMIO counters --vrf " + vrf_ + " " + args); }

  const std::string vrf_ = "test" + std::to_string(getpid());
  const std::string dir_ = (std::filesystem::temp_directory_path() / ("pimio_counters_" + vrf_)).string();
  Loom::Ptr<Routing::Pim::Cask::MessageCounters> table_;
};

TEST_F(PimioCounters, TableTotalsFirstAndByInterface) {
  RunResult r = run("");
  EXPECT_EQ(r.status, 0) << r.err;
  const Lines lines = r.outLines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(lines[0].starts_with("INTERFACE       TYPE           SUBTYPE               rx-valid")) << lines[0];
  EXPECT_EQ(lines[1], "(all)           hello          all                          3           1           0"
                      "           7           0           0");
  EXPECT_TRUE(lines[3].starts_with("eth1            dfElection     dfElectionWinner             0           0           4"))
      << lines[3];
  EXPECT_EQ(run("--interface eth1").outLines().size(), 3u);
  EXPECT_EQ(run("--watch 0.01 --count 2").outLines().size(), 9u) << "two tables and a blank line";
}

TEST_F(PimioCounters, JsonAndPrometheus) {
  const nlohmann::json j = nlohmann::json::parse(run("--json").out);
  EXPECT_EQ(j["vrf"], vrf_);
  EXPECT_EQ(j["table"], "/pimio-" + vrf_ + "-ipv4");
  ASSERT_EQ(j["counters"].size(), 3u);
  EXPECT_TRUE(within(nlohmann::json::parse(R"({"interface":null,"type":"hello","subtype":"all",
      "rx":{"valid":3,"filtered":1,"invalid":0},"tx":{"valid":7,"filtered":0,"invalid":0}})"), j["counters"][0]));
  const Lines prom = run("--prometheus").outLines();
  ASSERT_EQ(prom.size(), 2u + 3 * 6);
  EXPECT_EQ(prom[0], "# HELP pimio_messages_total PIM messages counted by the pimio I/O library.");
  EXPECT_EQ(prom[19], "pimio_messages_total{vrf=\"" + vrf_ + "\",af=\"ipv4\",interface=\"eth1\",type=\"dfElection\","
                      "subtype=\"dfElectionWinner\",direction=\"tx\",kind=\"invalid\"} 0");
  EXPECT_EQ(prom[2].substr(prom[2].rfind(' ')), " 3") << prom[2];
}

TEST_F(PimioCounters, NoTableIsAClearFailure) {
  const RunResult r = sh(dir_, "PIMIO counters --vrf " + vrf_ + " --af 6");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "pimio counters: no counter table for VRF " + vrf_ + " IPv6 (/pimio-" + vrf_ +
                       "-ipv6): is the agent running?\n");
}

}  // namespace
}  // namespace PimioTest
