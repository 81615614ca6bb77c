// The kit's cipher and inflater against the vectors that every implementation of the wire format checks.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <variant>

#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "host/json/simdjson_codec.h"
#include "tests/host/crypto/bytes.h"
#include "tests/support/paths.h"

namespace morvik::host {
namespace {

using test::fromHex;
using test::toHex;

constexpr size_t kHeaderBytes = 2;

kit::Value vectors() {
  std::ifstream file(test::sourceDir() + "/tests/vectors/sealed.json");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  return std::get<kit::Value>(SimdjsonCodec().read(text));
}

std::string textOf(const kit::Value& vector, const char* key) {
  return std::string(vector[key].string());
}

/// Version, flags, nonce, ciphertext and tag, in this order.
struct Sealed {
  explicit Sealed(const std::string& bytes)
      : header(bytes.substr(0, kHeaderBytes)),
        nonce(bytes.substr(kHeaderBytes, kit::kNonceBytes)),
        body(bytes.substr(kHeaderBytes + kit::kNonceBytes)) {}
  std::string header, nonce, body;
};

TEST(SealedVectors, AreWhatTheCipherMakes) {
  const kit::Value all = vectors();
  ASSERT_GE(all["vectors"].size(), 3u);
  for (const kit::Value& vector : all["vectors"].array()) {
    SCOPED_TRACE(textOf(vector, "name"));
    const Sealed sealed(fromHex(textOf(vector, "sealed_hex")));
    std::string made;
    ASSERT_FALSE(OpensslCipher().encrypt(textOf(vector, "key_text"), sealed.nonce, sealed.header,
                                         fromHex(textOf(vector, "body_hex")), made));
    EXPECT_EQ(toHex(made), toHex(sealed.body));
  }
}

TEST(SealedVectors, OpenToTheirPlaintext) {
  const kit::Value all = vectors();
  for (const kit::Value& vector : all["vectors"].array()) {
    SCOPED_TRACE(textOf(vector, "name"));
    const Sealed sealed(fromHex(textOf(vector, "sealed_hex")));
    std::string body;
    ASSERT_FALSE(OpensslCipher().decrypt(textOf(vector, "key_text"), sealed.nonce, sealed.header, sealed.body, body));
    std::string plain;
    if (vector["flags"].integer() == 0)
      plain = body;
    else
      ASSERT_FALSE(ZlibCompressor().inflate(body, 1 << 20, plain));
    EXPECT_EQ(plain, textOf(vector, "plaintext"));
  }
}

// Status 403 marks what the cipher must refuse; the others are refused for their frame or content.
TEST(SealedVectors, AreRefusedWhenKeyOrBytesAreNotThoseOfTheSeal) {
  const kit::Value all = vectors();
  size_t refused = 0;
  for (const kit::Value& vector : all["refused"].array()) {
    if (vector["status"].integer() != 403)
      continue;
    SCOPED_TRACE(textOf(vector, "why"));
    const Sealed sealed(fromHex(textOf(vector, "sealed_hex")));
    std::string out;
    EXPECT_TRUE(OpensslCipher().decrypt(textOf(vector, "key_text"), sealed.nonce, sealed.header, sealed.body, out));
    EXPECT_EQ(out, "");
    ++refused;
  }
  EXPECT_GE(refused, 3u);
}

}  // namespace
}  // namespace morvik::host
