// How much one batch may carry.
#pragma once

#include <cstddef>
#include <cstdint>

namespace morvik::kit {

/// Activities and impressions are limited separately, each by both members. A batch carries at least one activity.
struct BatchLimit {
  size_t records = SIZE_MAX;
  /// Of the entries' JSON text, before sealing.
  size_t plain_bytes = SIZE_MAX;

  bool isUnlimited() const { return records == SIZE_MAX && plain_bytes == SIZE_MAX; }
};

}  // namespace morvik::kit
