// What the core object remembers about a batch until its answer arrives.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "MorvikCoreLib/MorvikCoreLib.h"

namespace morvik {

struct MorvikCoreLib::SentBatch {
  EndActivities end_activities = EndActivities::kSend;
  uint64_t session = 0;  ///< sessions_ when it was built
  std::atomic<bool> has_left{false};
  kit::LedgerTicket ticket = 0;
  size_t activities = 0;
  kit::Array event_ids;    ///< of the activities
  kit::Value deleted_end;  ///< the id of the kept session's "end" that goes with them; blank: none does
  size_t plain_bytes = 0;  ///< of the activities' entries
  size_t impressions = 0;
  /// For a batch that filters: the id of the "end" that the kept session leaves out. Blank: there is none.
  std::optional<kit::Value> kept_end;
  bool leaves_activities = false;   ///< the limit left some out
  kit::Value last_activity;         ///< as it is stored
  bool leaves_impressions = false;  ///< the limit left some out
  kit::Array carried_impressions;   ///< as they are stored
  uint64_t stores_known = 0;        ///< stores_brought_ when it was built
};

}  // namespace morvik
