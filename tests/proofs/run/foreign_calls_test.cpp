// Threads of the app record while the kit's own work goes on: at any call of the store, in the middle of a turn.

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "proofs/run/watched_machine.h"
#include "simulation/dice.h"
#include "simulation/virtual_service.h"

namespace morvik::proofs {
namespace {

using ::morvik::testing::Answer;

class NoWatcher final : public MachineWatcher {
 public:
  void requestStarts(uint64_t, const kit::Request&) override {}
  void handlerBegins(uint64_t, const kit::TransportOutcome&) override {}
  void handlerEnded(uint64_t) override {}
  void valueSet(std::string_view, const kit::Value&) override {}
  void blockPostponed(double) override {}
};

/// At some of the store's calls, drawn from the seed, another thread of the app records. It runs here while the thread
/// that called the store stands still, wherever that is; where it would have to wait for it, it does not come.
class ForeignThread final : public MachineSabotage {
 public:
  explicit ForeignThread(uint64_t seed) : dice_(seed) {}

  void setHost(runtime::Instance* instance) { instance_ = instance; }
  void storeIsCalled() override {
    if (instance_ == nullptr || is_recording_ || !instance_->mayRecordHere() || !dice_.happens(0.2))
      return;
    is_recording_ = true;
    record();
    is_recording_ = false;
  }

  uint64_t activities = 0;
  uint64_t impressions = 0;
  uint64_t demographics = 0;

 private:
  void record() {
    switch (dice_.below(6)) {
      case 0:
        EXPECT_EQ(instance_->addImpression({.campaign_key = 7}), Recorded::kKept);
        ++impressions;
        return;
      case 1:
        EXPECT_EQ(instance_->setAge(static_cast<int32_t>(dice_.below(100))), Recorded::kKept);
        ++demographics;
        return;
      case 2:
        EXPECT_EQ(instance_->setUserId("user " + std::to_string(dice_.below(100))), Recorded::kKept);
        ++demographics;
        return;
      default:
        EXPECT_EQ(instance_->addActivity("foreign", std::to_string(activities), std::nullopt), Recorded::kKept);
        ++activities;
    }
  }

  simulation::Dice dice_;
  runtime::Instance* instance_ = nullptr;
  bool is_recording_ = false;
};

/// A device whose batches are accepted, refused and lost, and whose sessions come and go; killed now and then.
class ForeignCalls : public ::testing::TestWithParam<uint64_t> {
 protected:
  static simulation::VirtualMachineOptions attributed() {
    simulation::VirtualMachineOptions options;
    options.store = {{"fendoUserInfo_fendoUserNo", 1001}, {"fendoUserInfo_referralKey", 7}};
    return options;
  }
  Answer reply(const kit::Request& request) {
    const double delay_seconds = dice_.between(0, 3);
    if (!is_healthy_ && dice_.happens(0.2))
      return Answer::error("lost").after(delay_seconds);
    if (!is_healthy_ && dice_.happens(0.2))
      return Answer::json(kit::Dictionary{{"Result", false}}).after(delay_seconds);
    return service_->serve(request).after(delay_seconds);
  }
  void start() {
    phone_ = machine_.start(simulation::simulatedApp());
    foreign_.setHost(phone_.get());
  }
  void kill() {
    foreign_.setHost(nullptr);
    machine_.kill(std::move(phone_));
    start();
    EXPECT_TRUE(phone_->ledger().isSound());
  }
  void wait(double seconds) {
    machine_.loop.runUntilIdle();
    machine_.loop.advance(seconds);
  }
  void step() {
    switch (dice_.below(5)) {
      case 0:
        phone_->applicationDidBecomeActive();
        break;
      case 1:
        phone_->applicationDidEnterBackground();
        break;
      case 2:
        phone_->pushTracking();
        break;
      case 3:
        phone_->addActivity("own", std::to_string(own_++), std::nullopt);
        break;
      default:
        if (dice_.happens(0.2))
          kill();
    }
    wait(static_cast<double>(dice_.below(90)));
    EXPECT_TRUE(phone_->ledger().isSound());
  }

  simulation::Dice dice_{GetParam()};
  ForeignThread foreign_{GetParam() + 1};
  NoWatcher watcher_;
  WatchedMachine machine_{attributed(), watcher_, &foreign_};
  simulation::VirtualService service_{[this] { return machine_.loop.now(); }};
  bool is_healthy_ = false;
  uint64_t own_ = 0;
  std::unique_ptr<runtime::Instance> phone_;
};

constexpr int kSteps = 120;

TEST_P(ForeignCalls, AtAnyCallOfTheStoreLoseAndDoubleNothing) {
  machine_.transport.setDefaultReply([this](const kit::Request& request) { return reply(request); });
  start();
  for (int i = 0; i < kSteps; ++i)
    step();
  is_healthy_ = true;
  foreign_.setHost(nullptr);
  for (int i = 0; i < 4; ++i) {
    phone_->applicationDidBecomeActive();
    wait(120);
    phone_->applicationDidEnterBackground();
    wait(120);
  }
  std::map<std::string, std::set<std::string>> arrived;
  for (const kit::Value& event : service_->events())
    arrived[std::string(event["group"].string())].emplace(event["activity"].string());
  EXPECT_GT(foreign_.activities, 50U);
  const Ledger ledger = phone_->ledger();
  EXPECT_TRUE(ledger.isSound());
  // A second batch that leaves while the first is under way, and is refused, may be deleted by the answer to the first.
  const Ledger::Account activities = ledger.of("activities");
  EXPECT_EQ(activities.under_way, 0U);
  EXPECT_EQ(service_->distinctEvents() + activities.stored + activities.givenUp(), activities.recorded);
  EXPECT_LE(foreign_.activities - arrived["foreign"].size() + own_ - arrived["own"].size(), activities.givenUp());
  EXPECT_EQ(ledger.of("impressions").recorded, foreign_.impressions);
  EXPECT_EQ(ledger.of("demographics").recorded, foreign_.demographics);
  EXPECT_EQ(ledger.of("demographics").stored, 0U);
}

INSTANTIATE_TEST_SUITE_P(OfSeeds, ForeignCalls, ::testing::Range(uint64_t{1}, uint64_t{33}));

}  // namespace
}  // namespace morvik::proofs
