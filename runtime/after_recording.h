// What follows once an app's call has recorded something: above all, its commit.
#pragma once

#include "morvik/recorded.h"
#include "services/guard.h"

namespace morvik::runtime {

/// An exception here (no memory, say) ends here. It does not undo what was recorded: that is written already.
inline constexpr services::GuardClause kAfterRecordingThrew = services::oneLine(
    kit::lcl_vError, "Morvik host: something was recorded, but what follows could not all be done now: %@");
inline constexpr services::Guard kAfterRecordingGuard{kAfterRecordingThrew, kAfterRecordingThrew};

/// As services::guarded().
template <class Follow>
auto afterRecording(const services::Logger& logger, Follow follow) {
  return services::guarded(logger, kAfterRecordingGuard, MORVIK_HERE("-[MorvikCore record]"), follow);
}

/// How durable is what was just recorded. A commit that throws is retried once: the store may have had everything when
/// it threw. A later commit writes what is left.
template <class Commit>
Recorded keptBy(const services::Logger& logger, Commit commit) {
  auto is_kept = afterRecording(logger, commit);
  if (!is_kept)
    is_kept = afterRecording(logger, commit);
  return is_kept.value_or(false) ? Recorded::kKept : Recorded::kKeptInMemory;
}

}  // namespace morvik::runtime
