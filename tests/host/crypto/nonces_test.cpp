// What is sealed twice under one nonce can be read without the key.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <variant>
#include <vector>

#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "host/linux/system_random.h"
#include "services/envelope.h"

namespace morvik::host {
namespace {

TEST(Nonces, NeverRepeatInAMillionSealings) {
  constexpr size_t kSealings = 1'000'000;
  const OpensslCipher cipher;
  const ZlibCompressor compressor;
  SystemRandom random;
  using Nonce = std::array<char, kit::kNonceBytes>;
  std::vector<Nonce> nonces(kSealings);
  for (Nonce& nonce : nonces) {
    const auto sealed =
        services::seal({cipher, compressor, random}, "a tracking key", "x", services::Compression::kNever);
    ASSERT_TRUE(std::holds_alternative<std::string>(sealed));
    const std::string& bytes = std::get<std::string>(sealed);
    std::copy_n(bytes.begin() + services::kSealedHeaderBytes, nonce.size(), nonce.begin());
  }
  std::sort(nonces.begin(), nonces.end());
  EXPECT_EQ(std::adjacent_find(nonces.begin(), nonces.end()), nonces.end());
}

}  // namespace
}  // namespace morvik::host
