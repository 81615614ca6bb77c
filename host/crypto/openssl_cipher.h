// AES-256-GCM by OpenSSL.
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "host/crypto/secret.h"
#include "kit/crypto.h"

struct evp_cipher_st;

namespace morvik::host {

/// How many derived keys are cached, least recently used out first, so that sealing an event does not cost a
/// derivation. An app has two: the tracking key and the doubled hash key.
inline constexpr size_t kKeptKeys = 4;

/// The library counts the bytes of a call in an int; larger inputs are refused.
inline constexpr size_t kMaxCipherBytes = size_t{1} << 30;

/// Any thread. OpenSSL is not used before the first call. An empty key text is an error: anybody could open what it
/// seals.
class OpensslCipher final : public kit::Cipher {
 public:
  OpensslCipher();
  ~OpensslCipher() override;

  std::optional<kit::Error> encrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                                    std::string_view plaintext, std::string& out) const override;
  std::optional<kit::Error> decrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                                    std::string_view sealed, std::string& out) const override;

 private:
  using Key = SecretBytes<32>;
  struct KeptKey {
    KeptKey(std::string_view key_text, const Key& derived) : text(key_text), key(derived) {}
    SecretText text;
    Key key;
  };
  struct CipherRelease {
    void operator()(evp_cipher_st* cipher) const;
  };

  std::variant<Key, kit::Error> keyOf(std::string_view key_text) const;
  const Key* keptKey(std::string_view key_text) const;
  /// Fetched once: a lookup by name costs more than sealing an event.
  const evp_cipher_st* algorithm() const;

  mutable std::mutex mutex_;
  mutable std::list<KeptKey> kept_keys_;  ///< most recently used first
  mutable std::unique_ptr<evp_cipher_st, CipherRelease> algorithm_;
};

}  // namespace morvik::host
