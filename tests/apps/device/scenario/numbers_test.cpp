#include "apps/device/scenario/numbers.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace morvik_device::scenario {
namespace {

TEST(WholeText, IsANumberFromItsFirstToItsLastCharacter) {
  EXPECT_EQ(wholeText<int>("12"), 12);
  EXPECT_EQ(wholeText<int>("-12"), -12);
  EXPECT_EQ(wholeText<double>("1.5"), 1.5);
  EXPECT_EQ(wholeText<int>("12 "), std::nullopt);
  EXPECT_EQ(wholeText<int>(" 12"), std::nullopt);
  EXPECT_EQ(wholeText<int>("1.5"), std::nullopt);
  EXPECT_EQ(wholeText<int>(""), std::nullopt);
}

TEST(WholeText, StaysInTheRangeOfItsType) {
  EXPECT_EQ(wholeText<uint8_t>("255"), 255);
  EXPECT_EQ(wholeText<uint8_t>("256"), std::nullopt);
  EXPECT_EQ(wholeText<uint8_t>("-1"), std::nullopt);
}

}  // namespace
}  // namespace morvik_device::scenario
