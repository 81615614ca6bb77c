#include "apps/device/words.h"

#include <gmock/gmock.h>

namespace morvik_device {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::vector<std::string> wordsOf(std::string_view text) {
  std::vector<std::string> words;
  EXPECT_EQ(splitWords(text, words), std::nullopt) << text;
  return words;
}

std::string mistakeIn(std::string_view text) {
  std::vector<std::string> words;
  return splitWords(text, words).value_or("no mistake");
}

TEST(Words, BlanksAndTabsPartThem) {
  EXPECT_THAT(wordsOf("  shop\tpurchase   sku-42 "), ElementsAre("shop", "purchase", "sku-42"));
  EXPECT_THAT(wordsOf(" \t "), IsEmpty());
}

TEST(Words, DoubleQuotesKeepBlanksTogether) {
  EXPECT_THAT(wordsOf(R"("my shop" purchase "a  b")"), ElementsAre("my shop", "purchase", "a  b"));
}

TEST(Words, AnEmptyPairOfQuotesIsAnEmptyWord) {
  EXPECT_THAT(wordsOf(R"(a "" b)"), ElementsAre("a", "", "b"));
}

TEST(Words, InsideQuotesABackslashGivesQuotesAndBackslashes) {
  EXPECT_THAT(wordsOf(R"("say \"hi\"" "c:\\" "a\nb")"), ElementsAre("say \"hi\"", "c:\\", "a\\nb"));
}

TEST(Words, OutsideQuotesABackslashIsItself) {
  EXPECT_THAT(wordsOf(R"(c:\dir \\)"), ElementsAre("c:\\dir", "\\\\"));
}

TEST(Words, AQuoteThatIsNotClosedIsAMistake) {
  EXPECT_THAT(mistakeIn(R"(a "b c)"), HasSubstr("opened and not closed; close it"));
  EXPECT_THAT(mistakeIn(R"("ends in a backslash\")"), HasSubstr("opened and not closed; close it"));
}

TEST(Words, AQuoteInsideAWordIsAMistake) {
  EXPECT_THAT(mistakeIn(R"(a b"c")"), HasSubstr("inside a word; put the whole word in double quotes"));
  EXPECT_THAT(mistakeIn(R"("a"b)"), HasSubstr("followed by more of the word; put a blank behind it"));
}

TEST(Words, TakingABareWordLeavesTheRestOfTheLine) {
  std::string_view rest = "  impression {\"a\": 1} ";
  EXPECT_EQ(takeBareWord(rest), "impression");
  EXPECT_EQ(rest, "{\"a\": 1}");
  rest = "";
  EXPECT_EQ(takeBareWord(rest), "");
}

}  // namespace
}  // namespace morvik_device
