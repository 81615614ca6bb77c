#include "apps/device/scenario/pattern.h"

#include <gtest/gtest.h>

#include "kit/date.h"
#include "testing/json_reader.h"

namespace morvik_device::scenario {
namespace {

using morvik::kit::Date;
using morvik::kit::Value;
using morvik::testing::json;

std::string misfit(const char* pattern, const char* value) {
  return mismatch(json(pattern), json(value)).value_or("fits");
}

TEST(Pattern, OfAnObjectLeavesOpenWhatItDoesNotName) {
  EXPECT_EQ(misfit(R"({"a":1})", R"({"b":2,"a":1})"), "fits");
  EXPECT_EQ(misfit(R"({"a":1})", R"({"b":2})"), "a is missing");
  EXPECT_EQ(misfit(R"({"a":{"b":1}})", R"({"a":{"b":2}})"), "a.b is 2 and not 1");
}

TEST(Pattern, OfAListFindsItsElementsInOrder) {
  EXPECT_EQ(misfit("[1,3]", "[1,2,3]"), "fits");
  EXPECT_EQ(misfit("[3,1]", "[1,2,3]"), "has no element like 1 (behind those before it)");
  EXPECT_EQ(misfit("[1,1]", "[1,2]"), "has no element like 1 (behind those before it)");
  EXPECT_EQ(misfit(R"({"l":[{"a":1}]})", R"({"l":[{"a":2},{"a":1,"b":1}]})"), "fits");
  EXPECT_EQ(misfit(R"({"l":[{"a":1}]})", R"({"l":[]})"), "l has no element like {\"a\":1} (behind those before it)");
}

TEST(Pattern, OfNothingIsMetByNothingAlone) {
  EXPECT_EQ(misfit("[]", "[]"), "fits");
  EXPECT_EQ(misfit("[]", "[1]"), "is not empty but has 1 elements");
  EXPECT_EQ(misfit("{}", "{}"), "fits");
  EXPECT_EQ(misfit("{}", R"({"a":1})"), "is not empty but {\"a\":1}");
  EXPECT_EQ(misfit("[]", "{}"), "is {} and not []");
}

TEST(Pattern, OfNullIsMetByNullAndByNothing) {
  EXPECT_EQ(misfit(R"({"a":null})", "{}"), "fits");
  EXPECT_EQ(misfit(R"({"a":null})", R"({"a":null})"), "fits");
  EXPECT_EQ(misfit(R"({"a":null})", R"({"a":0})"), "a is there: 0");
  EXPECT_EQ(mismatch(json("1"), Value()), "is missing");
}

TEST(Pattern, TellsTextNumberAndBooleanApart) {
  EXPECT_EQ(misfit("1", "1.0"), "fits");
  EXPECT_EQ(misfit("1", "\"1\""), "is \"1\" and not 1");
  EXPECT_EQ(misfit("true", "1"), "is 1 and not true");
  EXPECT_EQ(misfit("\"true\"", "true"), "is true and not \"true\"");
}

TEST(Pattern, OfADateIsItsText) {
  EXPECT_EQ(mismatch("2024-03-01T00:00:00Z", Date::fromSeconds(1'709'251'200)), std::nullopt);
  EXPECT_EQ(mismatch("2024-03-01T00:00:01Z", Date::fromSeconds(1'709'251'200)),
            "is \"2024-03-01T00:00:00Z\" and not \"2024-03-01T00:00:01Z\"");
}

TEST(ShortText, CutsBetweenCharacters) {
  EXPECT_EQ(shortened("abcdef", 6), "abcdef");
  EXPECT_EQ(shortened("abcdef", 5), "abcde…");
  EXPECT_EQ(shortened("a\xC3\xA9z", 2), "a…");
  EXPECT_EQ(shortText(json("[1,2,3]"), 4), "[1,2…");
}

}  // namespace
}  // namespace morvik_device::scenario
