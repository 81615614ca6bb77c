// Facts about the system.
#pragma once

#include "runtime/machine/machine.h"

namespace morvik::host {

class SystemFacts final : public runtime::MachineFacts {
 public:
  std::string networkStatus(bool has_loopback_endpoint) const override;
  std::optional<int64_t> freeDiskBytes(const std::string& path) const override;
  uint32_t freeMemoryKibibytes() const override;
};

}  // namespace morvik::host
