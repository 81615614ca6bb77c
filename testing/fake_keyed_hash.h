// A keyed hash for tests. It depends on key and message alone, and is NOT cryptography.
#pragma once

#include <string>
#include <string_view>

#include "kit/crypto.h"

namespace morvik::testing {

/// Looks like a real one: 64 lower-case hexadecimal digits. Any thread; nothing blocks.
class FakeKeyedHash : public kit::KeyedHash {
 public:
  std::string hmacSha256Hex(std::string_view key, std::string_view message) const override;
};

}  // namespace morvik::testing
