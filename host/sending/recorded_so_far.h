// The activities and impressions that were stored at a certain moment, and how many of them are stored still.
#pragma once

#include <cstdint>

#include "kit/value.h"
#include "services/MorvikGVUserDefaults.h"

namespace morvik::host {

/// Shares structure with the store: it costs the same for any number of records. Any thread.
class RecordedSoFar {
 public:
  /// What is stored now.
  explicit RecordedSoFar(const services::MorvikGVUserDefaults& store);

  /// Of the activities. They are known by their ids; those without one count as long as as many of such are stored.
  uint64_t waitingActivities() const;
  /// Of the impressions, which have no ids, and go all at once.
  uint64_t waitingImpressions() const;
  uint64_t waiting() const { return waitingActivities() + waitingImpressions(); }

 private:
  services::MorvikGVUserDefaults store_;
  kit::Value activities_;
  kit::Value impressions_;
};

}  // namespace morvik::host
