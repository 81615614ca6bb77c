#include "host/crypto/hmac.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <array>
#include <memory>
#include <new>

#include "host/crypto/openssl_error.h"

namespace morvik::host {

namespace {

struct KdfRelease {
  void operator()(EVP_KDF* kdf) const { EVP_KDF_free(kdf); }
  void operator()(EVP_KDF_CTX* context) const { EVP_KDF_CTX_free(context); }
};

/// The library's parameter type cannot hold a const pointer; it only reads.
OSSL_PARAM octets(const char* name, std::string_view bytes) {
  return OSSL_PARAM_construct_octet_string(name, const_cast<char*>(bytes.data()), bytes.size());
}

std::string lowerCaseHex(std::span<const uint8_t> bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const uint8_t byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

}  // namespace

std::string hmacSha256Hex(std::string_view key, std::string_view message) {
  std::array<uint8_t, kSha256Bytes> code{};
  size_t size = 0;
  // The library takes a null pointer for a missing key; an empty key is valid.
  const std::string_view given_key = key.empty() ? std::string_view("") : key;
  const bool done = EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA256", nullptr, given_key.data(), given_key.size(),
                              reinterpret_cast<const unsigned char*>(message.data()), message.size(), code.data(),
                              code.size(), &size) != nullptr;
  // The algorithm is built in, so only memory can be missing.
  if (!done || size != code.size())
    throw std::bad_alloc();
  return lowerCaseHex(code);
}

std::optional<kit::Error> hkdfSha256(std::string_view secret, std::string_view salt, std::string_view info,
                                     std::span<uint8_t> out) {
  const std::unique_ptr<EVP_KDF, KdfRelease> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
  const std::unique_ptr<EVP_KDF_CTX, KdfRelease> context(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
  char digest[] = "SHA256";
  const std::array parameters = {OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
                                 octets(OSSL_KDF_PARAM_KEY, secret), octets(OSSL_KDF_PARAM_INFO, info),
                                 // "No salt" is a missing parameter; an empty one would be refused.
                                 salt.empty() ? OSSL_PARAM_construct_end() : octets(OSSL_KDF_PARAM_SALT, salt),
                                 OSSL_PARAM_construct_end()};
  if (!context || EVP_KDF_derive(context.get(), out.data(), out.size(), parameters.data()) != 1)
    return opensslError("could not derive a key");
  return std::nullopt;
}

}  // namespace morvik::host
