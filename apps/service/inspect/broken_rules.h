// The rules of the wire format that a stored request broke, in plain words.
#pragma once

#include "apps/service/base/json.h"

namespace morvik_service {

/// More than this many are not listed.
inline constexpr std::size_t kMaxRulesListed = 30;

/// `request` as Store::request gives it. The result is an array of {"what","where","mend"}: first why the request was
/// refused, if it was; then what a service takes in but the format says otherwise: headers, order and form of event ids
/// and times, what stands twice in a batch. Empty when all is as it should be.
Json brokenRules(const Json& request);

}  // namespace morvik_service
