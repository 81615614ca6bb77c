#include "apps/service/wire/sealed.h"

#include <gtest/gtest.h>

#include "apps/service/base/base64url.h"
#include "apps/service/base/files.h"
#include "tests/apps/service/samples.h"
#include "tests/apps/service/sealing.h"
#include "tests/support/paths.h"

namespace morvik_service {
namespace {

using test::deflated;
using test::fromHex;
using test::refusalOf;
using test::seal;
using test::toHex;

Json vectors() {
  return parseJson(readSmallFile(morvik::test::sourceDir() + "/tests/vectors/sealed.json"), "the vectors");
}

std::string text(const Json& object, const char* name) {
  return object.at(name).get<std::string>();
}

TEST(Sealed, OpensTheWrittenDownVectors) {
  const Json document = vectors();
  ASSERT_GE(document.at("vectors").size(), 5U);
  for (const Json& vector : document.at("vectors")) {
    SCOPED_TRACE(text(vector, "name"));
    EXPECT_EQ(text(vector, "key_hex"), toHex(deriveSealingKey(text(vector, "key_text"))));
    const std::string sealed = fromHex(text(vector, "sealed_hex"));
    EXPECT_EQ(text(vector, "plaintext"), openSealed(sealed, text(vector, "key_text")));
    EXPECT_EQ(sealed, decodeBase64Url(text(vector, "base64url")));
  }
}

TEST(Sealed, TheTestsOwnSealingAgreesWithTheWrittenDownVectors) {
  const Json document = vectors();
  for (const Json& vector : document.at("vectors")) {
    SCOPED_TRACE(text(vector, "name"));
    const std::string made =
        seal(fromHex(text(vector, "body_hex")), text(vector, "key_text"),
             {.flags = vector.at("flags").get<std::uint8_t>(), .nonce = fromHex(text(vector, "nonce_hex"))});
    EXPECT_EQ(text(vector, "sealed_hex"), toHex(made));
  }
}

TEST(Sealed, RefusesTheWrittenDownBadOnesEachWithItsStatus) {
  const Json document = vectors();
  ASSERT_GE(document.at("refused").size(), 13U);
  for (const Json& bad : document.at("refused")) {
    SCOPED_TRACE(text(bad, "why"));
    const Refusal refusal = refusalOf([&] { openSealed(fromHex(text(bad, "sealed_hex")), text(bad, "key_text")); });
    EXPECT_EQ(bad.at("status"), refusal.status()) << refusal.what();
  }
}

TEST(Sealed, TheProtocolsPageShowsTheFirstVectorAsItIs) {
  const Json document = vectors();
  const Json& vector = document.at("vectors").front();
  const std::string page = readSmallFile(morvik::test::sourceDir() + "/docs/protocol.md");
  const std::string sealed = text(vector, "sealed_hex");
  constexpr std::size_t kHeaderDigits = 2 * kSealedHeaderBytes;
  constexpr std::size_t kNonceDigits = 2 * kSealedNonceBytes;
  const std::size_t tag_begin = sealed.size() - 2 * kSealedTagBytes;
  const std::size_t text_begin = kHeaderDigits + kNonceDigits;
  for (const std::string& row :
       {"| key text | `" + text(vector, "key_text"), "| key | `" + text(vector, "key_hex"),
        "| plaintext | `" + text(vector, "plaintext"), "| version and flags | `" + sealed.substr(0, kHeaderDigits),
        "| nonce | `" + sealed.substr(kHeaderDigits, kNonceDigits),
        "| ciphertext | `" + sealed.substr(text_begin, tag_begin - text_begin), "| tag | `" + sealed.substr(tag_begin),
        "| base64url | `" + text(vector, "base64url"),
        "| body for app key `demo-app` | `k=demo-app&j=" + text(vector, "base64url")}) {
    EXPECT_NE(std::string::npos, page.find(row + "` |\n")) << row;
  }
}

TEST(Sealed, InflatesOnlyWhatIsFlaggedAsDeflated) {
  const std::string stream = deflated("plain");
  EXPECT_EQ("plain", openSealed(seal(stream, "key", {.flags = 1}), "key"));
  EXPECT_EQ(stream, openSealed(seal(stream, "key"), "key"));
}

TEST(Sealed, SaysWhatIsWrong) {
  const auto problem = [](const std::string& sealed) -> std::string {
    return refusalOf([&] { openSealed(sealed, "key"); }).what();
  };
  EXPECT_EQ("sealed bytes are truncated: 29 of at least 30", problem(std::string(29, '\1')));
  EXPECT_EQ("unknown sealing version 7", problem(seal("x", "key", {.version = 7})));
  EXPECT_EQ("unknown sealing flags 129", problem(seal("x", "key", {.flags = 129})));
  EXPECT_EQ("the key does not open the payload (wrong key, or bytes were changed)", problem(seal("x", "yek")));
}

TEST(Sealed, WhereNothingIsDeflatedTheFlagIsUnknown) {
  EXPECT_EQ("plain", openSealed(seal("plain", "key"), "key", 0));
  const Refusal refusal = refusalOf([] { openSealed(seal(deflated("plain"), "key", {.flags = 1}), "key", 0); });
  EXPECT_EQ(400, refusal.status());
  EXPECT_STREQ("unknown sealing flags 1", refusal.what());
  EXPECT_EQ("use no flag here: do not deflate", refusal.fix());
}

TEST(Sealed, NoMessageCarriesTheKey) {
  const Refusal refusal = refusalOf([] { openSealed(seal("x", "other"), "very-secret-key"); });
  for (const std::string& part : {std::string(refusal.what()), refusal.where(), refusal.fix()}) {
    EXPECT_EQ(std::string::npos, part.find("very-secret-key"));
  }
}

TEST(Sealed, ABitFlippedAnywhereIsNoticed) {
  const std::string sealed = seal("{\"a\":1}", "key");
  for (std::size_t bit = 0; bit < sealed.size() * 8; ++bit) {
    std::string changed = sealed;
    changed[bit / 8] = static_cast<char>(changed[bit / 8] ^ (1 << (bit % 8)));
    EXPECT_NE(0, refusalOf([&] { openSealed(changed, "key"); }).status()) << "bit " << bit;
  }
}

}  // namespace
}  // namespace morvik_service
