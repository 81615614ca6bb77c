// What stands around each block of a queue.
#pragma once

#include <functional>

#include "kit/queues.h"

namespace morvik::runtime {

/// Is handed a turn, which does not throw; runs it once, and does before and after what every turn needs.
using TurnFrame = std::function<void(const kit::Block& turn)>;

}  // namespace morvik::runtime
