#include "simulation/virtual_flusher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

namespace morvik::simulation {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Urgency = host::StoreFlusher::Urgency;

class VirtualFlusherTest : public ::testing::Test {
 protected:
  double seconds() const { return loop_.monotonicSeconds() - 1000; }

  ::morvik::testing::VirtualLoop loop_{{.monotonic_seconds = 1000}};
  std::vector<std::pair<double, Urgency>> flushes_;
  std::unique_ptr<host::StoreFlusher> flusher_ = flushesOn(loop_)(
      [this](Urgency urgency) { flushes_.emplace_back(seconds(), urgency); }, std::chrono::milliseconds(500));
};

TEST_F(VirtualFlusherTest, FlushesOnceAfterItsDelayHoweverOftenItIsAsked) {
  flusher_->flushSoon();
  loop_.advance(0.25);
  flusher_->flushSoon();
  loop_.advance(2);
  flusher_->flushSoon();
  loop_.advance(2);
  EXPECT_THAT(flushes_, ElementsAre(std::pair(0.5, Urgency::kRoutine), std::pair(2.75, Urgency::kRoutine)));
}

TEST_F(VirtualFlusherTest, FlushesInTheNextTurnWhenItIsUrgentAndNotAgainForWhatWaited) {
  flusher_->flushSoon();
  loop_.advance(0.25);
  flusher_->flushNow(Urgency::kSessionEnd);
  flusher_->flushNow(Urgency::kRoutine);
  EXPECT_THAT(flushes_, IsEmpty());
  loop_.advance(5);
  EXPECT_THAT(flushes_, ElementsAre(std::pair(0.25, Urgency::kSessionEnd)));
}

TEST_F(VirtualFlusherTest, WaitingIsFlushingAtOnce) {
  flusher_->flushSoon();
  flusher_->flushAndWait(Urgency::kSessionEnd);
  EXPECT_THAT(flushes_, ElementsAre(std::pair(0.0, Urgency::kSessionEnd)));
  loop_.advance(5);
  EXPECT_EQ(flushes_.size(), 1U);
}

TEST_F(VirtualFlusherTest, OnASlowDiskFlushesAtTheEndOfItsTimeAndLetsOthersWaitForThat) {
  double sync_seconds = 2;
  flusher_ = flushesOn(loop_, [&] { return sync_seconds; })(
      [this](Urgency urgency) { flushes_.emplace_back(seconds(), urgency); }, std::chrono::milliseconds(500));
  flusher_->flushSoon();
  loop_.advance(1);
  flusher_->flushNow(Urgency::kSessionEnd);
  loop_.advance(1);
  EXPECT_THAT(flushes_, IsEmpty());
  loop_.advance(10);
  EXPECT_THAT(flushes_, ElementsAre(std::pair(2.5, Urgency::kRoutine), std::pair(4.5, Urgency::kSessionEnd)));
  flushes_.clear();
  flusher_->flushNow(Urgency::kRoutine);
  loop_.advance(1);
  flusher_->flushAndWait(Urgency::kSessionEnd);
  EXPECT_THAT(flushes_, ElementsAre(std::pair(13.0, Urgency::kSessionEnd)));
  loop_.advance(10);
  EXPECT_EQ(flushes_.size(), 1U) << "it included the flush under way";
}

TEST_F(VirtualFlusherTest, NothingRunsAfterStopNorAfterItsEnd) {
  flusher_->flushSoon();
  flusher_->stop();
  flusher_->flushNow(Urgency::kSessionEnd);
  flusher_->flushAndWait(Urgency::kSessionEnd);
  flusher_.reset();
  loop_.advance(5);
  EXPECT_THAT(flushes_, IsEmpty());
}

}  // namespace
}  // namespace morvik::simulation
