// What follows once an app's call has recorded something: its commit, above all.
#pragma once

#include "morvik/recorded.h"
#include "services/guard.h"

namespace morvik::runtime {

/// What throws here (no memory, say) does not undo what was recorded: it is written, and ends here.
inline constexpr services::GuardClause kAfterRecordingThrew = services::oneLine(
    kit::lcl_vError, "Morvik host: something was recorded, but what follows could not all be done now: %@");
inline constexpr services::Guard kAfterRecordingGuard{kAfterRecordingThrew, kAfterRecordingThrew};

/// As services::guarded().
template <class Follow>
auto afterRecording(const services::Logger& logger, Follow follow) {
  return services::guarded(logger, kAfterRecordingGuard, MORVIK_HERE("-[MorvikCore record]"), follow);
}

/// How what was recorded just now is kept. A commit that throws is tried once more, since it may have thrown when the
/// store had all of it already; what it leaves, a later commit takes along.
template <class Commit>
Recorded keptBy(const services::Logger& logger, Commit commit) {
  auto is_kept = afterRecording(logger, commit);
  if (!is_kept)
    is_kept = afterRecording(logger, commit);
  return is_kept.value_or(false) ? Recorded::kKept : Recorded::kKeptInMemory;
}

}  // namespace morvik::runtime
