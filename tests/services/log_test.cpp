#include "services/log.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace morvik::services {
namespace {

class Lines : public kit::LogSink {
 public:
  void line(std::string_view text) override { all.emplace_back(text); }
  bool tryLine(std::string_view text) override {
    tried.emplace_back(text);
    return true;
  }
  std::vector<std::string> all;
  std::vector<std::string> tried;
};

class Log : public ::testing::Test {
 protected:
  void setLevel(uint8_t level) { levels._lcl_component_level[kit::lcl_cKesmo] = level; }
  kit::LogLevels levels;
  Lines lines;
  Logger logger{levels, lines};
};

TEST_F(Log, WritesTheFiveFieldPrefixByteForByte) {
  setLevel(kit::lcl_vTrace);
  const LogSite site{"tracking.cpp", 42, "-[MorvikCoreLib tracking:]"};
  logger.write(kit::lcl_vError, site, "MRVK_QA-The error was: %@", {"no route"});
  ASSERT_EQ(lines.all.size(), 1U);
  EXPECT_EQ(lines.all[0], "ERROR Kesmo:tracking.cpp:42:-[MorvikCoreLib tracking:] MRVK_QA-The error was: no route");
}

TEST_F(Log, KnowsTheHeaderOfEveryLevel) {
  const char* const headers[] = {"OFF", "CRITICAL", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"};
  for (uint8_t level = kit::lcl_vOff; level <= kit::lcl_vTrace; ++level) {
    logger.write(static_cast<kit::LogLevel>(level), {"a.cpp", 1, "f"}, "m", {});
    EXPECT_EQ(lines.all.back(), std::string(headers[level]) + " Kesmo:a.cpp:1:f m");
    EXPECT_STREQ(_kesmo_lcl_level_header_1[level], headers[level]);
  }
  EXPECT_STREQ(_kesmo_lcl_component_header[kit::lcl_cKesmo], "Kesmo");
}

TEST_F(Log, HasAHeaderForEveryComponent) {
  std::set<std::string> different;
  for (const char* header : _kesmo_lcl_component_header) {
    ASSERT_NE(header, nullptr);
    different.insert(header);
  }
  EXPECT_EQ(different.size(), kit::kLogComponents);
  EXPECT_EQ(different.count(""), 0U);
}

TEST_F(Log, LetsALineThroughWhenTheLevelIsAtLeastItsOwn) {
  for (uint8_t level = 0; level <= kit::lcl_vTrace; ++level) {
    setLevel(level);
    lines.all.clear();
    for (uint8_t of_line = kit::lcl_vCritical; of_line <= kit::lcl_vTrace; ++of_line)
      MORVIK_LOG(logger, static_cast<kit::LogLevel>(of_line), "f", "m");
    EXPECT_EQ(lines.all.size(), level);
  }
}

TEST_F(Log, HandsTheLinesOfADyingThreadToTheSinkThatDoesNotWait) {
  setLevel(kit::lcl_vInfo);
  const Logger dying = logger.withoutWaiting();
  dying.writePlain("plain %d", {1});
  dying.write(kit::lcl_vInfo, {"a.cpp", 1, "f"}, "m", {});
  EXPECT_TRUE(lines.all.empty());
  EXPECT_EQ(lines.tried, (std::vector<std::string>{"plain 1", "INFO Kesmo:a.cpp:1:f m"}));
  EXPECT_FALSE(dying.enabled(kit::lcl_vDebug));
  logger.writePlain("waits", {});
  EXPECT_EQ(lines.all, std::vector<std::string>{"waits"});
}

TEST_F(Log, IsOffUntilALevelIsSet) {
  MORVIK_LOG(logger, kit::lcl_vCritical, "f", "m");
  EXPECT_TRUE(lines.all.empty());
}

TEST_F(Log, AsksTheCoresOwnComponentAlone) {
  for (size_t component = 1; component < kit::kLogComponents; ++component)
    levels._lcl_component_level[component] = kit::lcl_vTrace;
  EXPECT_FALSE(logger.enabled(kit::lcl_vCritical));
  setLevel(kit::lcl_vError);
  EXPECT_TRUE(logger.enabled(kit::lcl_vError));
  EXPECT_FALSE(logger.enabled(kit::lcl_vWarning));
}

TEST_F(Log, EvaluatesArgumentsOnlyForALineThatIsWritten) {
  int evaluated = 0;
  const auto argument = [&evaluated] { return ++evaluated; };
  setLevel(kit::lcl_vError);
  MORVIK_LOG(logger, kit::lcl_vWarning, "f", "%d", argument());
  EXPECT_EQ(evaluated, 0);
  MORVIK_LOG(logger, kit::lcl_vError, "f", "%d", argument());
  EXPECT_EQ(evaluated, 1);
  ASSERT_EQ(lines.all.size(), 1U);
  EXPECT_EQ(lines.all[0].substr(lines.all[0].rfind(' ')), " 1");
}

TEST_F(Log, NamesTheFileWithoutItsFolderAndTheLineOfTheStatement) {
  setLevel(kit::lcl_vInfo);
  const int line = __LINE__ + 1;
  MORVIK_LOG(logger, kit::lcl_vInfo, "-[MorvikCoreLib sendCrashInfos]_block_invoke", "a %@ b", "c");
  EXPECT_EQ(lines.all.at(0),
            "INFO Kesmo:log_test.cpp:" + std::to_string(line) + ":-[MorvikCoreLib sendCrashInfos]_block_invoke a c b");
}

TEST_F(Log, KeepsConversionsInANameOfAnOperationAsTheyAre) {
  setLevel(kit::lcl_vInfo);
  MORVIK_LOG(logger, kit::lcl_vInfo, "%@", "message");
  EXPECT_NE(lines.all.at(0).find(":%@ message"), std::string::npos);
}

TEST_F(Log, IsOneStatementAfterAnIf) {
  setLevel(kit::lcl_vInfo);
  bool otherwise = false;
  if (lines.all.empty())
    MORVIK_LOG(logger, kit::lcl_vInfo, "f", "m");
  else
    otherwise = true;
  EXPECT_FALSE(otherwise);
  EXPECT_EQ(lines.all.size(), 1U);
}

TEST_F(Log, AtLevelZeroWritesTheUngatedLinesAlone) {
  setLevel(kit::lcl_vOff);
  for (uint8_t level = kit::lcl_vCritical; level <= kit::lcl_vTrace; ++level)
    MORVIK_LOG(logger, static_cast<kit::LogLevel>(level), "f", "gated");
  logger.writePlain("! MRVK_QA-MorvikCore reGetReferral Failed Exception: %@\n", {"why"});
  EXPECT_EQ(lines.all, std::vector<std::string>{"! MRVK_QA-MorvikCore reGetReferral Failed Exception: why\n"});
}

}  // namespace
}  // namespace morvik::services
