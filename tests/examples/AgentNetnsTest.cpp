// The example agent between two namespaces, in both families: two pimio-agent processes (run with
// `ip netns exec`, bounded by `timeout`) become each other's neighbors from their Hellos; agent A's
// (S,G) Join/Prune, sent once B is its neighbor, reaches B, which prints it; `pimio counters` reads
// B's receive counts from its shared-memory table while it runs; both end cleanly on SIGTERM, with
// a goodbye Hello and their tables removed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "support/Netns.h"
#include "tests/tools/CliTestSupport.h"

namespace {

using Knet::AddressFamily;
using nlohmann::json;
using PimioTest::quoted;
using PimTest::NetnsLab;

std::vector<json> events(const std::string& path) {
  std::vector<json> out;
  std::istringstream in(PimioTest::readFile(path));
  for (std::string line; std::getline(in, line);) out.push_back(json::parse(line, nullptr, false));
  return out;
}

// The first event of `kind` about `address` (any address when empty) and of `type` when given.
const json* find(const std::vector<json>& evs, const std::string& kind, const std::string& address,
                 const std::string& type = "") {
  for (const json& e : evs) {
    if (e.is_object() && e.value("event", "") == kind && (address.empty() || e.value("address", "") == address) &&
        (type.empty() || e.value("type", "") == type)) {
      return &e;
    }
  }
  return nullptr;
}

TEST(AgentNetns, NeighborsJoinPruneAndCounters) {
  PIMIO_NETNS_LAB(lab);
  const struct {
    AddressFamily af;
    const char* group;
    const char* source;
    Knet::IpGenAddr a, b;  // the addresses each agent speaks from
  } rows[] = {
      {AddressFamily::ipv4, "239.1.1.1", "10.1.1.1", lab.addrA(AddressFamily::ipv4), lab.addrB(AddressFamily::ipv4)},
      {AddressFamily::ipv6, "ff3e::1", "2001:db8::1", NetnsLab::linkLocalA(), NetnsLab::linkLocalB()},
  };
  for (const auto& row : rows) {
    const std::string f = row.af == AddressFamily::ipv4 ? "4" : "6", a = row.a.str(), b = row.b.str();
    SCOPED_TRACE("IPv" + f);
    char dirTemplate[] = "/tmp/pimio-agent-test-XXXXXX";
    ASSERT_NE(::mkdtemp(dirTemplate), nullptr);
    const std::string dir = dirTemplate;
    const std::string vrfB = "agentb" + std::to_string(getpid()) + "v" + f;
    const std::string agent = quoted(PIMIO_AGENT_BINARY) + " --af " + f + " --hello-interval 1 --duration 15 --json";
    // Both agents in the background; counters read once A has B as a neighbor and B has printed
    // A's Join/Prune (or after 10 s); then SIGTERM, which `timeout` passes on to the agent: A first,
    // and B once it has heard A's goodbye (or after 5 s).
    const std::string command =
        "timeout 20 ip netns exec " + lab.nsA() + " " + agent + " --interface pa --vrf agenta" +
        std::to_string(getpid()) + "v" + f + " --jp-interval 1 --join " + row.group + "," + row.source +
        " --upstream " + b + " >" + dir + "/a.out 2>" + dir + "/a.err & pa=$!\n" +
        "timeout 20 ip netns exec " + lab.nsB() + " " + agent + " --interface pb --vrf " + vrfB + " >" + dir +
        "/b.out 2>" + dir + "/b.err & pb=$!\n" +
        "i=0; while [ $i -lt 100 ] && ! { grep -q '\"neighbor-up\".*\"" + b + "\"' " + dir + "/a.out && grep -q '" +
        "\"rx\".*\"joinPrune\"' " + dir + "/b.out; }; do sleep 0.1; i=$((i+1)); done\n" +
        "timeout 5 PIMIO counters --vrf " + vrfB + " --af " + f + " --json >" + dir + "/counters.json\n" +
        "kill -TERM $pa; wait $pa; echo a=$?\n" +
        "i=0; while [ $i -lt 50 ] && ! grep -q '\"neighbor-down\"' " + dir + "/b.out; do sleep 0.1; i=$((i+1));" +
        " done\n" +
        "kill -TERM $pb; wait $pb; echo b=$?\n";
    const auto run = PimioTest::sh(dir, command);
    EXPECT_EQ(run.out, "a=0\nb=0\n") << "both agents end cleanly on SIGTERM\n" << PimioTest::readFile(dir + "/a.err")
                                     << PimioTest::readFile(dir + "/b.err");
    const auto evA = events(dir + "/a.out"), evB = events(dir + "/b.out");
    EXPECT_NE(find(evA, "neighbor-up", b), nullptr) << "A hears B";
    EXPECT_NE(find(evB, "neighbor-up", a), nullptr) << "B hears A";
    const json* jp = find(evB, "rx", a, "joinPrune");
    ASSERT_NE(jp, nullptr) << PimioTest::readFile(dir + "/b.out");
    const std::string text = (*jp)["text"];
    EXPECT_NE(text.find("upstream=" + b), std::string::npos) << text;
    EXPECT_NE(text.find("group=( address=" + std::string(row.group)), std::string::npos) << text;
    EXPECT_NE(text.find("join=" + std::string(row.source) + ", (S,G)"), std::string::npos) << text;
    EXPECT_NE(find(evB, "rx", a, "hello"), nullptr);
    EXPECT_NE(find(evB, "neighbor-down", a), nullptr) << "A's goodbye Hello, holdtime 0, removes it at B";

    const json counters = json::parse(PimioTest::readFile(dir + "/counters.json"), nullptr, false);
    ASSERT_TRUE(counters.is_object()) << PimioTest::readFile(dir + "/counters.json");
    U32 rxHello = 0, rxJoinPrune = 0;
    for (const json& c : counters["counters"]) {
      if (c["interface"] != "pb") continue;
      if (c["type"] == "hello") rxHello = c["rx"]["valid"];
      if (c["type"] == "joinPrune") rxJoinPrune = c["rx"]["valid"];
    }
    EXPECT_GE(rxHello, 1u);
    EXPECT_GE(rxJoinPrune, 1u);
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/pimio-" + vrfB + "-ipv" + f)) << "B removes its table at exit";
    std::filesystem::remove_all(dir);
  }
}

}  // namespace
