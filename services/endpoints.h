// Paths, time-out and names that every request and record shares. Base URLs stand in kit/endpoints.h.
#pragma once

#include <cstdint>

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
/// Stands behind the app key and a slash.
inline constexpr const char* kAppConfigFileName = "config.json";

/// Time-out of every request that sets one.
inline constexpr int64_t kFendoHttpConnectionTimeoutSeconds = 15;

/// Name of the session activity group.
inline constexpr const char* kFendoActivityGroupSession = "session";

/// The two halves of the launch counter's key, joined by a full stop.
inline constexpr const char* kMorvikNSUserDefaultsDomainName = "com.morvik.core";
inline constexpr const char* kAppLaunchCountSaveKey = "appLaunchCount";

/// Key of the opened URL that came before the kit was ready.
inline constexpr const char* kPassOpenUrlKey = "com.morvik.reengagement.passopenurl";

}  // namespace morvik::services
