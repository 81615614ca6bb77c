// The options of `morvik-service expect`.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "apps/command_line/command_line.h"

namespace morvik_service {

/// The longest wait.
inline constexpr std::chrono::hours kMaxWithin{24};

struct ExpectOptions {
  std::string expression;
  std::chrono::milliseconds within{5000};
  int count = 1;
  bool none = false;
  bool from_now = false;
  std::int64_t after = 0;
  std::string url;             ///< ends with a slash
  std::string authority_file;  ///< certificates to trust
};

/// Adds the options to `app`. The result is complete once `app` was run; its callback reads the files that say where a
/// service runs, and throws UsageError when it finds none.
std::shared_ptr<const ExpectOptions> describeExpectOptions(CLI::App& app);

/// "250ms", "5s", "1.5s", "1m 30s" or "5" (seconds), as morvik_text::readDuration reads it; nothing when it is none of
/// these or longer than kMaxWithin.
std::optional<std::chrono::milliseconds> parseWithin(const std::string& text);

}  // namespace morvik_service
