#include "host/posix/write_all.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

namespace morvik::host {
namespace {

/// More than a pipe holds, so that the system takes it in several pieces.
constexpr size_t kManyBytes = size_t{1} << 20;

TEST(WriteAll, WritesWhatTheSystemTakesInSeveralPieces) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  std::string read;
  std::thread reader([&] {
    char block[1000];
    for (ssize_t count = 0; (count = ::read(ends[0], block, sizeof block)) > 0;)
      read.append(block, static_cast<size_t>(count));
  });
  std::string bytes;
  for (size_t i = 0; i < kManyBytes; ++i)
    bytes += static_cast<char>('a' + i % 23);
  EXPECT_TRUE(writeAll(ends[1], bytes));
  ::close(ends[1]);
  reader.join();
  ::close(ends[0]);
  EXPECT_EQ(read, bytes);
}

TEST(WriteAll, StopsWhenTheSystemTakesNoMore) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  EXPECT_FALSE(writeAll(ends[1], std::string(kManyBytes, 'x')));
  EXPECT_EQ(errno, EAGAIN);
  ::close(ends[0]);
  ::close(ends[1]);
  EXPECT_FALSE(writeAll(-1, "x"));
  EXPECT_EQ(errno, EBADF);
  EXPECT_TRUE(writeAll(-1, "")) << "nothing to write";
}

}  // namespace
}  // namespace morvik::host
