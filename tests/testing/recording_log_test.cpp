#include "testing/recording_log.h"

#include <gtest/gtest.h>

namespace morvik::test {
namespace {

using testing::RecordingLog;
using testing::splitLogLine;

TEST(SplitLogLine, TakesTheFiveFieldsApart) {
  const auto line = splitLogLine(
      "ERROR Kesmo:tracking.cpp:217:-[MorvikCoreLib tracking:]_block_invoke MRVK_QA-The error was: no answer: 7");
  ASSERT_TRUE(line.prefix);
  EXPECT_EQ(line.prefix->level, "ERROR");
  EXPECT_EQ(line.prefix->component, "Kesmo");
  EXPECT_EQ(line.prefix->file, "tracking.cpp");
  EXPECT_EQ(line.prefix->line, 217);
  EXPECT_EQ(line.prefix->operation, "-[MorvikCoreLib tracking:]_block_invoke");
  EXPECT_EQ(line.message, "MRVK_QA-The error was: no answer: 7");
}

TEST(SplitLogLine, KeepsTheBlanksAndLineBreaksOfTheMessage) {
  const auto line = splitLogLine("TRACE Kesmo:a.cpp:1:+[MorvikCoreLib shared]  two blanks\n   and a line ");
  ASSERT_TRUE(line.prefix);
  EXPECT_EQ(line.prefix->operation, "+[MorvikCoreLib shared]");
  EXPECT_EQ(line.message, " two blanks\n   and a line ");
}

TEST(SplitLogLine, TakesAnOperationWithoutBrackets) {
  const auto line = splitLogLine("INFO Host:loop.cpp:9:dispatch going");
  ASSERT_TRUE(line.prefix);
  EXPECT_EQ(line.prefix->operation, "dispatch");
  EXPECT_EQ(line.message, "going");
}

TEST(SplitLogLine, TakesALineWithoutPrefixAsAMessage) {
  for (const char* text : {
           "SearchAds Attribution searchAdsAttributionDetails: (null)",
           "! MRVK_QA-MorvikCore reGetReferral Failed Exception: at 12:30:45 (null)\n",
           "ERROR Kesmo:tracking.cpp:x:-[A b] no line number",
           "ERROR Kesmo:tracking.cpp:12:-[A b",
           "ERROR Kesmo:tracking.cpp:12:-[A b]",
           "ERROR two words:tracking.cpp:12:-[A b] message",
           "",
       }) {
    const auto line = splitLogLine(text);
    EXPECT_FALSE(line.prefix) << text;
    EXPECT_EQ(line.message, text);
    EXPECT_EQ(line.text, text);
  }
}

TEST(RecordingLog, FindsAMessageWhateverItsPrefix) {
  RecordingLog log;
  log.line("ERROR Kesmo:a.cpp:1:-[A b] first");
  log.line("second");
  log.line("DEBUG Kesmo:a.cpp:2:-[A c:] second");
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"first", "second", "second"}));
  EXPECT_EQ(log.messagesOf("-[A c:]"), std::vector<std::string>{"second"});
  EXPECT_EQ(log.count("second"), 2u);
  EXPECT_FALSE(log.find("second")->prefix) << "the first one";
  EXPECT_TRUE(log.has("first"));
  EXPECT_FALSE(log.has("firs"));
  EXPECT_EQ(log.countContaining("a.cpp"), 2u);
  log.clear();
  EXPECT_FALSE(log.has("first"));
}

}  // namespace
}  // namespace morvik::test
