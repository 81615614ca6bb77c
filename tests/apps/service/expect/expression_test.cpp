#include "apps/service/expect/expression.h"

#include <gtest/gtest.h>

namespace morvik_service {
namespace {

const std::vector<std::string_view> kWords = {"activity", "group", "count", "payload", "ok", "header", "nothing"};

Json readSample(const FieldPath& path) {
  static const Json kSample = Json::parse(
      R"({"activity":"purchase","group":"shop","count":7,"ok":true,"payload":{"list":[1,"two"],"deep":{"text":"x"}}})");
  Json value = kSample;
  for (const std::string& word : path)
    value = value.is_object() && value.contains(word) ? value[word] : Json(nullptr);
  return value;
}

bool isTrue(const std::string& text) {
  return Expression::parse(text, kWords).evaluate(readSample).misses == 0;
}

std::string complaint(const std::string& text) {
  try {
    Expression::parse(text, kWords);
  } catch (const ExpressionError& error) {
    return std::to_string(error.column()) + ": " + error.what();
  }
  return "none";
}

TEST(Expression, ComparesFieldsWithValues) {
  for (const char* text :
       {R"(activity == "purchase")", "activity == 'purchase'", "count == 7", "count == 7.0", "ok", "ok == true",
        "nothing == null", "payload.deep.text == 'x'", "'purchase' == activity", "activity != group", "count > 6",
        "count >= 7", "count < 8.5", "count <= 7", "count > -1e3", "activity < 'q'", "activity contains 'chas'",
        "payload.list contains 1", "payload.list contains 'two'"})
    EXPECT_TRUE(isTrue(text)) << text;
  for (const char* text :
       {R"(activity == "Purchase")", "count == '7'", "count != 7", "nothing", "not ok", "activity < 7", "activity > 7",
        "count contains 7", "payload.list contains '1'", "payload.deep == null", "nothing < 1", "nothing >= null"})
    EXPECT_FALSE(isTrue(text)) << text;
}

TEST(Expression, NotBindsTighterThanAndAndThatTighterThanOr) {
  EXPECT_TRUE(isTrue("ok or ok and count == 0"));
  EXPECT_FALSE(isTrue("(ok or ok) and count == 0"));
  EXPECT_TRUE(isTrue("not count == 0 and ok"));
  EXPECT_FALSE(isTrue("not (count == 0 or ok)"));
  EXPECT_TRUE(isTrue("not not ok"));
  EXPECT_TRUE(isTrue("count == 0 or count == 1 or count == 7"));
}

TEST(Expression, TextsMayHoldQuotesAndEscapes) {
  EXPECT_FALSE(isTrue(R"(activity == "a\"b\\\n\t\'")"));
  EXPECT_TRUE(isTrue(R"("a\"b" == 'a"b')"));
  EXPECT_TRUE(isTrue(R"("and" != "or")"));
}

TEST(Expression, SaysWhereItCannotBeReadAndWhatWasExpectedThere) {
  EXPECT_EQ("1: expected a field such as activity, a value, not or (, found the end", complaint(""));
  EXPECT_EQ("10: expected ==, found a single =", complaint("activity = 'x'"));
  EXPECT_EQ("13: expected a field or a value, found the end", complaint("activity == "));
  EXPECT_EQ("13: expected a field or a value, found )", complaint("activity == )"));
  EXPECT_EQ("13: this text has no closing \"", complaint("activity == \"x"));
  EXPECT_EQ("8: expected and, or, or ), found the end", complaint("(count "));
  EXPECT_EQ("7: expected and, or, or the end, found )", complaint("count )"));
  EXPECT_EQ("7: expected and, or, or the end, found \"x\"", complaint("count 'x'"));
  EXPECT_EQ("5: expected a comparison such as == or contains, found and", complaint("'x' and ok"));
  EXPECT_EQ("1: expected a field such as activity, a value, not or (, found and", complaint("and ok"));
  EXPECT_EQ(
      "13: expected one of the fields activity, group, count, payload, ok, header, nothing, found purchase; texts stand "
      "in quotes",
      complaint("activity == purchase"));
  EXPECT_EQ("1: expected a name behind each dot, found payload..x", complaint("payload..x == 1"));
  EXPECT_EQ("10: expected a number such as 7 or -2.5, found 1.2.3", complaint("count == 1.2.3"));
  EXPECT_EQ("7: expected a field, a value or a sign such as ==, found \"&\"", complaint("count && ok"));
  EXPECT_EQ(R"(14: \x is unknown; expected \\, \", \', \n or \t)", complaint(R"(activity == "\x")"));
}

TEST(Expression, BoundsDepthAndLength) {
  const auto nested = [](int depth) {
    return std::string(static_cast<std::size_t>(depth), '(') + "ok" + std::string(static_cast<std::size_t>(depth), ')');
  };
  EXPECT_TRUE(isTrue(nested(kMaxExpressionDepth)));
  EXPECT_EQ("66: this nests deeper than 64 levels", complaint(nested(kMaxExpressionDepth + 1)));
  std::string nots;
  for (int i = 0; i <= kMaxExpressionDepth; ++i)
    nots += "not ";
  EXPECT_NE(std::string::npos, complaint(nots + "ok").find("nests deeper"));
  EXPECT_TRUE(isTrue("ok" + std::string(kMaxExpressionBytes - 2, ' ')));
  EXPECT_EQ("4097: the expression is longer than 4096 bytes",
            complaint("ok" + std::string(kMaxExpressionBytes - 1, ' ')));
}

std::string evaluated(const std::string& text) {
  const Verdict verdict = Expression::parse(text, kWords).evaluate(readSample);
  std::string told = std::to_string(verdict.misses);
  for (const std::string& line : verdict.why)
    told += "|" + line;
  return told;
}

TEST(Expression, TellsWhatIsMissing) {
  EXPECT_EQ("0", evaluated("ok"));
  EXPECT_EQ(R"(1|group is "shop"; wanted group == "store")",
            evaluated(R"(activity == "purchase" and group == "store")"));
  EXPECT_EQ(R"(2|count is 7; wanted count < 3|ok is true; wanted not ok)", evaluated("count < 3 and not ok"));
  EXPECT_EQ(R"(1|activity is "purchase", group is "shop"; wanted activity == group)", evaluated("activity == group"));
  EXPECT_EQ("1|wanted 1 == 2", evaluated("1 == 2"));
}

TEST(Expression, OfAlternativesTheClosestIsTold) {
  EXPECT_EQ("1|count is 7; wanted count == 1", evaluated("(count == 0 and group == 'x') or count == 1"));
  EXPECT_EQ("1|count is 7; wanted not count == 7", evaluated("not (count == 7 and ok) "));
  EXPECT_EQ("2|ok is true; wanted not ok|count is 7; wanted not count == 7", evaluated("not (ok or count == 7)"));
}

TEST(Expression, LongValuesAreCut) {
  const auto read = [](const FieldPath&) { return Json(std::string(1000, 'x')); };
  const Verdict verdict = Expression::parse("activity == 'a'", kWords).evaluate(read);
  ASSERT_EQ(1U, verdict.why.size());
  EXPECT_LT(verdict.why[0].size(), 150U);
}

TEST(Expression, KnowsWhichFieldsItNames) {
  const Expression expression = Expression::parse("not (count == 1 or 'x' == payload.list)", kWords);
  EXPECT_TRUE(expression.names({"payload"}));
  EXPECT_TRUE(expression.names({"x", "count"}));
  EXPECT_FALSE(expression.names({"list", "activity"}));
}

}  // namespace
}  // namespace morvik_service
