// What the kit's requests carry, told by where they go, and which answers accept it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kit/MorvikCoreServicesLib.h"
#include "kit/endpoints.h"

namespace morvik::runtime {

enum class RequestKind : uint8_t {
  kConversion,
  kThirdPartyConversion,
  kIAdAttribution,
  kBatch,
  kReEngagementClick,
  kCommerceClicks,
  kCrashReports,
  kDemographics,
  kErasure,
  kQuestion  ///< app configuration and campaign schedule: asks for something, and delivers nothing
};
/// Those that deliver something.
inline constexpr size_t kDeliveringRequestKinds = 9;

/// Any thread.
class RequestKinds {
 public:
  explicit RequestKinds(const kit::Endpoints& endpoints);
  /// kQuestion for every URL that is none of the others'.
  RequestKind of(std::string_view url) const;

 private:
  const std::array<std::string, kDeliveringRequestKinds> urls_;
};

/// For people: "batch of activities".
std::string_view nameOf(RequestKind kind);

/// By the rules of its endpoint, the service has what the request carried, or said so.
bool isAccepted(RequestKind kind, const kit::ExchangeResult& result);

}  // namespace morvik::runtime
