// A keyed hash for tests. It depends only on key and message, and is NOT cryptography.
#pragma once

#include <string>
#include <string_view>

#include "kit/crypto.h"

namespace morvik::testing {

/// Formatted like a real one: 64 lower-case hexadecimal digits. Any thread; nothing blocks.
class FakeKeyedHash : public kit::KeyedHash {
 public:
  std::string hmacSha256Hex(std::string_view key, std::string_view message) const override;
};

}  // namespace morvik::testing
