// The endpoints of a tracking service by the names under which people speak of them.
#pragma once

#include <array>
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

inline constexpr std::array kServiceEndpoints = {
    ServiceEndpoint::kConversion,     ServiceEndpoint::kThirdPartyConversion,
    ServiceEndpoint::kIadAttribution, ServiceEndpoint::kTracking,
    ServiceEndpoint::kReEngagement,   ServiceEndpoint::kCommerce,
    ServiceEndpoint::kConfiguration,  ServiceEndpoint::kCrash,
    ServiceEndpoint::kDemographics,   ServiceEndpoint::kSchedule,
    ServiceEndpoint::kErasure,
};

/// The last part of its path ("tracking", "commerce-conversion"), and "configuration" for the app configuration.
std::string_view nameOf(ServiceEndpoint endpoint);
/// The reverse; nothing for a name that is none.
std::optional<ServiceEndpoint> endpointNamed(std::string_view name);
/// The endpoint that a request to this URL is meant for, by its path alone, whatever the base URL is; nothing for a
/// path of no endpoint.
std::optional<ServiceEndpoint> endpointOf(std::string_view url);

}  // namespace morvik::testing
