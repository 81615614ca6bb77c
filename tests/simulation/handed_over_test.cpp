#include "runtime/handed_over.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kit/stop_request.h"
#include "services/endpoints.h"
#include "simulation/virtual_machine.h"
#include "simulation/virtual_machine_loop.h"
#include "testing/recording_log.h"

namespace morvik::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A device whose install was attributed in an earlier process.
class HandedOverTest : public ::testing::Test {
 protected:
  static simulation::VirtualMachineOptions attributed() {
    simulation::VirtualMachineOptions options;
    options.store = {{"fendoUserInfo_fendoUserNo", 1001}, {"fendoUserInfo_referralKey", 7}};
    return options;
  }
  HandedOverTest() {
    machine_.transport.setDefaultAnswer(::morvik::testing::Answer::error("down"));
    start();
  }
  void start() { phone_ = machine_.start(simulation::simulatedApp()); }
  void kill() { machine_.kill(std::move(phone_)); }
  /// Leaves URLs as a process that died would; returns their ids.
  std::vector<std::string> leave(size_t count) {
    kit::MutableArray left;
    std::vector<std::string> ids;
    for (size_t id = 0; id < count; ++id) {
      ids.push_back(std::to_string(id));
      left.append(kit::Dictionary{{"kind", "url"}, {"text", "app://x?cid=" + ids.back()}});
    }
    machine_.store.set(runtime::kHandedOverKey, kit::Value(std::move(left)));
    machine_.store.synchronize();
    return ids;
  }
  kit::Array waiting() { return phone_->storedValue(runtime::kHandedOverKey).array(); }
  std::vector<std::string> clicks() {
    std::vector<std::string> ids;
    for (const kit::Value& click : phone_->properties().commerceConversionInfos().array())
      ids.emplace_back(click["clickId"].string());
    return ids;
  }

  simulation::VirtualMachine machine_{attributed()};
  std::unique_ptr<runtime::Instance> phone_;
};

TEST_F(HandedOverTest, IsHandledOnceAndInOrder) {
  for (const char* id : {"a", "b", "c"})
    EXPECT_EQ(phone_->passOpenURL(std::string("app://x?cid=") + id), Recorded::kKept);
  machine_.loop.runUntilIdle();
  EXPECT_THAT(clicks(), ElementsAre("a", "b", "c"));
  EXPECT_THAT(waiting(), IsEmpty());
  kill();
  start();
  machine_.loop.runUntilIdle();
  EXPECT_THAT(clicks(), ElementsAre("a", "b", "c"));
}

TEST_F(HandedOverTest, OfADeadProcessIsHandledBeforeTheFirstSession) {
  machine_.store.set(
      runtime::kHandedOverKey,
      kit::Array{kit::Dictionary{
          {"kind", "url"}, {"text", "app://x?cid=late"}, {"time", kit::Date{1'000'000}}, {"first_launch", false}}});
  machine_.store.synchronize();
  kill();
  start();
  EXPECT_EQ(waiting().size(), 1U);
  phone_->mainQueue().async([this] { EXPECT_THAT(waiting(), IsEmpty()) << "before anything that the app has posted"; });
  machine_.loop.runUntilIdle();
  EXPECT_THAT(clicks(), ElementsAre("late"));
  EXPECT_EQ(phone_->properties().commerceConversionInfos().array()[0]["mtime"], kit::Value(1000.0))
      << "the time when it was handed over";
}

TEST_F(HandedOverTest, OfALongListIsHandledInSeveralTurnsInOrder) {
  constexpr size_t kLeft = 2 * runtime::kMaxHandledAtOnce + 1;
  std::vector<std::string> expected = leave(kLeft);
  kill();
  start();
  phone_->mainQueue().async(
      [this] { EXPECT_EQ(waiting().size(), kLeft - runtime::kMaxHandledAtOnce) << "after one turn"; });
  machine_.loop.runUntilIdle();
  EXPECT_EQ(clicks(), expected);
  EXPECT_THAT(waiting(), IsEmpty());
}

TEST_F(HandedOverTest, OfALongListAllIsHandledBeforeASessionStarts) {
  leave(kMaxHandedOver);
  kill();
  start();
  phone_->applicationDidBecomeActive();
  phone_->mainQueue().async([this] { EXPECT_THAT(waiting(), IsEmpty()); });
  machine_.loop.runUntilIdle();
  EXPECT_EQ(clicks().size(), kMaxHandedOver);
}

TEST_F(HandedOverTest, OfALongListIsLeftToTheNextStartWhenTheKitIsStopped) {
  leave(2 * runtime::kMaxHandledAtOnce);
  kit::ListLock list_lock;
  const services::MorvikGVUserDefaults store(machine_.store, list_lock);
  const kit::LogLevels levels;
  ::morvik::testing::RecordingLog log;
  const services::Logger logger(levels, log);
  simulation::VirtualMainLoop main_loop(machine_.loop, logger);
  kit::StopRequest stop;
  runtime::HandedOver list(store, main_loop, stop, logger);
  size_t handled = 0;
  list.setHandler([&](const runtime::HandedOver::Entry&) {
    ++handled;
    stop.make();
  });
  list.handleAll();
  EXPECT_EQ(handled, runtime::kMaxHandledAtOnce);
  EXPECT_EQ(store.arrayForKey(runtime::kHandedOverKey).size(), runtime::kMaxHandledAtOnce);
}

TEST_F(HandedOverTest, OfAKindThatIsNotKnownIsDiscarded) {
  machine_.store.set(runtime::kHandedOverKey, kit::Array{"no entry", kit::Dictionary{{"kind", "of a newer version"}}});
  machine_.store.synchronize();
  kill();
  start();
  machine_.loop.runUntilIdle();
  EXPECT_THAT(waiting(), IsEmpty());
}

TEST_F(HandedOverTest, PastTheLimitsIsRefused) {
  const std::string url = "app://x?q=";
  EXPECT_EQ(phone_->passOpenURL(url + std::string(kMaxHandedOverBytes - url.size(), 'x')), Recorded::kKept);
  EXPECT_EQ(phone_->passOpenURL(url + std::string(kMaxHandedOverBytes - url.size() + 1, 'x')),
            Recorded::kRefusedTooLarge);
  kit::MutableArray full;
  for (size_t i = 0; i < kMaxHandedOver; ++i)
    full.append(kit::Dictionary{{"kind", "url"}, {"text", "app://x"}});
  machine_.edit(runtime::kHandedOverKey, kit::Value(std::move(full)));
  EXPECT_EQ(phone_->setReferralUrlForFacebook("app://x?ck=1"), Recorded::kRefusedTooMany);
  EXPECT_EQ(phone_->thirdPartyConversion(), Recorded::kRefusedTooMany);
}

TEST_F(HandedOverTest, OnTheLaunchBeforeTheAttributionIsHandledAsOfThatLaunchHoweverLate) {
  // A deep link conversion is not sent on the launch that started without a referral record.
  const std::string url = "app://x?isFacebookCpi=1&mrvk_deeplink_cvr=1&ck=5&sn=1";
  machine_.store.set(runtime::kHandedOverKey,
                     kit::Array{kit::Dictionary{{"kind", "url"}, {"text", url}, {"first_launch", true}}});
  machine_.store.synchronize();
  kill();
  start();
  machine_.loop.runUntilIdle();
  EXPECT_EQ(machine_.transport.requests(services::kReEngagementConversionPath).size(), 0U);
  phone_->passOpenURL(url);
  machine_.loop.runUntilIdle();
  EXPECT_EQ(machine_.transport.requests(services::kReEngagementConversionPath).size(), 1U);
}

}  // namespace
}  // namespace morvik::host
