#include "services/json_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kit/json_codec.h"

namespace morvik::services {
namespace {

using kit::Array;
using kit::Date;
using kit::Dictionary;
using kit::Value;

constexpr const char* kReplacement = "\xEF\xBF\xBD";

std::string jsonOf(const Value& value) {
  const auto written = writeJson(value);
  const auto* text = std::get_if<std::string>(&written);
  EXPECT_NE(text, nullptr) << std::get<kit::Error>(written).message;
  return text != nullptr ? *text : std::string();
}

std::string errorOf(const Value& value) {
  const auto written = writeJson(value);
  const auto* error = std::get_if<kit::Error>(&written);
  return error != nullptr ? error->message : "no error, but " + std::get<std::string>(written);
}

std::string descriptionOf(const Value& value) {
  std::string text;
  appendJsonDescription(value, text);
  return text;
}

Value nested(size_t depth) {
  Value value(1);
  for (size_t i = 0; i < depth; ++i)
    value = i % 2 == 0 ? Value(Array{value}) : Value(Dictionary{{"a", value}});
  return value;
}

/// One byte at a time: what the writer, which looks at eight at once, must agree with.
std::string plainlyQuoted(const std::string& ascii) {
  std::string text = "\"";
  for (const char c : ascii) {
    if (c == '"' || c == '\\')
      text += '\\';
    if (c == '\n') {
      text += "\\n";
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      text += escape;
    } else {
      text += c;
    }
  }
  return text + '"';
}

TEST(JsonWriter, WritesEachKindOfValue) {
  EXPECT_EQ(jsonOf(Value::null()), "null");
  EXPECT_EQ(jsonOf(true), "true");
  EXPECT_EQ(jsonOf(false), "false");
  EXPECT_EQ(jsonOf(0), "0");
  EXPECT_EQ(jsonOf(-17), "-17");
  EXPECT_EQ(jsonOf(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(jsonOf(std::numeric_limits<int64_t>::max()), "9223372036854775807");
  EXPECT_EQ(jsonOf(std::numeric_limits<uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(jsonOf(1.5), "1.5");
  EXPECT_EQ(jsonOf(-0.25), "-0.25");
  EXPECT_EQ(jsonOf("text"), "\"text\"");
  EXPECT_EQ(jsonOf(""), "\"\"");
  EXPECT_EQ(jsonOf(Array()), "[]");
  EXPECT_EQ(jsonOf(Array{1, "two", Value::null()}), "[1,\"two\",null]");
  EXPECT_EQ(jsonOf(Dictionary()), "{}");
  EXPECT_EQ(jsonOf(Dictionary{{"b", 1}, {"a", Array{true, Dictionary{{"c", "d"}}}}}),
            R"({"b":1,"a":[true,{"c":"d"}]})");
}

TEST(JsonWriter, EscapesQuoteBackslashAndEveryControlCharacter) {
  EXPECT_EQ(jsonOf("\"\\/"), R"("\"\\/")");
  EXPECT_EQ(jsonOf("\b\f\n\r\t"), R"("\b\f\n\r\t")");
  EXPECT_EQ(jsonOf(std::string("\0", 1)), "\"\\u0000\"");
  EXPECT_EQ(jsonOf("\x01\x0b\x1f\x7f"), "\"\\u0001\\u000b\\u001f\x7f\"");
}

TEST(JsonWriter, EscapesKeysAsItDoesTexts) {
  EXPECT_EQ(jsonOf(Dictionary{{"a\"b\n", 1}}), R"({"a\"b\n":1})");
  EXPECT_EQ(jsonOf(Dictionary{{"\xFF", 1}}), std::string("{\"") + kReplacement + "\":1}");
}

TEST(JsonWriter, LeavesWellFormedUtf8AsItIs) {
  for (const char* text : {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF",
                           "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF", "\xED\x95\x9C\xEA\xB5\xAD"}) {
    EXPECT_EQ(jsonOf(text), '"' + std::string(text) + '"');
    EXPECT_TRUE(isUtf8(text));
    EXPECT_EQ(wellFormedBytes(text), std::string_view(text).size());
    std::string repaired;
    appendRepairedUtf8(text, repaired);
    EXPECT_EQ(repaired, text);
  }
}

TEST(JsonWriter, PutsAReplacementInPlaceOfEachBadByte) {
  struct Row {
    std::string bytes;
    size_t bad;
    std::string rest;
  };
  const std::vector<Row> rows = {
      {"\x80", 1, ""},              // a continuation alone
      {"\xC0\xAF", 2, ""},          // overlong
      {"\xC1\xBF", 2, ""},          // overlong
      {"\xC2", 1, ""},              // cut off
      {"\xC2q", 1, "q"},            // cut off by another character
      {"\xE0\x9F\xBF", 3, ""},      // overlong
      {"\xE2\x82", 2, ""},          // cut off
      {"\xE2\x82z", 2, "z"},        // cut off
      {"\xED\xA0\x80", 3, ""},      // a surrogate
      {"\xF0\x8F\xBF\xBF", 4, ""},  // overlong
      {"\xF0\x9F\x98", 3, ""},      // cut off
      {"\xF4\x90\x80\x80", 4, ""},  // beyond the last code point
      {"\xF5\x80\x80\x80", 4, ""},
      {"\xFF", 1, ""},
  };
  for (const Row& row : rows) {
    std::string expected;
    for (size_t i = 0; i < row.bad; ++i)
      expected += kReplacement;
    expected += row.rest;
    EXPECT_EQ(jsonOf("a" + row.bytes), "\"a" + expected + '"');
    EXPECT_FALSE(isUtf8(row.bytes));
    EXPECT_EQ(wellFormedBytes(row.bytes), 0U);
    EXPECT_EQ(wellFormedBytes("\xC3\xA4q" + row.bytes), 3U) << "the place of the first bad byte";
    std::string repaired = "kept ";
    appendRepairedUtf8(row.bytes, repaired);
    EXPECT_EQ(repaired, "kept " + expected);
  }
}

TEST(JsonWriter, SeesASpecialByteAtEveryPlaceOfALongText) {
  constexpr size_t kLength = 41;  // five words of eight and a rest
  for (const char special : {'"', '\\', '\n', '\x01', '\x1f', '\0'}) {
    for (size_t length = 1; length <= kLength; ++length) {
      for (size_t at = 0; at < length; ++at) {
        std::string text(length, 'x');
        text[at] = special;
        ASSERT_EQ(jsonOf(text), plainlyQuoted(text)) << "length " << length << ", place " << at;
      }
    }
  }
}

TEST(JsonWriter, SeesTwoSpecialBytesInOneWord) {
  // The neighbours of a special byte are where a test of eight bytes at once goes wrong by a borrow.
  for (const char neighbour : {'!', '#', '[', ']', ' ', '\x21', '\x7f', '"', '\\', '\x1f', '\0'}) {
    for (const char special : {'"', '\\', '\x1f', '\0'}) {
      for (size_t at = 0; at < 16; ++at) {
        for (size_t other = 0; other < 16; ++other) {
          std::string text(19, 'x');
          text[other] = neighbour;
          text[at] = special;
          ASSERT_EQ(jsonOf(text), plainlyQuoted(text)) << "places " << at << " and " << other;
        }
      }
    }
  }
}

TEST(JsonWriter, SeesABadByteAtEveryPlaceOfALongText) {
  for (size_t at = 0; at < 33; ++at) {
    std::string text(33, 'x');
    text[at] = '\xFE';
    const std::string expected = '"' + text.substr(0, at) + kReplacement + text.substr(at + 1) + '"';
    ASSERT_EQ(jsonOf(text), expected) << at;
  }
}

TEST(JsonWriter, WritesADoubleSoThatItReadsBackTheSame) {
  std::mt19937_64 random(20240501);
  for (int i = 0; i < 20'000; ++i) {
    const uint64_t bits = random();
    double number = 0;
    std::memcpy(&number, &bits, sizeof number);
    if (!std::isfinite(number))
      continue;
    const std::string text = jsonOf(number);
    char* end = nullptr;
    ASSERT_EQ(std::strtod(text.c_str(), &end), number) << text;
    ASSERT_EQ(*end, '\0') << text;
    ASSERT_EQ(text.find_first_not_of("0123456789+-.e"), std::string::npos) << text;
  }
  EXPECT_EQ(jsonOf(std::numeric_limits<double>::denorm_min()), "5e-324");
  EXPECT_EQ(jsonOf(std::numeric_limits<double>::max()), "1.7976931348623157e+308");
  EXPECT_EQ(jsonOf(0.1), "0.1");
  EXPECT_EQ(jsonOf(-0.0), "-0");
}

TEST(JsonWriter, SaysWhatHasNoJsonForm) {
  const std::string head = "The value cannot be written as JSON: ";
  const std::string absent = head + "an absent value has no JSON form: leave the entry out, or use null.";
  const std::string date = head + "a date has no JSON form: format it as text first.";
  const std::string not_finite = head + "a number that is not finite has no JSON form.";
  EXPECT_EQ(errorOf(Value()), absent);
  EXPECT_EQ(errorOf(Array{1, Value()}), absent);
  EXPECT_EQ(errorOf(Date{0}), date);
  EXPECT_EQ(errorOf(Dictionary{{"when", Date{0}}}), date);
  EXPECT_EQ(errorOf(std::numeric_limits<double>::quiet_NaN()), not_finite);
  EXPECT_EQ(errorOf(std::numeric_limits<double>::infinity()), not_finite);
  EXPECT_EQ(errorOf(Array{-std::numeric_limits<double>::infinity()}), not_finite);
}

TEST(JsonWriter, WritesContainersUpToTheDepthLimitAndRefusesOneMore) {
  const std::string text = jsonOf(nested(kit::kMaxJsonDepth));
  EXPECT_EQ(text.substr(0, 7), R"({"a":[{)");
  EXPECT_EQ(errorOf(nested(kit::kMaxJsonDepth + 1)),
            "The value cannot be written as JSON: containers are nested too deeply.");
}

TEST(JsonWriter, AppendsToWhatIsThere) {
  std::string text = "before ";
  EXPECT_FALSE(appendJson(Array{1}, text).has_value());
  EXPECT_EQ(text, "before [1]");
}

TEST(PrettyJson, GivesEachEntryALineOfItsOwn) {
  const Value value = Dictionary{{"text", "a:b,c"},
                                 {"list", Array{1, Array{}, Array{Value::null()}}},
                                 {"none", Dictionary{}},
                                 {"inner", Dictionary{{"x", true}}}};
  EXPECT_EQ(std::get<std::string>(writePrettyJson(value)),
            "{\n"
            "  \"text\" : \"a:b,c\",\n"
            "  \"list\" : [\n"
            "    1,\n"
            "    [],\n"
            "    [\n"
            "      null\n"
            "    ]\n"
            "  ],\n"
            "  \"none\" : {},\n"
            "  \"inner\" : {\n"
            "    \"x\" : true\n"
            "  }\n"
            "}");
  EXPECT_EQ(std::get<std::string>(writePrettyJson(5)), "5");
  EXPECT_EQ(std::get<std::string>(writePrettyJson(Array{})), "[]");
}

TEST(PrettyJson, RefusesWhatHasNoJsonForm) {
  const auto refused = writePrettyJson(Array{Value()});
  ASSERT_TRUE(std::holds_alternative<kit::Error>(refused));
  EXPECT_EQ(std::get<kit::Error>(refused).message, std::get<kit::Error>(writeJson(Array{Value()})).message);
}

TEST(JsonDescription, WritesForPeopleWhatJsonHasNoFormFor) {
  EXPECT_EQ(descriptionOf(Value()), "null");
  EXPECT_EQ(descriptionOf(Date::fromSeconds(0)), "\"1970-01-01T00:00:00Z\"");
  EXPECT_EQ(descriptionOf(std::numeric_limits<double>::quiet_NaN()), "\"nan\"");
  EXPECT_EQ(descriptionOf(std::numeric_limits<double>::infinity()), "\"inf\"");
  EXPECT_EQ(descriptionOf(-std::numeric_limits<double>::infinity()), "\"-inf\"");
  EXPECT_EQ(descriptionOf(Dictionary{{"at", Date::fromSeconds(1'700'000'000)}, {"n", Array{1, 2.5}}}),
            R"({"at":"2023-11-14T22:13:20Z","n":[1,2.5]})");
}

TEST(JsonDescription, ShowsAnEllipsisBeyondTheDepthLimit) {
  const std::string text = descriptionOf(nested(kit::kMaxJsonDepth + 2));
  EXPECT_NE(text.find("\"\xE2\x80\xA6\""), std::string::npos);
  EXPECT_EQ(descriptionOf(nested(kit::kMaxJsonDepth)).find("\xE2\x80\xA6"), std::string::npos);
}

TEST(JsonWriter, WritesAnyBytesAsWellFormedTextOfPrintableAsciiAndUtf8) {
  std::mt19937_64 random(7);
  for (int round = 0; round < 3'000; ++round) {
    std::string bytes(random() % 60, '\0');
    for (char& c : bytes)
      c = static_cast<char>(random());
    const std::string text = jsonOf(bytes);
    ASSERT_TRUE(isUtf8(text));
    std::string repaired;
    appendRepairedUtf8(bytes, repaired);
    ASSERT_TRUE(isUtf8(repaired));
    ASSERT_EQ(isUtf8(bytes), repaired == bytes);
    ASSERT_EQ(jsonOf(repaired), text);
    for (const char c : text)
      ASSERT_GE(static_cast<unsigned char>(c), 0x20);
  }
}

TEST(JsonWriter, EndsInTheMiddleOfALongValueWhenTheKitIsBeingStopped) {
  kit::StopRequest stop;
  kit::MutableArray elements;
  for (size_t i = 0; i < 10 * kit::StopCheck::kSteps; ++i)
    elements.append("element");
  const Value list(std::move(elements));
  std::string whole;
  EXPECT_FALSE(appendJson(list, whole, &stop));
  stop.make();
  std::string begun;
  const auto error = appendJson(list, begun, &stop);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message, "The value cannot be written as JSON: the kit is being stopped.");
  EXPECT_LT(begun.size(), whole.size() / 5);
  std::string short_one;
  EXPECT_FALSE(appendJson(Value(Array{1, 2, 3}), short_one, &stop)) << "a short value is written all the same";
  EXPECT_EQ(short_one, "[1,2,3]");
}

}  // namespace
}  // namespace morvik::services
