// Decodes an answer's body as it arrives, up to a bound.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "host/compress/inflater.h"
#include "kit/error.h"

namespace morvik::host {

/// How much larger than its content an encoded body may be; anything beyond only wastes time.
inline constexpr size_t kEncodingOverheadBytes = size_t{64} << 10;

/// One answer, one thread.
class AnswerBody {
 public:
  /// `max_bytes` bounds the decoded body.
  explicit AnswerBody(size_t max_bytes) : max_bytes_(max_bytes) {}

  /// Takes the next piece. `content_encoding` is that header of the answer ("" if absent). False if the rest is not
  /// wanted: error() says why.
  bool take(std::string_view content_encoding, std::string_view piece);
  /// Call when the answer is complete: a body that ends early is an error.
  void finish();

  const std::optional<kit::Error>& error() const { return error_; }
  /// The decoded body; empty after an error.
  std::string takeText() { return error_ ? std::string() : std::move(text_); }

 private:
  void begin(std::string_view content_encoding, char first_byte);
  void append(std::string_view piece);
  void failTooLarge();
  void fail(std::string why);

  size_t max_bytes_;
  size_t received_bytes_ = 0;
  bool has_begun_ = false;
  std::optional<Inflater> inflater_;
  std::string text_;
  std::optional<kit::Error> error_;
};

}  // namespace morvik::host
