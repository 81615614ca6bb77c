#include "host/machine/system_threads.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <variant>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "host/loop/thread.h"

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

}  // namespace
}  // namespace morvik::host
