#include "apps/device/scenario/fields.h"

#include <gtest/gtest.h>

#include <functional>

#include "testing/json_reader.h"

namespace morvik_device::scenario {
namespace {

using morvik::kit::Value;
using morvik::testing::json;

Value valueIn(const char* yaml) {
  return valueOf(readYaml(yaml));
}

std::string mistakeOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Mistake& mistake) {
    return std::to_string(mistake.place().line) + ":" + std::to_string(mistake.place().column) + ": " + mistake.what();
  }
  return "no mistake";
}

TEST(ValueOfAField, IsWhatItLooksLike) {
  EXPECT_EQ(valueIn("[1, -7, 1.5, true, false, null, text, 1st, -]").array().size(), 9u);
  EXPECT_EQ(valueIn("[1, -7, 1.5, true, false, null, text, 1st]"), json(R"([1,-7,1.5,true,false,null,"text","1st"])"));
}

TEST(ValueOfAField, IsTextInQuotes) {
  EXPECT_EQ(valueIn(R"(["1", 'true', "null"])"), json(R"(["1","true","null"])"));
}

TEST(ValueOfAField, IsTextWhereJsonHasNoSuchNumber) {
  EXPECT_EQ(valueIn("[nan, inf, -inf, .5, 0x10, 1e999, +1]"), json(R"(["nan","inf","-inf",".5","0x10","1e999","+1"])"));
  EXPECT_EQ(valueIn("[99999999999999999999]"), json("[1e20]"));
}

TEST(ValueOfAField, KeepsEmptyContainers) {
  EXPECT_EQ(valueIn("{a: [], b: {}}"), json(R"({"a":[],"b":{}})"));
  EXPECT_TRUE(valueIn("[]").isArray());
}

TEST(Fields, RefuseAKeyThatTheyDoNotKnow) {
  const YamlNode node = readYaml("at: 1\n  \nafterwards: 2\n");
  EXPECT_EQ(mistakeOf([&] {
              Fields(node, "a step", {"at", "after"});
            }),
            "3:1: \"afterwards\" is not a key of a step; expected one of: at, after");
  const YamlNode list = readYaml("- 1");
  EXPECT_EQ(mistakeOf([&] {
              Fields(list, "a step", {"at", "after"});
            }),
            "1:1: a step is a list; expected a map with keys of these: at, after");
}

TEST(Fields, WantExactlyOneOfSeveral) {
  const std::vector<std::string_view> keys = {"a", "b", "c"};
  const YamlNode both = readYaml("a: 1\nb: 2\n");
  EXPECT_EQ(mistakeOf([&] {
              static_cast<void>(Fields(both, "it", keys).exactlyOne({"a", "b"}));
            }),
            "2:1: \"b\" cannot be combined with \"a\" in it; expected only one of: a, b");
  EXPECT_EQ(Fields(both, "it", keys).exactlyOne({"b", "c"}), "b");
  EXPECT_EQ(mistakeOf([&] { static_cast<void>(Fields(both, "it", keys).exactlyOne({"c"})); }),
            "1:1: it does not say what it is about; expected c");
}

TEST(Fields, SayWhatWasExpected) {
  const YamlNode node = readYaml("[word, 7]");
  const YamlNode& word = node.elements[0];
  EXPECT_EQ(mistakeOf([&] { booleanOf(word, "twice"); }), "1:2: twice is \"word\"; expected true or false");
  EXPECT_EQ(mistakeOf([&] { wholeNumberOf(word, "status", 200, 599); }),
            "1:2: status is \"word\"; expected a whole number from 200 to 599");
  EXPECT_EQ(mistakeOf([&] { wholeNumberOf(node.elements[1], "status", 200, 599); }),
            "1:8: status is \"7\"; expected a whole number from 200 to 599");
  EXPECT_EQ(mistakeOf([&] { chanceOf(word, "chance"); }),
            "1:2: chance is \"word\"; expected a chance from 0% to 100%, whole numbers only");
  EXPECT_EQ(mistakeOf([&] { timeOf(word, "at"); }),
            "1:2: at is \"word\"; expected a time like 500ms, 10s, 1.5s or 1d 2h");
  EXPECT_EQ(mistakeOf([&] { timeRangeOf(word, "delay"); }),
            "1:2: delay is \"word\"; expected a time like 500ms, 10s, 1.5s or 1d 2h, or two of them like 0s..20s");
  EXPECT_EQ(mistakeOf([&] { listOf(word, "steps"); }), "1:2: steps is \"word\"; expected a list");
  EXPECT_EQ(mistakeOf([&] { textOf(node, "story"); }), "1:1: story is a list; expected a text");
  EXPECT_EQ(mistakeOf([&] { objectOf(word, "usual"); }), "1:2: usual is \"word\"; expected a map");
}

TEST(Fields, ReadAChance) {
  EXPECT_EQ(chanceOf(readYaml("0%"), "chance"), 0.0);
  EXPECT_EQ(chanceOf(readYaml("25%"), "chance"), 0.25);
  EXPECT_EQ(chanceOf(readYaml("100%"), "chance"), 1.0);
  EXPECT_NE(mistakeOf([] { chanceOf(readYaml("101%"), "chance"); }), "no mistake");
  EXPECT_NE(mistakeOf([] { chanceOf(readYaml("-1%"), "chance"); }), "no mistake");
}

TEST(Fields, GiveTheJsonOfAMap) {
  EXPECT_EQ(jsonTextOf(readYaml("a: [1, \"2\"]\nb: {c: null}\n")), R"({"a":[1,"2"],"b":{"c":null}})");
}

}  // namespace
}  // namespace morvik_device::scenario
