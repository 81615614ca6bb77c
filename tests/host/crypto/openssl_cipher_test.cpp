#include "host/crypto/openssl_cipher.h"

#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "tests/host/crypto/bytes.h"

namespace morvik::host {
namespace {

using test::fromHex;
using test::toHex;

const std::string kNonce = fromHex("000102030405060708090a0b");
const std::string kHeader = fromHex("0100");

std::string sealed(const OpensslCipher& cipher, std::string_view key_text, std::string_view plaintext) {
  std::string out;
  const auto error = cipher.encrypt(key_text, kNonce, kHeader, plaintext, out);
  EXPECT_FALSE(error) << error->message;
  return out;
}

std::string opened(const OpensslCipher& cipher, std::string_view key_text, std::string_view bytes) {
  std::string out;
  const auto error = cipher.decrypt(key_text, kNonce, kHeader, bytes, out);
  EXPECT_FALSE(error) << error->message;
  return out;
}

/// The message, after checking that nothing was appended to the output.
std::string refusal(std::string_view key_text, std::string_view nonce, std::string_view header,
                    std::string_view bytes) {
  std::string out = "before";
  const auto error = OpensslCipher().decrypt(key_text, nonce, header, bytes, out);
  EXPECT_EQ(out, "before");
  return error ? error->message : "";
}

constexpr const char* kWrongKeyOrChanged =
    "could not open: the key is not the one it was sealed with, or the bytes were changed";

// Made by another implementation of the same cipher and derivation.
constexpr const char* kKnownSealed = "2b0e05c64a390734eea72277d3f87b96c957bc9358c4648771ee551615748710e496";

TEST(OpensslCipher, SealsAsAnotherImplementationDoes) {
  EXPECT_EQ(toHex(sealed(OpensslCipher(), "a key text", "sealed in the open")), kKnownSealed);
}

TEST(OpensslCipher, OpensWhatAnotherImplementationSealed) {
  EXPECT_EQ(opened(OpensslCipher(), "a key text", fromHex(kKnownSealed)), "sealed in the open");
}

TEST(OpensslCipher, AppendsToWhatStandsInTheOutput) {
  const OpensslCipher cipher;
  std::string out = "before";
  ASSERT_FALSE(cipher.encrypt("k", kNonce, kHeader, "plain", out));
  EXPECT_EQ(out.size(), 6 + 5 + kit::kTagBytes);
  EXPECT_EQ(out.substr(0, 6), "before");
  std::string back = "before";
  ASSERT_FALSE(cipher.decrypt("k", kNonce, kHeader, std::string_view(out).substr(6), back));
  EXPECT_EQ(back, "beforeplain");
}

TEST(OpensslCipher, SealsTextsOfAnySize) {
  const OpensslCipher cipher;
  for (const size_t size : {0u, 1u, 15u, 16u, 17u, 4096u, 3'000'000u}) {
    const std::string plain(size, 'x');
    EXPECT_EQ(opened(cipher, "k", sealed(cipher, "k", plain)), plain);
  }
}

TEST(OpensslCipher, RefusesAnotherKeyAndEveryChangedBit) {
  const OpensslCipher cipher;
  const std::string bytes = sealed(cipher, "key", "plain");
  EXPECT_EQ(refusal("another key", kNonce, kHeader, bytes), kWrongKeyOrChanged);
  EXPECT_EQ(refusal("key", fromHex("ff0102030405060708090a0b"), kHeader, bytes), kWrongKeyOrChanged);
  EXPECT_EQ(refusal("key", kNonce, fromHex("0101"), bytes), kWrongKeyOrChanged);
  EXPECT_EQ(refusal("key", kNonce, "", bytes), kWrongKeyOrChanged);
  for (size_t bit = 0; bit < 8 * bytes.size(); ++bit) {
    std::string changed = bytes;
    changed[bit / 8] = static_cast<char>(changed[bit / 8] ^ (1 << (bit % 8)));
    EXPECT_EQ(refusal("key", kNonce, kHeader, changed), kWrongKeyOrChanged) << "bit " << bit;
  }
}

TEST(OpensslCipher, SaysWhatIsWrongWithWhatItIsGiven) {
  const std::string bytes = sealed(OpensslCipher(), "key", "");
  EXPECT_EQ(refusal("key", "short", kHeader, bytes), "a nonce of 5 bytes was given; it must have 12");
  EXPECT_EQ(refusal("key", kNonce, kHeader, std::string(15, 'x')),
            "the sealed bytes are too few: 15, the tag alone has 16");
  EXPECT_EQ(refusal("", kNonce, kHeader, bytes), "the key text is empty: without a key nothing is sealed or opened");
  std::string out = "before";
  const auto error = OpensslCipher().encrypt("", kNonce, kHeader, "plain", out);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message, "the key text is empty: without a key nothing is sealed or opened");
  EXPECT_EQ(out, "before");
}

TEST(OpensslCipher, RefusesMoreBytesThanTheLibraryCanCount) {
  const char only = 'x';
  const std::string_view too_long(&only, kMaxCipherBytes + 1);  // refused before any byte is read
  std::string out;
  const auto error = OpensslCipher().encrypt("key", kNonce, kHeader, too_long, out);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message, "more than 1073741824 bytes cannot be sealed or opened in one piece");
  EXPECT_EQ(refusal("key", kNonce, kHeader, too_long), error->message);
}

TEST(OpensslCipher, MixesNoKeysWhenMoreAreUsedThanAreKept) {
  const OpensslCipher cipher;
  std::vector<std::string> first_round;
  for (int round = 0; round < 3; ++round) {
    for (size_t key = 0; key < 2 * kKeptKeys; ++key) {
      const std::string bytes = sealed(cipher, "key " + std::to_string(key), "plain");
      if (round == 0)
        first_round.push_back(bytes);
      EXPECT_EQ(bytes, first_round[key]);
    }
  }
  EXPECT_NE(first_round[0], first_round[1]);
}

TEST(OpensslCipher, ServesSeveralThreadsAtOnce) {
  const OpensslCipher cipher;
  std::vector<std::future<bool>> users;
  for (int thread = 0; thread < 4; ++thread) {
    users.push_back(std::async(std::launch::async, [&cipher, thread] {
      for (int i = 0; i < 100; ++i) {
        const std::string key = "key " + std::to_string((thread + i) % 6);
        const std::string plain = "plain " + std::to_string(i);
        std::string bytes;
        std::string back;
        if (cipher.encrypt(key, kNonce, kHeader, plain, bytes) || cipher.decrypt(key, kNonce, kHeader, bytes, back) ||
            back != plain)
          return false;
      }
      return true;
    }));
  }
  for (auto& user : users)
    EXPECT_TRUE(user.get());
}

}  // namespace
}  // namespace morvik::host
