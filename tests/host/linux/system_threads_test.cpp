#include "host/linux/system_threads.h"

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <variant>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "host/posix/thread.h"
#include "tests/support/no_threads.h"

namespace morvik::host {
namespace {

TEST(SystemThreads, DescribeTheCallingThreadByItsNumberAndName) {
  std::string description;
  std::string pretty;
  auto thread = startThread("a-name", [&] {
    description = SystemThreads().currentThreadDescription();
    pretty = MorvikCoreLib::getPrettyCurrentThreadDescription(SystemThreads());
  });
  std::get<std::thread>(thread).join();
  EXPECT_TRUE(
      std::regex_match(description, std::regex("<Thread: 0x[0-9a-f]+>\\{number = [1-9][0-9]*, name = a-name\\}")))
      << description;
  EXPECT_TRUE(std::regex_match(pretty, std::regex("number = [1-9][0-9]*, name = a-name"))) << pretty;
}

TEST(SystemThreads, TellTwoThreadsApart) {
  std::string other;
  auto thread = startThread("morvik", [&other] { other = SystemThreads().currentThreadDescription(); });
  std::get<std::thread>(thread).join();
  EXPECT_NE(other, SystemThreads().currentThreadDescription());
}

TEST(SystemThreads, StartAThreadUnderItsName) {
  std::string description;
  auto started = SystemThreads().start("started", [&] { description = SystemThreads().currentThreadDescription(); });
  ASSERT_TRUE(std::holds_alternative<std::unique_ptr<runtime::MachineThread>>(started));
  std::get<std::unique_ptr<runtime::MachineThread>>(started)->join();
  EXPECT_TRUE(description.ends_with("name = started}")) << description;
}

TEST(SystemThreads, SayThatTheSystemGivesNone) {
  const test::NoThreads none;
  const auto started = SystemThreads().start("morvik-test", [] {});
  ASSERT_TRUE(std::holds_alternative<kit::Error>(started));
  EXPECT_NE(std::get<kit::Error>(started).message.find("gave no thread 'morvik-test'"), std::string::npos);
}

}  // namespace
}  // namespace morvik::host
