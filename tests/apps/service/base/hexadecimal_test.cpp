#include "apps/service/base/hexadecimal.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::refusalOf;

const std::string kAllBytes = [] {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte)
    bytes.push_back(static_cast<char>(byte));
  return bytes;
}();

TEST(Hexadecimal, GoesBothWays) {
  EXPECT_EQ("00ff7f80", encodeHexadecimal(std::string("\x00\xff\x7f\x80", 4)));
  EXPECT_EQ(std::string("\x00\xff\x7f\x80", 4), decodeHexadecimal("00ff7f80"));
  EXPECT_EQ(kAllBytes, decodeHexadecimal(encodeHexadecimal(kAllBytes)));
  EXPECT_EQ("", decodeHexadecimal(""));
}

TEST(Hexadecimal, DigitsOfBothCasesHaveAValue) {
  EXPECT_EQ(0, hexadecimalDigit('0'));
  EXPECT_EQ(9, hexadecimalDigit('9'));
  for (const char c : {'a', 'A'})
    EXPECT_EQ(10, hexadecimalDigit(c));
  for (const char c : {'f', 'F'})
    EXPECT_EQ(15, hexadecimalDigit(c));
  for (const char c : {'g', 'G', '/', ':', '@', '`', '\0', ' '})
    EXPECT_EQ(-1, hexadecimalDigit(c)) << c;
}

TEST(Hexadecimal, OnlyPairsOfLowerCaseDigitsAreTaken) {
  const auto problem = [](const std::string& text) -> std::string {
    const Refusal refusal = refusalOf([&] { decodeHexadecimal(text); });
    EXPECT_EQ(400, refusal.status());
    EXPECT_EQ("form parameter j", refusal.where());
    return refusal.what();
  };
  EXPECT_EQ("bad hexadecimal: the text ends in the middle of a byte", problem("00f"));
  EXPECT_EQ("bad hexadecimal: character 3 is not a lower-case digit", problem("00fF"));
  EXPECT_EQ("bad hexadecimal: character 0 is not a lower-case digit", problem("A0"));
  EXPECT_EQ("bad hexadecimal: character 2 is not a lower-case digit", problem("00 ff"));
}

}  // namespace
}  // namespace morvik_service
