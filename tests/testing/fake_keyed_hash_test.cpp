#include "testing/fake_keyed_hash.h"

#include <gtest/gtest.h>

namespace morvik::testing {
namespace {

TEST(FakeKeyedHash, IsTheSameForTheSameKeyAndMessage) {
  EXPECT_EQ(FakeKeyedHash().hmacSha256Hex("key", "message"), FakeKeyedHash().hmacSha256Hex("key", "message"));
}

TEST(FakeKeyedHash, ChangesWithKeyAndMessage) {
  const FakeKeyedHash hash;
  const std::string first = hash.hmacSha256Hex("ab", "c");
  EXPECT_NE(first, hash.hmacSha256Hex("a", "bc"));
  EXPECT_NE(first, hash.hmacSha256Hex("ab", "d"));
  EXPECT_NE(first, hash.hmacSha256Hex("", "abc"));
}

TEST(FakeKeyedHash, HasTheFormOfARealOne) {
  const std::string text = FakeKeyedHash().hmacSha256Hex("", "");
  EXPECT_EQ(text.size(), 64U);
  EXPECT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos);
}

}  // namespace
}  // namespace morvik::testing
