#include "testing/service_endpoint.h"

#include <algorithm>

namespace morvik::testing {
namespace {

constexpr bool isInOrder() {
  for (size_t i = 0; i < kServiceTable.size(); ++i) {
    if (kServiceTable[i].endpoint != static_cast<ServiceEndpoint>(i))
      return false;
  }
  return true;
}
static_assert(isInOrder());

/// The end of a path, whatever the app key and the base URL are. It begins with a slash, so that "/v1/other-conversion"
/// does not end with "/v1/conversion".
constexpr std::string_view endOf(std::string_view pattern) {
  const size_t place = pattern.find(kAppKeyPlaceholder);
  return place == std::string_view::npos ? pattern : pattern.substr(place + kAppKeyPlaceholder.size());
}

template <typename Condition>
std::optional<ServiceEndpoint> endpointWhere(Condition holds) {
  const auto* found = std::find_if(kServiceTable.begin(), kServiceTable.end(), holds);
  return found == kServiceTable.end() ? std::nullopt : std::optional(found->endpoint);
}

}  // namespace

std::optional<ServiceEndpoint> endpointNamed(std::string_view name) {
  return endpointWhere([name](const ServiceEndpointRow& row) { return row.name == name; });
}

std::optional<ServiceEndpoint> endpointOf(std::string_view url) {
  const std::string_view path = url.substr(0, url.find_first_of("?#"));
  return endpointWhere([path](const ServiceEndpointRow& row) { return path.ends_with(endOf(row.path)); });
}

}  // namespace morvik::testing
