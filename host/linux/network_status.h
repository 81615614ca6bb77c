// What kind of network the device is on.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace morvik::host {

struct NetworkInterface {
  std::string name;
  bool is_up = false;  ///< switched on, and with a link
  bool is_loopback = false;
};

/// The machine's interfaces, as they are now; empty when the system does not tell. Any thread; does not block.
std::vector<NetworkInterface> networkInterfaces();

/// "unknown" when no interface but loopback is up and no endpoint is on loopback; else "wifi", "cellular" or "ethernet"
/// as far as the names tell, the first of these that is up.
std::string networkStatus(std::span<const NetworkInterface> interfaces, bool has_loopback_endpoint);

}  // namespace morvik::host
