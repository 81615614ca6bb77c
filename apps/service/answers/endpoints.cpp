#include "apps/service/answers/endpoints.h"

#include <algorithm>

#include "apps/service/base/times.h"
#include "apps/service/checks/click_rules.h"
#include "apps/service/checks/crash_rules.h"
#include "apps/service/checks/demographics_rules.h"
#include "apps/service/checks/erasure_rules.h"
#include "apps/service/checks/payload_rules.h"

namespace morvik_service {
namespace {

Json resultAnswer(const AnswerContext& context, bool result) {
  return {{"BaseTime", context.now_milliseconds}, {"Result", result}};
}

// A device takes a key as reported for as long as the list names it. A list that was chosen is given as it is.
void listReportedKey(const AnswerContext& context, Json& record) {
  if (context.data.attribution.chosen().contains("conversion_key_list"))
    return;
  const auto click = context.payload->find("deeplink_info");
  if (click == context.payload->end() || !click->is_object() || !click->contains("conversion_key"))
    return;
  Json& keys = record.at("conversion_key_list");
  const Json& key = click->at("conversion_key");
  if (key.is_number_integer() && std::find(keys.begin(), keys.end(), key) == keys.end())
    keys.push_back(key);
}

// Conversion, third party conversion and iAd attribution tell the install who referred it.
Json attributionAnswer(const AnswerContext& context) {
  const bool has_parameters = context.payload.has_value();
  Json answer = resultAnswer(context, has_parameters);
  answer["ResultCode"] = has_parameters ? kResultCodeFine : kResultCodeNoParameters;
  if (!has_parameters)
    return answer;
  // A third party's parameters may lack the install's id; all such share one number.
  const Install install = context.store.install(memberText(*context.payload, "install_id"), context.now_milliseconds);
  answer["Data"] = context.data.attribution.record(install.user_no, install.first_seen_milliseconds);
  listReportedKey(context, answer["Data"]);
  return answer;
}

// "Result" tells the device to forget the events, so it is true only when they were counted.
Json trackingAnswer(const AnswerContext& context) {
  return resultAnswer(context, context.counted);
}

// "Result" tells the device to forget the click.
Json reEngagementAnswer(const AnswerContext& context) {
  Json answer = resultAnswer(context, context.counted);
  if (!context.counted)
    return answer;
  const Json& key = context.payload->at("deeplink_info").at("conversion_key");
  answer["Data"]["conversion_result"] = {{"conversion_key", key},
                                         {"reengagement_data", "click " + key.dump()},
                                         {"reengagement_datetime", std::stoll(compactTime(context.now_milliseconds))}};
  return answer;
}

// An absent message tells the device to forget the clicks.
Json commerceAnswer(const AnswerContext& context) {
  return {{"errMsg", context.counted ? Json(nullptr) : Json("the clicks were not counted")}};
}

Json commerceRefusal(const Refusal& refusal) {
  return {{"errMsg", refusal.what()}};
}

Json configurationAnswer(const AnswerContext& context) {
  return {{"commerce", {{"premium_postback", context.data.premium_postback ? "true" : "false"}}}};
}

// The code tells the device to forget the reports.
Json crashAnswer(const AnswerContext& context) {
  return {{"code", context.counted ? kCodeFine : kCodeNotCounted}};
}

// "Result" tells the device to forget what it told.
Json demographicsAnswer(const AnswerContext& context) {
  return {{"Result", context.counted}};
}

Json scheduleAnswer(const AnswerContext& context) {
  const Schedule::Content& schedule = context.data.schedule.current();
  Json answer = resultAnswer(context, true);
  if (context.payload->at("checksum") == schedule.check_sum) {
    answer["ResultCode"] = kResultCodeUnchanged;
    return answer;
  }
  answer["ResultCode"] = kResultCodeFine;
  answer["Data"] = schedule.members;
  answer["Data"]["CheckSum"] = schedule.check_sum;
  return answer;
}

// Any answer with a good status accepts the request.
Json erasureAnswer(const AnswerContext& context) {
  return {{"subject_request_id", context.payload->at("subject_request_id")}};
}

bool matches(std::string_view pattern, std::string_view path) {
  const std::size_t place = pattern.find(kAppKeyInPath);
  if (place == std::string_view::npos)
    return path == pattern;
  const std::string_view head = pattern.substr(0, place);
  const std::string_view tail = pattern.substr(place + kAppKeyInPath.size());
  return path.size() > head.size() + tail.size() && path.substr(0, head.size()) == head &&
         path.substr(path.size() - tail.size()) == tail;
}

}  // namespace

const std::vector<Endpoint>& endpoints() {
  static const std::vector<Endpoint> all = {
      {.name = "conversion",
       .path = "/v1/conversion",
       .payload_required = false,
       .check = checkConversionPayload,
       .answer = attributionAnswer},
      {.name = "thirdparty-conversion",
       .path = "/v1/thirdparty-conversion",
       .payload_required = false,
       .check = checkThirdPartyPayload,
       .answer = attributionAnswer},
      {.name = "iad-attribution",
       .path = "/v1/iad-attribution",
       .payload_required = false,
       .check = checkIadPayload,
       .answer = attributionAnswer},
      {.name = "tracking",
       .path = "/v1/tracking",
       .key = KeyChoice::kTrackingKey,
       .counting = Counting::kEvents,
       .check = checkTrackingPayload,
       .answer = trackingAnswer},
      {.name = "reengagement-conversion",
       .path = "/v1/reengagement-conversion",
       .counting = Counting::kPayload,
       .check = checkReEngagementPayload,
       .answer = reEngagementAnswer},
      {.name = "commerce-conversion",
       .path = "/v1/commerce-conversion",
       .form = PayloadForm::kJsonArray,
       .counting = Counting::kPayload,
       .check = checkCommerceClicks,
       .answer = commerceAnswer,
       .answer_refused = commerceRefusal},
      {.name = "configuration",
       .method = "GET",
       .path = "/{app key}/config.json",
       .form = PayloadForm::kAppKeyInPath,
       .payload_required = false,
       .answer = configurationAnswer},
      {.name = "crash",
       .path = "/v1/crash",
       .form = PayloadForm::kJsonArray,
       .counting = Counting::kPayload,
       .check = checkCrashReports,
       .check_app = checkAppOfCrashReports,
       .answer = crashAnswer},
      {.name = "demographics",
       .path = "/v1/demographics",
       .form = PayloadForm::kHexadecimal,
       .key = KeyChoice::kTrackingKey,
       .counting = Counting::kPayload,
       .check = checkDemographicsPayload,
       .answer = demographicsAnswer},
      {.name = "schedule",
       .path = "/v2/schedule",
       .form = PayloadForm::kForm,
       .check = checkSchedulePayload,
       .answer = scheduleAnswer},
      {.name = "erasure",
       .path = "/v1/erasure",
       .form = PayloadForm::kJsonObject,
       .counting = Counting::kPayload,
       .check = checkErasureRequest,
       .check_app = checkAppOfErasureRequest,
       .answer = erasureAnswer},
  };
  return all;
}

const Endpoint* findEndpoint(std::string_view path) {
  const auto found = std::find_if(endpoints().begin(), endpoints().end(),
                                  [&](const Endpoint& each) { return matches(each.path, path); });
  return found == endpoints().end() ? nullptr : &*found;
}

std::vector<std::string> endpointNames() {
  std::vector<std::string> names;
  for (const Endpoint& endpoint : endpoints())
    names.emplace_back(endpoint.name);
  return names;
}

}  // namespace morvik_service
