// The rules of the wire format that a stored request broke.
#pragma once

#include "apps/service/base/json.h"

namespace morvik_service {

/// More than this many are not listed.
inline constexpr std::size_t kMaxRulesListed = 30;

/// `request` as Store::request gives it. The result is an array of {"what","where","fix"}: first why the request was
/// refused, if it was; then violations that the service tolerates: headers, order and form of event ids and times,
/// repetitions in a batch. Empty if there are none.
Json brokenRules(const Json& request);

}  // namespace morvik_service
