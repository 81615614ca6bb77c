#include "simulation/virtual_machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "services/endpoints.h"

namespace morvik::simulation {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

StartOptions appOptions(std::vector<std::string>* lines = nullptr) {
  StartOptions options = simulatedApp();
  options.log_level = 3;
  options.log_sink = [lines](std::string_view line) {
    if (lines != nullptr)
      lines->emplace_back(line);
  };
  return options;
}

kit::Value attribution() {
  return kit::Value(
      kit::Dictionary{{"Result", true}, {"Data", kit::Value(kit::Dictionary{{"user_no", 1001}, {"referralKey", 7}})}});
}

void serviceAccepts(VirtualMachine& machine) {
  machine.transport.on("v1/conversion").always(::morvik::testing::Answer::json(attribution()));
  machine.transport.on("v1/tracking")
      .always(::morvik::testing::Answer::json(kit::Value(kit::Dictionary{{"Result", true}})));
}

size_t storedActivities(const VirtualMachine& machine) {
  const auto contents = machine.store.committed();
  const auto found = contents.find("fendoActivityInfos");
  return found == contents.end() ? 0 : found->second.array().size();
}

void liveOneSession(VirtualMachine& machine, runtime::Instance& phone) {
  phone.applicationDidBecomeActive();
  phone.addActivity("shop", "purchase", std::nullopt);
  machine.loop.advance(60);
  phone.applicationDidEnterBackground();
  machine.loop.advance(60);
}

TEST(VirtualMachine, LivesASessionWithoutAClockAThreadOrANetwork) {
  VirtualMachine machine;
  serviceAccepts(machine);
  const auto phone = machine.start(appOptions());
  liveOneSession(machine, *phone);
  EXPECT_THAT(machine.transport.requests(services::kConversionPath), SizeIs(1));
  EXPECT_THAT(machine.transport.requests(services::kTrackingPath), ::testing::Not(IsEmpty()));
  EXPECT_TRUE(phone->pending().isSettled());
}

TEST(VirtualMachine, KeepsInTheNextProcessWhatARecordedEventCommitted) {
  VirtualMachine machine;
  auto phone = machine.start(appOptions());
  phone->addActivity("shop", "purchase", std::nullopt);
  machine.loop.runUntilIdle();
  const size_t stored = storedActivities(machine);
  EXPECT_EQ(stored, 1U);
  machine.kill(std::move(phone));
  phone = machine.start(appOptions());
  EXPECT_THAT(phone->properties().fendoActivityInfos().array(), SizeIs(1));
}

TEST(VirtualMachine, LosesWhatNothingCommittedBeforeTheKill) {
  VirtualMachine machine;
  auto phone = machine.start(appOptions());
  machine.edit("age", 33);
  machine.kill(std::move(phone));
  phone = machine.start(appOptions());
  EXPECT_TRUE(phone->storedValue("age").isAbsent());
}

TEST(VirtualMachine, StandsOnADiskWithTheRealStore) {
  SimulatedDisk disk;
  VirtualMachine machine({.disk = &disk});
  auto phone = machine.start(appOptions());
  const auto recordAnd = [&](double seconds) {
    phone->addActivity("shop", "purchase", std::nullopt);
    machine.loop.runUntilIdle();
    machine.loop.advance(seconds);
  };
  recordAnd(0);
  machine.kill(std::move(phone));
  phone = machine.start(appOptions());
  EXPECT_THAT(phone->properties().fendoActivityInfos().array(), SizeIs(1)) << "a kill loses nothing that was committed";
  recordAnd(1);
  recordAnd(0);
  machine.kill(std::move(phone), DiskCut::powerLost(PowerLoss::kNothingUnsynced, 1));
  phone = machine.start(appOptions());
  EXPECT_THAT(phone->properties().fendoActivityInfos().array(), SizeIs(2)) << "a power cut loses the last second";
}

TEST(VirtualMachine, RunsNothingOfAProcessThatWasKilled) {
  VirtualMachine machine;
  auto phone = machine.start(appOptions());
  int runs = 0;
  phone->mainQueue().after(5, [&runs] { ++runs; });
  phone->mainQueue().async([&runs] { ++runs; });
  machine.kill(std::move(phone));
  phone = machine.start(appOptions());
  machine.loop.advance(60);
  EXPECT_EQ(runs, 0);
}

TEST(VirtualMachine, LetsAStoppedProcessRunWhatWaitsOnItsMainQueueAndNothingElse) {
  VirtualMachine machine;
  const auto phone = machine.start(appOptions());
  std::vector<std::string> ran;
  phone->perform([&] {
    ran.emplace_back("waited");
    phone->perform([&ran] { ran.emplace_back("came later"); });
  });
  phone->mainQueue().after(1, [&ran] { ran.emplace_back("was put off"); });
  phone->stop();
  machine.loop.advance(10);
  EXPECT_EQ(ran, std::vector<std::string>{"waited"});
}

TEST(VirtualMachine, StopsNoProcessFromWithinItsTurns) {
  VirtualMachine machine;
  const auto phone = machine.start(appOptions());
  bool goes_on = false;
  phone->perform([&] { phone->stop(); });
  phone->perform([&goes_on] { goes_on = true; });
  machine.loop.runUntilIdle();
  EXPECT_TRUE(goes_on);
}

TEST(VirtualMachine, LetsAStoppedProcessEndWhatWaitsOnItsBackgroundQueue) {
  VirtualMachine machine;
  const auto phone = machine.start(appOptions());
  phone->applicationDidBecomeActive();
  machine.loop.runUntilIdle();
  phone->applicationDidEnterBackground();
  machine.loop.step();
  ASSERT_GT(phone->pending().background_blocks, 0U);
  phone->stop();
  EXPECT_EQ(phone->pending().background_blocks, 0U);
}

TEST(VirtualMachine, SettlesInVirtualTime) {
  VirtualMachine machine;
  machine.transport.setDefaultAnswer(::morvik::testing::Answer::body(500, "").after(12));
  const auto phone = machine.start(appOptions());
  phone->applicationDidBecomeActive();
  machine.loop.runUntilIdle();
  std::vector<double> settled_after_seconds;
  const double before = machine.loop.monotonicSeconds();
  phone->mainQueue().async([&] {
    phone->settle(1000, [&](bool settled) {
      EXPECT_TRUE(settled);
      settled_after_seconds.push_back(machine.loop.monotonicSeconds() - before);
    });
  });
  machine.loop.advance(2000);
  ASSERT_THAT(settled_after_seconds, SizeIs(1));
  EXPECT_GE(settled_after_seconds[0], 12.0);
}

TEST(VirtualMachine, GivesTheSameBytesForTheSameSeed) {
  const auto bodies = [](uint64_t seed) {
    VirtualMachine machine({.seed = seed});
    serviceAccepts(machine);
    const auto phone = machine.start(appOptions());
    liveOneSession(machine, *phone);
    std::string all;
    for (const kit::Request& request : machine.transport.requests())
      all += request.url + " " + request.body + "\n";
    return all;
  };
  EXPECT_EQ(bodies(7), bodies(7));
  EXPECT_NE(bodies(7), bodies(8));
}

TEST(VirtualMachine, CatchesWhatABlockThrowsAndGoesOn) {
  VirtualMachine machine;
  std::vector<std::string> lines;
  const auto phone = machine.start(appOptions(&lines));
  bool later = false;
  phone->mainQueue().async([] { throw std::runtime_error("thrown in a turn"); });
  phone->mainQueue().async([&later] { later = true; });
  machine.loop.runUntilIdle();
  EXPECT_TRUE(later);
  EXPECT_THAT(lines, ::testing::Contains(HasSubstr("thrown in a turn")));
}

TEST(VirtualMachine, KeepsTheReportOfACrashThatNothingReallyDiesOf) {
  VirtualMachine machine;
  auto phone = machine.start(appOptions());
  phone->reportUncaughtException({.reason = "fendo failed", .call_stack_symbols = {}, .moment = std::nullopt});
  machine.kill(std::move(phone));
  phone = machine.start(appOptions());
  EXPECT_THAT(phone->properties().MorvikCoreUserInfo_Crash().array(), SizeIs(1));
}

TEST(VirtualMachine, SaysWhyAHostDoesNotStart) {
  VirtualMachine machine;
  StartOptions options = appOptions();
  options.app_key = "";
  EXPECT_THROW(static_cast<void>(machine.start(options)), std::runtime_error);
}

TEST(VirtualMachine, CommitsWhatAHandlerWroteInItsOwnTurn) {
  VirtualMachine machine;
  serviceAccepts(machine);
  auto phone = machine.start(appOptions());
  phone->applicationDidBecomeActive();
  machine.loop.runUntilIdle();
  EXPECT_EQ(machine.store.committed()["fendoUserInfo_fendoUserNo"], kit::Value(1001))
      << "saving the record of an install is not followed by a flush";
}

TEST(VirtualMachine, LosesWhatIsDoneToTheShelfAfterItsDiskWasCutOff) {
  SimulatedDisk disk;
  VirtualMachine machine({.disk = &disk});
  machine.report_shelf.append(kit::Dictionary{{"exception_reason", "fendo"}});
  disk.cutNow();
  machine.kill(machine.start(appOptions()));
  EXPECT_THAT(machine.report_shelf.reports(), SizeIs(1)) << "the start moved it into the store, which was undone";
}

}  // namespace
}  // namespace morvik::simulation
