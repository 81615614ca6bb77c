#include "host/linux/system_random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

namespace morvik::host {
namespace {

TEST(SystemRandom, NeverGivesTheSameBytesTwice) {
  SystemRandom random;
  std::array<uint8_t, 16> first{};
  std::array<uint8_t, 16> second{};
  random.fill(first);
  random.fill(second);
  EXPECT_NE(first, second);
}

TEST(SystemRandom, FillsEveryByteOfALongSpan) {
  SystemRandom random;
  std::vector<uint8_t> bytes(100'000, 0);
  random.fill(bytes);
  // A run of 64 zero bytes would be a hole: it does not happen by chance in the age of the universe.
  EXPECT_EQ(std::search_n(bytes.begin(), bytes.end(), 64, uint8_t{0}), bytes.end());
}

TEST(SystemRandom, FillsNothingWhereNothingIsAsked) {
  SystemRandom random;
  std::array<uint8_t, 2> bytes{7, 7};
  random.fill(std::span(bytes).first(0));
  EXPECT_EQ(bytes, (std::array<uint8_t, 2>{7, 7}));
}

}  // namespace
}  // namespace morvik::host
