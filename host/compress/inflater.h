// Inflating in pieces, with a bound: for sealed payloads and for the answers of servers.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kit/error.h"

struct z_stream_s;

namespace morvik::host {

enum class DeflateForm {
  kZlib,  ///< RFC 1950, one stream, nothing behind it
  kGzip,  ///< RFC 1952, one member after the other
  kRaw,   ///< RFC 1951, one stream, nothing behind it
};

/// One use, one thread. After an error it must not be fed again.
class Inflater {
 public:
  /// More than `max_bytes` of inflated bytes are an error, found as soon as they come to light.
  Inflater(DeflateForm form, size_t max_bytes);
  ~Inflater();

  /// Appends to `out` what `deflated` brings to light. Errors: damaged bytes, bytes behind the end, too many.
  std::optional<kit::Error> feed(std::string_view deflated, std::string& out);
  /// To be asked when nothing more comes: bytes that end too early are an error.
  std::optional<kit::Error> finish() const;
  /// Whether the error of `feed` was that there were too many bytes.
  bool ranOver() const { return ran_over_; }

 private:
  struct Release {
    void operator()(z_stream_s* stream) const;
  };
  std::optional<kit::Error> feedStream(std::string& out);

  DeflateForm form_;
  size_t max_bytes_;
  size_t inflated_bytes_ = 0;
  bool at_end_ = false;
  bool ran_over_ = false;
  std::unique_ptr<z_stream_s, Release> stream_;  ///< null when there was no memory for it
};

}  // namespace morvik::host
