// An app that names its store folder relatively and changes its working directory afterwards.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/child.h"
#include "tests/support/on_scratch_folder.h"

namespace morvik::host {
namespace {

constexpr int kFine = 3;

class WorkingDirectory : public test::OnScratchFolder, public ::testing::WithParamInterface<MainQueueMode> {
 protected:
  WorkingDirectory() {
    options.main_queue = GetParam();
    std::filesystem::create_directory(folder / "elsewhere");
  }
  std::string elsewhere() const { return folder / "elsewhere"; }
  /// The kit of an app that then changes its working directory.
  std::unique_ptr<MorvikCore> startAndGo() {
    StartOptions relative = options;
    relative.store_folder = "store";
    if (::chdir(folder.path().c_str()) != 0)
      return nullptr;
    StartResult started = MorvikCore::start(relative);
    return started && ::chdir(elsewhere().c_str()) == 0 ? std::move(started.core) : nullptr;
  }
  static void act(MorvikCore& core) {
    core.applicationDidBecomeActive();
    core.addActivity("shop", "look");
    core.dispatch();
    core.applicationDidEnterBackground();
    core.dispatch();
  }
};

TEST_P(WorkingDirectory, MayChangeAndTheWishIsInTheSamePlace) {
  test::Child child([this] {
    const auto core = startAndGo();
    if (core == nullptr)
      return 1;
    act(*core);
    return core->gdprForgetMe(true) == Recorded::kKept ? kFine : 2;
  });
  EXPECT_EQ(child.status(), kFine);
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere()));
  const auto core = start();
  ASSERT_NE(core, nullptr);
  EXPECT_EQ(core->addActivity("shop", "look"), Recorded::kRefusedForgotten);
}

INSTANTIATE_TEST_SUITE_P(Modes, WorkingDirectory, ::testing::Values(MainQueueMode::kOwnThread, MainQueueMode::kPumped),
                         [](const auto& mode) {
                           return mode.param == MainQueueMode::kPumped ? "Pumped" : "OwnThread";
                         });

}  // namespace
}  // namespace morvik::host
