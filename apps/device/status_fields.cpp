#include "apps/device/status_fields.h"

#include <chrono>
#include <utility>

#include "services/dates.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

kit::Value textOf(morvik::Status::Time time) {
  const auto since_1970 = std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch());
  return morvik::services::iso8601({since_1970.count()});
}

kit::Value valueOf(const morvik::Referral& referral) {
  return kit::Dictionary{{"conversion_key", referral.conversion_key},
                         {"sub_conversion_key", referral.sub_conversion_key},
                         {"campaign_data", referral.campaign_data},
                         {"install_datetime", referral.install_datetime}};
}

kit::Value valueOf(const morvik::Status::Failure& failed) {
  return kit::Dictionary{{"when", textOf(failed.when)},
                         {"http_status", failed.failure.http_status},
                         {"reason", failed.failure.reason},
                         {"tried_again", failed.failure.is_tried_again}};
}

kit::Value valueOf(const std::vector<morvik::Status::Waiting>& waiting) {
  kit::MutableDictionary counts;
  for (const auto& [kind, count] : waiting)
    counts.set(kind, static_cast<int64_t>(count));
  return kit::Value(std::move(counts));
}

}  // namespace

kit::MutableDictionary fieldsOf(const morvik::Status& status) {
  kit::MutableDictionary fields;
  fields.set("running", status.is_running);
  fields.set("session_open", status.is_session_open);
  fields.set("attributed", status.is_attributed);
  fields.set("referral", status.referral ? valueOf(*status.referral) : kit::Value::null());
  fields.set("waiting", valueOf(status.waiting));
  fields.set("last_success", status.last_success ? textOf(*status.last_success) : kit::Value::null());
  fields.set("last_failure", status.last_failure ? valueOf(*status.last_failure) : kit::Value::null());
  fields.set("sending", status.is_sending_enabled);
  fields.set("forgotten", status.is_forgotten);
  fields.set("wish_file", toText(status.wish_file));
  return fields;
}

}  // namespace morvik_device
