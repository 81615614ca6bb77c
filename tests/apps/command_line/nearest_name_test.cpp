#include "apps/command_line/nearest_name.h"

#include <gtest/gtest.h>

namespace morvik_command_line {
namespace {

const std::vector<std::string> kNames = {"run", "simulate", "fleet", "inspect", "--seed"};

TEST(NearestName, ForgivesAnEditForEveryThreeCharacters) {
  EXPECT_EQ(nearestName("fleeet", kNames), "fleet");
  EXPECT_EQ(nearestName("flet", kNames), "fleet");
  EXPECT_EQ(nearestName("fleat", kNames), "fleet");
  EXPECT_EQ(nearestName("rnu", kNames), "run");
  EXPECT_EQ(nearestName("simulaet", kNames), "simulate");
  EXPECT_EQ(nearestName("insepct", kNames), "inspect");
  EXPECT_EQ(nearestName("--sed", kNames), "--seed");
}

TEST(NearestName, GuessesNothingWhenNoneIsClose) {
  EXPECT_EQ(nearestName("party", kNames), std::nullopt);
  EXPECT_EQ(nearestName("fl", kNames), std::nullopt);
  EXPECT_EQ(nearestName("", kNames), std::nullopt);
  EXPECT_EQ(nearestName(std::string(65, 'x'), {std::string(64, 'x')}), std::nullopt);
}

}  // namespace
}  // namespace morvik_command_line
