#include "services/converters.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "services/dates.h"

namespace morvik::services {
namespace {

using kit::Array;
using kit::Date;
using kit::Dictionary;
using kit::Value;

constexpr int64_t kMax64 = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
constexpr double kMaxDouble = std::numeric_limits<double>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();

struct Row {
  const char* what;
  Value value;
  const char* text;
  bool truth;
  int64_t integer;
  double number;
  int32_t narrow;
};

// Every kind of value against every converter.
std::vector<Row> table() {
  return {
      {"absent", Value(), "", false, 0, 0, 0},
      {"null", Value::null(), "", false, 0, 0, 0},
      {"true", true, "1", true, 1, 1, 1},
      {"false", false, "0", false, 0, 0, 0},
      {"zero", 0, "0", false, 0, 0, 0},
      {"one", 1, "1", true, 1, 1, 1},
      {"minus one", -1, "-1", true, -1, -1, -1},
      {"the largest 32-bit number", 2147483647, "2147483647", true, 2147483647, 2147483647.0, 2147483647},
      {"one more", int64_t{2147483648}, "2147483648", true, 2147483648, 2147483648.0, -2147483647 - 1},
      {"2^32 + 7", int64_t{4294967303}, "4294967303", true, 4294967303, 4294967303.0, 7},
      {"2^32", int64_t{4294967296}, "4294967296", true, 4294967296, 4294967296.0, 0},
      {"the smallest 32-bit number less one", int64_t{-2147483649}, "-2147483649", true, -2147483649, -2147483649.0,
       2147483647},
      {"the largest integer", kMax64, "9223372036854775807", true, kMax64, 9223372036854775808.0, -1},
      {"the smallest integer", kMin64, "-9223372036854775808", true, kMin64, -9223372036854775808.0, 0},
      {"2^63 unsigned", uint64_t{1} << 63, "9223372036854775808", true, kMax64, 9223372036854775808.0, -1},
      {"the largest unsigned", ~uint64_t{0}, "18446744073709551615", true, kMax64, 18446744073709551616.0, -1},
      {"a small unsigned", uint64_t{5}, "5", true, 5, 5, 5},
      {"0.0", 0.0, "0", false, 0, 0, 0},
      {"-0.0", -0.0, "-0", false, 0, 0, 0},
      {"0.5", 0.5, "0.5", true, 0, 0.5, 0},
      {"-0.5", -0.5, "-0.5", true, 0, -0.5, 0},
      {"2.9", 2.9, "2.9", true, 2, 2.9, 2},
      {"-2.9", -2.9, "-2.9", true, -2, -2.9, -2},
      {"100000.0", 100000.0, "100000", true, 100000, 100000, 100000},
      {"1700000000.0", 1700000000.0, "1700000000", true, 1700000000, 1700000000, 1700000000},
      {"0.00001", 0.00001, "0.00001", true, 0, 0.00001, 0},
      {"1e-7", 1e-7, "1e-07", true, 0, 1e-7, 0},
      {"1e20", 1e20, "100000000000000000000", true, kMax64, 1e20, -1},
      {"1e21", 1e21, "1e+21", true, kMax64, 1e21, -1},
      {"-1e300", -1e300, "-1e+300", true, kMin64, -1e300, 0},
      {"2^63 as double", 9223372036854775808.0, "9223372036854775808", true, kMax64, 9223372036854775808.0, -1},
      {"the double below 2^63", 9223372036854774784.0, "9223372036854774784", true, 9223372036854774784,
       9223372036854774784.0, -1024},
      {"-2^63 as double", -9223372036854775808.0, "-9223372036854775808", true, kMin64, -9223372036854775808.0, 0},
      {"the double below -2^63", -9223372036854777856.0, "-9223372036854777856", true, kMin64, -9223372036854777856.0,
       0},
      {"the smallest double", 5e-324, "5e-324", true, 0, 5e-324, 0},
      {"infinity", kInfinity, "inf", true, kMax64, kMaxDouble, -1},
      {"minus infinity", -kInfinity, "-inf", true, kMin64, -kMaxDouble, 0},
      {"not a number", kNotANumber, "nan", false, 0, 0, 0},
      {"empty text", "", "", false, 0, 0, 0},
      {"blank text", " \t\n\v\f\r", " \t\n\v\f\r", false, 0, 0, 0},
      {"a number as text", "12", "12", true, 12, 12, 12},
      {"a negative one", "-12", "-12", false, -12, -12, -12},
      {"with a plus", "+12", "+12", false, 12, 12, 12},
      {"with two signs", "+-12", "+-12", false, 0, 0, 0},
      {"with a sign alone", "+", "+", false, 0, 0, 0},
      {"with a minus alone", "-", "-", false, 0, 0, 0},
      {"with a blank after the sign", "- 12", "- 12", false, 0, 0, 0},
      {"with blanks before", " \n 12", " \n 12", true, 12, 12, 12},
      {"with words after", "12 items", "12 items", true, 12, 12, 12},
      {"with words before", "item 12", "item 12", false, 0, 0, 0},
      {"a leading zero", "012", "012", false, 12, 12, 12},
      {"a fraction", "3.75", "3.75", true, 3, 3.75, 3},
      {"a fraction alone", ".5", ".5", false, 0, 0.5, 0},
      {"a point at the end", "5.", "5.", true, 5, 5, 5},
      {"a point alone", ".", ".", false, 0, 0, 0},
      {"an exponent", "1e3", "1e3", true, 1, 1000, 1},
      {"half an exponent", "7e+", "7e+", true, 7, 7, 7},
      {"hexadecimal", "0x1F", "0x1F", false, 0, 0, 0},
      {"the word infinity", "inf", "inf", false, 0, 0, 0},
      {"the word nan", "nan", "nan", false, 0, 0, 0},
      {"a text beyond 64 bits", "9223372036854775808", "9223372036854775808", true, kMax64, 9223372036854775808.0, -1},
      {"a text below 64 bits", "-9223372036854775809", "-9223372036854775809", false, kMin64, -9223372036854775808.0,
       0},
      {"a text beyond a double", "1e400", "1e400", true, 1, kMaxDouble, 1},
      {"a negative one beyond", "-1e400", "-1e400", false, -1, -kMaxDouble, -1},
      {"a text too small for a double", "1e-400", "1e-400", true, 1, 0, 1},
      {"a text of very large exponent", "2e99999999999999999999", "2e99999999999999999999", true, 2, kMaxDouble, 2},
      {"a text of very small exponent", "2e-99999999999999999999", "2e-99999999999999999999", true, 2, 0, 2},
      {"zero of very large exponent", "0e99999999999999999999", "0e99999999999999999999", false, 0, 0, 0},
      {"yes", "yes", "yes", true, 0, 0, 0},
      {"YES", "YES", "YES", true, 0, 0, 0},
      {"true as text", "true", "true", true, 0, 0, 0},
      {"T", "T", "T", true, 0, 0, 0},
      {"yes after blanks", " \t Y", " \t Y", true, 0, 0, 0},
      {"no", "no", "no", false, 0, 0, 0},
      {"false as text", "false", "false", false, 0, 0, 0},
      {"zero as text", "0", "0", false, 0, 0, 0},
      {"nine as text", "9", "9", true, 9, 9, 9},
      {"a date", Date::fromSeconds(1), "1970-01-01T00:00:01Z", false, 0, 0, 0},
      {"an array", Array{1}, "", false, 0, 0, 0},
      {"an empty array", Array(), "", false, 0, 0, 0},
      {"a dictionary", Dictionary{{"a", 1}}, "", false, 0, 0, 0},
  };
}

TEST(Converters, TurnEveryKindOfValueIntoTextTruthAndNumbers) {
  for (const Row& row : table()) {
    const Value text = checkNilToBlankString(row.value);
    EXPECT_TRUE(text.isString()) << row.what;
    EXPECT_EQ(text.string(), row.text) << row.what;
    EXPECT_EQ(checkNilToNo(row.value), row.truth) << row.what;
    EXPECT_EQ(checkIntegerNilToZero(row.value), row.integer) << row.what;
    EXPECT_EQ(checkLongLongNilToZero(row.value), row.integer) << row.what;
    EXPECT_EQ(checkDoubleNilToZero(row.value), row.number) << row.what;
    EXPECT_EQ(checkNilToZero(row.value), row.narrow) << row.what;
  }
}

TEST(Converters, SeeDigitsOneToNineAsTrueInText) {
  for (char c = 0; c >= 0 && c < 127; ++c) {
    const bool expected = (c >= '1' && c <= '9') || c == 'y' || c == 'Y' || c == 't' || c == 'T';
    EXPECT_EQ(checkNilToNo(std::string_view(&c, 1)), expected) << static_cast<int>(c);
  }
}

TEST(Converters, ReadLongTextsByTheirSizeNotByTheirLength) {
  const std::string zeros(400, '0');
  EXPECT_EQ(leadingDouble("0." + zeros + "1"), 0);
  EXPECT_EQ(leadingDouble("-0." + zeros + "1"), 0);
  EXPECT_EQ(leadingDouble("0." + zeros + "1e5"), 0);
  EXPECT_EQ(leadingDouble("0." + zeros + "1e401"), 1);
  EXPECT_EQ(leadingDouble("0." + zeros + "1e1000"), kMaxDouble);
  EXPECT_EQ(leadingDouble("1" + zeros), kMaxDouble);
  EXPECT_EQ(leadingDouble("-1" + zeros), -kMaxDouble);
  EXPECT_EQ(leadingDouble("1" + zeros + "e-5"), kMaxDouble);
  EXPECT_EQ(leadingDouble("1" + zeros + "e-400"), 1);
  EXPECT_EQ(leadingDouble("1E-400"), 0);
  EXPECT_EQ(leadingDouble("1E-" + zeros + "400"), 0);
  EXPECT_EQ(leadingDouble("1" + zeros + "e-900"), 0);
  EXPECT_EQ(leadingDouble(zeros + "7"), 7);
  EXPECT_EQ(leadingInteger(zeros + "7"), 7);
  EXPECT_EQ(leadingInteger("-1" + zeros), kMin64);
  EXPECT_EQ(leadingInteger("1" + zeros), kMax64);
}

TEST(Converters, KeepTheSmallestDoubles) {
  EXPECT_EQ(leadingDouble("5e-324"), 5e-324);
  EXPECT_EQ(leadingDouble("2.2250738585072011e-308"), 2.2250738585072011e-308);
  EXPECT_EQ(leadingDouble("1.7976931348623157e308"), kMaxDouble);
}

TEST(Converters, SaturateADoubleThatDoesNotFitAnInteger) {
  EXPECT_EQ(saturatedInteger(kNotANumber), 0);
  EXPECT_EQ(saturatedInteger(kInfinity), kMax64);
  EXPECT_EQ(saturatedInteger(-kInfinity), kMin64);
  EXPECT_EQ(saturatedInteger(9223372036854775808.0), kMax64);
  EXPECT_EQ(saturatedInteger(-9223372036854775808.0), kMin64);
  EXPECT_EQ(saturatedInteger(-0.9), 0);
}

TEST(Converters, AreTotalOverRandomDoubles) {
  std::mt19937_64 random(53);
  for (int i = 0; i < 50'000; ++i) {
    const uint64_t bits = random();
    double number = 0;
    std::memcpy(&number, &bits, sizeof number);
    const int64_t integer = checkIntegerNilToZero(number);
    if (std::fabs(number) < 9e18) {
      ASSERT_EQ(static_cast<double>(integer), std::trunc(number));
    }
    const double back = checkDoubleNilToZero(checkNilToBlankString(number));
    ASSERT_EQ(back, std::isfinite(number) ? number : 0) << checkNilToBlankString(number).string();
  }
}

TEST(Converters, AreTotalOverRandomTexts) {
  std::mt19937_64 random(54);
  const std::string alphabet = "0123456789+-.eE \txyYtTnaif";
  for (int i = 0; i < 50'000; ++i) {
    std::string text(random() % 30, '\0');
    for (char& c : text)
      c = alphabet[random() % alphabet.size()];
    const double number = leadingDouble(text);
    ASSERT_TRUE(std::isfinite(number)) << text;
    // The C library reads the same, but for the words, hexadecimal digits and infinities that are none here.
    const double other = std::strtod(text.c_str(), nullptr);
    if (std::isfinite(other) && text.find_first_of("xX") == std::string::npos) {
      ASSERT_EQ(number, other) << text;
    }
    ASSERT_EQ(leadingInteger(text), std::strtoll(text.c_str(), nullptr, 10)) << text;
  }
}

TEST(Converters, TellWhetherATextBeginsWithANumber) {
  for (const char* text : {"0", "-1", "+1", " \t7 and more", ".5", "1e5", "12abc"})
    EXPECT_TRUE(beginsWithNumber(text)) << text;
  for (const char* text : {"", " ", "abc", "-", "+", ".", "e5", "a1", "nan", "inf"})
    EXPECT_FALSE(beginsWithNumber(text)) << text;
}

TEST(Converters, TellAConversionKeyFromWhatIsNone) {
  for (const kit::Value& key : {kit::Value(0), kit::Value("7"), kit::Value("x"), kit::Value(1.5), kit::Value(true)})
    EXPECT_TRUE(isConversionKey(key));
  for (const kit::Value& none :
       {kit::Value(), kit::Value::null(), kit::Value(kit::Array{1}), kit::Value(kit::Dictionary{})})
    EXPECT_FALSE(isConversionKey(none));
}

}  // namespace
}  // namespace morvik::services
