#include "host/linux/device_numbers.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

TEST(DeviceNumbers, TellTheFreeBytesOfTheFileSystem) {
  const test::ScratchFolder folder;
  const auto bytes = freeDiskBytes(folder.path());
  ASSERT_TRUE(bytes.has_value());
  EXPECT_GT(*bytes, 0);
  EXPECT_LE(static_cast<uintmax_t>(*bytes), std::filesystem::space(folder.path()).capacity);
}

TEST(DeviceNumbers, TellNothingOfAFileSystemThatIsNotThere) {
  const test::ScratchFolder folder;
  EXPECT_EQ(freeDiskBytes(folder / "missing"), std::nullopt);
}

TEST(DeviceNumbers, TellTheFreeMemory) {
  EXPECT_GT(freeMemoryKibibytes(), 0U);
}

}  // namespace
}  // namespace morvik::host
