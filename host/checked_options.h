// The app's options, read and found fit.
#pragma once

#include <string>
#include <variant>

#include "kit/endpoints.h"
#include "kit/error.h"
#include "morvik/host_options.h"

namespace morvik::host {

/// A larger file of keys is refused.
inline constexpr size_t kMaxKeyFileBytes = 65'536;

struct CheckedOptions {
  HostOptions options;  ///< as given
  std::string app_key;
  std::string hash_key;
  std::string tracking_key;  ///< may be empty
  kit::Endpoints endpoints;
  bool has_loopback_endpoint = false;
};

/// Reads the keys, from file or environment where they say so, and completes the URLs. Reads small files; otherwise
/// does not block. The error names the option, what is wrong with it, and how to mend it; no key stands in it.
std::variant<CheckedOptions, kit::Error> checkOptions(const HostOptions& options);

}  // namespace morvik::host
