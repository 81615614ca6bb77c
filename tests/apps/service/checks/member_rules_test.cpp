#include "apps/service/checks/member_rules.h"

#include <gtest/gtest.h>

#include <array>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::refusalOf;

constexpr std::array<MemberRule, 2> kRules = {{{"name"}, {"size", MemberType::kInteger}}};

std::string problemWith(const Json& value) {
  return refusalOf([&] { requireExactly(value, kRules, Place("things").entry(3)); }).what();
}

TEST(MemberRules, APlaceIsWrittenAsAPath) {
  EXPECT_EQ("", Place().path());
  EXPECT_EQ("a", Place().path("a"));
  EXPECT_EQ("a.b", Place().member("a").path("b"));
  EXPECT_EQ("[7].b", Place().entry(7).path("b"));
  EXPECT_EQ("a[0].b", Place("a").entry(0).member("b").path());
}

TEST(MemberRules, WhatIsWrongIsNamedByItsPath) {
  EXPECT_NO_THROW(requireExactly({{"size", 1}, {"name", "x"}}, kRules, {}));
  EXPECT_EQ("things[3] is not an object", problemWith(1));
  EXPECT_EQ("things[3].name is missing", problemWith({{"size", 1}}));
  EXPECT_EQ("things[3].size is not a 64-bit integer", problemWith({{"name", "x"}, {"size", "1"}}));
  EXPECT_EQ("things[3].more does not belong there", problemWith({{"name", "x"}, {"size", 1}, {"more", 1}}));
}

TEST(MemberRules, ARefusalSaysWhereAndHowToMendIt) {
  const Refusal refusal = refusalOf([] { requireMember(Json::object(), {"name"}, {}); });
  EXPECT_EQ(400, refusal.status());
  EXPECT_STREQ("name is missing", refusal.what());
  EXPECT_EQ("the payload, name", refusal.where());
  EXPECT_EQ("send the members that the protocol lists", refusal.fix());
}

TEST(MemberRules, MoreMembersAreWelcomeUnlessTheRuleIsExact) {
  EXPECT_NO_THROW(requireMembers({{"name", "x"}, {"size", 1}, {"more", 1}}, kRules, {}));
}

TEST(MemberRules, EachTypeTakesItsOwnValuesAlone) {
  const std::vector<Json> values = {"x", 1, 1.5, true, Json::array(), Json::object(), nullptr};
  struct Row {
    MemberType type;
    std::vector<bool> fits;
    std::string problem;
  };
  const std::vector<Row> rows = {
      {MemberType::kString, {true, false, false, false, false, false, false}, "v is not a string"},
      {MemberType::kInteger, {false, true, false, false, false, false, false}, "v is not a 64-bit integer"},
      {MemberType::kNumber, {false, true, true, false, false, false, false}, "v is not a number"},
      {MemberType::kNumberOrString,
       {true, true, true, false, false, false, false},
       "v is neither a number nor a string"},
      {MemberType::kBoolean, {false, false, false, true, false, false, false}, "v is not a boolean"},
      {MemberType::kArray, {false, false, false, false, true, false, false}, "v is not an array"},
      {MemberType::kObject, {false, false, false, false, false, true, false}, "v is not an object"},
  };
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < values.size(); ++i) {
      SCOPED_TRACE(row.problem + ": " + jsonText(values[i]));
      if (row.fits[i]) {
        EXPECT_NO_THROW(requireType(values[i], row.type, Place("v")));
      } else {
        EXPECT_EQ(row.problem, refusalOf([&] { requireType(values[i], row.type, Place("v")); }).what());
      }
    }
  }
}

TEST(MemberRules, AnIntegerFits64BitsWithASign) {
  for (const char* text : {"9223372036854775807", "-9223372036854775808"})
    EXPECT_NO_THROW(requireType(Json::parse(text), MemberType::kInteger, {})) << text;
  for (const char* text : {"9223372036854775808", "18446744073709551615", "18446744073709551616", "1e3"})
    EXPECT_THROW(requireType(Json::parse(text), MemberType::kInteger, {}), Refusal) << text;
}

TEST(MemberRules, EveryEntryIsVisitedWithItsPlace) {
  std::string seen;
  requireEntries({"x", "y"}, Place("list"),
                 [&](const Json& entry, const Place& place) { seen += place.path() + jsonText(entry); });
  EXPECT_EQ("list[0]\"x\"list[1]\"y\"", seen);
}

}  // namespace
}  // namespace morvik_service
