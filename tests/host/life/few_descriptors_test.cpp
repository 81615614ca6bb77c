// An app that has used up its file descriptors: its requests fail or wait, and nothing crashes or hangs.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <future>
#include <memory>
#include <utility>

#include "runtime/life/instance_ending.h"
#include "tests/support/child.h"
#include "tests/support/few_descriptors.h"
#include "tests/support/on_scratch_folder.h"

namespace morvik::host {
namespace {

constexpr int kStarted = 3;
constexpr int kRefused = 4;
/// From the three of every process to more than a kit opens.
constexpr rlim_t kFewest = 3;
constexpr rlim_t kMost = 20;

class FewDescriptorsTest : public test::OnScratchFolder {
 protected:
  /// The whole life of a kit, in a process of its own that may only have descriptors below `limit`.
  int lifeBelow(rlim_t limit, MainQueueMode mode) {
    options.main_queue = mode;
    return test::Child([&] {
             const rlimit few{.rlim_cur = limit, .rlim_max = limit};
             if (::setrlimit(RLIMIT_NOFILE, &few) != 0)
               return 1;
             const StartResult started = MorvikCore::start(options);
             if (!started)
               return started.error.empty() ? 1 : kRefused;
             started.core->applicationDidBecomeActive();
             if (started.core->addActivity("g", "n") == Recorded::kRefusedNotRunning)
               return 1;
             started.core->thirdPartyConversion();
             started.core->dispatch();
             started.core->stop();
             return kStarted;
           })
        .status();
  }
};

TEST_F(FewDescriptorsTest, StartsOrTellsWhyNotAndNeverDies) {
  for (const MainQueueMode mode : {MainQueueMode::kOwnThread, MainQueueMode::kPumped}) {
    EXPECT_EQ(lifeBelow(kFewest, mode), kRefused);
    for (rlim_t limit = kFewest + 1; limit < kMost; ++limit) {
      const int ended = lifeBelow(limit, mode);
      EXPECT_TRUE(ended == kStarted || ended == kRefused) << "below " << limit << ": " << ended;
    }
    EXPECT_EQ(lifeBelow(kMost, mode), kStarted);
  }
}

TEST_F(FewDescriptorsTest, SendsAnErasureOnceThereAreSomeAgain) {
  std::promise<void> failed;
  std::promise<bool> erasure;
  const auto delegate = std::make_shared<MorvikCoreDelegate>();
  delegate->didFailToDeliver = [&, is_first = true](const DeliveryFailure&) mutable {
    if (std::exchange(is_first, false))
      failed.set_value();
  };
  delegate->didAnswerErasure = [&](bool accepted) { erasure.set_value(accepted); };
  const auto core = start();
  core->setDelegate(delegate);
  {
    const test::FewDescriptors none(0);
    core->thirdPartyConversion();
    ASSERT_EQ(failed.get_future().wait_for(test::kGiveUp), std::future_status::ready);
  }
  core->gdprForgetMe(true);
  EXPECT_FALSE(got(erasure.get_future())) << "nobody is there to take it";
  EXPECT_LT(timeOf([&core] { core->stop(); }), runtime::kStopTime);
}

}  // namespace
}  // namespace morvik::host
