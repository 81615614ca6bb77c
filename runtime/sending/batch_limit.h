// How much one batch of the kit may carry.
#pragma once

#include "kit/batch_limit.h"

namespace morvik::runtime {

/// A batch that no server accepts would keep everything behind it on the device permanently.
inline constexpr kit::BatchLimit kBatchLimit{.records = 20'000, .plain_bytes = size_t{8} << 20};

}  // namespace morvik::runtime
