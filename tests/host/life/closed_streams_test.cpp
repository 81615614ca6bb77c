// Apps that have closed their standard streams: what they print goes into nothing of the kit's.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>
#include <system_error>

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

/// A socket, a pipe, or a descriptor of the kernel's own. A store that is opened leaves "/dev/null" in their place.
bool isAnyInUse() {
  for (const int stream : kStandardStreams) {
    std::error_code ignored;
    const std::string file = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(stream), ignored);
    if (!file.empty() && file != "/dev/null")
      return true;
  }
  return false;
}

class ClosedStreams : public test::OnScratchFolder {
 protected:
  ClosedStreams()
      : server_({}, [](const test::ServedRequest& request, test::Peer& peer) {
          const bool is_conversion = request.target.find(services::kConversionPath) != std::string::npos;
          peer.answer(
              200, is_conversion ? R"({"Result":true,"Data":{"user_no":1001,"referralKey":7}})" : R"({"Result":true})");
        }) {
    options.service_url = server_.urlAt("localhost", "/");
    options.report_crashes = true;
  }
  /// The connection stays open behind the answer.
  static bool isDelivered(MorvikCore& core) {
    core.applicationDidBecomeActive();
    core.addActivity("shop", "look");
    return core.waitUntilDelivered(test::kGiveUp).is_delivered;
  }

 private:
  test::LoopbackServer server_;
};

TEST_F(ClosedStreams, BeforeTheStartHaveNothingOfTheKitsInTheirPlace) {
  for (const MainQueueMode mode : {MainQueueMode::kOwnThread, MainQueueMode::kPumped}) {
    options.main_queue = mode;
    test::Child child([this] {
      closeThem();
      const auto core = start();
      if (isAnyInUse())
        return 1;
      return isDelivered(*core) && !isAnyInUse() ? kFine : 2;
    });
    EXPECT_EQ(child.status(), kFine);
  }
}

/// One that is opened fills them up. The event loop ends the process when it is to close its own descriptors there.
TEST_F(ClosedStreams, HaveNothingOfTheKitsInTheirPlaceWhereTheStoreCannotBeOpened) {
  std::filesystem::create_directories(options.store_folder + "/morvik.store");
  for (const MainQueueMode mode : {MainQueueMode::kOwnThread, MainQueueMode::kPumped}) {
    options.main_queue = mode;
    test::Child child([this] {
      closeThem();
      const auto core = start();
      return isAnyInUse() ? 1 : kFine;
    });
    EXPECT_EQ(child.status(), kFine);
  }
}

TEST_F(ClosedStreams, AfterTheStartHaveNoConnectionInTheirPlace) {
  test::Child child([this] {
    const auto core = start();
    closeThem();
    return isDelivered(*core) && !isAnyInUse() ? kFine : 1;
  });
  EXPECT_EQ(child.status(), kFine);
}

}  // namespace
}  // namespace morvik::host
