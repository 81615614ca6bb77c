#include "apps/service/wire/sealed.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <array>
#include <memory>
#include <stdexcept>

#include "apps/service/base/refusal.h"
#include "apps/service/wire/inflater.h"

namespace morvik_service {
namespace {

constexpr const char* kWhereSealed = "the sealed payload";

struct FreeOpener {
  void operator()(EVP_KDF* kdf) const { EVP_KDF_free(kdf); }
  void operator()(EVP_KDF_CTX* context) const { EVP_KDF_CTX_free(context); }
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytesOf(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

// OpenSSL's parameters predate const; a derivation only reads them.
OSSL_PARAM octets(const char* name, std::string_view bytes) {
  return OSSL_PARAM_construct_octet_string(name, const_cast<char*>(bytes.data()), bytes.size());
}

void mustSucceed(bool succeeded, const char* what) {
  if (!succeeded)
    throw std::runtime_error(std::string("OpenSSL cannot ") + what);
}

struct SealedParts {
  std::string_view header;
  std::string_view nonce;
  std::string_view ciphertext;
  std::string_view tag;
  bool deflated;
};

SealedParts split(std::string_view sealed, std::uint8_t known_flags) {
  constexpr std::size_t kLeast = kSealedHeaderBytes + kSealedNonceBytes + kSealedTagBytes;
  if (sealed.size() < kLeast) {
    throw Refusal(
        400, "sealed bytes are truncated: " + std::to_string(sealed.size()) + " of at least " + std::to_string(kLeast),
        kWhereSealed, "send version, flags, 12 bytes of nonce, ciphertext and 16 bytes of tag");
  }
  const auto version = static_cast<std::uint8_t>(sealed[0]);
  const auto flags = static_cast<std::uint8_t>(sealed[1]);
  if (version != kSealedVersion) {
    throw Refusal(400, "unknown sealing version " + std::to_string(version), kWhereSealed, "seal with version 1");
  }
  if ((flags & ~known_flags) != 0) {
    throw Refusal(400, "unknown sealing flags " + std::to_string(flags), kWhereSealed,
                  known_flags == 0 ? "use no flag here: do not deflate" : "use no flag but bit 0 (deflated)");
  }
  const std::size_t text_begin = kSealedHeaderBytes + kSealedNonceBytes;
  const std::size_t text_bytes = sealed.size() - kLeast;
  return {sealed.substr(0, kSealedHeaderBytes), sealed.substr(kSealedHeaderBytes, kSealedNonceBytes),
          sealed.substr(text_begin, text_bytes), sealed.substr(text_begin + text_bytes), (flags & kFlagDeflated) != 0};
}

std::string decrypt(const SealedParts& parts, std::string_view key) {
  const std::unique_ptr<EVP_CIPHER_CTX, FreeOpener> context(EVP_CIPHER_CTX_new());
  mustSucceed(context != nullptr, "make a cipher context");
  // The default nonce length of GCM is the format's: 12 bytes.
  mustSucceed(EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, bytesOf(key), bytesOf(parts.nonce)) == 1,
              "set up AES-256-GCM");
  int written = 0;
  mustSucceed(EVP_DecryptUpdate(context.get(), nullptr, &written, bytesOf(parts.header),
                                static_cast<int>(parts.header.size())) == 1,
              "read the authenticated header");
  std::string plain(parts.ciphertext.size(), '\0');
  mustSucceed(EVP_DecryptUpdate(context.get(), bytesOf(plain), &written, bytesOf(parts.ciphertext),
                                static_cast<int>(parts.ciphertext.size())) == 1,
              "decrypt");
  mustSucceed(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kSealedTagBytes),
                                  const_cast<char*>(parts.tag.data())) == 1,
              "take the tag");
  std::array<unsigned char, kSealedTagBytes> rest;  // GCM has no final bytes
  if (EVP_DecryptFinal_ex(context.get(), rest.data(), &written) != 1) {
    throw Refusal(403, "the key does not open the payload (wrong key, or bytes were changed)", kWhereSealed,
                  "seal with this endpoint's key: the tracking key, or the hash key twice");
  }
  return plain;
}

}  // namespace

std::string deriveSealingKey(std::string_view key_text) {
  const std::unique_ptr<EVP_KDF, FreeOpener> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
  const std::unique_ptr<EVP_KDF_CTX, FreeOpener> context(EVP_KDF_CTX_new(kdf.get()));
  mustSucceed(context != nullptr, "make a key derivation");
  std::string digest = "SHA256";
  const std::array<OSSL_PARAM, 4> parameters = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest.data(), 0), octets(OSSL_KDF_PARAM_KEY, key_text),
      octets(OSSL_KDF_PARAM_INFO, kSealedKeyInfo), OSSL_PARAM_construct_end()};
  std::string key(kSealedKeyBytes, '\0');
  mustSucceed(EVP_KDF_derive(context.get(), bytesOf(key), key.size(), parameters.data()) == 1, "derive a key");
  return key;
}

std::string openSealed(std::string_view sealed, std::string_view key_text, std::uint8_t known_flags) {
  const SealedParts parts = split(sealed, known_flags);
  std::string plain = decrypt(parts, deriveSealingKey(key_text));
  return parts.deflated ? inflateBounded(plain) : plain;
}

}  // namespace morvik_service
