#include "runtime/ledger/ledger_book.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "services/endpoints.h"
#include "testing/recording_log.h"
#include "tests/runtime/ledger/book_rig.h"

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

class LedgerBookTest : public ::testing::Test, protected BookRig {
 protected:
  ~LedgerBookTest() override { EXPECT_TRUE(book->read().balances()); }
};

TEST_F(LedgerBookTest, WritesNothingButTheListForAnActivity) {
  record("a");
  record("b");
  EXPECT_TRUE(store.get(kLedgerKey).isAbsent());
  EXPECT_THAT(store.together, Each(ElementsAre(kActivities)));
  EXPECT_EQ(of("activities").recorded, 2U);
  startAgain();
  EXPECT_EQ(of("activities").recorded, 2U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, SaysWhatTheExchangeCarriesWhoseHandlerRuns) {
  EXPECT_EQ(book->exchangeDidEnd({}).activities, 0U) << "none runs";
  const uint64_t batch = send("https://tracking.morvik.example/v1/tracking",
                              Dictionary{{"activity_info", Array{Dictionary{{"event_id", "a"}}}}});
  const uint64_t click = sendClick(5);
  EXPECT_EQ(book->activitiesOfBatch(batch), 1U);
  EXPECT_EQ(book->activitiesOfBatch(click), std::nullopt);
  book->handlerBegins(batch);
  EXPECT_EQ(book->exchangeDidEnd({}).activities, 1U);
  book->handlerEnded(batch);
  EXPECT_EQ(book->activitiesOfBatch(batch), std::nullopt) << "it has ended";
  book->handlerBegins(click);
  EXPECT_EQ(book->exchangeDidEnd({.succeeded = true, .json = yes()}).click, clickOf(5));
  book->handlerEnded(click);
}

TEST_F(LedgerBookTest, SetsWhatItCountsTogetherWithTheCount) {
  record("a");
  record("b");
  const uint64_t batch = sendBatch({"a", "b"});
  store.together.clear();
  end(batch, yes(), [this] { trim({"a", "b"}); });
  EXPECT_THAT(store.together, Contains(ElementsAre(kActivities, "host.ledger")));
  EXPECT_EQ(of("activities").delivered, 2U);
  EXPECT_EQ(of("activities").stored, 0U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, HasNoBusinessWithOtherValuesAndRequests) {
  set("fendoUserInfo_fendoUserNo", 1001);
  EXPECT_EQ(store.get("fendoUserInfo_fendoUserNo"), Value(1001));
  EXPECT_THAT(store.together, IsEmpty());
  EXPECT_EQ(sendSealed("https://tracking.morvik.example/v2/schedule", "x"), 0U);
  EXPECT_EQ(sendSealed("https://elsewhere.example/v1/tracking", "x"), 0U);
  EXPECT_NE(sendSealed("https://tracking.morvik.example/v1/tracking", "x"), 0U);
}

TEST_F(LedgerBookTest, CountsNothingOfABatchThatFailsOrIsRefused) {
  record("a");
  end(sendBatch({"a"}), std::nullopt);
  end(sendBatch({"a"}), Value(Dictionary{{"Result", false}}));
  EXPECT_EQ(of("activities").delivered, 0U);
  EXPECT_EQ(of("activities").stored, 1U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, TakesAnAnswerOnTheThreadOfItsHandlerAlone) {
  record("a");
  const uint64_t batch = sendBatch({"a"});
  book->handlerBegins(batch);
  std::thread([this] { book->exchangeDidEnd({.succeeded = true, .json = yes()}); }).join();
  book->handlerEnded(batch);
  EXPECT_EQ(of("activities").delivered, 0U);
}

TEST_F(LedgerBookTest, DeliversNoImpressionWhosePlaceAnotherAnswerTook) {
  append(kImpressions, 1);
  const uint64_t first = sendBatch({});
  append(kImpressions, 2);
  const uint64_t second = sendBatch({});
  append(kImpressions, 3);
  end(first, yes(), [this] { trim({}); });
  EXPECT_EQ(of("impressions").delivered, 1U);
  EXPECT_EQ(of("impressions").under_way, 1U) << "the second batch has it";
  EXPECT_THAT(givenUp("impressions"),
              ElementsAre(Pair("added while a batch was under way that was then accepted", 1U)));
  end(second, std::nullopt);
  EXPECT_EQ(givenUp("impressions")["deleted by the answer to another batch, and their own was not accepted"], 1U);
  EXPECT_EQ(of("impressions").under_way, 0U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, DeliversAnImpressionWhosePlaceWasTakenOnceItsOwnBatchIsAccepted) {
  append(kImpressions, 1);
  const uint64_t first = sendBatch({});
  append(kImpressions, 2);
  const uint64_t second = sendBatch({});
  end(first, yes(), [this] { trim({}); });
  end(second, yes(), [this] { trim({}); });
  EXPECT_EQ(of("impressions").delivered, 2U);
  EXPECT_THAT(givenUp("impressions"), IsEmpty());
}

TEST_F(LedgerBookTest, BalancesWhenMorePayloadsWaitThanItRemembers) {
  set(kClicks, Array{clickOf(0)});
  std::vector<std::string> sealed;
  for (size_t key = 0; key <= kMaxUnsentPayloads; ++key)
    sealed.push_back(seal(Dictionary{{"deeplink_info", clickOf(static_cast<int64_t>(key))}}));
  std::vector<uint64_t> requests;
  for (const std::string& each : sealed)
    requests.push_back(sendSealed("https://conversion.morvik.example/v1/reengagement-conversion", each));
  EXPECT_EQ(of("re-engagement clicks").under_way, kMaxUnsentPayloads) << "what the oldest carries is forgotten";
  for (const uint64_t request : requests)
    end(request, yes());
  EXPECT_EQ(of("re-engagement clicks").delivered, kMaxUnsentPayloads);
  EXPECT_EQ(of("re-engagement clicks").stored, 1U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, GivesUpWhatWasUnderWayWhenTheNextProcessStarts) {
  sendClick(5);
  EXPECT_EQ(of("re-engagement clicks").under_way, 1U);
  startAgain();
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("in a request alone when the process ended", 1U)));
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, DeliversAClickThatIsSentAgainFromTheBackground) {
  end(sendClick(5), std::nullopt, [this] { append(kClicks, clickOf(5)); });
  EXPECT_EQ(of("re-engagement clicks").stored, 1U);
  uint64_t again = 0;
  inBackground([&] { again = sendClick(5); });
  EXPECT_EQ(of("re-engagement clicks").recorded, 1U) << "it was sent before";
  end(again, yes(), [this] { set(kClicks, Array()); });
  EXPECT_EQ(of("re-engagement clicks").delivered, 1U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, GivesUpAClickThatASessionEndLetsGoOf) {
  const uint64_t click = sendClick(5);
  inBackground([this] { set("MorvikCoreUserInfo_endSessoinDate", kit::Date{7}); });
  end(click, std::nullopt);
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("failed after the session had ended", 1U)));
}

TEST_F(LedgerBookTest, GivesUpAClickThatIsBuiltWhileASessionEnds) {
  uint64_t click = 0;
  inBackground([&] {
    set("MorvikCoreUserInfo_endSessoinDate", kit::Date{7});
    std::thread main_queue([&] { click = sendClick(5); });
    main_queue.join();
  });
  end(click, std::nullopt);
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("failed after the session had ended", 1U)));
}

TEST_F(LedgerBookTest, GivesUpAClickWhoseSessionEndsBeforeItIsSealed) {
  book->payloadIsBeingBuilt();
  std::thread background_queue(
      [this] { inBackground([this] { set("MorvikCoreUserInfo_endSessoinDate", kit::Date{7}); }); });
  background_queue.join();
  const kit::Value payload = kit::Dictionary{{"deeplink_info", clickOf(5)}};
  book->payloadWasSealed(payload, kit::Dictionary{{"k", "app"}, {"j", "sealed"}});
  end(sendSealed("https://conversion.morvik.example/v1/reengagement-conversion", "sealed"), std::nullopt);
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("failed after the session had ended", 1U)));
}

TEST_F(LedgerBookTest, KnowsThatOneWithTheSameKeyWasKeptThatIsGivenUpBeforeTheHandlerEnds) {
  set(kClicks, Array{clickOf(5)});
  end(sendClick(5), std::nullopt, [this] {
    std::thread background_queue([this] { inBackground([this] { set(kClicks, Array()); }); });
    background_queue.join();
  });
  EXPECT_THAT(givenUp("re-engagement clicks"),
              UnorderedElementsAre(Pair("failed while one with the same key was kept", 1U),
                                   Pair("not accepted until the sixth session end", 1U)));
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, SeesWhatADyingProcessWrotePastIt) {
  store.set("MorvikCoreUserInfo_Crash", Array{1, 2});
  EXPECT_EQ(of("crash reports").recorded, 2U);
  store.set("MorvikCoreUserInfo_Crash", Array{1});
  EXPECT_THAT(givenUp("crash reports"), ElementsAre(Pair("no longer in the store when it was opened", 1U)));
  EXPECT_FALSE(book->read().isSound());
}

TEST_F(LedgerBookTest, TakesReportsBackThatTheStoreCouldNotKeep) {
  append("MorvikCoreUserInfo_Crash", 1);
  const Value before = store.get("MorvikCoreUserInfo_Crash");
  append("MorvikCoreUserInfo_Crash", 2);
  EXPECT_EQ(of("crash reports").recorded, 2U);
  set("MorvikCoreUserInfo_Crash", before);
  EXPECT_EQ(of("crash reports").recorded, 1U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, TakesReportsWhoseStacksGotNamesForTheSame) {
  const auto report = [](const char* reason, const char* trace) {
    return Dictionary{{"exception_reason", reason}, {"exception_log_trace", trace}};
  };
  append("MorvikCoreUserInfo_Crash", report("fendo one", "0  app  + 0x1 [aa]"));
  append("MorvikCoreUserInfo_Crash", report("fendo two", "0  app  + 0x2 [aa]"));
  set("MorvikCoreUserInfo_Crash", Array{report("fendo one", "0  app  one()"), report("fendo two", "0  app  two()")});
  EXPECT_EQ(of("crash reports").recorded, 2U);
  EXPECT_THAT(givenUp("crash reports"), ElementsAre());
  EXPECT_TRUE(book->read().isSound());
  set("MorvikCoreUserInfo_Crash", Array{report("fendo one", "0  app  one()"), report("fendo three", "")});
  EXPECT_FALSE(givenUp("crash reports").empty()) << "another report is another one";
}

TEST_F(LedgerBookTest, TellsReportsThatWereDeliveredFromReportsTakenBack) {
  append("MorvikCoreUserInfo_Crash", 1);
  const uint64_t upload = sendSealed("https://crash.morvik.example/v1/crash", "x");
  end(upload, Value(Dictionary{{"code", 0}}), [this] { set("MorvikCoreUserInfo_Crash", Array()); });
  EXPECT_EQ(of("crash reports").recorded, 1U);
  EXPECT_EQ(of("crash reports").delivered, 1U);
}

TEST_F(LedgerBookTest, CountsWhatARequestCarriesAlthoughTheListLostSomeOfItMeanwhile) {
  append(kCommerceClicks, 1);
  append(kCommerceClicks, 2);
  const uint64_t request = sendSealed("https://commerce.morvik.example/v1/commerce-conversion", "x");
  book->set(kCommerceClicks, Array{2}, LedgerWriter::kHand);
  append(kCommerceClicks, 3);
  end(request, Value(Dictionary{{"errMsg", Value::null()}}), [this] { set(kCommerceClicks, Array()); });
  EXPECT_EQ(of("commerce clicks").delivered + of("commerce clicks").givenUp(), of("commerce clicks").recorded);
  EXPECT_EQ(givenUp("commerce clicks")["added while a request was under way that was then accepted"], 1U);
}

TEST_F(LedgerBookTest, LetsGoOfTheNewestClickAtASessionEndAloneAndUntilANewerOneComes) {
  set(kClicks, Array{clickOf(5)});
  const uint64_t first = sendClick(5);
  set("MorvikCoreUserInfo_endSessoinDate", kit::Date{7});
  end(first, std::nullopt);
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("failed while one with the same key was kept", 1U)));
  inBackground([this] { set("MorvikCoreUserInfo_endSessoinDate", kit::Date{8}); });
  end(sendClick(5), std::nullopt);
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("failed while one with the same key was kept", 2U)));
}

TEST_F(LedgerBookTest, DeliversNoDemographicsWithARequestThatHasNoBody) {
  set("fendoUserDemoInfo_age", 30);
  kit::Request request;
  request.url = "https://tracking.morvik.example/v1/demographics";
  end(book->requestStarts(request), yes(), [this] { set("fendoUserDemoInfo_age", -1); });
  EXPECT_THAT(givenUp("demographics"),
              ElementsAre(Pair("accepted in a payload that could not say whose they are", 1U)));
}

/// Checks in each written book that as many values were set as are counted.
class CheckingStore final : public NotingStore {
 public:
  using NotingStore::NotingStore;
  StoreOpening opening() const override { return is_unavailable ? StoreOpening::kUnavailable : NotingStore::opening(); }
  kit::Value get(std::string_view key) const override {
    if (key == kLedgerKey && while_the_book_is_held)
      std::exchange(while_the_book_is_held, {})();
    return NotingStore::get(key);
  }
  void setTogether(std::span<StoreWrite> writes) override {
    for (const StoreWrite& write : writes) {
      const kit::Value& account = write.value["demographics"];
      if (write.key == kLedgerKey && account["recorded"].integer() != account["sets"]["pending"].integer())
        ++books_without_their_notes;
      books += write.key == kLedgerKey ? 1 : 0;
    }
    NotingStore::setTogether(writes);
    together.clear();
  }
  bool is_unavailable = false;
  mutable std::function<void()> while_the_book_is_held;
  int books = 0;
  int books_without_their_notes = 0;
};

class NotesOfSetters : public ::testing::Test {
 protected:
  void start(bool is_unavailable) {
    store_.is_unavailable = is_unavailable;
    book_.emplace(LedgerParts{
        .store = store_, .list_lock = list_lock_, .endpoints = {}, .logger = services::Logger(levels_, log_)});
  }
  void setAge(int age) { book_->set("fendoUserDemoInfo_age", age, LedgerWriter::kKit); }

  const test::ScratchFolder folder_;
  ::morvik::testing::RecordingLog log_;
  kit::LogLevels levels_;
  kit::ListLock list_lock_;
  CheckingStore store_{folder_.path(), log_};
  std::optional<LedgerBook> book_;
};

TEST_F(NotesOfSetters, AreCountedInTheBookThatIsWrittenWithAList) {
  start(true);
  store_.while_the_book_is_held = [this] { std::thread([this] { setAge(27); }).join(); };
  book_->set("commerceConversionInfos", kit::Array{1}, LedgerWriter::kKit);
  EXPECT_GE(store_.books, 1);
  EXPECT_EQ(store_.books_without_their_notes, 0);
  EXPECT_EQ(book_->read().of("demographics").recorded, 1U);
}

TEST_F(NotesOfSetters, AreCountedInEachBookThatIsWrittenMeanwhile) {
  constexpr int kRequests = 4'000;
  start(false);
  std::atomic<bool> over{false};
  std::thread setter([this, &over] {
    for (int age = 1; !over; ++age)
      setAge(age);
  });
  kit::Request request;
  request.url = std::string("https://conversion.morvik.example/") + services::kReEngagementConversionPath;
  for (int i = 0; i < kRequests; ++i) {
    book_->payloadIsBeingBuilt();
    const std::string sealed = std::to_string(100'000 + i) + std::string(100, 'x');
    book_->payloadWasSealed(
        kit::Dictionary{{"deeplink_info", kit::Dictionary{{"conversion_key", i}, {"session_no", "1"}}}},
        kit::Dictionary{{"k", "app"}, {"j", sealed}});
    request.body = "k=app&j=" + sealed;
    const uint64_t exchange = book_->requestStarts(request);
    book_->handlerBegins(exchange);
    book_->handlerEnded(exchange);
  }
  over = true;
  setter.join();
  EXPECT_GE(store_.books, kRequests);
  EXPECT_EQ(store_.books_without_their_notes, 0);
}

TEST_F(LedgerBookTest, KnowsAReplacedValueWhoseRequestIsStillUnderWay) {
  set("fendoUserDemoInfo_age", 30);
  const uint64_t request = sendSealed("https://tracking.morvik.example/v1/demographics", "x");
  set("fendoUserDemoInfo_age", 31);
  EXPECT_EQ(of("demographics").under_way, 1U);
  end(request, yes(), [this] { set("fendoUserDemoInfo_age", -1); });
  EXPECT_EQ(of("demographics").delivered, 1U) << "the one that was sent";
  EXPECT_THAT(givenUp("demographics"),
              ElementsAre(Pair("set while an upload was under way that was then accepted", 1U)));
}

TEST(LedgerBookWithoutIdentifier, DeliversNoDemographics) {
  BookRig rig(false);
  rig.set("fendoUserDemoInfo_age", 30);
  const uint64_t request = rig.sendSealed("https://tracking.morvik.example/v1/demographics", "x");
  rig.end(request, BookRig::yes(), [&rig] { rig.set("fendoUserDemoInfo_age", -1); });
  EXPECT_THAT(rig.givenUp("demographics"),
              ElementsAre(Pair("accepted in a payload that could not say whose they are", 1U)));
  EXPECT_TRUE(rig.book->read().isSound());
}

// ------------------------------------------------------------------------------------------------ what must not happen

TEST(BrokenBook, OfAnActivityThatNeverReachesTheListDoesNotBalance) {
  BookRig rig;
  rig.record("a");
  rig.book->activityWasStored();
  EXPECT_FALSE(rig.book->read().balances()) << "it is announced and appended in one step";
  rig.record("c");
  EXPECT_EQ(rig.of("activities").recorded, 3U);
  EXPECT_EQ(rig.of("activities").stored, 2U);
  EXPECT_FALSE(rig.book->read().balances());
}

/// An accepted batch deletes an activity that no batch carried.
void deleteTooMuch(BookRig& rig) {
  rig.record("a");
  rig.record("never sent");
  const uint64_t batch = rig.sendBatch({"a"});
  rig.end(batch, BookRig::yes(), [&rig] { rig.trim({"a", "never sent"}); });
}

TEST(BrokenBook, NamesWhatNoRuleExplains) {
  BookRig rig;
  deleteTooMuch(rig);
  EXPECT_EQ(rig.of("activities").delivered, 1U);
  EXPECT_THAT(rig.givenUp("activities"), ElementsAre(Pair("unexplained", 1U)));
  EXPECT_TRUE(rig.book->read().balances());
  EXPECT_FALSE(rig.book->read().isSound());
}

#ifndef NDEBUG
TEST(BrokenBookDeathTest, OfABatchThatNoLongerBalancesEndsADevelopersProcess) {
  BookRig rig;
  deleteTooMuch(rig);
  EXPECT_DEATH(rig.book->tellBroken(),
               "an invariant is broken: records went that no rule gives up \\(activities\\); this is a bug in the kit");
}

TEST(BrokenBookDeathTest, OfAClickThatNobodyKeepsEndsADevelopersProcess) {
  BookRig rig;
  rig.end(rig.sendClick(5), std::nullopt);
  EXPECT_DEATH(rig.book->tellBroken(), "no rule gives up \\(re-engagement clicks\\)");
}
#endif

TEST(SoundBook, HasNothingToTell) {
  BookRig rig;
  rig.record("a");
  rig.end(rig.sendBatch({"a"}), BookRig::yes(), [&rig] { rig.trim({"a"}); });
  rig.book->tellBroken();
  EXPECT_TRUE(rig.book->read().isSound());
}

}  // namespace
}  // namespace morvik::runtime
