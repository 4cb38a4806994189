// The packet access manager: the socket it chooses and how it configures it, its tables and
// slots, and its assertions. Sockets are made but not opened here (that needs a namespace).
#include <gtest/gtest.h>

#include "PimIO/PamManager.h"

namespace Routing::Pim::IO {
namespace {

using Knet::AddressFamily;
using Knet::IpPam;

struct SlotWatch : PamManager::Notifiee {
  std::vector<int> slots;
  void onRxMessageInfo(Packet::MessageType t) override { slots.push_back(t); }
};

// Family and header mode choose the socket kind; every socket carries the options the manager
// always sets, and the IPv4 one is told to take complete headers in the header-included mode.
TEST(PamManager, ChoosesAndConfiguresTheSocket) {
  const struct {
    AddressFamily af;
    bool override;
    const char* kind;  // "4", "6" or "6hdr"
  } cases[] = {{AddressFamily::ipv4, false, "4"}, {AddressFamily::ipv4, true, "4"},
               {AddressFamily::ipv6, false, "6"}, {AddressFamily::ipv6, true, "6hdr"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.kind) + (c.override ? " override" : ""));
    auto m = pamManagerFactory(c.af, "", c.override);
    const std::string kind = m->pam4() ? "4" : m->pam6() ? "6" : "6hdr";
    EXPECT_EQ(kind, c.kind);
    EXPECT_EQ(bool(m->pam4()) + bool(m->pam6()) + bool(m->pam6HeaderInclude()), 1);
    ASSERT_TRUE(m->pam());
    EXPECT_EQ(m->pam()->name(), c.af == AddressFamily::ipv4 ? "Pim4" : "Pim6");
    EXPECT_EQ(m->pam()->protocol(), 103);
    EXPECT_EQ(m->pam()->flags() & 0x1808u, 0x1808u);
    EXPECT_EQ(bool(m->pam()->flags() & IpPam::flagHeaderIncluded), c.override);
    EXPECT_EQ(m->pam()->priority(), 6u);
    EXPECT_FALSE(m->pam()->enabled());
    EXPECT_TRUE(m->txMessageInfo() && m->txPamCounter() && m->rxPamCounter());
    EXPECT_FALSE(m->hasBackupSupport());
  }
}

TEST(PamManager, SocketsTablesAndSlots) {
  auto m = pamManagerFactory(AddressFamily::ipv4, "", false);
  const auto first = m->pam4();
  EXPECT_EQ(m->pam4Is("Pim4", 103, ""), first) << "the same arguments make no new socket";
  EXPECT_NE(m->pam4Is("Pim4", 103, "other"), first);

  const U32 flags = m->pam()->flags();
  m->transparentIpIs(true);
  EXPECT_EQ(m->pam()->flags(), flags | IpPam::flagTransparent);
  m->transparentIpIs(false);
  EXPECT_EQ(m->pam()->flags(), flags);

  m->intfIs(Knet::IntfId("eth1"))->ifIndexIs(9);
  EXPECT_EQ(m->intfIs(Knet::IntfId("eth1"))->ifIndex(), 9u);
  m->kernelIntfIs(9)->intfIdIs(Knet::IntfId("eth1"));
  EXPECT_EQ(m->kernelIntf(9)->intfId(), Knet::IntfId("eth1"));
  m->intfDel(Knet::IntfId("eth1"));
  EXPECT_FALSE(m->intf(Knet::IntfId("eth1")));

  SlotWatch w;
  w.notifierIs(m);
  auto info = messageInfoFactory();
  m->rxMessageInfoIs(15, info);
  m->rxMessageInfoIs(15, info);
  m->rxMessageInfoIs(0, info);
  m->rxMessageInfoDelAll();
  EXPECT_EQ(w.slots, (std::vector<int>{15, 0, 0, 15}));
  EXPECT_FALSE(m->rxMessageInfo(15));
}

using PamManagerDeathTest = ::testing::Test;

TEST(PamManagerDeathTest, Assertions) {
  EXPECT_DEATH(pamManagerFactory(AddressFamily::ipUnknown, "", false), "Unsupported address family\\.");
  auto m = pamManagerFactory(AddressFamily::ipv6, "", false);
  EXPECT_DEATH(m->rxMessageInfoIs(16, messageInfoFactory()), "offsetIsValid\\( off \\)");
}

}  // namespace
}  // namespace Routing::Pim::IO
