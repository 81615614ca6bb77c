#include "testing/fake_crypto.h"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>

namespace morvik::test {
namespace {

const std::string kNonce(kit::kNonceBytes, 'n');

TEST(FakeCipher, GivesBackWhatItSealed) {
  const testing::FakeCipher cipher;
  for (const std::string plaintext : {"", "a", "a text of more than eight bytes"}) {
    std::string sealed = "before ";
    ASSERT_FALSE(cipher.encrypt("key", kNonce, "header", plaintext, sealed));
    ASSERT_TRUE(sealed.starts_with("before "));
    sealed.erase(0, 7);
    EXPECT_EQ(sealed.size(), plaintext.size() + kit::kTagBytes);
    std::string out = "before ";
    ASSERT_FALSE(cipher.decrypt("key", kNonce, "header", sealed, out));
    EXPECT_EQ(out, "before " + plaintext);
  }
}

TEST(FakeCipher, IsDeterministicAndHidesTheText) {
  const testing::FakeCipher cipher;
  std::string first;
  std::string second;
  std::string other_nonce;
  ASSERT_FALSE(cipher.encrypt("key", kNonce, "", "a text that is seen", first));
  ASSERT_FALSE(cipher.encrypt("key", kNonce, "", "a text that is seen", second));
  ASSERT_FALSE(cipher.encrypt("key", std::string(kit::kNonceBytes, 'm'), "", "a text that is seen", other_nonce));
  EXPECT_EQ(first, second);
  EXPECT_NE(first, other_nonce);
  EXPECT_EQ(first.find("text"), std::string::npos);
}

TEST(FakeCipher, RefusesAWrongKeyNonceOrHeaderAndEveryChangedByte) {
  const testing::FakeCipher cipher;
  std::string sealed;
  ASSERT_FALSE(cipher.encrypt("key", kNonce, "header", "plaintext", sealed));
  std::string out = "as it was";
  EXPECT_TRUE(cipher.decrypt("Key", kNonce, "header", sealed, out));
  EXPECT_TRUE(cipher.decrypt("", kNonce, "header", sealed, out));
  EXPECT_TRUE(cipher.decrypt("key", std::string(kit::kNonceBytes, 'x'), "header", sealed, out));
  EXPECT_TRUE(cipher.decrypt("key", kNonce, "headeR", sealed, out));
  for (size_t i = 0; i < sealed.size(); ++i) {
    std::string changed = sealed;
    changed[i] = static_cast<char>(changed[i] ^ 1);
    EXPECT_TRUE(cipher.decrypt("key", kNonce, "header", changed, out)) << "byte " << i;
  }
  EXPECT_TRUE(cipher.decrypt("key", kNonce, "header", std::string_view(sealed).substr(1), out));
  EXPECT_TRUE(cipher.decrypt("key", kNonce, "header", "short", out));
  EXPECT_EQ(out, "as it was");
}

TEST(FakeCipher, RefusesANonceOfAnotherLength) {
  const testing::FakeCipher cipher;
  std::string out = "as it was";
  EXPECT_EQ(cipher.encrypt("key", "short", "", "", out)->message, "fake cipher: a nonce has 12 bytes, not 5");
  EXPECT_TRUE(cipher.decrypt("key", "short", "", std::string(32, 'x'), out));
  EXPECT_EQ(out, "as it was");
}

std::string repetitiveJson() {
  std::string text = "[";
  for (int i = 0; i < 500; ++i)
    text += R"({"group":"session","activity":"start","param":")" + std::to_string(i * 7919) + "\"},";
  return text + "null]";
}

TEST(FakeCompressor, GivesBackWhatItDeflated) {
  const testing::FakeCompressor compressor;
  testing::SeededRandom random(5);
  std::string noise(70'000, '\0');
  random.fill({reinterpret_cast<uint8_t*>(noise.data()), noise.size()});
  for (const std::string& plain :
       {std::string(), std::string("abc"), std::string(100'000, 'x'), repetitiveJson(), noise, noise + noise}) {
    std::string deflated = "before ";
    ASSERT_FALSE(compressor.deflate(plain, deflated));
    std::string out = "before ";
    const auto error = compressor.inflate(std::string_view(deflated).substr(7), plain.size(), out);
    ASSERT_FALSE(error) << error->message;
    EXPECT_TRUE(out == "before " + plain) << plain.size() << " bytes came back different";
  }
}

TEST(FakeCompressor, MakesRepetitiveTextShorterAndNoiseNotMuchLonger) {
  const testing::FakeCompressor compressor;
  const std::string plain = repetitiveJson();
  std::string deflated;
  ASSERT_FALSE(compressor.deflate(plain, deflated));
  EXPECT_LT(deflated.size(), plain.size() / 2);
  std::string tiny;
  ASSERT_FALSE(compressor.deflate("{}", tiny));
  EXPECT_GT(tiny.size(), 2u);
}

TEST(FakeCompressor, RefusesMoreBytesThanAreAllowed) {
  const testing::FakeCompressor compressor;
  for (const std::string& plain : {std::string(1000, 'x'), std::string("abcdefghijklmnopqrstuvwxyz")}) {
    std::string deflated;
    ASSERT_FALSE(compressor.deflate(plain, deflated));
    std::string out = "as it was";
    EXPECT_TRUE(compressor.inflate(deflated, plain.size() - 1, out));
    EXPECT_EQ(out, "as it was");
    EXPECT_FALSE(compressor.inflate(deflated, plain.size(), out));
  }
}

TEST(FakeCompressor, RefusesWhatIsCutChangedOrTooLong) {
  const testing::FakeCompressor compressor;
  std::string deflated;
  ASSERT_FALSE(compressor.deflate("abcdabcdabcd and so on, abcdabcd", deflated));
  std::string out = "as it was";
  for (size_t size = 0; size < deflated.size(); ++size)
    EXPECT_TRUE(compressor.inflate(std::string_view(deflated).substr(0, size), 1000, out)) << "cut to " << size;
  for (size_t i = 0; i < deflated.size(); ++i) {
    std::string changed = deflated;
    changed[i] = static_cast<char>(changed[i] ^ 0x81);
    EXPECT_TRUE(compressor.inflate(changed, 1000, out)) << "byte " << i;
  }
  EXPECT_TRUE(compressor.inflate(deflated + "x", 1000, out));
  EXPECT_EQ(out, "as it was");
}

TEST(FakeCipher, SealsNothingWhileItIsToRefuse) {
  testing::FakeCipher cipher;
  std::string out = "as it was";
  cipher.refuseToEncrypt("no cipher today");
  const auto error = cipher.encrypt("key", std::string(kit::kNonceBytes, 'n'), "header", "plain", out);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message, "no cipher today");
  EXPECT_EQ(out, "as it was");
  cipher.refuseToEncrypt(std::nullopt);
  EXPECT_FALSE(cipher.encrypt("key", std::string(kit::kNonceBytes, 'n'), "header", "plain", out));
}

TEST(SeededRandom, GivesTheSameBytesForTheSameSeedAndOthersForAnother) {
  std::array<uint8_t, 21> first{};
  std::array<uint8_t, 21> second{};
  std::array<uint8_t, 21> other{};
  testing::SeededRandom(9).fill(first);
  testing::SeededRandom(9).fill(second);
  testing::SeededRandom(10).fill(other);
  EXPECT_EQ(first, second);
  EXPECT_NE(first, other);
  testing::SeededRandom random(9);
  EXPECT_NE(random.next(), random.next());
}

}  // namespace
}  // namespace morvik::test
