#include "apps/device/grouped_number.h"

#include <gtest/gtest.h>

#include <limits>

namespace morvik_device {
namespace {

TEST(GroupedNumber, SetsThousandsApart) {
  EXPECT_EQ(grouped(0), "0");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(1'000), "1,000");
  EXPECT_EQ(grouped(1'234'567), "1,234,567");
  EXPECT_EQ(grouped(std::numeric_limits<uint64_t>::max()), "18,446,744,073,709,551,615");
}

}  // namespace
}  // namespace morvik_device
