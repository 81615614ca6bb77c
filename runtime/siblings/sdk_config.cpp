#include "runtime/siblings/sdk_config.h"

#include <algorithm>

#include "services/text_codes.h"

namespace morvik::runtime {

bool Device::canOpenURL(const kit::Url& url) const {
  const std::string& text = url.absoluteString();
  const size_t colon = text.find(':');
  if (colon == std::string::npos)
    return false;
  const std::string scheme = services::inLowerCase(std::string_view(text).substr(0, colon));
  const auto& schemes = description_.url_schemes;
  return std::any_of(schemes.begin(), schemes.end(),
                     [&scheme](const std::string& each) { return services::inLowerCase(each) == scheme; });
}

}  // namespace morvik::runtime
