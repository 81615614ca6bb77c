// What a device lived through, as far as its requests tell.
#pragma once

#include <vector>

#include "apps/service/base/json.h"

namespace morvik_service {

/// More activities than this are left out, the oldest first.
inline constexpr std::size_t kMaxTimelineActivities = 5000;

/// `requests` as in InstallRequests, newest first. The result:
/// "sessions": [{"start","end"}], an end of null for one that no end was told of;
/// "activities": [{"time","group","activity","param","event_id","request"}], each event once, without those that begin
/// and end sessions;
/// "marks": [{"time","kind","text","request"}] of kind "attribution", "deep link", "commerce click", "crash",
/// "demographics" or "erasure".
/// All in order of time, times in milliseconds since 1970. "complete" is false when something was left out. Payloads
/// may be of any shape: what does not fit is passed over.
Json timelineOf(const std::vector<Json>& requests);

}  // namespace morvik_service
