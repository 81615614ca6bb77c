// A body that is sent piece by piece.
#pragma once

#include <optional>
#include <stop_token>
#include <string>

namespace morvik_service {

class BodyStream {
 public:
  virtual ~BodyStream() = default;

  /// The next piece, never empty; nothing at the end. Called on the connection's own thread, one call at a time. May
  /// block, but returns soon once `stop` is requested.
  virtual std::optional<std::string> next(const std::stop_token& stop) = 0;
};

}  // namespace morvik_service
