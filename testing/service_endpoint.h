// The endpoints of a tracking service, one row each. The local service (apps/service) and SimulatedService read these
// rows; each opens, checks and answers with its own code. The paths are not taken from the kit: a request to any other
// path is refused. Depends on the standard library alone, since the local service includes nothing else of the kit.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace morvik::testing {

enum class ServiceEndpoint : uint8_t {
  kConversion,
  kThirdPartyConversion,
  kIadAttribution,
  kTracking,
  kReEngagement,
  kCommerce,
  kConfiguration,
  kCrash,
  kDemographics,
  kSchedule,
  kErasure,
};

/// How a request carries its payload.
enum class PayloadForm : uint8_t {
  kEnvelope,     ///< form parameters k and j; j is a sealed JSON object in base64url
  kHexadecimal,  ///< form parameter j; a sealed JSON object in hexadecimal, never deflated
  kForm,         ///< form parameters, k among them; the payload is an object of their texts
  kJsonArray,    ///< the body is the JSON
  kJsonObject,
  kAppKeyInPath,  ///< no payload; the path begins with the app key
};

/// Which secret opens a sealed payload.
enum class KeyChoice : uint8_t { kHashKeyTwice, kTrackingKey };

/// What a payload may contain.
enum class PayloadCounting : uint8_t {
  kNothing,  ///< nothing that counts
  kPayload,  ///< clicks, reports and the like: the reader of the payload counts them
  kEvents,   ///< events and impressions, counted one by one
};

/// An answer that depends only on whether the payload was counted.
struct FixedAnswer {
  std::string_view accepting;  ///< a JSON object; "": the endpoint's answer is made by code
  std::string_view declining;
  bool has_time = false;  ///< with "BaseTime" before its members

  constexpr bool isSet() const { return !accepting.empty(); }
};

inline constexpr size_t kMaxRequiredTexts = 8;

struct ServiceEndpointRow {
  ServiceEndpoint endpoint = ServiceEndpoint::kConversion;
  /// The last part of its path ("tracking", "commerce-conversion"), and "configuration" for the app configuration.
  std::string_view name;
  std::string_view method = "POST";
  std::string_view path;  ///< exact, except for kAppKeyPlaceholder
  PayloadForm form = PayloadForm::kEnvelope;
  KeyChoice key = KeyChoice::kHashKeyTwice;  ///< of sealed forms
  bool payload_required = true;              ///< an empty body is refused
  PayloadCounting counting = PayloadCounting::kNothing;
  /// Texts that an object must have as payload; "" past the last.
  std::array<std::string_view, kMaxRequiredTexts> required_texts{};
  FixedAnswer fixed_answer{};
};

/// Stands for the app key in a path.
inline constexpr std::string_view kAppKeyPlaceholder = "{app key}";

inline constexpr FixedAnswer kResultWithTime{R"({"Result":true})", R"({"Result":false})", true};

/// In the order of ServiceEndpoint.
inline constexpr std::array kServiceTable = std::to_array<ServiceEndpointRow>({
    {.endpoint = ServiceEndpoint::kConversion,
     .name = "conversion",
     .path = "/v1/conversion",
     .payload_required = false},
    {.endpoint = ServiceEndpoint::kThirdPartyConversion,
     .name = "thirdparty-conversion",
     .path = "/v1/thirdparty-conversion",
     .payload_required = false},
    {.endpoint = ServiceEndpoint::kIadAttribution,
     .name = "iad-attribution",
     .path = "/v1/iad-attribution",
     .payload_required = false},
    // "Result" tells the device to forget the events, so it is true only when they were counted.
    {.endpoint = ServiceEndpoint::kTracking,
     .name = "tracking",
     .path = "/v1/tracking",
     .key = KeyChoice::kTrackingKey,
     .counting = PayloadCounting::kEvents,
     .fixed_answer = kResultWithTime},
    {.endpoint = ServiceEndpoint::kReEngagement,
     .name = "reengagement-conversion",
     .path = "/v1/reengagement-conversion",
     .counting = PayloadCounting::kPayload},
    // An absent message tells the device to forget the clicks.
    {.endpoint = ServiceEndpoint::kCommerce,
     .name = "commerce-conversion",
     .path = "/v1/commerce-conversion",
     .form = PayloadForm::kJsonArray,
     .counting = PayloadCounting::kPayload,
     .fixed_answer = {R"({"errMsg":null})", R"({"errMsg":"the clicks were not counted"})"}},
    {.endpoint = ServiceEndpoint::kConfiguration,
     .name = "configuration",
     .method = "GET",
     .path = "/{app key}/config.json",
     .form = PayloadForm::kAppKeyInPath,
     .payload_required = false},
    // The code tells the device to forget the reports.
    {.endpoint = ServiceEndpoint::kCrash,
     .name = "crash",
     .path = "/v1/crash",
     .form = PayloadForm::kJsonArray,
     .counting = PayloadCounting::kPayload,
     .fixed_answer = {R"({"code":0})", R"({"code":1})"}},
    // "Result" tells the device to forget what it sent.
    {.endpoint = ServiceEndpoint::kDemographics,
     .name = "demographics",
     .path = "/v1/demographics",
     .form = PayloadForm::kHexadecimal,
     .key = KeyChoice::kTrackingKey,
     .counting = PayloadCounting::kPayload,
     .fixed_answer = {R"({"Result":true})", R"({"Result":false})"}},
    {.endpoint = ServiceEndpoint::kSchedule,
     .name = "schedule",
     .path = "/v2/schedule",
     .form = PayloadForm::kForm,
     .required_texts = {"k", "language", "checksum"}},
    {.endpoint = ServiceEndpoint::kErasure,
     .name = "erasure",
     .path = "/v1/erasure",
     .form = PayloadForm::kJsonObject,
     .counting = PayloadCounting::kPayload},
});

/// All endpoints, in order.
inline constexpr auto kServiceEndpoints = [] {
  std::array<ServiceEndpoint, kServiceTable.size()> all{};
  for (size_t i = 0; i < all.size(); ++i)
    all[i] = kServiceTable[i].endpoint;
  return all;
}();

constexpr const ServiceEndpointRow& rowOf(ServiceEndpoint endpoint) {
  return kServiceTable[static_cast<size_t>(endpoint)];
}

constexpr std::string_view nameOf(ServiceEndpoint endpoint) {
  return rowOf(endpoint).name;
}
/// The reverse; nothing for an unknown name.
std::optional<ServiceEndpoint> endpointNamed(std::string_view name);
/// The endpoint for a request to this URL, by its path alone, whatever the base URL is; nothing if the path belongs to
/// no endpoint.
std::optional<ServiceEndpoint> endpointOf(std::string_view url);

}  // namespace morvik::testing
