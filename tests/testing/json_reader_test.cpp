#include "testing/json_reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace morvik::test {
namespace {

using testing::json;
using testing::readJson;

std::string errorOf(std::string_view text) {
  const auto result = readJson(text);
  const auto* error = std::get_if<kit::Error>(&result);
  return error == nullptr ? "no error" : error->message;
}

TEST(JsonReader, ReadsEveryKind) {
  EXPECT_TRUE(json("null").isNull());
  EXPECT_EQ(json("true"), kit::Value(true));
  EXPECT_EQ(json(" false\n"), kit::Value(false));
  EXPECT_EQ(json("\"text\""), kit::Value("text"));
  EXPECT_EQ(json("-12").kind(), kit::Kind::kInteger);
  EXPECT_EQ(json("-12").integer(), -12);
  EXPECT_EQ(json("1.5e2").kind(), kit::Kind::kDouble);
  EXPECT_DOUBLE_EQ(json("1.5e2").number(), 150.0);
  EXPECT_EQ(json("[]").kind(), kit::Kind::kArray);
  EXPECT_EQ(json("{ }").kind(), kit::Kind::kDictionary);
  const kit::Value value = json(R"({"a": [1, "b", {"c": null}], "d": true})");
  EXPECT_EQ(value, kit::Value(kit::Dictionary{{"a", kit::Array{1, "b", kit::Dictionary{{"c", kit::Value::null()}}}},
                                              {"d", true}}));
}

TEST(JsonReader, KeepsWholeNumbersUpTo64BitsAndMakesDoublesOfLargerOnes) {
  EXPECT_EQ(json("9223372036854775807").integer(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(json("-9223372036854775808").integer(), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(json("18446744073709551615").unsignedInteger(), std::numeric_limits<uint64_t>::max());
  EXPECT_DOUBLE_EQ(json("18446744073709551616").number(), 18446744073709551616.0);
  EXPECT_DOUBLE_EQ(json("-9223372036854775809").number(), -9223372036854775808.0);
}

TEST(JsonReader, TakesATinyNumberAsZeroAndRefusesATooLargeOne) {
  EXPECT_EQ(json("1e-400").number(), 0.0);
  EXPECT_TRUE(std::signbit(json("-1e-400").number()));
  EXPECT_EQ(json("0." + std::string(400, '0') + "1").kind(), kit::Kind::kDouble);
  EXPECT_EQ(json("0.0001e-9999999999999999999999").number(), 0.0);
  EXPECT_EQ(errorOf("1e400"), "JSON, byte 5: a number is too large");
  EXPECT_EQ(errorOf("0.001e400"), "JSON, byte 9: a number is too large");
  EXPECT_EQ(errorOf("1e9999999999999999999999"), "JSON, byte 24: a number is too large");
  EXPECT_EQ(errorOf(std::string(400, '9')), "JSON, byte 400: a number is too large");
  EXPECT_EQ(errorOf(std::string(400, '9') + "e-10"), "JSON, byte 404: a number is too large");
}

TEST(JsonReader, ReadsEscapes) {
  EXPECT_EQ(json(R"("\"\\\/\b\f\n\r\t\u0041\u00e9\u20AC\ud83d\ude00")").string(),
            "\"\\/\b\f\n\r\tA\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(json("\"\\u0000\"").string(), std::string_view("\0", 1));
}

TEST(JsonReader, CountsTheLastValueOfARepeatedKey) {
  const kit::Value value = json(R"({"a": 1, "b": 2, "a": 3})");
  EXPECT_EQ(value.size(), 2u);
  EXPECT_EQ(value["a"], kit::Value(3));
  EXPECT_EQ(value.dictionary().begin()->key, kit::Value("a"));
}

TEST(JsonReader, SaysWhatIsWrongAndWhere) {
  EXPECT_EQ(errorOf(""), "JSON, byte 0: a value was expected");
  EXPECT_EQ(errorOf("<html>"), "JSON, byte 0: a value was expected");
  EXPECT_EQ(errorOf("nul"), "JSON, byte 0: a value was expected");
  EXPECT_EQ(errorOf("1 2"), "JSON, byte 2: there is more text after the document");
  EXPECT_EQ(errorOf("01"), "JSON, byte 1: there is more text after the document");
  EXPECT_EQ(errorOf("[1,]"), "JSON, byte 3: a value was expected");
  EXPECT_EQ(errorOf("[1"), "JSON, byte 2: a comma or ] was expected");
  EXPECT_EQ(errorOf("{\"a\" 1}"), "JSON, byte 5: a colon was expected");
  EXPECT_EQ(errorOf("{a: 1}"), "JSON, byte 1: a key in quotes was expected");
  EXPECT_EQ(errorOf("{\"a\": 1"), "JSON, byte 7: a comma or } was expected");
  EXPECT_EQ(errorOf("{\"a\": 1,}"), "JSON, byte 8: a key in quotes was expected");
  EXPECT_EQ(errorOf("\"abc"), "JSON, byte 4: a string does not end");
  EXPECT_EQ(errorOf("\"a\nb\""), "JSON, byte 2: a control character stands in a string; write it as an escape");
  EXPECT_EQ(errorOf("\"\\x\""), "JSON, byte 2: an unknown escape");
  EXPECT_EQ(errorOf("\"\\u12\""), "JSON, byte 3: four hexadecimal digits were expected");
  EXPECT_EQ(errorOf("\"\\u-123\""), "JSON, byte 3: four hexadecimal digits were expected");
  EXPECT_EQ(errorOf("\"\\udc00\""), "JSON, byte 7: half of a surrogate pair");
  EXPECT_EQ(errorOf("\"\\ud800x\""), "JSON, byte 7: half of a surrogate pair");
  EXPECT_EQ(errorOf("\"\\ud800\\u0041\""), "JSON, byte 13: half of a surrogate pair");
  EXPECT_EQ(errorOf("1."), "JSON, byte 2: a digit was expected after the decimal point");
  EXPECT_EQ(errorOf("1e+"), "JSON, byte 3: a digit was expected in the exponent");
  EXPECT_EQ(errorOf("-"), "JSON, byte 1: a value was expected");
  EXPECT_EQ(errorOf("+1"), "JSON, byte 0: a value was expected");
  EXPECT_EQ(errorOf("// text\n1"), "JSON, byte 0: a value was expected");
  EXPECT_EQ(errorOf("\"\xC3\""), "JSON: the text is not UTF-8");
}

TEST(JsonReader, RefusesNestingBeyondTheBoundAndNoneWithin) {
  const auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_EQ(errorOf(nested(kit::kMaxJsonDepth)), "no error");
  EXPECT_EQ(errorOf(nested(kit::kMaxJsonDepth + 1)), "JSON, byte 512: containers are nested deeper than 512");
  EXPECT_EQ(errorOf(std::string(4'000'000, '[')), "JSON, byte 512: containers are nested deeper than 512");
}

TEST(Json, RefusesABadDocumentOfTheTest) {
  EXPECT_THROW(json("{"), std::invalid_argument);
}

TEST(PlainJsonCodec, ReadsWhatItWrites) {
  const testing::PlainJsonCodec codec;
  const kit::Value value = json(R"({"a":[1,2.5,"\u00e9\n",null,true,{}],"b":18446744073709551615})");
  const auto text = codec.write(value);
  ASSERT_TRUE(std::holds_alternative<std::string>(text));
  EXPECT_EQ(std::get<kit::Value>(codec.read(std::get<std::string>(text))), value);
  EXPECT_TRUE(std::holds_alternative<kit::Error>(codec.write(kit::Date{})));
}

}  // namespace
}  // namespace morvik::test
