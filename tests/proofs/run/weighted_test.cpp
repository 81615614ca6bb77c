#include "proofs/run/weighted.h"

#include <gtest/gtest.h>

#include <map>

namespace morvik::proofs {
namespace {

struct Row {
  double weight;
  int value;
};

TEST(DrawWeighted, TakesEachRowAsOftenAsItsWeightSays) {
  constexpr Row kRows[] = {{1, 1}, {0, 2}, {3, 3}};
  simulation::Dice dice(1);
  std::map<int, int> drawn;
  for (int draw = 0; draw < 4'000; ++draw)
    ++drawn[drawWeighted(kRows, dice).value];
  EXPECT_NEAR(drawn[1], 1'000, 100);
  EXPECT_EQ(drawn[2], 0);
  EXPECT_NEAR(drawn[3], 3'000, 100);
}

}  // namespace
}  // namespace morvik::proofs
