#include "apps/service/http/http_message.h"

#include <algorithm>

#include "apps/service/base/ascii.h"

namespace morvik_service {

const std::string* findHeader(const HttpRequest& request, std::string_view name) {
  const auto found = std::find_if(request.headers.begin(), request.headers.end(),
                                  [&](const auto& header) { return equalWithoutCase(header.first, name); });
  return found == request.headers.end() ? nullptr : &found->second;
}

}  // namespace morvik_service
