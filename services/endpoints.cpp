#include "services/endpoints.h"

#include <algorithm>

#include "services/converters.h"

namespace morvik::services {
namespace {

constexpr bool isInOrder() {
  for (size_t i = 0; i < kEndpoints.size(); ++i) {
    if (kEndpoints[i].endpoint != static_cast<Endpoint>(i))
      return false;
  }
  return true;
}
static_assert(isInOrder());

}  // namespace

std::string urlOf(const kit::Endpoints& base_urls, Endpoint endpoint) {
  const EndpointRow& row = rowOf(endpoint);
  return std::string(base_urls.*row.base_url).append(row.path);
}

std::optional<Endpoint> endpointOf(const kit::Endpoints& base_urls, std::string_view url) {
  const auto* found = std::find_if(kEndpoints.begin(), kEndpoints.end(), [&](const EndpointRow& row) {
    const std::string& base_url = base_urls.*row.base_url;
    return url.size() == base_url.size() + row.path.size() && url.starts_with(base_url) && url.ends_with(row.path);
  });
  return found == kEndpoints.end() ? std::nullopt : std::optional(found->endpoint);
}

bool isAcceptance(Endpoint endpoint, const kit::Value& answer) {
  switch (rowOf(endpoint).accepted_by) {
    case Acceptance::kResult:
      return checkNilToNo(answer["Result"]);
    case Acceptance::kNoErrorMessage:
      return answer["errMsg"].isNil();
    case Acceptance::kCodeZero:
      return checkIntegerNilToZero(answer["code"]) == 0;
    case Acceptance::kAny:
    case Acceptance::kNothingDelivered:
      break;
  }
  return true;
}

}  // namespace morvik::services
