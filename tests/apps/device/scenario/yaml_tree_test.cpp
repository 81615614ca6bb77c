#include "apps/device/scenario/yaml_tree.h"

#include <gtest/gtest.h>

namespace morvik_device::scenario {
namespace {

/// "LINE:COLUMN: text" of the mistake, or "no mistake".
std::string mistakeOf(std::string_view text) {
  try {
    readYaml(text);
  } catch (const Mistake& mistake) {
    return std::to_string(mistake.place().line) + ":" + std::to_string(mistake.place().column) + ": " + mistake.what();
  }
  return "no mistake";
}

TEST(YamlTree, KnowsThePlaceOfEverything) {
  const YamlNode root = readYaml("# a comment\nfirst: 1\nsecond:\n  - a\n  - {deep: \"x\"}\n");
  ASSERT_TRUE(root.isMap());
  ASSERT_EQ(root.members.size(), 2u);
  EXPECT_EQ(root.members[0].key, "first");
  EXPECT_EQ(root.members[0].place, (Place{2, 1}));
  EXPECT_EQ(root.members[0].value.text, "1");
  EXPECT_EQ(root.members[0].value.place, (Place{2, 8}));
  const YamlNode& list = root.members[1].value;
  ASSERT_TRUE(list.isList());
  ASSERT_EQ(list.elements.size(), 2u);
  EXPECT_EQ(list.elements[0].place, (Place{4, 5}));
  EXPECT_EQ(list.elements[1].members[0].place, (Place{5, 6}));
}

TEST(YamlTree, TellsTextInQuotesFromPlainText) {
  const YamlNode root = readYaml("[plain, \"quoted\", 'single', null, ~, \"null\"]");
  ASSERT_EQ(root.elements.size(), 6u);
  EXPECT_FALSE(root.elements[0].quoted);
  EXPECT_TRUE(root.elements[1].quoted);
  EXPECT_TRUE(root.elements[2].quoted);
  EXPECT_TRUE(root.elements[3].isNull());
  EXPECT_TRUE(root.elements[4].isNull());
  EXPECT_TRUE(root.elements[5].isScalar());
}

TEST(YamlTree, TakesAKeyWithoutAValueForNull) {
  EXPECT_TRUE(readYaml("usual:\n").members.at(0).value.isNull());
}

TEST(YamlTree, RefusesWhatIsNoYaml) {
  EXPECT_EQ(mistakeOf("steps: [a, b"), "1:12: this is not YAML: end of sequence flow not found");
  EXPECT_EQ(mistakeOf("a: 1\n  b: 2\n"), "2:4: this is not YAML: illegal map value");
}

TEST(YamlTree, RefusesAnEmptyFile) {
  EXPECT_EQ(mistakeOf(""), "1:1: the file is empty; expected a scenario");
  EXPECT_EQ(mistakeOf("# only a comment\n"), "1:1: the file is empty; expected a scenario");
}

TEST(YamlTree, RefusesAKeyThatStandsTwice) {
  EXPECT_EQ(mistakeOf("a: 1\nb: 2\na: 3\n"), "3:1: the key \"a\" stands here a second time; expected it once");
}

TEST(YamlTree, RefusesKeysThatAreNoTexts) {
  EXPECT_EQ(mistakeOf("{[a]: 1}"), "1:2: a list or map stands where a key should; expected a text");
  EXPECT_EQ(mistakeOf("~: 1"), "1:1: a key is missing; expected a text");
}

TEST(YamlTree, RefusesWhatRefersToAnotherPlace) {
  EXPECT_EQ(mistakeOf("a: &name 1\n"), "1:4: an \"&\" names this place; expected a value without a name");
  EXPECT_EQ(mistakeOf("a: &name [1]\n"), "1:4: an \"&\" names this place; expected a value without a name");
}

TEST(YamlTree, RefusesTagsAndASecondDocument) {
  EXPECT_EQ(mistakeOf("a: !!int 1\n"),
            "1:4: the tag tag:yaml.org,2002:int stands before the value; expected a value without a tag");
  EXPECT_EQ(mistakeOf("a: 1\n---\nb: 2\n"), "2:1: a second document begins; expected one scenario a file");
}

TEST(YamlTree, RefusesAZeroByte) {
  EXPECT_EQ(mistakeOf(std::string_view("a: \0b", 5)), "1:1: the file holds a zero byte; expected a text in UTF-8");
}

TEST(YamlTree, BoundsItsSize) {
  EXPECT_EQ(mistakeOf("# " + std::string(kMaxScenarioBytes, 'x')),
            "1:1: the file has more than 1048576 bytes; expected at most so many");
}

TEST(YamlTree, BoundsItsDepth) {
  const auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_EQ(mistakeOf(nested(kMaxYamlDepth)), "no mistake");
  EXPECT_EQ(mistakeOf(nested(kMaxYamlDepth + 1)),
            "1:25: too many lists and maps stand in one another; at most 24 are expected");
  EXPECT_NE(mistakeOf(nested(100'000)), "no mistake");
}

TEST(YamlTree, BoundsTheNumberOfValues) {
  std::string list = "[";
  for (size_t i = 1; i < kMaxYamlNodes; ++i)
    list += "1,";
  EXPECT_EQ(mistakeOf(list + "]"), "no mistake");
  EXPECT_EQ(mistakeOf(list + "1]"), "1:200000: too many values; at most 100000 are expected");
}

}  // namespace
}  // namespace morvik_device::scenario
