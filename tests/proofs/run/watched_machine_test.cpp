#include "proofs/run/watched_machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace morvik::proofs {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

class Watcher final : public MachineWatcher {
 public:
  void requestStarts(uint64_t exchange, const kit::Request&) override { note("starts ", exchange); }
  void handlerBegins(uint64_t exchange, const kit::TransportOutcome& outcome) override {
    note(outcome.error ? "fails " : "answers ", exchange);
  }
  void handlerEnded(uint64_t exchange) override { note("ended ", exchange); }
  void valueSet(std::string_view key, const kit::Value&) override { keys.emplace_back(key); }
  void blockPostponed(double delay_seconds) override { delays.push_back(delay_seconds); }

  std::vector<std::string> exchanges;
  std::vector<std::string> keys;
  std::vector<double> delays;

 private:
  void note(const char* what, uint64_t exchange) { exchanges.push_back(what + std::to_string(exchange)); }
};

/// A machine whose service does not know what it is asked for.
class WatchedMachineTest : public ::testing::Test {
 protected:
  void report(MachineSabotage* sabotage) {
    WatchedMachine machine({}, watcher_, sabotage);
    machine.transport.setDefaultAnswer(::morvik::testing::Answer::body(404, ""));
    const auto phone = machine.start(simulation::simulatedApp());
    phone->addActivity("shop", "look", std::nullopt);
    phone->thirdPartyConversion();
    machine.loop.advance(1);
    phone->applicationDidBecomeActive();
    machine.loop.runUntilIdle();
    activities_ = phone->properties().fendoActivityInfos().size();
    machine.loop.advance(1);
  }

  Watcher watcher_;
  size_t activities_ = 0;
};

TEST_F(WatchedMachineTest, TellsOfRequestsValuesAndWhatIsPutOff) {
  report(nullptr);
  ASSERT_GE(watcher_.exchanges.size(), 3U);
  watcher_.exchanges.resize(3);
  EXPECT_THAT(watcher_.exchanges, ElementsAre("starts 1", "answers 1", "ended 1"));
  EXPECT_THAT(watcher_.keys, Contains("fendoActivityInfos"));
  EXPECT_THAT(watcher_.delays, Contains(10.0)) << "the conversion is tried again";
  EXPECT_GT(activities_, 1U);
}

TEST_F(WatchedMachineTest, LetsAMeddlerSpoilWhatPasses) {
  class SelectedSabotage final : public MachineSabotage {
   public:
    size_t copiesOf(const kit::Request&) override { return 2; }
    bool spoilsAnswerTo(const kit::Request&) override { return true; }
    kit::Value stored(std::string_view key, kit::Value value) override {
      return key == "fendoActivityInfos" ? kit::Value(kit::Array()) : value;
    }
  } sabotage;
  report(&sabotage);
  EXPECT_THAT(watcher_.exchanges, Contains("starts 2"));
  EXPECT_THAT(watcher_.exchanges, Contains("fails 1"));
  EXPECT_THAT(watcher_.exchanges, Not(Contains("answers 1")));
  EXPECT_EQ(activities_, 0U);
}

}  // namespace
}  // namespace morvik::proofs
