// Addresses, prefixes, interface ids and message types.
#include "knet/Address.h"

#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "loom/Exception.h"

namespace Knet {
namespace {

TEST(IpGenAddr, ParseAndRenderTable) {
  struct Case {
    const char* text;
    AddressFamily af;
    bool multicast, zero, linkLocal;
  };
  const Case cases[] = {
      {"10.0.0.1", AddressFamily::ipv4, false, false, false},
      {"224.0.0.13", AddressFamily::ipv4, true, false, false},
      {"239.255.255.255", AddressFamily::ipv4, true, false, false},
      {"240.0.0.1", AddressFamily::ipv4, false, false, false},
      {"0.0.0.0", AddressFamily::ipv4, false, true, false},
      {"169.254.1.1", AddressFamily::ipv4, false, false, true},
      {"ff02::d", AddressFamily::ipv6, true, false, false},
      {"fe80::1", AddressFamily::ipv6, false, false, true},
      {"2001:db8::1", AddressFamily::ipv6, false, false, false},
      {"::", AddressFamily::ipv6, false, true, false},
  };
  for (const Case& c : cases) {
    auto a = IpGenAddr::parse(c.text);
    ASSERT_TRUE(a) << c.text;
    EXPECT_EQ(a->af(), c.af) << c.text;
    EXPECT_EQ(a->str(), c.text);
    EXPECT_EQ(a->isMulticast(), c.multicast) << c.text;
    EXPECT_EQ(a->isZero(), c.zero) << c.text;
    EXPECT_EQ(a->isLinkLocal(), c.linkLocal) << c.text;
  }
  for (const char* bad : {"", "10.0.0", "10.0.0.256", "fe80::1::2", "hello", "10.0.0.1/24"}) {
    EXPECT_FALSE(IpGenAddr::parse(bad)) << bad;
  }
}

TEST(IpGenAddr, ValueSemantics) {
  const IpGenAddr a = IpGenAddr::ipv4(0x0a000001);
  EXPECT_EQ(a, *IpGenAddr::parse("10.0.0.1"));
  EXPECT_EQ(a.v4(), 0x0a000001u);
  EXPECT_LT(a, IpGenAddr::ipv4(0x0a000002));
  EXPECT_LT(a, *IpGenAddr::parse("::1"));  // IPv4 sorts before IPv6
  EXPECT_FALSE(IpGenAddr().isSet());
  EXPECT_EQ(IpGenAddr().str(), "unset");
  std::unordered_set<IpGenAddr> set{a, a, IpGenAddr::ipv4(0x0a000002)};
  EXPECT_EQ(set.size(), 2u);
}

TEST(IpGenPrefix, LengthsBeyondTheWidthAreRefused) {
  const auto v4 = *IpGenAddr::parse("224.0.0.0");
  const auto v6 = *IpGenAddr::parse("ff00::");
  EXPECT_NO_THROW(IpGenPrefix(v4, 32));
  EXPECT_THROW(IpGenPrefix(v4, 33), Loom::RangeException);
  EXPECT_NO_THROW(IpGenPrefix(v6, 128));
  EXPECT_THROW(IpGenPrefix(v6, 129), Loom::RangeException);
  EXPECT_THROW(IpGenPrefix(IpGenAddr(), 1), Loom::RangeException);
  EXPECT_THROW(IpGenPrefix::parse("10.0.0.0/40"), Loom::RangeException);
  EXPECT_FALSE(IpGenPrefix::parse("10.0.0.0"));
  EXPECT_FALSE(IpGenPrefix::parse("10.0.0.0/"));
}

TEST(IpGenPrefix, ContainsAndRender) {
  auto p = *IpGenPrefix::parse("232.0.0.0/8");
  EXPECT_TRUE(p.contains(*IpGenAddr::parse("232.1.2.3")));
  EXPECT_FALSE(p.contains(*IpGenAddr::parse("233.1.2.3")));
  EXPECT_FALSE(p.contains(*IpGenAddr::parse("ff02::1")));
  auto q = *IpGenPrefix::parse("ff30::/12");
  EXPECT_TRUE(q.contains(*IpGenAddr::parse("ff3e::1")));
  EXPECT_FALSE(q.contains(*IpGenAddr::parse("ff4e::1")));
  EXPECT_TRUE(IpGenPrefix::parse("0.0.0.0/0")->contains(*IpGenAddr::parse("1.2.3.4")));
  std::ostringstream os;
  os << p << " " << q;
  EXPECT_EQ(os.str(), "232.0.0.0/8 ff30::/12");
  EXPECT_TRUE(IpGenPrefix::parse("10.0.0.1/32")->isHostPrefix());
  EXPECT_FALSE(IpGenPrefix().isHostPrefix());
}

}  // namespace
}  // namespace Knet
