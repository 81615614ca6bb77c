// Deflate in zlib format by zlib.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "kit/crypto.h"

namespace morvik::host {

/// Holds nothing; one object serves every thread.
class ZlibCompressor final : public kit::Compressor {
 public:
  std::optional<kit::Error> deflate(std::string_view plain, std::string& out) const override;
  std::optional<kit::Error> inflate(std::string_view deflated, size_t max_bytes, std::string& out) const override;
};

}  // namespace morvik::host
