#include "host/linux/system_facts.h"

#include "host/linux/device_numbers.h"
#include "host/linux/network_status.h"

namespace morvik::host {

std::string SystemFacts::networkStatus(bool has_loopback_endpoint) const {
  return host::networkStatus(networkInterfaces(), has_loopback_endpoint);
}

std::optional<int64_t> SystemFacts::freeDiskBytes(const std::string& path) const {
  return host::freeDiskBytes(path);
}

uint32_t SystemFacts::freeMemoryKibibytes() const {
  return host::freeMemoryKibibytes();
}

}  // namespace morvik::host
