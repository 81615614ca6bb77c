#include "runtime/siblings/app_bundle.h"

namespace morvik::runtime {

std::optional<std::string> AppBundle::objectForInfoDictionaryKey(std::string_view key) const {
  if (key == kit::kCFBundleShortVersionStringKey)
    return version_;
  if (key == kit::kCFBundleVersionKey)
    return build_;
  if (key == kit::kCFBundleIdentifierKey)
    return identifier_;
  return std::nullopt;
}

}  // namespace morvik::runtime
