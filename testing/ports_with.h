// The kit's ports with some of them replaced.
#pragma once

#include <optional>

#include "kit/ports.h"

namespace morvik::testing {

/// Parts that replace those of `ports`; null keeps the original. They outlive the ports.
struct OwnParts {
  kit::BackgroundTasks* background_tasks = nullptr;
  kit::KeyValueStore* key_value_store = nullptr;
  kit::ListLock* list_lock = nullptr;
  kit::Transport* transport = nullptr;
  kit::MorvikCoreServicesLib* services = nullptr;
  std::optional<kit::BatchLimit> batch_limit;
};

/// A copy of `ports` with these parts. kit::Ports holds references, which cannot be changed after construction.
kit::Ports portsWith(const kit::Ports& ports, const OwnParts& own);

}  // namespace morvik::testing
