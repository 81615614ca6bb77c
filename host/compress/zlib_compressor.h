// Deflate in zlib format by zlib.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "kit/crypto.h"
#include "kit/stop_request.h"

namespace morvik::host {

/// One object serves all threads.
class ZlibCompressor final : public kit::Compressor {
 public:
  /// `stop`: aborts a running deflation, with an error; may be null. Outlives the compressor.
  explicit ZlibCompressor(const kit::StopRequest* stop = nullptr) : stop_(stop) {}

  std::optional<kit::Error> deflate(std::string_view plain, std::string& out) const override;
  std::optional<kit::Error> inflate(std::string_view deflated, size_t max_bytes, std::string& out) const override;

 private:
  const kit::StopRequest* const stop_;
};

}  // namespace morvik::host
