// What the ledger is told of each record: that it comes, leaves in a request, is answered and goes, and why.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/MorvikCoreLib/clicks.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::acceptanceOf;
using testing::activities;
using testing::activity;
using testing::Answer;
using testing::arrayOf;
using testing::at;
using testing::clickOf;
using testing::countOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::kCommerce;
using testing::kReEngagement;
using testing::linkOf;
using testing::TestWorld;
using testing::WorldOptions;

constexpr const char* kTracking = "v1/tracking";
constexpr const char* kCrash = "v1/crash";
constexpr const char* kDemographics = "v1/demographics";
const Value kYes = Dictionary{{"Result", true}};
const Value kNo = Dictionary{{"Result", false}};

class ToldLedger : public ::testing::Test {
 protected:
  ToldLedger() { world.transport.setDefaultAnswer(Answer::silence()); }

  void perform(const std::function<void()>& block) { world.loop.perform(block); }
  void push() {
    perform([this] { world.core().pushTracking(); });
  }
  void open(const std::string& url) { testing::open(world, url); }
  /// What was told, but for when a request departed.
  std::vector<std::string> told() {
    std::vector<std::string> lines = world.ledger.take();
    std::erase_if(lines, [](const std::string& line) { return line.ends_with(" departed"); });
    return lines;
  }

  TestWorld world{WorldOptions::attributed()};
};

TEST_F(ToldLedger, HearsOfABatchAndOfWhatItsAcceptanceRemoves) {
  world.userDefaults().setFendoActivityInfos(activities(2));
  world.userDefaults().setFendoImpressionInfos(Array{Dictionary{{"spaceKey", "x"}, {"createdAt", at(0)}}});
  world.transport.on(kTracking).then(Answer::json(kYes));
  push();
  EXPECT_THAT(told(), ElementsAre("1 carries 2 activities and 1 impressions", "1 answered: accepted",
                                  "removed 2 activities: answered", "removed 1 impressions: addedDuringUpload",
                                  "1 ended: 200"));
}

TEST_F(ToldLedger, HearsOfABatchThatIsRefusedOrFailsAndThatNothingGoes) {
  world.userDefaults().setFendoActivityInfos(activities(2));
  world.transport.on(kTracking).then(Answer::json(kNo));
  push();
  EXPECT_THAT(told(), ElementsAre("1 carries 2 activities", "1 answered: notAccepted", "1 ended: 200"));
  world.transport.on(kTracking).then(Answer::error("no route"));
  push();
  EXPECT_THAT(told(), ElementsAre("2 carries 2 activities", "2 answered: notAccepted", "2 ended: 0, no route"));
}

TEST_F(ToldLedger, HearsThatTheAnswerToAnotherBatchTookAnActivitysPlace) {
  world.userDefaults().setFendoActivityInfos(activities(1));
  world.transport.on(kTracking).then(Answer::json(kYes).after(10));
  push();
  world.userDefaults().setFendoActivityInfos(activities(2));
  world.core().set_isTrackingCalled(false);
  world.transport.on(kTracking).then(Answer::json(kNo));
  push();
  told();
  world.loop.advance(11);
  EXPECT_THAT(told(), ElementsAre("1 answered: accepted", "removed 2 activities: placeTaken", "1 ended: 200"));
}

TEST_F(ToldLedger, HearsOfTheEndOfAKeptSession) {
  world.userDefaults().setFendoActivityInfos(
      Array{activity("session", "end", at(0), "the end"), activity("shop", "look", at(1), "a look")});
  world.transport.on(kTracking).then(Answer::json(kYes));
  perform([this] { world.core().tracking(world.core().makeTrackingParameter(EndActivities::kFilter)); });
  EXPECT_THAT(told(), ElementsAre("1 carries 1 activities", "1 answered: accepted", "removed 1 activities: answered",
                                  "removed 1 activities: keptSession", "1 ended: 200"));
}

TEST_F(ToldLedger, HearsOfTheEndOfAKeptSessionWithWhichNothingIsSent) {
  world.userDefaults().setFendoActivityInfos(Array{activity("session", "end", at(0), "the end")});
  perform([this] { world.core().tracking(world.core().makeTrackingParameter(EndActivities::kFilter)); });
  EXPECT_THAT(told(), ElementsAre("removed 1 activities: keptSession"));
}

TEST_F(ToldLedger, HearsWhyAClickWasLostOrKept) {
  world.transport.on(kReEngagement).always(Answer::error("down").after(1));
  open(linkOf(5));
  world.loop.advance(2);
  EXPECT_THAT(told(), ElementsAre("1 carries 1 reEngagementClicks, the only copy", "1 answered: notAccepted",
                                  "recorded 1 reEngagementClicks", "1 ended: 0, down"))
      << "it is kept";
  open(linkOf(6));
  open(linkOf(7));
  told();
  world.loop.advance(2);
  EXPECT_THAT(told(),
              ElementsAre("2 answered: notAccepted", "2 lost: newerClick", "recorded 1 reEngagementClicks",
                          "2 ended: 0, down", "3 answered: notAccepted", "3 lost: sameKey", "3 ended: 0, down"));
  open(linkOf(8));
  world.core().setReEngagement_task(nullptr);
  told();
  world.loop.advance(2);
  EXPECT_THAT(told(), ElementsAre("4 answered: notAccepted", "4 lost: sessionEnded", "4 ended: 0, down"));
}

TEST_F(ToldLedger, HearsThatAClickWasAnsweredAndNotAccepted) {
  world.transport.on(kReEngagement).then(Answer::json(kNo));
  open(linkOf(9));
  EXPECT_THAT(told(), ElementsAre("1 carries 1 reEngagementClicks, the only copy", "1 answered: notAccepted",
                                  "1 lost: notAccepted", "1 ended: 200"));
}

TEST_F(ToldLedger, HearsOfClicksThatAreSentAgainStruckOffAndGivenUp) {
  world.userDefaults().setReEngagementInfos(arrayOf({clickOf(5), clickOf(6)}));
  world.userDefaults().setReEngagementConversionFailedCnt(arrayOf({countOf(5, 1), countOf(6, 6)}));
  world.transport.on(kReEngagement).then(Answer::json(acceptanceOf(5)));
  perform([this] { world.core().makeFailureReEngagementConversionParameter(); });
  EXPECT_THAT(told(),
              ElementsAre("removed 1 reEngagementClicks: sixthSessionEnd", "1 carries 1 reEngagementClicks",
                          "1 answered: accepted", "removed 1 reEngagementClicks: otherKeyAccepted", "1 ended: 200"));
}

TEST_F(ToldLedger, HearsOfACommerceClickFromItsRecordingToItsAcceptance) {
  world.transport.on(kCommerce).then(Answer::json(Dictionary{{"errMsg", Value::null()}}));
  open("app://x?cid=shoe");
  EXPECT_THAT(told(), ElementsAre("recorded 1 commerceClicks", "1 carries 1 commerceClicks", "1 answered: accepted",
                                  "removed 1 commerceClicks: addedDuringUpload", "1 ended: 200"));
  world.transport.on(kCommerce).then(Answer::json(Dictionary{}));
  world.transport.on(kCommerce).then(Answer::json(Dictionary{{"errMsg", "no"}}));
  open("app://x?cid=hat");
  open("app://x?cid=hat");
  EXPECT_THAT(told(), ::testing::IsSupersetOf({"2 answered: acceptedEmpty", "3 answered: notAccepted"}));
}

TEST_F(ToldLedger, HearsOfCrashReports) {
  world.userDefaults().setMorvikCoreUserInfo_Crash(arrayOf({Dictionary{{"a", 1}}, Dictionary{{"a", 2}}}));
  world.transport.on(kCrash).then(Answer::json(Dictionary{{"code", 0}}));
  perform([this] { world.core().sendCrashInfos(); });
  EXPECT_THAT(told(), ElementsAre("1 carries 2 crashReports", "1 answered: accepted",
                                  "removed 2 crashReports: addedDuringUpload", "1 ended: 200"));
}

TEST_F(ToldLedger, HearsOfDemographicValues) {
  perform([this] {
    world.core().setAge(30);
    world.core().setUserId("me");
    world.core().setUserId(std::nullopt);
  });
  EXPECT_THAT(told(), ElementsAre("recorded age", "recorded userId", "removed userId: takenBack"));
  world.transport.on(kDemographics).then(Answer::json(kYes));
  perform([this] { world.core().sendUserDemoInfos(world.core().makeDemoInfoParameter()); });
  EXPECT_THAT(told(),
              ElementsAre("1 carries 1 demographics", "1 answered: accepted", "removed age: addedDuringUpload",
                          "removed gender: addedDuringUpload", "removed userId: addedDuringUpload", "1 ended: 200"));
}

TEST_F(ToldLedger, HearsThatDemographicsNamedNobody) {
  perform([this] { world.core().setAge(30); });
  told();
  world.transport.on(kDemographics).then(Answer::json(kYes));
  perform([this] { world.core().sendUserDemoInfos(Value()); });
  EXPECT_THAT(told(), ::testing::Contains("1 answered: acceptedNameless"));
}

}  // namespace
}  // namespace morvik
