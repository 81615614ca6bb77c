#include "apps/service/endpoints.h"

#include <algorithm>

#include "apps/service/payload_check.h"

namespace morvik_service {
namespace {

Json resultAnswer(const AnswerContext& context, bool result) {
  return {{"BaseTime", context.now_milliseconds}, {"Result", result}};
}

// Conversion, third party conversion and iAd attribution tell the install who referred it.
Json attributionAnswer(const AnswerContext& context) {
  const bool has_parameters = context.payload.has_value();
  Json answer = resultAnswer(context, has_parameters);
  answer["ResultCode"] = has_parameters ? kResultCodeFine : kResultCodeNoParameters;
  if (!has_parameters)
    return answer;
  // A third party's parameters may lack the install's id; all such share one number.
  const auto id = context.payload->find("install_id");
  const std::string install_id = id != context.payload->end() && id->is_string() ? id->get<std::string>() : "";
  const Install install = context.store.install(install_id, context.now_milliseconds);
  answer["Data"] = context.attribution.record(install.user_no, install.first_seen_milliseconds);
  return answer;
}

// "Result" tells the device to forget the events, so it is true only when they were counted.
Json trackingAnswer(const AnswerContext& context) {
  return resultAnswer(context, context.counted);
}

}  // namespace

const std::vector<Endpoint>& endpoints() {
  static const std::vector<Endpoint> all = {
      {"conversion", "/v1/conversion", KeyChoice::kHashKeyTwice, false, false, checkConversionPayload,
       attributionAnswer},
      {"thirdparty-conversion", "/v1/thirdparty-conversion", KeyChoice::kHashKeyTwice, false, false,
       checkThirdPartyPayload, attributionAnswer},
      {"iad-attribution", "/v1/iad-attribution", KeyChoice::kHashKeyTwice, false, false, checkIadPayload,
       attributionAnswer},
      {"tracking", "/v1/tracking", KeyChoice::kTrackingKey, true, true, checkTrackingPayload, trackingAnswer},
  };
  return all;
}

const Endpoint* findEndpoint(std::string_view path) {
  const auto found =
      std::find_if(endpoints().begin(), endpoints().end(), [&](const Endpoint& each) { return each.path == path; });
  return found == endpoints().end() ? nullptr : &*found;
}

std::vector<std::string> endpointNames() {
  std::vector<std::string> names;
  for (const Endpoint& endpoint : endpoints())
    names.emplace_back(endpoint.name);
  return names;
}

}  // namespace morvik_service
