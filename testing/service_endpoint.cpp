#include "testing/service_endpoint.h"

#include <algorithm>

#include "services/endpoints.h"

namespace morvik::testing {
namespace {

struct Entry {
  ServiceEndpoint endpoint;
  std::string_view name;
  /// How the path ends.
  std::string_view path;
};

constexpr Entry kEntries[] = {
    {ServiceEndpoint::kConversion, "conversion", services::kConversionPath},
    {ServiceEndpoint::kThirdPartyConversion, "thirdparty-conversion", services::kThirdPartyConversionPath},
    {ServiceEndpoint::kIadAttribution, "iad-attribution", services::kIADAttributionPath},
    {ServiceEndpoint::kTracking, "tracking", services::kTrackingPath},
    {ServiceEndpoint::kReEngagement, "reengagement-conversion", services::kReEngagementConversionPath},
    {ServiceEndpoint::kCommerce, "commerce-conversion", services::kCommerceConversionPath},
    {ServiceEndpoint::kConfiguration, "configuration", services::kAppConfigFileName},
    {ServiceEndpoint::kCrash, "crash", services::kCrashReportPath},
    {ServiceEndpoint::kDemographics, "demographics", services::kSetDemographicPath},
    {ServiceEndpoint::kSchedule, "schedule", services::kGetScheduleVer2Path},
    {ServiceEndpoint::kErasure, "erasure", services::kGdprReqUrlPath},
};
static_assert(std::size(kEntries) == kServiceEndpoints.size());

// A whole last part of the path: "v1/conversion" is no end of "v1/other-conversion".
bool endsWithPath(std::string_view path, std::string_view end) {
  return path.size() > end.size() && path.ends_with(end) && path[path.size() - end.size() - 1] == '/';
}

}  // namespace

std::string_view nameOf(ServiceEndpoint endpoint) {
  const auto* found =
      std::find_if(std::begin(kEntries), std::end(kEntries), [&](const Entry& e) { return e.endpoint == endpoint; });
  return found == std::end(kEntries) ? std::string_view() : found->name;
}

std::optional<ServiceEndpoint> endpointNamed(std::string_view name) {
  const auto* found =
      std::find_if(std::begin(kEntries), std::end(kEntries), [&](const Entry& e) { return e.name == name; });
  return found == std::end(kEntries) ? std::nullopt : std::optional(found->endpoint);
}

std::optional<ServiceEndpoint> endpointOf(std::string_view url) {
  const std::string_view path = url.substr(0, url.find_first_of("?#"));
  const auto* found = std::find_if(std::begin(kEntries), std::end(kEntries),
                                   [&](const Entry& e) { return endsWithPath(path, e.path); });
  return found == std::end(kEntries) ? std::nullopt : std::optional(found->endpoint);
}

}  // namespace morvik::testing
