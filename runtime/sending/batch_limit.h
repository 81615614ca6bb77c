// How much one batch of the host's may carry.
#pragma once

#include "kit/batch_limit.h"

namespace morvik::runtime {

/// A batch that no server takes would keep everything behind it on the device for good.
inline constexpr kit::BatchLimit kBatchLimit{.records = 20'000, .plain_bytes = size_t{8} << 20};

}  // namespace morvik::runtime
