#include "host/crypto/hmac.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/host/crypto/bytes.h"

namespace morvik::host {
namespace {

using test::fromHex;
using test::toHex;

std::string derived(std::string_view secret, std::string_view salt, std::string_view info, size_t size) {
  std::vector<uint8_t> out(size);
  const auto error = hkdfSha256(secret, salt, info, out);
  EXPECT_FALSE(error) << error->message;
  return toHex(std::string(out.begin(), out.end()));
}

// Test cases of RFC 4231.
TEST(Hmac, AnswersThePublishedCodes) {
  EXPECT_EQ(hmacSha256Hex(std::string(20, '\x0b'), "Hi There"),
            "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
  EXPECT_EQ(hmacSha256Hex("Jefe", "what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(hmacSha256Hex(std::string(131, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First"),
            "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
}

TEST(Hmac, OfADeviceIdIsTheHashedPuid) {
  EXPECT_EQ(hmacSha256Hex("app-key", "0195a0b0-0000-7000-8000-000000000000"),
            "667a53a3a5096561adeee1b7d20c05f71c0ffc0db2926d662759dce570eca9c0");
}

TEST(Hmac, TakesEmptyTexts) {
  EXPECT_EQ(hmacSha256Hex("", ""), "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad");
  EXPECT_EQ(hmacSha256Hex({}, {}), "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad");
}

// Test cases of RFC 5869.
TEST(Hkdf, DerivesThePublishedKeys) {
  EXPECT_EQ(
      derived(std::string(22, '\x0b'), fromHex("000102030405060708090a0b0c"), fromHex("f0f1f2f3f4f5f6f7f8f9"), 42),
      "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf34007208d5b887185865");
  EXPECT_EQ(derived(std::string(22, '\x0b'), "", "", 42),
            "8da4e775a563c18f715f802a063c5a31b8a11f5c5ee1879ec3454e5f3c738d2d9d201395faa4b61a96c8");
  std::string secret, salt, info;
  for (int i = 0; i < 80; ++i) {
    secret += static_cast<char>(i);
    salt += static_cast<char>(0x60 + i);
    info += static_cast<char>(0xb0 + i);
  }
  EXPECT_EQ(derived(secret, salt, info, 82),
            "b11e398dc80327a1c8e7f78c596a49344f012eda2d4efad8a050cc4c19afa97c59045a99cac7827271cb41c65e590e09"
            "da3275600c2f09b8367793a9aca3db71cc30c58179ec3e87c14c01d5c1f3434f1d87");
}

TEST(Hkdf, SaysWhatItCannotDerive) {
  std::vector<uint8_t> too_long(255 * kSha256Bytes + 1);
  const auto error = hkdfSha256("secret", "", "", too_long);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message.find("could not derive a key: "), 0u) << error->message;
}

}  // namespace
}  // namespace morvik::host
