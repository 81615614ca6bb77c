// The service's record of an install: the "Data" of its conversion answers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "apps/service/base/json.h"

namespace morvik_service {

/// A plausible referral record, overridden by chosen members.
class Attribution {
 public:
  /// The chosen members must fit an answer; `text` is at most this long.
  static constexpr std::size_t kMaxBytes = std::size_t{1024} * 1024;

  /// Replaces all chosen members with those of the JSON object `text`. Any name and any value is accepted, null too: an
  /// answer may be odd on purpose. Throws Refusal 400 if it is not a JSON object.
  void choose(std::string_view text);

  /// The chosen members.
  const Json& chosen() const { return chosen_; }

  /// The record for an install with this number that was first seen at this time (milliseconds since 1970).
  Json record(std::int64_t user_no, std::int64_t installed_at_milliseconds) const;

 private:
  Json chosen_ = Json::object();
};

}  // namespace morvik_service
