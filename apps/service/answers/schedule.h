// The campaign schedule that the service answers with.
#pragma once

#include <string>
#include <string_view>

#include "apps/service/base/json.h"

namespace morvik_service {

/// A JSON object with the checksum by which a device says which one it has: lower-case hexadecimal SHA-256 of the bytes
/// it was read from. Not thread-safe.
class Schedule {
 public:
  struct Content {
    Json members = Json::object();
    std::string check_sum;
  };

  /// A small built-in one.
  Schedule();

  /// The one in `file`, which may change while the service runs. Throws SetupError if it cannot be used.
  explicit Schedule(std::string file);

  /// The current schedule; a file is read again. Valid until the next call. Throws Refusal 503 while the file cannot be
  /// used.
  const Content& current();

 private:
  void use(std::string_view text);

  std::string file_;  ///< "" for the built-in one
  Content content_;
};

}  // namespace morvik_service
