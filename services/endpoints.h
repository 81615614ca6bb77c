// The kit's endpoints, one row each, and what every request and record shares. Base URLs stand in kit/endpoints.h.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kit/endpoints.h"
#include "kit/value.h"

namespace morvik::services {

inline constexpr const char* kTrackingPath = "v1/tracking";
inline constexpr const char* kConversionPath = "v1/conversion";
inline constexpr const char* kThirdPartyConversionPath = "v1/thirdparty-conversion";
inline constexpr const char* kIADAttributionPath = "v1/iad-attribution";
inline constexpr const char* kReEngagementConversionPath = "v1/reengagement-conversion";
inline constexpr const char* kCommerceConversionPath = "v1/commerce-conversion";
inline constexpr const char* kCrashReportPath = "v1/crash";
inline constexpr const char* kGdprReqUrlPath = "v1/erasure";
inline constexpr const char* kGetScheduleVer2Path = "v2/schedule";
inline constexpr const char* kSetDemographicPath = "v1/demographics";
/// Follows the app key and a slash. The one file that is not in the table, since its URL depends on the app.
inline constexpr const char* kAppConfigFileName = "config.json";

enum class Endpoint : uint8_t {
  kConversion,
  kThirdPartyConversion,
  kIADAttribution,
  kTracking,
  kReEngagementConversion,
  kCommerceConversion,
  kCrashReport,
  kSetDemographic,
  kGdprReq,
  kGetSchedule
};

/// Which JSON object, answered with a status from 200 to 299, accepts what a request carried.
enum class Acceptance : uint8_t {
  kResult,           ///< "Result" is true
  kNoErrorMessage,   ///< "errMsg" is absent or null
  kCodeZero,         ///< "code" is 0 or no number
  kAny,              ///< any
  kNothingDelivered  ///< the request asks for something and delivers nothing
};

struct EndpointRow {
  Endpoint endpoint;
  std::string kit::Endpoints::*base_url;
  std::string_view path;
  Acceptance accepted_by;
  std::string_view description;  ///< what its requests carry, for people
};

/// In the order of Endpoint. Everything that has to know an endpoint of the kit reads this table.
inline constexpr std::array kEndpoints = std::to_array<EndpointRow>({
    {Endpoint::kConversion, &kit::Endpoints::kFendoConversionBaseLiveUrl, kConversionPath, Acceptance::kResult,
     "conversion"},
    {Endpoint::kThirdPartyConversion, &kit::Endpoints::kFendoConversionBaseLiveUrl, kThirdPartyConversionPath,
     Acceptance::kResult, "third party conversion"},
    {Endpoint::kIADAttribution, &kit::Endpoints::kFendoConversionBaseLiveUrl, kIADAttributionPath, Acceptance::kResult,
     "iAd attribution"},
    {Endpoint::kTracking, &kit::Endpoints::kFendoTrackingBaseLiveUrl, kTrackingPath, Acceptance::kResult,
     "batch of activities"},
    {Endpoint::kReEngagementConversion, &kit::Endpoints::kFendoConversionBaseLiveUrl, kReEngagementConversionPath,
     Acceptance::kResult, "re-engagement click"},
    {Endpoint::kCommerceConversion, &kit::Endpoints::kCommerceBaseLiveUrl, kCommerceConversionPath,
     Acceptance::kNoErrorMessage, "commerce clicks"},
    {Endpoint::kCrashReport, &kit::Endpoints::kCrashReportBaseLiveUrl, kCrashReportPath, Acceptance::kCodeZero,
     "crash reports"},
    {Endpoint::kSetDemographic, &kit::Endpoints::kFendoTrackingBaseLiveUrl, kSetDemographicPath, Acceptance::kResult,
     "demographics"},
    {Endpoint::kGdprReq, &kit::Endpoints::kGdprReqUrl, kGdprReqUrlPath, Acceptance::kAny, "erasure"},
    {Endpoint::kGetSchedule, &kit::Endpoints::kFendoCampaignBaseLiveUrl, kGetScheduleVer2Path,
     Acceptance::kNothingDelivered, "campaign schedule"},
});

constexpr const EndpointRow& rowOf(Endpoint endpoint) {
  return kEndpoints[static_cast<size_t>(endpoint)];
}

/// Base URL and path.
std::string urlOf(const kit::Endpoints& base_urls, Endpoint endpoint);
/// The endpoint with exactly this URL; nothing for any other, that of the app configuration among them.
std::optional<Endpoint> endpointOf(const kit::Endpoints& base_urls, std::string_view url);
/// Whether this answer, a JSON object that came with a status from 200 to 299, accepts what was sent there. Always true
/// where nothing is delivered.
bool isAcceptance(Endpoint endpoint, const kit::Value& answer);

/// Time-out of every request that sets one.
inline constexpr int64_t kFendoHttpConnectionTimeoutSeconds = 15;

/// Name of the session activity group.
inline constexpr const char* kFendoActivityGroupSession = "session";

/// The two halves of the launch counter's key, joined by a full stop.
inline constexpr const char* kMorvikNSUserDefaultsDomainName = "com.morvik.core";
inline constexpr const char* kAppLaunchCountSaveKey = "appLaunchCount";

/// Key of an opened URL that arrived before the kit was ready.
inline constexpr const char* kPassOpenUrlKey = "com.morvik.reengagement.passopenurl";

}  // namespace morvik::services
