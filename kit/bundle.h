// The app's own information dictionary.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace morvik::kit {

inline constexpr const char* kCFBundleShortVersionStringKey = "CFBundleShortVersionString";
inline constexpr const char* kCFBundleVersionKey = "CFBundleVersion";
inline constexpr const char* kCFBundleIdentifierKey = "CFBundleIdentifier";

class Bundle {
 public:
  virtual ~Bundle() = default;
  /// The text under that key; nothing if there is none. Any thread, also one that is about to die: takes no lock.
  virtual std::optional<std::string> objectForInfoDictionaryKey(std::string_view key) const = 0;
};

}  // namespace morvik::kit
