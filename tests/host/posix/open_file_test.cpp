#include "host/posix/open_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/child.h"
#include "tests/support/on_scratch_folder.h"

namespace morvik::host {
namespace {

using test::Child;
constexpr int kFine = 3;
constexpr std::array kStandardStreams{STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};

/// The file of a descriptor of this process; empty if it has none.
std::string fileOf(int descriptor) {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), ignored);
}

class OpenFile : public test::OnScratchFolder {};

TEST_F(OpenFile, FillsTheStandardStreamsThatAreClosedAndTakesNone) {
  const std::string path = folder / "file";
  Child child([&path] {
    for (const int stream : kStandardStreams)
      ::close(stream);
    const int opened = openFile(path.c_str(), O_WRONLY | O_CREAT, 0600);
    bool is_right = opened > STDERR_FILENO && fileOf(opened) == path && (::fcntl(opened, F_GETFD) & FD_CLOEXEC) != 0;
    for (const int stream : kStandardStreams)
      is_right = is_right && fileOf(stream) == "/dev/null";
    return is_right ? kFine : 1;
  });
  EXPECT_EQ(child.status(), kFine);
}

TEST_F(OpenFile, SaysWhyItCannot) {
  EXPECT_LT(openFile((folder / "missing/file").c_str(), O_RDONLY), 0);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(OpenFile, AKitThatStartsWithoutStandardStreamsHasNoneOfItsFilesThere) {
  options.log_sink = nullptr;
  options.log_level = 5;
  options.report_crashes = true;
  Child child([this] {
    for (const int stream : kStandardStreams)
      ::close(stream);
    const auto core = start();
    if (core->addActivity("shop", "purchase") != Recorded::kKept)
      return 1;
    for (const int stream : kStandardStreams) {
      if (fileOf(stream).starts_with(options.store_folder))
        return 2;
    }
    return kFine;
  });
  EXPECT_EQ(child.status(), kFine);
  EXPECT_EQ(std::filesystem::file_size(options.store_folder + "/morvik.store.lock"), 0U);
}

}  // namespace
}  // namespace morvik::host
