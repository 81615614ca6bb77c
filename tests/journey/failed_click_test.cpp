// A click whose request failed: through real session starts and ends in virtual time, and through the death of the
// process between any two writes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "tests/MorvikCoreLib/clicks.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::acceptanceOf;
using testing::Answer;
using testing::arrayOf;
using testing::clickOf;
using testing::countOf;
using ::testing::ElementsAre;
using testing::Fault;
using ::testing::IsEmpty;
using testing::keysOf;
using testing::kReEngagement;
using testing::linkOf;
using testing::MemoryStore;
using testing::sentClicks;
using testing::TestWorld;
using testing::WorldOptions;

constexpr double kSessionSeconds = 100;
constexpr double kPauseSeconds = 3600;

Value clicks(TestWorld& world) {
  return world.userDefaults().reEngagementInfos();
}
Value counts(TestWorld& world) {
  return world.userDefaults().reEngagementConversionFailedCnt();
}

/// The app becomes active, stays a while, and leaves; an hour passes.
void liveASession(TestWorld& world) {
  world.becomeActive();
  world.loop.advance(kSessionSeconds);
  world.enterBackground();
  world.loop.advance(kPauseSeconds);
}

class FailedClickLife : public ::testing::Test {
 protected:
  FailedClickLife() {
    world.serviceAccepts();
    reEngagementsFail();
  }

  void reEngagementsFail() { world.transport.on(kReEngagement).clear().always(Answer::error("down")); }
  void reEngagementsSucceed() {
    world.transport.on(kReEngagement).clear().alwaysBy([this](const kit::Request& request) {
      return Answer::json(acceptanceOf(world.payload(request)["deeplink_info"]["conversion_key"].integer()));
    });
  }
  /// The first session: the user follows the link, and the request fails.
  void clickInASession(int64_t key) {
    world.becomeActive();
    testing::open(world, linkOf(key));
    world.loop.advance(kSessionSeconds);
  }
  void leave() {
    world.enterBackground();
    world.loop.advance(kPauseSeconds);
  }

  TestWorld world{WorldOptions::attributed()};
};

TEST_F(FailedClickLife, IsSentAgainAtFiveSessionEndsAndDroppedAtTheSixthWithoutASend) {
  clickInASession(12);
  EXPECT_EQ(clicks(world), arrayOf({clickOf(12)}));
  EXPECT_EQ(counts(world), arrayOf({countOf(12, 1)}));
  leave();
  for (int64_t count = 2;; ++count) {
    EXPECT_EQ(clicks(world), arrayOf({clickOf(12)}));
    EXPECT_EQ(counts(world), arrayOf({countOf(12, count)}));
    EXPECT_EQ(sentClicks(world).size(), static_cast<size_t>(count)) << "the click itself, and one at each end";
    if (count == 6)
      break;
    liveASession(world);
  }
  liveASession(world);
  EXPECT_EQ(clicks(world), Value(Array{}));
  EXPECT_EQ(counts(world), Value(Array{}));
  EXPECT_EQ(sentClicks(world).size(), 6U);
  liveASession(world);
  EXPECT_EQ(sentClicks(world).size(), 6U);
  for (const Value& payload : world.payloads(kReEngagement))
    EXPECT_EQ(payload["deeplink_info"], clickOf(12));
}

TEST_F(FailedClickLife, IsTheSameOverRestartsOfTheProcess) {
  clickInASession(12);
  leave();
  for (int session = 0; session < 4; ++session) {
    world.restart();
    liveASession(world);
  }
  EXPECT_EQ(counts(world), arrayOf({countOf(12, 6)}));
  EXPECT_EQ(sentClicks(world).size(), 6U);
  world.restart();
  liveASession(world);
  EXPECT_EQ(clicks(world), Value(Array{}));
  EXPECT_EQ(sentClicks(world).size(), 6U);
}

TEST_F(FailedClickLife, EndsWithASuccessHalfWay) {
  clickInASession(12);
  leave();
  liveASession(world);
  EXPECT_EQ(counts(world), arrayOf({countOf(12, 3)}));
  reEngagementsSucceed();
  liveASession(world);
  EXPECT_EQ(clicks(world), Value(Array{}));
  EXPECT_EQ(counts(world), Value(Array{}));
  EXPECT_EQ(world.userDefaults().fendoUserInfo_reengagement_conversion_key(), 12);
  EXPECT_EQ(world.userDefaults().fendoConversionInfoForCaches(), Value(Array{12}));
  liveASession(world);
  EXPECT_EQ(sentClicks(world).size(), 4U);
}

TEST_F(FailedClickLife, RestsWhileTheUserIsForgottenAndGoesOnWhereItStood) {
  clickInASession(12);
  leave();
  world.services().setIsGDPRForgetMe(true);
  for (int session = 0; session < 9; ++session)
    liveASession(world);
  EXPECT_EQ(clicks(world), arrayOf({clickOf(12)}));
  EXPECT_EQ(counts(world), arrayOf({countOf(12, 2)}));
  EXPECT_EQ(sentClicks(world).size(), 2U);
  world.services().setIsGDPRForgetMe(false);
  liveASession(world);
  EXPECT_EQ(counts(world), arrayOf({countOf(12, 3)}));
  EXPECT_EQ(sentClicks(world).size(), 3U);
}

TEST_F(FailedClickLife, DoesNotBeginForARequestThatIsUnderWayWhenTheSessionEnds) {
  world.transport.on(kReEngagement).clear().always(Answer::error("down").after(5));
  world.becomeActive();
  testing::open(world, linkOf(12));
  leave();
  EXPECT_TRUE(clicks(world).isAbsent());
  EXPECT_EQ(world.log.countContaining("MRVK_QA-reEngagementConversion_The error was: down"), 1U);
}

TEST_F(FailedClickLife, IsNotProlongedByFollowingTheLinkAgain) {
  clickInASession(12);
  leave();
  clickInASession(12);
  EXPECT_EQ(counts(world), arrayOf({countOf(12, 2)}));
  leave();
  EXPECT_EQ(counts(world), arrayOf({countOf(12, 3)}));
  EXPECT_THAT(keysOf(clicks(world)), ElementsAre(12));
}

TEST_F(FailedClickLife, OfManyClicksIsThatOfEach) {
  for (int64_t key = 1; key <= 6; ++key) {
    clickInASession(key);
    leave();
  }
  EXPECT_THAT(keysOf(clicks(world)), ElementsAre(2, 3, 4, 5, 6)) << "the time of the first is over";
  EXPECT_EQ(counts(world), arrayOf({countOf(2, 6), countOf(3, 5), countOf(4, 4), countOf(5, 3), countOf(6, 2)}));
}

TEST_F(FailedClickLife, OfTwoCountsOfOneKeyGoesOnAsOne) {
  world.userDefaults().setReEngagementInfos(arrayOf({clickOf(1)}));
  world.userDefaults().setReEngagementConversionFailedCnt(arrayOf({countOf(1, 1), countOf(1, 2)}));
  liveASession(world);
  EXPECT_EQ(counts(world), arrayOf({countOf(1, 3)}));
}

// --------------------------------------------------------------------------------------- the process dies at a write

/// What is going on when the process dies.
struct Phase {
  const char* what;
  void (*run)(TestWorld& world);
};

const std::vector<Phase> kPhases = {
    {"AsAFailureIsRecorded",
     [](TestWorld& world) {
       world.transport.on(kReEngagement).then(Answer::error("down"));
       testing::open(world, linkOf(5));
     }},
    {"AsTheSessionsEndIsCounted",
     [](TestWorld& world) {
       world.transport.on(kReEngagement).always(Answer::silence());
       world.loop.perform([&] { world.core().makeFailureReEngagementConversionParameter(); });
     }},
    {"AsASuccessIsTakenIn",
     [](TestWorld& world) {
       world.transport.on(kReEngagement).then(Answer::json(acceptanceOf(2)));
       world.loop.perform([&] { world.core().reEngagementConversion(Dictionary{{"j", "x"}}); });
     }},
};

/// Four failed clicks in every state, a count without a click and a click without a count.
WorldOptions devicesPast() {
  WorldOptions options = WorldOptions::attributed();
  options.store["reEngagementInfos"] = arrayOf({clickOf(1), clickOf(2), clickOf(3), clickOf(4), clickOf(8)});
  options.store["reEngagementConversionFailedCnt"] =
      arrayOf({countOf(1, 1), countOf(2, 4), countOf(3, 6), countOf(4, 6), countOf(9, 2)});
  return options;
}

class Death : public ::testing::TestWithParam<Phase> {
 protected:
  static void expectListsByTheRules(TestWorld& world) {
    std::set<int64_t> seen;
    for (const Value& click : clicks(world).array()) {
      EXPECT_EQ(click.size(), 5U);
      EXPECT_TRUE(seen.insert(click["conversion_key"].integer()).second) << "two records of one click";
    }
    for (const Value& count : counts(world).array()) {
      EXPECT_EQ(count.size(), 2U);
      EXPECT_GE(count["failure_cnt"].integer(), 1);
      EXPECT_LE(count["failure_cnt"].integer(), 6);
    }
  }
  /// The next process continues: nothing is recorded twice, and once the service answers, every click is finished.
  static void expectThatLifeGoesOn(TestWorld& world) {
    expectListsByTheRules(world);
    world.transport.on(kReEngagement).clear().always(Answer::error("down"));
    world.becomeActive();
    for (const int64_t key : {1, 2, 3, 4, 5})
      testing::open(world, linkOf(key));
    expectListsByTheRules(world);
    for (const int64_t key : {1, 2, 3, 4, 5, 8})
      EXPECT_EQ(std::ranges::count(keysOf(clicks(world)), key), 1) << key;
    world.enterBackground();
    world.loop.advance(kPauseSeconds);
    liveASession(world);
    expectListsByTheRules(world);
    world.transport.on(kReEngagement).clear().alwaysBy([&world](const kit::Request& request) {
      return Answer::json(acceptanceOf(world.payload(request)["deeplink_info"]["conversion_key"].integer()));
    });
    for (int session = 0; session < 6; ++session)
      liveASession(world);
    EXPECT_EQ(clicks(world), Value(Array{}));
    EXPECT_EQ(counts(world), Value(Array{}));
    EXPECT_EQ(world.log.countContaining("Exception from"), 0U);
  }
  /// The next process meets a service that accepts no click. Each is finished nevertheless, except the one that never
  /// had a count; a new click gets its own session ends, whatever the death left behind.
  static void expectThatLifeEnds(TestWorld& world) {
    expectListsByTheRules(world);
    world.transport.on(kReEngagement).clear().always(Answer::error("down"));
    std::vector<int64_t> fresh;
    for (const int64_t key : {3, 4, 5}) {
      if (std::ranges::count(keysOf(clicks(world)), key) == 0)
        fresh.push_back(key);
    }
    world.becomeActive();
    for (const int64_t key : fresh)
      testing::open(world, linkOf(key));
    world.enterBackground();
    world.loop.advance(kPauseSeconds);
    liveASession(world);
    for (const int64_t key : fresh)
      EXPECT_EQ(std::ranges::count(keysOf(clicks(world)), key), 1) << key << " was given up too early";
    for (int session = 0; session < 6; ++session)
      liveASession(world);
    EXPECT_THAT(keysOf(clicks(world)), ElementsAre(8));
    EXPECT_EQ(counts(world), Value(Array{}));
  }
  /// Runs the phase with the store failing at this call; false if there is no such call.
  static bool runAndDieAt(const char* operation, size_t nth, void (*expect_afterwards)(TestWorld& world)) {
    TestWorld world(devicesPast());
    world.loop.setExceptionSink([](const std::exception_ptr&) {});
    testing::Faults& faults = world.faulty.key_value_store.faults;
    faults.throwAt(operation, nth, Fault::number(9));
    GetParam().run(world);
    const bool was_reached = !faults.thrown().empty();
    faults.clear();
    world.restart();  // kills first; what the turn had written by then is kept
    world.log.clear();
    expect_afterwards(world);
    return was_reached;
  }
};

TEST_P(Death, AtAnyCallOfTheStoreLeavesListsThatGoOn) {
  for (const char* operation : {"set", "synchronize"}) {
    for (const auto expect_afterwards : {expectThatLifeGoesOn, expectThatLifeEnds}) {
      size_t deaths = 0;
      while (runAndDieAt(operation, deaths + 1, expect_afterwards))
        ++deaths;
      EXPECT_GE(deaths, 1U) << operation << " was never called";
    }
  }
}

TEST_P(Death, BetweenAnyTwoWritesLeavesListsThatGoOn) {
  std::vector<MemoryStore::JournalEntry> journal;
  {
    TestWorld world(devicesPast());
    world.store.clearJournal();
    GetParam().run(world);
    journal = world.store.journal();
  }
  MemoryStore::Contents left = devicesPast().store;
  size_t deaths = 0;
  for (const auto& entry : journal) {
    if (entry.operation != MemoryStore::Operation::kSet)
      continue;
    left.insert_or_assign(entry.key, entry.value);
    ++deaths;
    WorldOptions options;
    options.store = left;
    for (const auto expect_afterwards : {expectThatLifeGoesOn, expectThatLifeEnds}) {
      TestWorld world(options);
      world.serviceAccepts();
      expect_afterwards(world);
    }
  }
  EXPECT_GE(deaths, 2U);
}

INSTANTIATE_TEST_SUITE_P(FailedClicks, Death, ::testing::ValuesIn(kPhases),
                         [](const auto& row) { return row.param.what; });

}  // namespace
}  // namespace morvik
