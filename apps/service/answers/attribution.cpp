#include "apps/service/answers/attribution.h"

#include "apps/service/base/refusal.h"
#include "apps/service/base/times.h"

namespace morvik_service {

void Attribution::choose(std::string_view text) {
  constexpr const char* kWhere = "the attribution data";
  if (text.size() > kMaxBytes) {
    throw Refusal(413, "more than " + std::to_string(kMaxBytes) + " bytes of JSON", kWhere, "send fewer members");
  }
  Json members = parseJson(text, kWhere);
  if (!members.is_object()) {
    throw Refusal(400, "the JSON is not an object", kWhere,
                  "send an object such as {\"deeplink\":\"myapp://offer/7\"}");
  }
  chosen_ = std::move(members);
}

Json Attribution::record(std::int64_t user_no, std::int64_t installed_at_milliseconds) const {
  Json record = {{"user_no", user_no},
                 {"shard_no", 1},
                 {"referralKey", 1001},
                 {"subreferralKey", 12},
                 {"refusn", "partner-1001"},
                 {"channel_type", 1},
                 {"referral_data", ""},
                 {"reengagement_conversion_key", 0},
                 {"reengagement_data", ""},
                 {"reengagement_datetime", 0},
                 {"last_referral_key", 1001},
                 {"last_referral_data", ""},
                 {"last_referral_datetime", compactTime(installed_at_milliseconds)},
                 {"install_datetime", compactTime(installed_at_milliseconds)},
                 {"conversion_key_list", {2001, 2002}},
                 {"deeplink", ""}};
  for (const auto& [name, value] : chosen_.items())
    record[name] = value;
  return record;
}

}  // namespace morvik_service
