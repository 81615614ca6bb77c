// The three keys that an app and its service share.
#pragma once

#include <string>
#include <string_view>

#include "testing/service_endpoint.h"

namespace morvik_service {

struct Keys {
  std::string app_key;       ///< names the app; travels in the clear
  std::string hash_key;      ///< secret; twice in a row it seals conversions and re-engagements
  std::string tracking_key;  ///< secret; seals tracking and demographics; empty when the app has none
};

using morvik::testing::KeyChoice;

/// The key text of a choice; empty when the service was given none.
std::string keyText(const Keys& keys, KeyChoice choice);

/// Reads lines "app-key=...", "hash-key=...", "tracking-key=..."; blank lines and lines that begin with # are skipped.
/// Throws SetupError with the line's number, never with its text: it may be a key.
Keys parseKeys(std::string_view text, const std::string& file_name);

/// `over` where it has a value, otherwise `under`.
Keys mergeKeys(const Keys& over, const Keys& under);

}  // namespace morvik_service
