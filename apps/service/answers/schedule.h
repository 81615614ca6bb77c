// The campaign schedule that the service hands out.
#pragma once

#include <string>
#include <string_view>

#include "apps/service/base/json.h"

namespace morvik_service {

/// A JSON object with the checksum by which a device says which one it has: lower-case hexadecimal SHA-256 of the bytes
/// it was read from. Not safe for several threads at once.
class Schedule {
 public:
  struct Content {
    Json members = Json::object();
    std::string check_sum;
  };

  /// A small one of the service's own.
  Schedule();

  /// The one in `file`, which may change while the service runs. Throws SetupError when it cannot be used.
  explicit Schedule(std::string file);

  /// The schedule of this moment; a file is read anew. Valid until the next call. Throws Refusal 503 when the file
  /// cannot be used any more, and takes it again when it can.
  const Content& current();

 private:
  void use(std::string_view text);

  std::string file_;  ///< "" for the service's own
  Content content_;
};

}  // namespace morvik_service
