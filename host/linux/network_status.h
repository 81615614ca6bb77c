// The kind of network the device is on.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace morvik::host {

struct NetworkInterface {
  std::string name;
  bool is_up = false;  ///< enabled, with a link
  bool is_loopback = false;
};

/// The machine's current interfaces; empty if unknown. Any thread; does not block.
std::vector<NetworkInterface> networkInterfaces();

/// "unknown" if only loopback is up and no endpoint is on loopback; else "wifi", "cellular" or "ethernet" as far as
/// interface names tell, the first of these that is up.
std::string networkStatus(std::span<const NetworkInterface> interfaces, bool has_loopback_endpoint);

}  // namespace morvik::host
