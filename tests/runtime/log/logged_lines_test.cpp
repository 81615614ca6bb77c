#include "runtime/log/logged_lines.h"

#include <gtest/gtest.h>

#include "testing/recording_log.h"

namespace morvik::runtime {
namespace {

constexpr const char* kOperation = "-[MorvikCore store]";

TEST(LoggedLines, AreLinesOfTheLoggerAtLevelError) {
  testing::RecordingLog log;
  kit::LogLevels levels;
  LoggedLines lines(services::Logger(levels, log), kOperation);
  setKitLevel(levels, 1);
  lines.line("left out");
  EXPECT_TRUE(lines.tryLine("left out"));
  setKitLevel(levels, 2);
  lines.line("100 % of \"a\" %@");
  EXPECT_TRUE(lines.tryLine("of a dying thread"));
  EXPECT_EQ(log.messagesOf(kOperation), (std::vector<std::string>{"100 % of \"a\" %@", "of a dying thread"}));
}

TEST(StartLog, HasTheLevelThatItWasMadeWith) {
  testing::RecordingLog log;
  StartLog quiet(0, log, kOperation);
  quiet.lines().line("left out");
  StartLog loud(2, log, kOperation);
  loud.lines().line("told");
  EXPECT_EQ(log.messages(), std::vector<std::string>{"told"});
}

TEST(StartLog, GoesOnInTheLogOfTheInstance) {
  testing::RecordingLog first;
  testing::RecordingLog of_instance;
  StartLog log(2, first, kOperation);
  log.lines().line("before");
  log.passOnTo(of_instance);
  log.lines().line("after");
  EXPECT_TRUE(log.lines().tryLine("of a dying thread"));
  EXPECT_EQ(first.messages(), std::vector<std::string>{"before"});
  EXPECT_EQ(of_instance.messagesOf(kOperation), (std::vector<std::string>{"after", "of a dying thread"}));
}

TEST(SetKitLevel, TakesTheNearestLevelThatThereIs) {
  kit::LogLevels levels;
  setKitLevel(levels, 100);
  EXPECT_EQ(levels._lcl_component_level[kit::lcl_cKesmo], kit::lcl_vTrace);
  setKitLevel(levels, -100);
  EXPECT_EQ(levels._lcl_component_level[kit::lcl_cKesmo], kit::lcl_vOff);
}

}  // namespace
}  // namespace morvik::runtime
