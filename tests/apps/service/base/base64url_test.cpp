#include "apps/service/base/base64url.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::refusalOf;

TEST(Base64Url, DecodesEveryTailLength) {
  EXPECT_EQ("", decodeBase64Url(""));
  EXPECT_EQ("f", decodeBase64Url("Zg"));
  EXPECT_EQ("fo", decodeBase64Url("Zm8"));
  EXPECT_EQ("foo", decodeBase64Url("Zm9v"));
  EXPECT_EQ("foobar", decodeBase64Url("Zm9vYmFy"));
}

TEST(Base64Url, UsesDashAndUnderscoreForTheLastTwoDigits) {
  EXPECT_EQ("\xfb\xff\xfe", decodeBase64Url("-__-"));
  EXPECT_EQ("-__-", encodeBase64Url("\xfb\xff\xfe"));
}

TEST(Base64Url, EveryByteComesBackFromItsText) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    EXPECT_EQ(bytes, decodeBase64Url(encodeBase64Url(bytes)));
    bytes.push_back(static_cast<char>(i));
  }
}

TEST(Base64Url, RefusesWhatIsNotOfTheAlphabetAndSaysWhere) {
  for (const char* text : {"Zm9=", "Zm9+", "Zm9/", "Zm9 ", "Zm9\n"}) {
    const Refusal refusal = refusalOf([&] { decodeBase64Url(text); });
    EXPECT_EQ(400, refusal.status());
    EXPECT_STREQ("bad base64url: character 3 is not of the alphabet", refusal.what()) << text;
    EXPECT_EQ("form parameter j", refusal.where());
  }
}

TEST(Base64Url, RefusesALengthThatNoBytesHave) {
  EXPECT_STREQ("bad base64url: the text ends in the middle of a byte",
               refusalOf([] { decodeBase64Url("Zm9vA"); }).what());
}

TEST(Base64Url, RefusesBitsThatBelongToNoByte) {
  EXPECT_STREQ("bad base64url: the last character carries bits that belong to no byte",
               refusalOf([] { decodeBase64Url("Zh"); }).what());
}

}  // namespace
}  // namespace morvik_service
