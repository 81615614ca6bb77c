#include "host/linux/network_status.h"

#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "kit/MorvikADUtil.h"

namespace morvik::host {
namespace {

constexpr std::array<std::string_view, 3> kWifiNames = {"wl", "wifi", "ath"};
constexpr std::array<std::string_view, 4> kCellularNames = {"ww", "rmnet", "ppp", "ccmni"};

template <size_t N>
bool startsWithOne(std::string_view name, const std::array<std::string_view, N>& beginnings) {
  return std::any_of(beginnings.begin(), beginnings.end(),
                     [name](std::string_view beginning) { return name.starts_with(beginning); });
}

}  // namespace

std::vector<NetworkInterface> networkInterfaces() {
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0)
    return {};
  std::vector<NetworkInterface> found;
  for (const ifaddrs* each = first; each != nullptr; each = each->ifa_next) {
    constexpr unsigned kUp = IFF_UP | IFF_RUNNING;
    found.push_back({each->ifa_name, (each->ifa_flags & kUp) == kUp, (each->ifa_flags & IFF_LOOPBACK) != 0});
  }
  freeifaddrs(first);
  return found;
}

std::string networkStatus(std::span<const NetworkInterface> interfaces, bool has_loopback_endpoint) {
  bool any = has_loopback_endpoint;
  bool wifi = false;
  bool cellular = false;
  for (const NetworkInterface& each : interfaces) {
    if (!each.is_up || each.is_loopback)
      continue;
    any = true;
    wifi = wifi || startsWithOne(each.name, kWifiNames);
    cellular = cellular || startsWithOne(each.name, kCellularNames);
  }
  if (!any)
    return kit::kNetworkUnknown;
  if (wifi)
    return "wifi";
  return cellular ? "cellular" : "ethernet";
}

}  // namespace morvik::host
