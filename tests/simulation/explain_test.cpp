// What a complete instance answers about one event, over kills, erasures and stores that become readable late.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "simulation/simulated_disk.h"
#include "simulation/virtual_machine.h"
#include "testing/recording_log.h"

namespace morvik::simulation {
namespace {

using kit::Dictionary;
using State = Explanation::State;
using ::morvik::testing::Answer;
using ::testing::EndsWith;
using ::testing::StartsWith;

constexpr const char* kTracking = "v1/tracking";
constexpr const char* kTrail = "host.exchanges";

Answer accepted() {
  return Answer::json(Dictionary{{"Result", true}});
}

class Explain : public ::testing::Test {
 protected:
  Explain() {
    start();
    const auto properties = phone_->properties();
    properties.setFendoUserInfo_fendoUserNo(1001);
    properties.setFendoUserInfo_referralKey(7);
    properties.synchronize();
  }
  ~Explain() override { kill(); }

  void start() { phone_ = machine_.start(simulatedApp()); }
  void kill() {
    if (phone_)
      machine_.kill(std::move(phone_));
  }
  void restart() {
    kill();
    start();
  }
  void wait(double seconds) {
    machine_.loop.runUntilIdle();
    machine_.loop.advance(seconds);
  }
  /// Returns the id of the new event.
  std::string record() {
    phone_->addActivity("shop", "look", std::nullopt);
    machine_.loop.runUntilIdle();
    const kit::Value stored = phone_->properties().fendoActivityInfos();
    return std::string(stored.array()[stored.size() - 1]["activityEventID"].string());
  }
  void push(const Answer& answer) {
    machine_.transport.on(kTracking).then(answer);
    phone_->pushTracking();
    wait(1);
  }
  bool hasTrail() const { return phone_->storedValue(kTrail).size() > 0; }

  SimulatedDisk disk_;
  VirtualMachine machine_{{.disk = &disk_}};
  std::unique_ptr<runtime::Instance> phone_;
};

TEST_F(Explain, FollowsAnEventFromItsRecordingToItsDelivery) {
  const std::string id = record();
  EXPECT_THAT(phone_->explain(id).sentence, EndsWith("; waiting in the store"));
  push(Answer::error("no route to host"));
  EXPECT_EQ(phone_->explain(id).state, State::kPending);
  EXPECT_THAT(phone_->explain(id).sentence,
              EndsWith("(failed: no route to host); waiting in the store to be sent again"));
  push(accepted());
  const Explanation explanation = phone_->explain(id);
  EXPECT_EQ(explanation.state, State::kDelivered);
  ASSERT_EQ(explanation.exchanges.size(), 2U);
  EXPECT_TRUE(explanation.recorded);
  EXPECT_EQ(explanation.exchanges[1].endpoint, kTracking);
  EXPECT_EQ(explanation.exchanges[1].outcome, "accepted");
  EXPECT_EQ(explanation.exchanges[1].http_status, 200);
  EXPECT_LE(*explanation.recorded, *explanation.exchanges[0].left);
  EXPECT_LE(*explanation.exchanges[0].ended, *explanation.exchanges[1].left);
  restart();
  EXPECT_EQ(phone_->explain(id).sentence, explanation.sentence) << "the next process knows the same";
}

TEST_F(Explain, DoesNotKnowTheAnswerThatAKillCutOff) {
  const std::string id = record();
  machine_.transport.on(kTracking).then(accepted().after(30));
  phone_->pushTracking();
  wait(1);
  EXPECT_THAT(phone_->explain(id).sentence, EndsWith("(under way); stored until that is answered"));
  restart();
  EXPECT_THAT(phone_->explain(id).sentence, EndsWith("(answer unknown); waiting in the store to be sent again"));
  push(accepted());
  EXPECT_THAT(phone_->explain(id).sentence, EndsWith("(accepted, status 200); delivered"));
  EXPECT_EQ(phone_->explain(id).exchanges.size(), 2U);
}

TEST_F(Explain, CallsARequestAbandonedThatAStopCutOff) {
  const std::string id = record();
  machine_.transport.on(kTracking).then(accepted().after(30));
  phone_->pushTracking();
  wait(1);
  phone_->stop();
  EXPECT_EQ(phone_->explain(id).exchanges.at(0).outcome, "abandoned") << "also once it has stopped";
  restart();
  EXPECT_EQ(phone_->explain(id).exchanges.at(0).outcome, "abandoned");
}

TEST_F(Explain, TellsWhyTheEndOfAKeptSessionWasGivenUp) {
  machine_.transport.on(kTracking).always(accepted());
  phone_->applicationDidBecomeActive();
  wait(10);
  phone_->setSendingEnabled(false);
  phone_->applicationDidEnterBackground();
  wait(2);
  std::string id;
  for (const kit::Value& each : phone_->properties().fendoActivityInfos().array())
    id = each["activityName"].string() == "end" ? each["activityEventID"].string() : id;
  ASSERT_NE(id, "");
  phone_->setSendingEnabled(true);
  record();
  phone_->applicationDidBecomeActive();
  wait(5);
  EXPECT_EQ(phone_->explain(id).state, State::kGivenUp);
  EXPECT_THAT(phone_->explain(id).sentence,
              EndsWith("; given up: the \"end\" of a session that went on within a minute"));
}

TEST_F(Explain, SaysSinceWhenItKnowsOfAnEventThatItDoesNotKnow) {
  const char* never = "018f3406-9e00-7abc-8def-0123456789ab";
  EXPECT_THAT(phone_->explain(never).sentence, StartsWith("not known: delivered or given up before "));
  EXPECT_THAT(phone_->explain(never).sentence, EndsWith("Z, or never recorded here"));
  EXPECT_EQ(phone_->explain("018f").state, State::kNotAnId);
}

TEST_F(Explain, KnowsNothingOfWhatWasSentOnceTheUserAskedToBeForgotten) {
  const std::string sent = record();
  push(Answer::error("no route to host"));
  push(accepted());
  EXPECT_TRUE(hasTrail());
  phone_->gdprForgetMe(true);
  EXPECT_FALSE(hasTrail()) << "with the call";
  restart();
  EXPECT_FALSE(hasTrail());
  EXPECT_EQ(phone_->explain(sent).state, State::kUnknown);
}

TEST_F(Explain, KnowsNothingOnceTheDataWereErased) {
  const std::string sent = record();
  push(accepted());
  EXPECT_TRUE(phone_->eraseLocalData());
  restart();
  EXPECT_FALSE(hasTrail());
  EXPECT_EQ(phone_->explain(sent).state, State::kUnknown);
}

TEST_F(Explain, JoinsWhatAStoreKnowsThatBecomesReadableLate) {
  const std::string earlier = record();
  push(accepted());
  const std::string open = record();
  machine_.transport.on(kTracking).then(accepted().after(30));
  phone_->pushTracking();
  wait(1);
  kill();
  disk_.decide([](const DiskCall& call) {
    return call.kind == DiskCall::Kind::kRead && !call.path.ends_with(".wish") ? SQLITE_IOERR_READ : SQLITE_OK;
  });
  start();
  wait(3);
  const std::string later = record();
  EXPECT_EQ(phone_->explain(earlier).state, State::kUnknown);
  disk_.decide({});
  phone_->properties().synchronize();
  wait(1);
  EXPECT_EQ(phone_->explain(earlier).state, State::kDelivered);
  EXPECT_EQ(phone_->explain(open).exchanges.at(0).outcome, "answer unknown");
  EXPECT_EQ(phone_->explain(later).state, State::kPending);
  push(accepted());
  EXPECT_EQ(phone_->explain(open).state, State::kDelivered);
  EXPECT_EQ(phone_->explain(later).state, State::kDelivered);
}

TEST_F(Explain, SaysInTheLogThatADamagedTrailWasDropped) {
  record();
  push(accepted());
  machine_.edit(kTrail, kit::Array{7, "x"});
  phone_->properties().synchronize();
  kill();
  ::morvik::testing::RecordingLog log;
  StartOptions app = simulatedApp();
  app.log_level = kit::lcl_vWarning;
  app.log_sink = [&log](std::string_view line) { log.line(line); };
  phone_ = machine_.start(app);
  wait(1);
  EXPECT_EQ(log.countContaining("2 entries about the latest exchanges are damaged in the store and were dropped"), 1U);
  EXPECT_TRUE(phone_->ledger().isSound());
  const std::string id = record();
  push(accepted());
  EXPECT_EQ(phone_->explain(id).state, State::kDelivered);
}

}  // namespace
}  // namespace morvik::simulation
