#include "runtime/ledger/ledger_book.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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

TEST_F(LedgerBookTest, SaysWhatARequestCarriesThatHasNotEnded) {
  EXPECT_EQ(book->loadOf(0).activities, 0U);
  const kit::LedgerTicket batch = sendBatch({"a"});
  const kit::LedgerTicket click = sendClick(5);
  EXPECT_EQ(book->loadOf(batch).activities, 1U);
  EXPECT_EQ(book->loadOf(batch).first_event_id, Value("a"));
  EXPECT_EQ(book->loadOf(click).activities, 0U);
  EXPECT_EQ(book->loadOf(click).click, clickOf(5));
  end(batch, kYes);
  EXPECT_EQ(book->loadOf(batch).activities, 0U) << "it has ended";
  end(click, kYes);
}

TEST_F(LedgerBookTest, SetsWhatItCountsTogetherWithTheCount) {
  record("a");
  record("b");
  const kit::LedgerTicket batch = sendBatch({"a", "b"});
  store.together.clear();
  end(batch, kYes, [this] { trim({"a", "b"}); });
  EXPECT_THAT(store.together, Contains(ElementsAre(kActivities, "host.ledger")));
  EXPECT_EQ(of("activities").delivered, 2U);
  EXPECT_EQ(of("activities").stored, 0U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, HasNoBusinessWithOtherValues) {
  set("fendoUserInfo_fendoUserNo", 1001);
  EXPECT_EQ(store.get("fendoUserInfo_fendoUserNo"), Value(1001));
  EXPECT_THAT(store.together, IsEmpty());
}

TEST_F(LedgerBookTest, CountsNothingOfABatchThatFailsOrIsRefused) {
  record("a");
  end(sendBatch({"a"}), std::nullopt);
  end(sendBatch({"a"}), kit::LedgerAnswer::kNotAccepted);
  EXPECT_EQ(of("activities").delivered, 0U);
  EXPECT_EQ(of("activities").stored, 1U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, TakesTheFirstAnswerToARequestAlone) {
  record("a");
  const kit::LedgerTicket batch = sendBatch({"a"});
  book->answered(batch, kit::LedgerAnswer::kNotAccepted);
  end(batch, kYes);
  book->answered(batch, kYes);
  book->ended(batch, {});
  trim({"a"}, LedgerReason::kPlaceTaken);
  EXPECT_EQ(of("activities").delivered, 0U);
}

TEST_F(LedgerBookTest, DeliversNoImpressionWhosePlaceAnotherAnswerTook) {
  append(kImpressions, 1);
  const kit::LedgerTicket first = sendBatch({});
  append(kImpressions, 2);
  const kit::LedgerTicket second = sendBatch({});
  append(kImpressions, 3);
  end(first, kYes, [this] { trim({}); });
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
  const kit::LedgerTicket first = sendBatch({});
  append(kImpressions, 2);
  const kit::LedgerTicket second = sendBatch({});
  end(first, kYes, [this] { trim({}); });
  end(second, kYes, [this] { trim({}); });
  EXPECT_EQ(of("impressions").delivered, 2U);
  EXPECT_THAT(givenUp("impressions"), IsEmpty());
}

TEST_F(LedgerBookTest, GivesUpWhatWasUnderWayWhenTheNextProcessStarts) {
  sendClick(5);
  EXPECT_EQ(of("re-engagement clicks").under_way, 1U);
  startAgain();
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("in a request alone when the process ended", 1U)));
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, TakesWhatItDoesNotFollowAtItsWord) {
  std::vector<kit::LedgerTicket> clicks;
  for (size_t key = 0; key < kMaxLedgerTickets; ++key)
    clicks.push_back(sendClick(static_cast<int64_t>(key)));
  record("a");
  const kit::LedgerTicket batch = sendBatch({"a"});
  EXPECT_EQ(batch, 0U);
  EXPECT_EQ(sendClick(-1), 0U);
  end(batch, kYes, [this] { trim({"a"}); });
  EXPECT_EQ(of("activities").delivered, 1U);
  EXPECT_EQ(of("re-engagement clicks").recorded, kMaxLedgerTickets) << "one is not counted";
  end(clicks.front(), kYes);
  EXPECT_NE(sendClick(-1), 0U) << "there is room again";
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, AbandonsARequestWithoutAnAnswerWhenTheKitStops) {
  record("a");
  const kit::LedgerTicket batch = sendBatch({"a"});
  const kit::LedgerTicket click = sendClick(5);
  book->writeAtTheEnd();
  EXPECT_EQ(book->loadOf(batch).activities, 0U) << "it has ended";
  end(batch, kYes);
  end(click, kYes);
  EXPECT_EQ(of("activities").stored, 1U);
  EXPECT_EQ(of("re-engagement clicks").under_way, 1U);
  startAgain();
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("in a request alone when the process ended", 1U)));
  EXPECT_EQ(of("activities").stored, 1U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, DeliversAClickThatIsSentAgain) {
  end(sendClick(5), std::nullopt, [this] { append(kClicks, clickOf(5)); });
  EXPECT_EQ(of("re-engagement clicks").stored, 1U);
  const kit::LedgerTicket again = sendAll(kClicks);
  EXPECT_EQ(of("re-engagement clicks").recorded, 1U) << "it was sent before";
  end(again, kYes, [this] { removeAll(kClicks, LedgerReason::kOtherKeyAccepted); });
  EXPECT_EQ(of("re-engagement clicks").delivered, 1U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, GivesUpAClickThatNobodyKeepsForTheReasonThatWasTold) {
  const kit::LedgerTicket click = sendClick(5);
  end(click, std::nullopt, [&] { book->lost(click, LedgerReason::kSessionEnded); });
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("failed after the session had ended", 1U)));
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, GivesUpNoClickThatIsKeptOrAcceptedAfterAll) {
  const kit::LedgerTicket kept = sendClick(5);
  end(kept, std::nullopt, [&] {
    book->lost(kept, LedgerReason::kNewerClick);
    append(kClicks, clickOf(5));
  });
  const kit::LedgerTicket accepted = sendClick(6);
  book->lost(accepted, LedgerReason::kNewerClick);
  end(accepted, kYes);
  EXPECT_EQ(of("re-engagement clicks").stored, 1U);
  EXPECT_EQ(of("re-engagement clicks").delivered, 1U);
  EXPECT_THAT(givenUp("re-engagement clicks"), IsEmpty());
}

TEST_F(LedgerBookTest, GivesUpAClickThatWasNotSentSinceTheUserAskedToBeForgotten) {
  const kit::LedgerTicket click = sendClick(5);
  book->lost(click, LedgerReason::kNewerClick);
  book->ended(click, {.was_sent = false});
  EXPECT_THAT(givenUp("re-engagement clicks"),
              ElementsAre(Pair("not sent yet when the user asked to be forgotten", 1U)));
}

TEST_F(LedgerBookTest, KnowsThatOneWithTheSameKeyWasKeptThatIsGivenUpBeforeTheHandlerEnds) {
  append(kClicks, clickOf(5));
  const kit::LedgerTicket click = sendClick(5);
  end(click, std::nullopt, [&] {
    book->lost(click, LedgerReason::kSameKey);
    std::thread background_queue([this] { removeAll(kClicks, LedgerReason::kSixthSessionEnd); });
    background_queue.join();
  });
  EXPECT_THAT(givenUp("re-engagement clicks"),
              UnorderedElementsAre(Pair("failed while one with the same key was kept", 1U),
                                   Pair("not accepted until the sixth session end", 1U)));
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, LeavesWhatIsWrittenByHandToTheHand) {
  record("a");
  append(kImpressions, 1);
  const kit::LedgerTicket batch = sendBatch({"a"});
  book->set(kActivities, Array(), LedgerWriter::kHand);
  book->set(kImpressions, Array{2}, LedgerWriter::kHand);
  EXPECT_EQ(of("activities").under_way, 1U) << "the batch has it";
  end(batch, std::nullopt);
  EXPECT_THAT(givenUp("activities"), ElementsAre(Pair("written over by hand", 1U)));
  EXPECT_THAT(givenUp("impressions"), ElementsAre(Pair("written over by hand", 1U)));
  EXPECT_EQ(of("impressions").recorded, 2U);
  book->tellBroken();
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, SeesWhatADyingProcessWrotePastIt) {
  store.set(kCrashes, Array{1, 2});
  EXPECT_EQ(of("crash reports").recorded, 2U);
  store.set(kCrashes, Array{1});
  EXPECT_THAT(givenUp("crash reports"), ElementsAre(Pair("no longer in the store when it was opened", 1U)));
  EXPECT_FALSE(book->read().isSound());
}

TEST_F(LedgerBookTest, TakesReportsBackThatTheStoreCouldNotKeep) {
  append(kCrashes, 1);
  append(kCrashes, 2);
  EXPECT_EQ(of("crash reports").recorded, 2U);
  removeIf(kCrashes, LedgerReason::kNotKept, [](const Value& report) { return report == Value(2); });
  EXPECT_EQ(of("crash reports").recorded, 1U);
  EXPECT_TRUE(book->read().isSound());
}

TEST_F(LedgerBookTest, TakesReportsWhoseStacksGotNamesForTheSame) {
  const auto report = [](const char* reason, const char* trace) {
    return Dictionary{{"exception_reason", reason}, {"exception_log_trace", trace}};
  };
  append(kCrashes, report("fendo one", "0  app  + 0x1 [aa]"));
  append(kCrashes, report("fendo two", "0  app  + 0x2 [aa]"));
  {
    const LedgerBook::Rewriting naming(*book, LedgerKind::kCrashReports);
    set(kCrashes, Array{report("fendo one", "0  app  one()"), report("fendo two", "0  app  two()")});
  }
  EXPECT_EQ(of("crash reports").recorded, 2U);
  EXPECT_THAT(givenUp("crash reports"), ElementsAre());
  EXPECT_TRUE(book->read().isSound());
  set(kCrashes, Array{report("fendo one", "0  app  one()"), report("fendo three", "")});
  EXPECT_FALSE(givenUp("crash reports").empty()) << "another report is another one";
}

TEST_F(LedgerBookTest, TellsReportsThatWereDeliveredFromReportsTakenBack) {
  append(kCrashes, 1);
  end(sendAll(kCrashes), kYes, [this] { removeAll(kCrashes, LedgerReason::kAddedDuringUpload); });
  EXPECT_EQ(of("crash reports").recorded, 1U);
  EXPECT_EQ(of("crash reports").delivered, 1U);
}

TEST_F(LedgerBookTest, CountsWhatARequestCarriesAlthoughTheListLostSomeOfItMeanwhile) {
  append(kCommerceClicks, 1);
  append(kCommerceClicks, 2);
  const kit::LedgerTicket request = sendAll(kCommerceClicks);
  book->set(kCommerceClicks, Array{2}, LedgerWriter::kHand);
  append(kCommerceClicks, 3);
  end(request, kYes, [this] { removeAll(kCommerceClicks, LedgerReason::kAddedDuringUpload); });
  EXPECT_EQ(of("commerce clicks").delivered + of("commerce clicks").givenUp(), of("commerce clicks").recorded);
  EXPECT_EQ(givenUp("commerce clicks")["added while a request was under way that was then accepted"], 1U);
}

TEST_F(LedgerBookTest, DeliversNoDemographicsWithARequestThatHasNoBody) {
  set("fendoUserDemoInfo_age", 30);
  end(sendAge(30), kit::LedgerAnswer::kAcceptedNameless, [this] { deleteValue("fendoUserDemoInfo_age"); });
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
        .store = store_, .list_lock = list_lock_, .logger = services::Logger(levels_, log_), .clock = clock_});
  }
  void setAge(int age) {
    book_->recorded(kit::DemographicValue::kAge);
    book_->set("fendoUserDemoInfo_age", age, LedgerWriter::kKit);
  }

  const test::ScratchFolder folder_;
  ::morvik::testing::RecordingLog log_;
  kit::LogLevels levels_;
  kit::ListLock list_lock_;
  host::SystemClock clock_;
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
  for (int i = 0; i < kRequests; ++i) {
    const kit::LedgerTicket ticket =
        book_->carries({.kind = LedgerKind::kReEngagementClicks,
                        .records = {kit::Dictionary{{"conversion_key", i}, {"session_no", "1"}}},
                        .is_only_copy = true});
    book_->ended(ticket, {});
  }
  over = true;
  setter.join();
  EXPECT_GE(store_.books, kRequests);
  EXPECT_EQ(store_.books_without_their_notes, 0);
}

TEST_F(LedgerBookTest, KnowsAReplacedValueWhoseRequestIsStillUnderWay) {
  set("fendoUserDemoInfo_age", 30);
  const kit::LedgerTicket request = sendAge(30);
  set("fendoUserDemoInfo_age", 31);
  EXPECT_EQ(of("demographics").under_way, 1U);
  end(request, kYes, [this] { deleteValue("fendoUserDemoInfo_age"); });
  EXPECT_EQ(of("demographics").delivered, 1U) << "the one that was sent";
  EXPECT_THAT(givenUp("demographics"),
              ElementsAre(Pair("set while an upload was under way that was then accepted", 1U)));
}

// ------------------------------------------------------------------------------------------------ what must not happen

TEST(BrokenBook, OfAnActivityThatNeverReachesTheListDoesNotBalance) {
  BookRig rig;
  rig.record("a");
  {
    const std::scoped_lock door(rig.list_lock.door);
    rig.book->recorded(LedgerKind::kActivities, 1);
  }
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
  const kit::LedgerTicket batch = rig.sendBatch({"a"});
  rig.end(batch, BookRig::kYes, [&rig] { rig.trim({"a", "never sent"}); });
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

TEST(BrokenBook, NamesWhatNobodyTold) {
  BookRig rig;
  rig.append(BookRig::kCommerceClicks, 1);
  rig.set(BookRig::kCommerceClicks, Array());
  EXPECT_THAT(rig.givenUp("commerce clicks"), ElementsAre(Pair("unexplained", 1U)));
  rig.set("fendoUserDemoInfo_age", 30);
  rig.book->set("fendoUserDemoInfo_age", -1, LedgerWriter::kKit);
  EXPECT_THAT(rig.givenUp("demographics"), ElementsAre(Pair("unexplained", 1U)));
  EXPECT_FALSE(rig.book->read().isSound());
}

TEST(BrokenBook, OfARecordThatNeverReachesItsListDoesNotBalance) {
  BookRig rig;
  rig.book->recorded(LedgerKind::kCommerceClicks, 2);
  rig.set(BookRig::kCommerceClicks, Array{1});
  EXPECT_EQ(rig.of("commerce clicks").recorded, 2U);
  EXPECT_FALSE(rig.book->read().balances());
}

TEST(BrokenBook, CountsAsFoundWhatCameAndNobodyRecorded) {
  BookRig rig;
  rig.set(BookRig::kCommerceClicks, Array{1, 2});
  rig.set(BookRig::kClicks, Array{BookRig::clickOf(5)});
  rig.set(BookRig::kCrashes, Array{1});
  rig.store.append(BookRig::kActivities, kit::Dictionary{{"activityEventID", "a"}});
  rig.book->set("fendoUserDemoInfo_age", 30, LedgerWriter::kKit);
  EXPECT_EQ(rig.of("commerce clicks").found_uncounted, 2U);
  for (const char* kind : {"re-engagement clicks", "crash reports", "activities", "demographics"})
    EXPECT_EQ(rig.of(kind).found_uncounted, 1U) << kind;
  EXPECT_TRUE(rig.book->read().balances());
  EXPECT_FALSE(rig.book->read().isSound());
}

TEST(BrokenBook, CountsOfAChangeOnlyThoseAsRecordedThatWereTold) {
  BookRig rig;
  rig.book->recorded(LedgerKind::kReEngagementClicks, 1);
  rig.set(BookRig::kClicks, Array{BookRig::clickOf(5), BookRig::clickOf(6)});
  EXPECT_EQ(rig.of("re-engagement clicks").recorded, 2U);
  EXPECT_EQ(rig.of("re-engagement clicks").found_uncounted, 1U);
}

#ifndef NDEBUG
TEST(BrokenBookDeathTest, OfARecordThatNobodyRecordedEndsADevelopersProcess) {
  for (const char* key : {BookRig::kCommerceClicks, BookRig::kClicks, BookRig::kCrashes, BookRig::kActivities}) {
    BookRig rig;
    rig.set(key, Array{kit::Dictionary{{"activityEventID", "a"}}});
    EXPECT_DEATH(rig.book->tellBroken(), "an invariant is broken: records came that nobody recorded") << key;
  }
  BookRig rig;
  rig.book->set("fendoUserDemoInfo_age", 30, LedgerWriter::kKit);
  EXPECT_DEATH(rig.book->tellBroken(), "that nobody recorded \\(demographics\\)");
}
#endif

TEST(SoundBook, RecordsImpressionsThatAnotherModuleOfTheAppAdds) {
  BookRig rig;
  rig.store.append(BookRig::kImpressions, 1);
  rig.set(BookRig::kImpressions, Array{1, 2});
  EXPECT_EQ(rig.of("impressions").recorded, 2U);
  rig.book->tellBroken();
  EXPECT_TRUE(rig.book->read().isSound());
}

TEST(SoundBook, RecordsWhatAHandWrites) {
  BookRig rig;
  rig.book->set(BookRig::kCommerceClicks, Array{1, 2}, LedgerWriter::kHand);
  rig.book->set("fendoUserDemoInfo_age", 30, LedgerWriter::kHand);
  EXPECT_EQ(rig.of("commerce clicks").recorded, 2U);
  EXPECT_EQ(rig.of("demographics").recorded, 1U);
  rig.book->tellBroken();
  EXPECT_TRUE(rig.book->read().isSound());
}

TEST(SoundBook, HasNothingToTell) {
  BookRig rig;
  rig.record("a");
  rig.end(rig.sendBatch({"a"}), BookRig::kYes, [&rig] { rig.trim({"a"}); });
  rig.book->tellBroken();
  EXPECT_TRUE(rig.book->read().isSound());
}

}  // namespace
}  // namespace morvik::runtime
