// Inflates in pieces, with a bound: for sealed payloads and for servers' answers.
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
  kZlib,  ///< RFC 1950, one stream, nothing after it
  kGzip,  ///< RFC 1952, any number of members
  kRaw,   ///< RFC 1951, one stream, nothing after it
};

/// One use, one thread. Do not feed it after an error.
class Inflater {
 public:
  /// More than `max_bytes` inflated bytes are an error, found as soon as they appear.
  Inflater(DeflateForm form, size_t max_bytes);
  ~Inflater();

  /// Appends what `deflated` inflates to. Errors: damaged bytes, bytes after the end, too many.
  std::optional<kit::Error> feed(std::string_view deflated, std::string& out);
  /// Call when there is no more input: an early end is an error.
  std::optional<kit::Error> finish() const;
  /// Whether feed() failed because of too many bytes.
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
  std::unique_ptr<z_stream_s, Release> stream_;  ///< null if there was no memory for it
};

}  // namespace morvik::host
