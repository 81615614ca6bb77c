// A kit with parts of one's own in it.
#pragma once

#include <optional>

#include "kit/ports.h"

namespace morvik::testing {

/// Parts to put in place of a kit's; null: the kit's own stays. They outlive the kit.
struct OwnParts {
  kit::BackgroundTasks* background_tasks = nullptr;
  kit::KeyValueStore* key_value_store = nullptr;
  kit::ListLock* list_lock = nullptr;
  kit::Transport* transport = nullptr;
  kit::MorvikCoreServicesLib* services = nullptr;
  std::optional<kit::BatchLimit> batch_limit;
};

/// A copy of `kit` with these parts. A kit holds references, which cannot be changed once it is made.
kit::Ports portsWith(const kit::Ports& ports, const OwnParts& own);

}  // namespace morvik::testing
