// Random bytes from the system.
#pragma once

#include <cstdint>
#include <span>

#include "kit/crypto.h"

namespace morvik::host {

/// The kernel's generator, called directly: no library must be initialized before the first event is recorded. Waits
/// only in the first moments after the machine started. Throws std::system_error if the kernel has none.
class SystemRandom final : public kit::Random {
 public:
  void fill(std::span<uint8_t> bytes) override;
};

}  // namespace morvik::host
