#include "host/crypto/openssl_cipher.h"

#include <openssl/evp.h>

#include <algorithm>
#include <iterator>

#include "host/crypto/hmac.h"
#include "host/crypto/openssl_error.h"

namespace morvik::host {

using kit::Error;

namespace {

constexpr std::string_view kKeyInfo = "morvik sealed v1";

enum class Direction { kSeal, kOpen };

struct ContextRelease {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytesOf(std::string& text, size_t from) {
  return reinterpret_cast<unsigned char*>(text.data() + from);
}

/// One run of the cipher. A step returns false when the library refuses it.
class Run {
 public:
  Run(const EVP_CIPHER* algorithm, Direction direction, const uint8_t* key, std::string_view nonce)
      : context_(EVP_CIPHER_CTX_new()),
        ready_(context_ != nullptr && algorithm != nullptr &&
               EVP_CipherInit_ex2(context_.get(), algorithm, key, bytesOf(nonce), direction == Direction::kSeal ? 1 : 0,
                                  nullptr) == 1) {}

  bool authenticate(std::string_view header) {
    int size = 0;
    return ready_ && (header.empty() || EVP_CipherUpdate(context_.get(), nullptr, &size, bytesOf(header),
                                                         static_cast<int>(header.size())) == 1);
  }
  bool transform(std::string_view in, std::string& out, size_t from) {
    int size = 0;
    return in.empty() ||
           EVP_CipherUpdate(context_.get(), bytesOf(out, from), &size, bytesOf(in), static_cast<int>(in.size())) == 1;
  }
  /// When opening: whether the tag matches.
  bool finish() {
    unsigned char nothing[EVP_MAX_BLOCK_LENGTH];
    int size = 0;
    return EVP_CipherFinal_ex(context_.get(), nothing, &size) == 1;
  }
  bool tagTo(std::string& out, size_t from) {
    return EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_GET_TAG, kit::kTagBytes, bytesOf(out, from)) == 1;
  }
  bool expectTag(std::string_view tag) {
    std::string copy(tag);
    return ready_ && EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_SET_TAG, kit::kTagBytes, bytesOf(copy, 0)) == 1;
  }

 private:
  std::unique_ptr<EVP_CIPHER_CTX, ContextRelease> context_;
  bool ready_;
};

std::optional<Error> unfit(std::string_view nonce, std::string_view header, std::string_view text) {
  if (nonce.size() != kit::kNonceBytes)
    return Error{"a nonce of " + std::to_string(nonce.size()) + " bytes was given; it must have 12"};
  if (header.size() > kMaxCipherBytes || text.size() > kMaxCipherBytes)
    return Error{"more than " + std::to_string(kMaxCipherBytes) + " bytes cannot be sealed or opened in one piece"};
  return std::nullopt;
}

}  // namespace

void OpensslCipher::CipherRelease::operator()(evp_cipher_st* cipher) const {
  EVP_CIPHER_free(cipher);
}

OpensslCipher::OpensslCipher() = default;
OpensslCipher::~OpensslCipher() = default;

std::optional<Error> OpensslCipher::encrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                                            std::string_view plaintext, std::string& out) const {
  if (auto error = unfit(nonce, header, plaintext))
    return error;
  auto key = keyOf(key_text);
  if (auto* error = std::get_if<Error>(&key))
    return std::move(*error);
  const size_t before = out.size();
  out.resize(before + plaintext.size() + kit::kTagBytes);
  Run run(algorithm(), Direction::kSeal, std::get<Key>(key).bytes.data(), nonce);
  if (run.authenticate(header) && run.transform(plaintext, out, before) && run.finish() &&
      run.tagTo(out, before + plaintext.size()))
    return std::nullopt;
  out.resize(before);
  return opensslError("could not seal");
}

std::optional<Error> OpensslCipher::decrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                                            std::string_view sealed, std::string& out) const {
  if (auto error = unfit(nonce, header, sealed))
    return error;
  if (sealed.size() < kit::kTagBytes)
    return Error{"the sealed bytes are too few: " + std::to_string(sealed.size()) + ", the tag alone has 16"};
  auto key = keyOf(key_text);
  if (auto* error = std::get_if<Error>(&key))
    return std::move(*error);
  const std::string_view ciphertext = sealed.substr(0, sealed.size() - kit::kTagBytes);
  const size_t before = out.size();
  out.resize(before + ciphertext.size());
  Run run(algorithm(), Direction::kOpen, std::get<Key>(key).bytes.data(), nonce);
  const bool began = run.expectTag(sealed.substr(ciphertext.size())) && run.authenticate(header) &&
                     run.transform(ciphertext, out, before);
  if (began && run.finish())
    return std::nullopt;
  // Plaintext that failed authentication must not be seen.
  OPENSSL_cleanse(out.data() + before, ciphertext.size());
  out.resize(before);
  return began ? Error{"could not open: the key is not the one it was sealed with, or the bytes were changed"}
               : opensslError("could not open");
}

std::variant<OpensslCipher::Key, Error> OpensslCipher::keyOf(std::string_view key_text) const {
  if (key_text.empty())
    return Error{"the key text is empty: without a key nothing is sealed or opened"};
  const std::lock_guard lock(mutex_);
  if (const Key* key = keptKey(key_text))
    return *key;
  Key key;
  if (auto error = hkdfSha256(key_text, "", kKeyInfo, key.bytes))
    return std::move(*error);
  kept_keys_.emplace_front(key_text, key);
  if (kept_keys_.size() > kKeptKeys)
    kept_keys_.pop_back();
  return key;
}

const OpensslCipher::Key* OpensslCipher::keptKey(std::string_view key_text) const {
  const auto found = std::find_if(kept_keys_.begin(), kept_keys_.end(),
                                  [key_text](const KeptKey& kept) { return kept.text.view() == key_text; });
  if (found == kept_keys_.end())
    return nullptr;
  kept_keys_.splice(kept_keys_.begin(), kept_keys_, found);
  return &kept_keys_.front().key;
}

const evp_cipher_st* OpensslCipher::algorithm() const {
  const std::lock_guard lock(mutex_);
  if (!algorithm_)
    algorithm_.reset(EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr));
  return algorithm_.get();
}

}  // namespace morvik::host
