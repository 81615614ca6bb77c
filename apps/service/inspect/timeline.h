// The history of a device, as its requests tell it.
#pragma once

#include <vector>

#include "apps/service/base/json.h"

namespace morvik_service {

/// More activities than this are left out, the oldest first.
inline constexpr std::size_t kMaxTimelineActivities = 5000;

/// `requests` as in InstallRequests, newest first. The result:
/// "sessions": [{"start","end"}], "end" is null if none was reported;
/// "activities": [{"time","group","activity","param","event_id","request"}], each event once, without those that begin
/// and end sessions;
/// "marks": [{"time","kind","text","request"}] of kind "attribution", "deep link", "commerce click", "crash",
/// "demographics" or "erasure".
/// All in order of time, times in milliseconds since 1970. "complete" is false if something was left out. Payloads
/// may be of any shape: what does not fit is skipped.
Json timelineOf(const std::vector<Json>& requests);

}  // namespace morvik_service
