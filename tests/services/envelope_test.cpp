#include "services/envelope.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "services/json_writer.h"
#include "services/text_codes.h"
#include "testing/fake_crypto.h"
#include "testing/json_reader.h"
#include "tests/support/paths.h"

namespace morvik::services {
namespace {

using kit::Dictionary;
using kit::Error;
using kit::Value;
using testing::FakeCipher;
using testing::FakeCompressor;
using testing::SeededRandom;

constexpr size_t kMaxBytes = 1'000'000;
const std::string kRepetitive(2'000, 'a');

class RefusingCipher : public kit::Cipher {
 public:
  std::optional<Error> encrypt(std::string_view, std::string_view, std::string_view, std::string_view,
                               std::string&) const override {
    return Error{"the cipher is not there"};
  }
  std::optional<Error> decrypt(std::string_view, std::string_view, std::string_view, std::string_view,
                               std::string&) const override {
    return Error{"the cipher is not there"};
  }
};

class RefusingCompressor : public kit::Compressor {
 public:
  std::optional<Error> deflate(std::string_view, std::string&) const override { return Error{"no memory"}; }
  std::optional<Error> inflate(std::string_view, size_t, std::string&) const override { return Error{"no memory"}; }
};

/// "Deflates" to a text that is this many bytes longer than the plain one (shorter when negative).
class MeasuredCompressor : public kit::Compressor {
 public:
  explicit MeasuredCompressor(int difference) : difference_(difference) {}
  std::optional<Error> deflate(std::string_view plain, std::string& out) const override {
    out.append(static_cast<size_t>(static_cast<int>(plain.size()) + difference_), 'z');
    return std::nullopt;
  }
  std::optional<Error> inflate(std::string_view, size_t, std::string&) const override { return std::nullopt; }

 private:
  int difference_;
};

class CountingRandom : public kit::Random {
 public:
  void fill(std::span<uint8_t> bytes) override {
    for (uint8_t& byte : bytes)
      byte = next_++;
  }

 private:
  uint8_t next_ = 0;
};

class Envelope : public ::testing::Test {
 protected:
  std::string sealed(std::string_view plaintext, Compression compression = Compression::kWhenShorter) {
    const auto result = seal(tools, "key", plaintext, compression);
    EXPECT_TRUE(std::holds_alternative<std::string>(result));
    return std::get<std::string>(result);
  }
  std::string errorOf(std::string_view bytes, std::string_view key = "key", size_t max_bytes = kMaxBytes) {
    const auto result = openSealed(tools, key, bytes, max_bytes);
    const auto* error = std::get_if<Error>(&result);
    return error != nullptr ? error->message : "";
  }
  bool opensAs(std::string_view bytes, std::string_view plaintext, size_t max_bytes = kMaxBytes) {
    const auto result = openSealed(tools, "key", bytes, max_bytes);
    const auto* text = std::get_if<std::string>(&result);
    return text != nullptr && *text == plaintext;
  }
  FakeCipher cipher;
  FakeCompressor compressor;
  CountingRandom random;
  SealingTools tools{cipher, compressor, random};
};

TEST_F(Envelope, HasVersionFlagsNonceCiphertextAndTagInThisOrder) {
  const std::string bytes = sealed("plain", Compression::kNever);
  ASSERT_EQ(bytes.size(), 2 + 12 + 5 + 16U);
  EXPECT_EQ(bytes.substr(0, 2), std::string("\x01\x00", 2));
  EXPECT_EQ(bytes.substr(2, 12), std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b", 12));
  std::string expected;
  ASSERT_FALSE(cipher.encrypt("key", bytes.substr(2, 12), bytes.substr(0, 2), "plain", expected).has_value());
  EXPECT_EQ(bytes.substr(14), expected);
}

TEST_F(Envelope, FlagsADeflatedText) {
  const std::string bytes = sealed(kRepetitive);
  EXPECT_EQ(bytes.substr(0, 2), "\x01\x01");
  EXPECT_LT(bytes.size(), kRepetitive.size());
  EXPECT_TRUE(opensAs(bytes, kRepetitive));
}

TEST_F(Envelope, DeflatesOnlyWhenThatIsShorter) {
  for (const int difference : {-1, 0, 1}) {
    const MeasuredCompressor measured(difference);
    const SealingTools measured_tools{cipher, measured, random};
    const auto result = seal(measured_tools, "key", "0123456789", Compression::kWhenShorter);
    const auto& bytes = std::get<std::string>(result);
    EXPECT_EQ(bytes[1], difference < 0 ? kSealedFlagDeflated : '\0') << difference;
    EXPECT_EQ(bytes.size(), 2 + 12 + (difference < 0 ? 9U : 10U) + 16) << difference;
  }
}

TEST_F(Envelope, IsNotDeflatedWhereThatIsNotWanted) {
  const std::string bytes = sealed(kRepetitive, Compression::kNever);
  EXPECT_EQ(bytes.size(), 2 + 12 + kRepetitive.size() + 16);
  EXPECT_EQ(bytes[1], '\0');
  EXPECT_TRUE(opensAs(bytes, kRepetitive));
}

TEST_F(Envelope, OfAByteBufferIsNeverDeflated) {
  const auto result = morvikAD_AES256EncryptionWithKey(tools, kRepetitive, "key");
  const auto& bytes = std::get<std::string>(result);
  EXPECT_EQ(bytes.size(), 2 + 12 + kRepetitive.size() + 16);
  EXPECT_TRUE(opensAs(bytes, kRepetitive));
}

TEST_F(Envelope, IsSealedUndeflatedWhenTheCompressorFails) {
  const RefusingCompressor refusing;
  const auto result = seal({cipher, refusing, random}, "key", kRepetitive, Compression::kWhenShorter);
  EXPECT_TRUE(opensAs(std::get<std::string>(result), kRepetitive));
}

TEST_F(Envelope, TakesAFreshNonceEachTime) {
  const std::string first = sealed("plain");
  const std::string second = sealed("plain");
  EXPECT_NE(first.substr(2, 12), second.substr(2, 12));
  EXPECT_NE(first.substr(14), second.substr(14));
}

TEST_F(Envelope, SealsAnEmptyText) {
  const std::string bytes = sealed("");
  EXPECT_EQ(bytes.size(), 2 + 12 + 16U);
  EXPECT_TRUE(opensAs(bytes, ""));
}

TEST_F(Envelope, OpensWhatWasSealedWhateverItsBytes) {
  std::mt19937_64 chance(30);
  for (int i = 0; i < 300; ++i) {
    std::string plaintext(chance() % 200, '\0');
    for (char& c : plaintext)
      c = static_cast<char>(chance() % (i % 2 == 0 ? 2 : 256));
    ASSERT_TRUE(opensAs(sealed(plaintext), plaintext));
    ASSERT_TRUE(opensAs(sealed(plaintext, Compression::kNever), plaintext));
  }
}

TEST_F(Envelope, RefusesAnotherKey) {
  EXPECT_NE(errorOf(sealed("plain"), "kez"), "");
  EXPECT_NE(errorOf(sealed("plain"), ""), "");
}

TEST_F(Envelope, RefusesEveryChangedBit) {
  for (const std::string& bytes : {sealed("plain"), sealed(kRepetitive)}) {
    for (size_t bit = 0; bit < bytes.size() * 8; ++bit) {
      std::string changed = bytes;
      changed[bit / 8] = static_cast<char>(changed[bit / 8] ^ (1 << (bit % 8)));
      ASSERT_NE(errorOf(changed), "") << "bit " << bit;
    }
  }
}

TEST_F(Envelope, RefusesEveryTruncationAndEveryAddition) {
  for (const std::string& bytes : {sealed("plain"), sealed(kRepetitive)}) {
    for (size_t length = 0; length < bytes.size(); ++length)
      ASSERT_NE(errorOf(bytes.substr(0, length)), "") << length;
    ASSERT_NE(errorOf(bytes + '\0'), "");
  }
}

TEST_F(Envelope, SaysWhatIsWrongWithAHeader) {
  EXPECT_EQ(errorOf(""), "The sealed text is too short to hold header, nonce and tag.");
  EXPECT_EQ(errorOf(std::string(29, '\1')), "The sealed text is too short to hold header, nonce and tag.");
  std::string bytes = sealed("plain");
  bytes[0] = '\xFE';
  EXPECT_EQ(errorOf(bytes), "The sealed text has version 254; version 1 is the one known here.");
  bytes[0] = '\1';
  for (const char flags : {'\x02', '\x03', '\x80', '\xFF'}) {
    bytes[1] = flags;
    EXPECT_EQ(errorOf(bytes), "The sealed text has flags that are not known here.");
  }
}

TEST_F(Envelope, RefusesMoreThanTheReaderWants) {
  const std::string plain = sealed("0123456789", Compression::kNever);
  EXPECT_TRUE(opensAs(plain, "0123456789", 10));
  EXPECT_EQ(errorOf(plain, "key", 9), "The sealed text is larger than is accepted here.");
  const std::string deflated = sealed(kRepetitive);
  EXPECT_TRUE(opensAs(deflated, kRepetitive, kRepetitive.size()));
  EXPECT_NE(errorOf(deflated, "key", kRepetitive.size() - 1), "");
}

TEST_F(Envelope, ReadsRandomBytesAsAnErrorAndNothingElse) {
  std::mt19937_64 chance(31);
  for (int i = 0; i < 20'000; ++i) {
    std::string bytes(chance() % 80, '\0');
    for (char& c : bytes)
      c = static_cast<char>(chance());
    if (!bytes.empty())
      bytes[0] = '\1';
    if (bytes.size() > 1)
      bytes[1] = static_cast<char>(chance() % 2);
    ASSERT_NE(errorOf(bytes), "");
  }
}

TEST_F(Envelope, HandsOnTheErrorsOfCipherAndCompressor) {
  const RefusingCipher refusing_cipher;
  const SealingTools without_cipher{refusing_cipher, compressor, random};
  EXPECT_EQ(std::get<Error>(seal(without_cipher, "key", "x", Compression::kNever)).message, "the cipher is not there");
  EXPECT_EQ(std::get<Error>(openSealed(without_cipher, "key", sealed("x"), kMaxBytes)).message,
            "the cipher is not there");
  const RefusingCompressor refusing_compressor;
  const SealingTools without_compressor{cipher, refusing_compressor, random};
  EXPECT_EQ(std::get<Error>(openSealed(without_compressor, "key", sealed(kRepetitive), kMaxBytes)).message,
            "no memory");
  const auto envelope = makeEnvelope(without_cipher, "app", Dictionary{{"a", 1}}, "key");
  EXPECT_EQ(std::get<Error>(envelope).message, "the cipher is not there");
}

TEST_F(Envelope, CarriesAppKeyAndSealedPayloadAsParameters) {
  const Value payload = Dictionary{{"activity_info", kit::Array{Dictionary{{"group", "session"}}}}, {"n", 1}};
  const auto made = makeEnvelope(tools, "the app", payload, "key");
  const auto& parameters = std::get<Value>(made);
  ASSERT_EQ(parameters.size(), 2U);
  EXPECT_EQ(parameters.dictionary().begin()->key.string(), "k");
  EXPECT_EQ(parameters["k"], Value("the app"));
  const auto bytes = fromBase64Url(parameters["j"].string());
  ASSERT_TRUE(bytes.has_value());
  EXPECT_TRUE(opensAs(*bytes, R"({"activity_info":[{"group":"session"}],"n":1})"));
}

TEST_F(Envelope, CannotBeMadeOfWhatHasNoJsonForm) {
  EXPECT_EQ(std::get<Error>(makeEnvelope(tools, "app", Dictionary{{"at", kit::Date{0}}}, "key")).message,
            "The value cannot be written as JSON: a date has no JSON form: format it as text first.");
  EXPECT_TRUE(std::holds_alternative<Error>(makeEnvelope(tools, "app", Value(), "key")));
}

// ---------------------------------------------------------------------------------------------- the published vectors

std::string fromHex(std::string_view hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
  return bytes;
}

/// Knows the one exchange of a vector and nothing else: that the layout asks the cipher for exactly this is the test.
class VectorCipher : public kit::Cipher {
 public:
  explicit VectorCipher(const Value& vector)
      : key_text_(vector["key_text"].string()),
        nonce_(fromHex(vector["nonce_hex"].string())),
        body_(fromHex(vector["body_hex"].string())),
        sealed_(fromHex(vector["sealed_hex"].string()).substr(kSealedHeaderBytes + kit::kNonceBytes)) {
    header_ = {kSealedVersion, static_cast<char>(vector["flags"].integer())};
  }
  std::optional<Error> encrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                               std::string_view plaintext, std::string& out) const override {
    if (key_text != key_text_ || nonce != nonce_ || header != header_ || plaintext != body_)
      return Error{"asked for something else"};
    out += sealed_;
    return std::nullopt;
  }
  std::optional<Error> decrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                               std::string_view sealed, std::string& out) const override {
    if (key_text != key_text_ || nonce != nonce_ || header != header_ || sealed != sealed_)
      return Error{"asked for something else"};
    out += body_;
    return std::nullopt;
  }

 private:
  std::string key_text_;
  std::string nonce_;
  std::string header_;
  std::string body_;
  std::string sealed_;
};

class VectorCompressor : public kit::Compressor {
 public:
  explicit VectorCompressor(const Value& vector)
      : plain_(vector["plaintext"].string()), deflated_(fromHex(vector["body_hex"].string())) {}
  std::optional<Error> deflate(std::string_view plain, std::string& out) const override {
    if (plain != plain_)
      return Error{"asked for something else"};
    out += deflated_;
    return std::nullopt;
  }
  std::optional<Error> inflate(std::string_view deflated, size_t, std::string& out) const override {
    if (deflated != deflated_)
      return Error{"asked for something else"};
    out += plain_;
    return std::nullopt;
  }

 private:
  std::string plain_;
  std::string deflated_;
};

class FixedRandom : public kit::Random {
 public:
  explicit FixedRandom(std::string bytes) : bytes_(std::move(bytes)) {}
  void fill(std::span<uint8_t> bytes) override {
    ASSERT_EQ(bytes.size(), bytes_.size());
    std::copy(bytes_.begin(), bytes_.end(), bytes.begin());
  }

 private:
  std::string bytes_;
};

TEST(EnvelopeVectors, AreSealedAndOpenedByteForByte) {
  std::ifstream file(test::sourceDir() + "/tests/vectors/sealed.json");
  ASSERT_TRUE(file);
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const Value vectors = testing::json(text)["vectors"];
  ASSERT_GE(vectors.size(), 5U);
  for (const Value& vector : vectors.array()) {
    const std::string name(vector["name"].string());
    const VectorCipher cipher(vector);
    const VectorCompressor compressor(vector);
    FixedRandom random(fromHex(vector["nonce_hex"].string()));
    const SealingTools tools{cipher, compressor, random};
    const bool deflated = vector["flags"].integer() == 1;
    const auto sealed = seal(tools, vector["key_text"].string(), vector["plaintext"].string(),
                             deflated ? Compression::kWhenShorter : Compression::kNever);
    ASSERT_TRUE(std::holds_alternative<std::string>(sealed)) << name << ": " << std::get<Error>(sealed).message;
    const auto& bytes = std::get<std::string>(sealed);
    EXPECT_EQ(hexText(bytes), vector["sealed_hex"].string()) << name;
    std::string coded;
    appendBase64Url(bytes, coded);
    EXPECT_EQ(coded, vector["base64url"].string()) << name;
    const auto opened = openSealed(tools, vector["key_text"].string(), bytes, kMaxBytes);
    ASSERT_TRUE(std::holds_alternative<std::string>(opened)) << name << ": " << std::get<Error>(opened).message;
    EXPECT_EQ(std::get<std::string>(opened), vector["plaintext"].string()) << name;
  }
}

}  // namespace
}  // namespace morvik::services
