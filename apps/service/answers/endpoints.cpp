#include "apps/service/answers/endpoints.h"

#include <algorithm>

#include "apps/service/base/times.h"
#include "apps/service/checks/click_rules.h"
#include "apps/service/checks/crash_rules.h"
#include "apps/service/checks/demographics_rules.h"
#include "apps/service/checks/erasure_rules.h"
#include "apps/service/checks/member_rules.h"
#include "apps/service/checks/payload_rules.h"

namespace morvik_service {
namespace {

using morvik::testing::FixedAnswer;
using morvik::testing::kAppKeyPlaceholder;
using morvik::testing::kServiceTable;
using morvik::testing::ServiceEndpoint;
using morvik::testing::ServiceEndpointRow;

Json resultAnswer(const AnswerContext& context, bool result) {
  return {{"BaseTime", context.now_milliseconds}, {"Result", result}};
}

// A device takes a key as reported for as long as the list names it. A chosen list is returned as it is.
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
  // A third party's parameters may lack the install's id; all such installs share one number.
  const Install install = context.store.install(memberText(*context.payload, "install_id"), context.now_milliseconds);
  answer["Data"] = context.data.attribution.record(install.user_no, install.first_seen_milliseconds);
  listReportedKey(context, answer["Data"]);
  return answer;
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

Json commerceRefusal(const Refusal& refusal) {
  return {{"errMsg", refusal.what()}};
}

Json configurationAnswer(const AnswerContext& context) {
  return {{"commerce", {{"premium_postback", context.data.premium_postback ? "true" : "false"}}}};
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
  const std::size_t place = pattern.find(kAppKeyPlaceholder);
  if (place == std::string_view::npos)
    return path == pattern;
  const std::string_view head = pattern.substr(0, place);
  const std::string_view tail = pattern.substr(place + kAppKeyPlaceholder.size());
  return path.size() > head.size() + tail.size() && path.substr(0, head.size()) == head &&
         path.substr(path.size() - tail.size()) == tail;
}

/// The row with the checks and answers that it cannot express.
Endpoint withOwnCode(const ServiceEndpointRow& row) {
  Endpoint endpoint{row};
  switch (row.endpoint) {
    case ServiceEndpoint::kConversion:
      endpoint.check = checkConversionPayload;
      endpoint.answer = attributionAnswer;
      break;
    case ServiceEndpoint::kThirdPartyConversion:
      endpoint.check = checkThirdPartyPayload;
      endpoint.answer = attributionAnswer;
      break;
    case ServiceEndpoint::kIadAttribution:
      endpoint.check = checkIadPayload;
      endpoint.answer = attributionAnswer;
      break;
    case ServiceEndpoint::kTracking:
      endpoint.check = checkTrackingPayload;
      break;
    case ServiceEndpoint::kReEngagement:
      endpoint.check = checkReEngagementPayload;
      endpoint.answer = reEngagementAnswer;
      break;
    case ServiceEndpoint::kCommerce:
      endpoint.check = checkCommerceClicks;
      endpoint.answer_refused = commerceRefusal;
      break;
    case ServiceEndpoint::kConfiguration:
      endpoint.answer = configurationAnswer;
      break;
    case ServiceEndpoint::kCrash:
      endpoint.check = checkCrashReports;
      endpoint.check_app = checkAppOfCrashReports;
      break;
    case ServiceEndpoint::kDemographics:
      endpoint.check = checkDemographicsPayload;
      break;
    case ServiceEndpoint::kSchedule:
      endpoint.answer = scheduleAnswer;
      break;
    case ServiceEndpoint::kErasure:
      endpoint.check = checkErasureRequest;
      endpoint.check_app = checkAppOfErasureRequest;
      endpoint.answer = erasureAnswer;
      break;
    default:
      break;  // the row is complete
  }
  return endpoint;
}

}  // namespace

const std::vector<Endpoint>& endpoints() {
  static const std::vector<Endpoint> all = [] {
    std::vector<Endpoint> rows;
    for (const ServiceEndpointRow& row : kServiceTable)
      rows.push_back(withOwnCode(row));
    return rows;
  }();
  return all;
}

void checkPayload(const Endpoint& endpoint, const Json& payload, const Keys& keys) {
  for (std::size_t i = 0; i < endpoint.required_texts.size() && !endpoint.required_texts[i].empty(); ++i)
    requireMember(payload, {endpoint.required_texts[i]}, {});
  if (endpoint.check != nullptr)
    endpoint.check(payload);
  if (endpoint.check_app != nullptr)
    endpoint.check_app(payload, keys);
}

Json answerOf(const Endpoint& endpoint, const AnswerContext& context) {
  if (endpoint.answer != nullptr)
    return endpoint.answer(context);
  const FixedAnswer& fixed = endpoint.fixed_answer;
  Json answer = Json::object();
  if (fixed.has_time)
    answer["BaseTime"] = context.now_milliseconds;
  answer.update(Json::parse(context.counted ? fixed.accepting : fixed.declining));
  return answer;
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
