// Bytes that are wiped from memory.
#pragma once

#include <openssl/crypto.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace morvik::host {

/// A key of N bytes, wiped on destruction.
template <size_t N>
struct SecretBytes {
  std::array<uint8_t, N> bytes{};

  SecretBytes() = default;
  SecretBytes(const SecretBytes&) = default;
  SecretBytes& operator=(const SecretBytes&) = default;
  ~SecretBytes() { OPENSSL_cleanse(bytes.data(), N); }
};

/// A text, wiped on destruction. Neither copied nor moved: a moved-from short string keeps its characters.
class SecretText {
 public:
  explicit SecretText(std::string_view text) : text_(text) {}
  SecretText(const SecretText&) = delete;
  SecretText& operator=(const SecretText&) = delete;
  ~SecretText() { OPENSSL_cleanse(text_.data(), text_.size()); }
  std::string_view view() const { return text_; }

 private:
  std::string text_;
};

}  // namespace morvik::host
