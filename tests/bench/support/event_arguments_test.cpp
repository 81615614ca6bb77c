#include "bench/support/event_arguments.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace morvik::bench {
namespace {

std::optional<EventArguments> read(std::vector<std::string> words) {
  static std::vector<std::string> kept;  // the texts outlive what is read
  kept = std::move(words);
  std::string program = "bench";
  std::vector<char*> all = {program.data()};
  for (std::string& word : kept)
    all.push_back(word.data());
  return eventArguments(static_cast<int>(all.size()), all.data(), 1000, {"--shuffled", "--long"});
}

TEST(EventArguments, AreANumberAndAKindInAnyOrder) {
  const auto both = read({"20", "--long"});
  ASSERT_TRUE(both);
  EXPECT_EQ(both->events, 20);
  EXPECT_EQ(both->kind, "--long");
  const auto other_way_round = read({"--shuffled", "30"});
  ASSERT_TRUE(other_way_round);
  EXPECT_EQ(other_way_round->events, 30);
  EXPECT_EQ(other_way_round->kind, "--shuffled");
}

TEST(EventArguments, HaveADefaultOfEach) {
  const auto none = read({});
  ASSERT_TRUE(none);
  EXPECT_EQ(none->events, 1000);
  EXPECT_EQ(none->kind, "");
  const auto kind_alone = read({"--shuffled"});
  ASSERT_TRUE(kind_alone);
  EXPECT_EQ(kind_alone->events, 1000);
  EXPECT_EQ(kind_alone->kind, "--shuffled");
}

TEST(EventArguments, AreNothingWhenAnythingElseIsThere) {
  for (const auto& words : std::vector<std::vector<std::string>>{{"0"},
                                                                 {"00"},
                                                                 {"-1"},
                                                                 {"+1"},
                                                                 {"10k"},
                                                                 {""},
                                                                 {"9999999999"},
                                                                 {"--short"},
                                                                 {"--help"},
                                                                 {"10", "20"},
                                                                 {"--long", "--shuffled"},
                                                                 {"10", "--long", "x"}})
    EXPECT_FALSE(read(words)) << words.front();
}

}  // namespace
}  // namespace morvik::bench
