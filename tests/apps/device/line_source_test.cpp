#include "apps/device/line_source.h"

#include <gmock/gmock.h>

#include <sstream>

namespace morvik_device {
namespace {

using ::testing::HasSubstr;

std::string describe(const NextCommand& next) {
  if (const auto* command = std::get_if<Command>(&next))
    return std::string(command->verb->name);
  const auto* mistake = std::get_if<std::string>(&next);
  return mistake != nullptr ? *mistake : "end";
}

TEST(LineSource, HandsOutOneCommandAfterTheOther) {
  std::istringstream stream("active\nevent a b\nquit\n");
  const CommandSource source = commandsOf(stream, "input");
  EXPECT_EQ(describe(source()), "active");
  EXPECT_EQ(describe(source()), "event");
  EXPECT_EQ(describe(source()), "quit");
  EXPECT_EQ(describe(source()), "end");
}

TEST(LineSource, SkipsBlankLinesAndCommentsAndCountsThem) {
  std::istringstream stream("# a life\n\n  \nactive\n\nsleep\n");
  const CommandSource source = commandsOf(stream, "life.txt");
  EXPECT_EQ(describe(source()), "active");
  EXPECT_THAT(describe(source()), HasSubstr("life.txt, line 6: \"sleep\" is not a verb"));
}

TEST(LineSource, TakesALastLineWithoutLineFeedAndLinesOfOtherSystems) {
  std::istringstream stream("active\r\npush");
  const CommandSource source = commandsOf(stream, "input");
  EXPECT_EQ(describe(source()), "active");
  EXPECT_EQ(describe(source()), "push");
  EXPECT_EQ(describe(source()), "end");
}

TEST(LineSource, TakesALineAsLongAsTheLimitAndRefusesALongerOne) {
  const std::string begin = "event a ";
  const std::string longest = begin + std::string(kMaxLineBytes - begin.size(), 'x');
  std::istringstream stream(longest + "\n" + longest + "x\n");
  const CommandSource source = commandsOf(stream, "input");
  EXPECT_EQ(describe(source()), "event");
  EXPECT_EQ(describe(source()), "input, line 2: the line is longer than 4194304 bytes; give less at once");
}

TEST(LineSource, ReadsAScriptWhole) {
  std::istringstream stream("active\nquit\n");
  auto commands = readAll(commandsOf(stream, "script"));
  ASSERT_TRUE(std::holds_alternative<std::deque<Command>>(commands));
  const CommandSource source = commandsOf(std::move(std::get<std::deque<Command>>(commands)));
  EXPECT_EQ(describe(source()), "active");
  EXPECT_EQ(describe(source()), "quit");
  EXPECT_EQ(describe(source()), "end");
}

TEST(LineSource, AMistakeAnywhereInAScriptIsAllThatComesOfIt) {
  std::istringstream stream("active\nwait\n");
  const auto commands = readAll(commandsOf(stream, "script"));
  ASSERT_TRUE(std::holds_alternative<std::string>(commands));
  EXPECT_EQ(std::get<std::string>(commands), "script, line 2: wait: the seconds are missing; write: wait SECONDS");
}

}  // namespace
}  // namespace morvik_device
