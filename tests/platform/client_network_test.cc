#include <gtest/gtest.h>

#include <quillon/platform/client_network.h>

namespace quillon::platform {
namespace {

TEST(ClientNetworkTest, IsAnIPv4Address) {
  EXPECT_EQ(ClientNetwork("192.0.2.1"), "192.0.2.1");
  EXPECT_NE(ClientNetwork("::ffff:192.0.2.1"), ClientNetwork("::ffff:192.0.2.2"));
}

TEST(ClientNetworkTest, IsAllThatOneCustomerHasOfIPv6) {
  const std::string network = ClientNetwork("2001:db8:1:2::1");
  EXPECT_EQ(ClientNetwork("2001:db8:1:2:ffff:ffff:ffff:ffff"), network);
  EXPECT_EQ(ClientNetwork("2001:0db8:0001:0002::5"), network);
  EXPECT_NE(ClientNetwork("2001:db8:1:3::1"), network);
}

TEST(ClientNetworkTest, IsAnyOtherTextItself) {
  EXPECT_EQ(ClientNetwork("no address"), "no address");
}

}  // namespace
}  // namespace quillon::platform
