#include "tests/apps/service/sealing.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <memory>

#include "apps/service/wire/sealed.h"

namespace morvik_service::test {
namespace {

constexpr int kTagBytes = 16;

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

std::string seal(std::string_view body, std::string_view key_text, const Sealing& sealing) {
  const std::string key = deriveSealingKey(key_text);
  const std::string header = {static_cast<char>(sealing.version), static_cast<char>(sealing.flags)};
  std::string ciphertext(body.size(), '\0');
  std::string tag(kTagBytes, '\0');
  const std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  int written = 0;
  EXPECT_EQ(1, EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, bytesOf(key), bytesOf(sealing.nonce)));
  EXPECT_EQ(1, EVP_EncryptUpdate(context.get(), nullptr, &written, bytesOf(header), static_cast<int>(header.size())));
  EXPECT_EQ(1, EVP_EncryptUpdate(context.get(), reinterpret_cast<unsigned char*>(ciphertext.data()), &written,
                                 bytesOf(body), static_cast<int>(body.size())));
  EXPECT_EQ(1, EVP_EncryptFinal_ex(context.get(), reinterpret_cast<unsigned char*>(tag.data()), &written));
  EXPECT_EQ(1, EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, kTagBytes, tag.data()));
  return header + sealing.nonce + ciphertext + tag;
}

std::string deflated(std::string_view plain) {
  uLongf size = compressBound(static_cast<uLong>(plain.size()));
  std::string stream(size, '\0');
  EXPECT_EQ(Z_OK, compress2(reinterpret_cast<Bytef*>(stream.data()), &size, bytesOf(plain),
                            static_cast<uLong>(plain.size()), Z_BEST_COMPRESSION));
  stream.resize(size);
  return stream;
}

std::string fromHex(std::string_view hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return bytes;
}

std::string toHex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  for (const char c : bytes) {
    hex.push_back(kDigits[static_cast<unsigned char>(c) >> 4]);
    hex.push_back(kDigits[static_cast<unsigned char>(c) & 15U]);
  }
  return hex;
}

}  // namespace morvik_service::test
