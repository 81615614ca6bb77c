#include "apps/service/base/json.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::refusalOf;

TEST(ServiceJson, KeepsTheOrderOfMembers) {
  EXPECT_EQ("{\"b\":1,\"a\":[true,null,-2.5,\"x\"]}",
            jsonText(parseJson(" {\"b\":1, \"a\":[true,null,-2.5,\"x\"]} ", "it")));
}

TEST(ServiceJson, SaysWhichDocumentAndByteCannotBeRead) {
  const Refusal refusal = refusalOf([] { parseJson("{\"a\":tru}", "the request body"); });
  EXPECT_EQ(400, refusal.status());
  EXPECT_STREQ("not JSON: byte 9 cannot be read", refusal.what());
  EXPECT_EQ("the request body", refusal.where());
}

TEST(ServiceJson, RefusesNothingAndTooMuch) {
  EXPECT_EQ(400, refusalOf([] { parseJson("", "it"); }).status());
  EXPECT_EQ(400, refusalOf([] { parseJson("{}{}", "it"); }).status());
}

TEST(ServiceJson, RefusesBytesThatAreNotUtf8) {
  EXPECT_EQ(400, refusalOf([] { parseJson("\"\xff\"", "it"); }).status());
}

TEST(ServiceJson, BoundsTheDepth) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_EQ(nested(kMaxJsonDepth), jsonText(parseJson(nested(kMaxJsonDepth), "it")));
  EXPECT_STREQ("the JSON nests deeper than 128 levels",
               refusalOf([&] { parseJson(nested(kMaxJsonDepth + 1), "it"); }).what());
  EXPECT_EQ(400, refusalOf([&] { parseJson(nested(4 * 1024 * 1024), "it"); }).status());
}

TEST(ServiceJson, BoundsTheMembersOfAnObject) {
  const auto object = [](int members) {
    std::string text = "{\"a\":{\"x\":[7]}";
    for (int i = 1; i < members; ++i)
      text += ",\"" + std::to_string(i) + "\":{\"y\":1}";
    return text + "}";
  };
  EXPECT_EQ(object(kMaxJsonMembers), jsonText(parseJson(object(kMaxJsonMembers), "it")));
  EXPECT_STREQ("an object of the JSON has more than 1024 members",
               refusalOf([&] { parseJson(object(kMaxJsonMembers + 1), "it"); }).what());
}

TEST(ServiceJson, ManyClosingBracketsAreNoJson) {
  EXPECT_EQ(400, refusalOf([] { parseJson("]]]]}}}}:::[", "it"); }).status());
}

TEST(ServiceJson, BracketsInsideStringsAreNoDepth) {
  const std::string text = "[\"\\\"" + std::string(1000, '[') + "\"]";
  EXPECT_EQ(text, jsonText(parseJson(text, "it")));
}

TEST(ServiceJson, WritesReplacementCharactersForBrokenText) {
  EXPECT_EQ("\"\xef\xbf\xbd\"", jsonText(Json("\xff")));
}

TEST(ServiceJson, ANumberBeyondAllDoublesIsRefused) {
  const Refusal refusal = refusalOf([] { parseJson("[1e999]", "here"); });
  EXPECT_EQ(400, refusal.status());
  EXPECT_STREQ("not JSON: a number is too large", refusal.what());
}

TEST(ServiceJson, AMembersTextIsItsStringOrItsNumber) {
  const Json object = Json::parse(R"({"text": "a\"b", "number": 12, "fraction": 1.5, "flag": true, "list": [1]})");
  EXPECT_EQ("a\"b", memberText(object, "text"));
  EXPECT_EQ("12", memberText(object, "number"));
  EXPECT_EQ("1.5", memberText(object, "fraction"));
  for (const char* name : {"flag", "list", "missing"})
    EXPECT_EQ("", memberText(object, name)) << name;
  EXPECT_EQ("", memberText(Json::array({1}), "text"));
  EXPECT_EQ("", memberText(Json("text"), "text"));
}

}  // namespace
}  // namespace morvik_service
