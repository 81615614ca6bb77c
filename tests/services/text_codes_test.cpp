#include "services/text_codes.h"

#include <gtest/gtest.h>

#include <random>

namespace morvik::services {
namespace {

std::string base64UrlOf(std::string_view bytes) {
  std::string text;
  appendBase64Url(bytes, text);
  return text;
}

std::string percentEncoded(std::string_view bytes) {
  std::string text;
  appendPercentEncoded(bytes, text);
  return text;
}

std::string formDecoded(std::string_view text) {
  std::string bytes;
  appendFormDecoded(text, bytes);
  return bytes;
}

std::string allBytes() {
  std::string bytes;
  for (int i = 0; i < 256; ++i)
    bytes += static_cast<char>(i);
  return bytes;
}

TEST(Base64Url, KnowsTheTextsOfEveryRest) {
  EXPECT_EQ(base64UrlOf(""), "");
  EXPECT_EQ(base64UrlOf("f"), "Zg");
  EXPECT_EQ(base64UrlOf("fo"), "Zm8");
  EXPECT_EQ(base64UrlOf("foo"), "Zm9v");
  EXPECT_EQ(base64UrlOf("foob"), "Zm9vYg");
  EXPECT_EQ(base64UrlOf("fooba"), "Zm9vYmE");
  EXPECT_EQ(base64UrlOf("foobar"), "Zm9vYmFy");
  EXPECT_EQ(base64UrlOf("\xFB\xFF\xBF"), "-_-_");
}

TEST(Base64Url, AppendsToWhatIsThere) {
  std::string text = "j=";
  appendBase64Url("foo", text);
  EXPECT_EQ(text, "j=Zm9v");
}

TEST(Base64Url, ReadsBackEveryLengthOfEveryByte) {
  const std::string bytes = allBytes();
  for (size_t length = 0; length <= bytes.size(); ++length) {
    const std::string text = base64UrlOf(bytes.substr(bytes.size() - length));
    ASSERT_EQ(text.find_first_of("+/="), std::string::npos);
    ASSERT_EQ(fromBase64Url(text), bytes.substr(bytes.size() - length));
  }
}

TEST(Base64Url, RefusesWhatItWouldNotWrite) {
  for (const char* text : {"A", "Zm9vY", "Zg==", "Zg=", "Zm9v\n", "Zm 9", "Zm+v", "Zm/v", "Zh", "Zm9", "Zm\xC3\xA9v"}) {
    EXPECT_EQ(fromBase64Url(text), std::nullopt) << text;
  }
}

TEST(Base64Url, ReadsRandomTextOnlyAsWhatWouldBeWrittenSo) {
  std::mt19937_64 random(64);
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_-_=+";
  size_t read = 0;
  for (int i = 0; i < 20'000; ++i) {
    std::string text(random() % 12, '\0');
    for (char& c : text)
      c = alphabet[random() % alphabet.size()];
    if (const auto bytes = fromBase64Url(text)) {
      ++read;
      ASSERT_EQ(base64UrlOf(*bytes), text);
    }
  }
  EXPECT_GT(read, 1'000U);
}

TEST(Hex, IsInLowerCase) {
  EXPECT_EQ(hexText(""), "");
  EXPECT_EQ(hexText(std::string_view("\x00\x0f\xf0\xff\xab", 5)), "000ff0ffab");
  EXPECT_EQ(morvikAD_tracerByteToHex("\x1f"), "1f");
}

TEST(LetterCase, IsThatOfAsciiAlone) {
  EXPECT_EQ(inLowerCase("AZaz09-_@[`{"), "azaz09-_@[`{");
  EXPECT_EQ(inCapitals("AZaz09-_@[`{"), "AZAZ09-_@[`{");
  EXPECT_EQ(inLowerCase("\xC3\x84"), "\xC3\x84");
  EXPECT_EQ(inCapitals("\xC3\xA4"), "\xC3\xA4");
  EXPECT_EQ(inLowerCase(""), "");
}

TEST(PercentEncoding, KeepsLettersDigitsAndFourMarksAlone) {
  const std::string kept = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
  EXPECT_EQ(percentEncoded(kept), kept);
  EXPECT_EQ(percentEncoded(""), "");
  EXPECT_EQ(percentEncoded("a b&c=d+e%/?#"), "a%20b%26c%3Dd%2Be%25%2F%3F%23");
  EXPECT_EQ(percentEncoded("\xED\x95\x9C"), "%ED%95%9C");
  EXPECT_EQ(percentEncoded(std::string_view("\0\n", 2)), "%00%0A");
  size_t encoded = 0;
  for (const char c : allBytes())
    encoded += percentEncoded({&c, 1}).size() == 3 ? size_t{1} : size_t{0};
  EXPECT_EQ(encoded, 256 - kept.size());
}

TEST(FormDecoding, ReadsEscapesInEitherCaseAndAPlusAsABlank) {
  EXPECT_EQ(formDecoded(""), "");
  EXPECT_EQ(formDecoded("a+b%20c%2B"), "a b c+");
  EXPECT_EQ(formDecoded("%ed%95%9C%3d%3D"), "\xED\x95\x9C==");
  EXPECT_EQ(formDecoded("%00%FF"), std::string("\0\xFF", 2));
}

TEST(FormDecoding, LeavesAnEscapeThatIsNoneAsItStands) {
  for (const char* text : {"%", "%4", "%zz", "%4g", "%g4", "% 41", "%-1", "100%"})
    EXPECT_EQ(formDecoded(text), text);
  EXPECT_EQ(formDecoded("%%41%4%42"), "%A%4B");
  EXPECT_EQ(formDecoded("%2541"), "%41") << "decoded once";
}

TEST(FormDecoding, AppendsToWhatIsThere) {
  std::string text = "before ";
  appendFormDecoded("%41", text);
  EXPECT_EQ(text, "before A");
}

TEST(FormDecoding, IsTheReverseOfPercentEncodingForAnyBytes) {
  EXPECT_EQ(formDecoded(percentEncoded(allBytes())), allBytes());
}

}  // namespace
}  // namespace morvik::services
