// What is run around each block of a queue.
#pragma once

#include <functional>

#include "kit/queues.h"

namespace morvik::runtime {

/// Takes a turn, which does not throw. Runs it once, and does before and after it what every turn needs.
using TurnFrame = std::function<void(const kit::Block& turn)>;

}  // namespace morvik::runtime
