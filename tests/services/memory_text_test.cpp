#include "services/memory_text.h"

#include <gtest/gtest.h>

namespace morvik::services {
namespace {

TEST(MemoryText, IsInMegabytesWithOneDecimal) {
  EXPECT_EQ(memoryText(0), "0.0 MB");
  EXPECT_EQ(memoryText(51), "0.0 MB");
  EXPECT_EQ(memoryText(52), "0.1 MB");
  EXPECT_EQ(memoryText(1024), "1.0 MB");
  EXPECT_EQ(memoryText(1024 + 972), "1.9 MB");
  EXPECT_EQ(memoryText(1024 + 973), "2.0 MB");
  EXPECT_EQ(memoryText(831'898), "812.4 MB");
  EXPECT_EQ(memoryText(4'294'967'295), "4194304.0 MB");
}

}  // namespace
}  // namespace morvik::services
