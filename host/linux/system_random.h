// Random bytes of the system.
#pragma once

#include <cstdint>
#include <span>

#include "kit/crypto.h"

namespace morvik::host {

/// The kernel's generator, asked directly: no library has to be made ready before the first event is recorded. Waits
/// only in the first moments after the machine itself has started. A kernel without it: std::system_error.
class SystemRandom final : public kit::Random {
 public:
  void fill(std::span<uint8_t> bytes) override;
};

}  // namespace morvik::host
