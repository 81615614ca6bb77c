#include "host/linux/network_status.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace morvik::host {
namespace {

const NetworkInterface kLoopback{"lo", true, true};
using Interfaces = std::vector<NetworkInterface>;

TEST(NetworkStatus, IsUnknownWithLoopbackAlone) {
  EXPECT_EQ(networkStatus({}, false), "unknown");
  EXPECT_EQ(networkStatus(Interfaces{kLoopback}, false), "unknown");
  EXPECT_EQ(networkStatus(Interfaces{kLoopback, {"eth0", false, false}}, false), "unknown");
}

TEST(NetworkStatus, IsKnownWithLoopbackAloneWhenAnEndpointIsThere) {
  EXPECT_EQ(networkStatus(Interfaces{kLoopback}, true), "ethernet");
}

TEST(NetworkStatus, GoesByTheNamesOfWhatIsUp) {
  EXPECT_EQ(networkStatus(Interfaces{kLoopback, {"eth0", true, false}}, false), "ethernet");
  EXPECT_EQ(networkStatus(Interfaces{kLoopback, {"wlan0", true, false}}, false), "wifi");
  EXPECT_EQ(networkStatus(Interfaces{kLoopback, {"wwan0", true, false}}, false), "cellular");
  EXPECT_EQ(networkStatus(Interfaces{kLoopback, {"rmnet_data0", true, false}}, false), "cellular");
}

TEST(NetworkStatus, PrefersWifiThenCellular) {
  const Interfaces all = {{"eth0", true, false}, {"wwan0", true, false}, {"wlan0", true, false}};
  EXPECT_EQ(networkStatus(all, false), "wifi");
  EXPECT_EQ(networkStatus(Interfaces{all[0], all[1]}, false), "cellular");
  EXPECT_EQ(networkStatus(Interfaces{all[0], {"wlan0", false, false}}, false), "ethernet");
}

TEST(NetworkStatus, FindsTheMachinesLoopback) {
  const Interfaces found = networkInterfaces();
  EXPECT_TRUE(std::any_of(found.begin(), found.end(), [](const NetworkInterface& each) { return each.is_loopback; }));
}

}  // namespace
}  // namespace morvik::host
