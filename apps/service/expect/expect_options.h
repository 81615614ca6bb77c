// The command line of `morvik-service expect`.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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

/// Either options, or a text to print (help or an error) and the exit status.
struct ExpectCommandLine {
  std::optional<ExpectOptions> options;
  std::string text;
  int exit_status = 0;
};

/// `arguments` are those after "expect". Reads the files that say where a service runs.
ExpectCommandLine readExpectCommandLine(std::vector<std::string> arguments);

/// "250ms", "5s", "1.5s", "1m 30s" or "5" (seconds), as morvik_text::readDuration reads it; nothing when it is none of
/// these or longer than kMaxWithin.
std::optional<std::chrono::milliseconds> parseWithin(const std::string& text);

}  // namespace morvik_service
