// Apps that have closed their standard streams: their output ends up in nothing of the kit.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "host/posix/write_all.h"
#include "services/endpoints.h"
#include "tests/host/net/loopback_server.h"
#include "tests/support/child.h"
#include "tests/support/on_scratch_folder.h"

namespace morvik::host {
namespace {

constexpr int kFine = 3;
constexpr std::array kStandardStreams{STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};

void closeThem() {
  for (const int stream : kStandardStreams)
    ::close(stream);
}

constexpr const char* kNothing = "/dev/null";

/// Empty if the stream is closed.
std::string fileOf(int stream) {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(stream), ignored);
}

/// A socket, a pipe, or a kernel descriptor: anything but what the kit leaves there.
bool isAnyInUse() {
  return std::any_of(kStandardStreams.begin(), kStandardStreams.end(), [](int stream) {
    const std::string file = fileOf(stream);
    return !file.empty() && file != kNothing;
  });
}

bool areAllFilled() {
  return std::all_of(kStandardStreams.begin(), kStandardStreams.end(),
                     [](int stream) { return fileOf(stream) == kNothing; });
}

/// In a process of its own, so that the forking process has no threads: with a thread sanitizer, its child could start
/// none otherwise.
class ServerProcess {
 public:
  ServerProcess() {
    EXPECT_EQ(::pipe(ends_.data()), 0);
    child_.emplace([this] {
      const test::LoopbackServer server({}, answer);
      if (!writeAll(ends_[1], server.urlAt("localhost", "/")))
        return 1;
      ::close(ends_[1]);
      return ::pause();
    });
    ::close(ends_[1]);
    std::array<char, 64> part{};
    for (ssize_t got = 0; (got = ::read(ends_[0], part.data(), part.size())) > 0;)
      url_.append(part.data(), static_cast<size_t>(got));
    ::close(ends_[0]);
  }
  const std::string& url() const { return url_; }

 private:
  static void answer(const test::ServedRequest& request, test::Peer& peer) {
    const bool is_conversion = request.target.find(services::kConversionPath) != std::string::npos;
    peer.answer(200,
                is_conversion ? R"({"Result":true,"Data":{"user_no":1001,"referralKey":7}})" : R"({"Result":true})");
  }

  std::array<int, 2> ends_{};
  std::string url_;
  std::optional<test::Child> child_;
};

class ClosedStreams : public test::OnScratchFolder, public ::testing::WithParamInterface<MainQueueMode> {
 protected:
  ClosedStreams() {
    options.main_queue = GetParam();
    options.service_url = server_.url();
    options.report_crashes = true;
  }
  /// The connection stays open after the answer.
  static bool isDelivered(MorvikCore& core) {
    core.applicationDidBecomeActive();
    core.addActivity("shop", "look");
    return core.waitUntilDelivered(test::kGiveUp).is_delivered;
  }

 private:
  ServerProcess server_;
};

TEST_P(ClosedStreams, BeforeTheStartHaveNothingOfTheKitsInTheirPlace) {
  test::Child child([this] {
    closeThem();
    const auto core = start();
    if (isAnyInUse())
      return 1;
    return isDelivered(*core) && !isAnyInUse() ? kFine : 2;
  });
  EXPECT_EQ(child.status(), kFine);
}

/// Opening the store fills the streams. The event loop ends the process when it closes its own descriptors there.
TEST_P(ClosedStreams, HaveNothingOfTheKitsInTheirPlaceWhereTheStoreCannotBeOpened) {
  std::filesystem::create_directories(options.store_folder + "/morvik.store");
  test::Child child([this] {
    closeThem();
    const auto core = start();
    return isAnyInUse() ? 1 : kFine;
  });
  EXPECT_EQ(child.status(), kFine);
}

TEST_P(ClosedStreams, AfterTheStartHaveNoConnectionInTheirPlace) {
  test::Child child([this] {
    const auto core = start();
    closeThem();
    if (!isDelivered(*core))
      return 1;
    return isAnyInUse() ? 2 : kFine;
  });
  EXPECT_EQ(child.status(), kFine);
}

TEST_P(ClosedStreams, AreFilledBeforeATurnThatMayOpenSomething) {
  options.sending = false;
  test::Child child([this] {
    const auto core = start();
    closeThem();
    bool is_filled = false;
    core->perform([&is_filled] { is_filled = areAllFilled(); });
    core->waitUntilDelivered(test::kGiveUp);  // nothing is sent, but what was posted has run
    return is_filled ? kFine : 1;
  });
  EXPECT_EQ(child.status(), kFine);
}

INSTANTIATE_TEST_SUITE_P(Modes, ClosedStreams, ::testing::Values(MainQueueMode::kOwnThread, MainQueueMode::kPumped),
                         [](const auto& mode) {
                           return mode.param == MainQueueMode::kPumped ? "Pumped" : "OwnThread";
                         });

}  // namespace
}  // namespace morvik::host
