#include "apps/service/inspect/inspect_stream.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "apps/service/base/refusal.h"
#include "apps/service/inspect/inspect.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::TemporaryFolder;

constexpr std::chrono::hours kForever{1};

class InspectStreamTest : public testing::Test {
 protected:
  void arrive() {
    RequestRecord record;
    record.endpoint = "tracking";
    record.request = test::post("/v1/tracking", "k=a");
    Counts counts;
    store_.add(record, counts);
    feed_.publish();
  }
  std::shared_ptr<BodyStream> watch(std::int64_t after, std::chrono::milliseconds sign_of_life = kForever) {
    return makeEventStream(inspected_, watchers_.take(), after, sign_of_life);
  }
  std::shared_ptr<BodyStream> listing(std::int64_t after, std::chrono::milliseconds patience) {
    return makeWaitingListing(inspected_, watchers_.take(), Page{.after = after}, patience);
  }

  TemporaryFolder folder_;
  Store store_{folder_.path()};
  Behaviours behaviours_;
  Attribution attribution_;
  Ledgers ledgers_{[] { return std::int64_t{0}; }};
  Feed feed_;
  std::mutex mutex_;
  Watchers watchers_;
  AdminRules rules_;
  Inspected inspected_{store_, behaviours_, attribution_, ledgers_, feed_, mutex_, watchers_, rules_};
  std::stop_source stop_;
};

bool holds(const std::optional<std::string>& piece, const std::string& text) {
  return piece && piece->find(text) != std::string::npos;
}

std::size_t occurrences(const std::string& piece, const std::string& text) {
  std::size_t found = 0;
  for (auto at = piece.find(text); at != std::string::npos; at = piece.find(text, at + text.size()))
    ++found;
  return found;
}

TEST_F(InspectStreamTest, BeginsWithTheStateAndThenTellsEachRequest) {
  const auto stream = watch(0);
  EXPECT_EQ(
      "event: behaviours\ndata: []\n\n"
      "event: ledgers\ndata: {\"devices\":0,\"told\":0}\n\n"
      "event: totals\ndata: {\"requests\":0,\"refused\":0,\"recorded\":0,\"delivered\":0,\"duplicate\":0,\"impressions\":0}\n\n",
      *stream->next(stop_.get_token()));
  arrive();
  const auto piece = stream->next(stop_.get_token());
  EXPECT_TRUE(holds(piece, "id: 1\nevent: request\ndata: {\"id\":1,")) << piece.value_or("(end)");
  EXPECT_TRUE(holds(piece, "event: totals\n"));
  EXPECT_FALSE(holds(piece, "event: behaviours\n"));
}

// Requests arrive while a piece is read. At any moment, no total counts a request that was not sent.
TEST_F(InspectStreamTest, NoTotalIsToldBeforeItsRequests) {
  constexpr int kRequests = 300;
  const auto stream = watch(0);
  stream->next(stop_.get_token());
  const std::jthread arriving([&] {
    for (int i = 0; i < kRequests; ++i)
      arrive();
  });
  int told = 0;
  int total = 0;
  while (total < kRequests) {
    const std::string piece = *stream->next(stop_.get_token());
    told += static_cast<int>(occurrences(piece, "event: request\n"));
    const std::string before_number = "event: totals\ndata: {\"requests\":";
    if (const auto at = piece.find(before_number); at != std::string::npos)
      total = std::stoi(piece.substr(at + before_number.size()));
    ASSERT_LE(total, told) << piece;
  }
  EXPECT_EQ(kRequests, told);
}

TEST_F(InspectStreamTest, TakesUpWhereTheWatcherWas) {
  for (int i = 0; i < 3; ++i)
    arrive();
  const auto piece = watch(2)->next(stop_.get_token());
  EXPECT_TRUE(holds(piece, "id: 3\n"));
  EXPECT_FALSE(holds(piece, "id: 2\n"));
}

TEST_F(InspectStreamTest, AWatcherThatIsFarBehindIsToldToReadTheListAgain) {
  for (std::int64_t i = 0; i <= kMaxCatchUp; ++i)
    arrive();
  const auto piece = watch(0)->next(stop_.get_token());
  EXPECT_TRUE(holds(piece, "event: gap\ndata: 1001\n\n"));
  EXPECT_FALSE(holds(piece, "event: request\n"));
  EXPECT_FALSE(holds(watch(1)->next(stop_.get_token()), "event: gap"));
}

TEST_F(InspectStreamTest, AWatcherOfAnotherStoreIsToldToReadTheListAgainAndMissesNothing) {
  arrive();
  const auto stream = watch(500);
  const auto piece = stream->next(stop_.get_token());
  EXPECT_TRUE(holds(piece, "event: gap\ndata: 1\n\n")) << piece.value_or("(end)");
  arrive();
  EXPECT_TRUE(holds(stream->next(stop_.get_token()), "id: 2\nevent: request\n"));
}

TEST_F(InspectStreamTest, BehavioursAreToldWhenTheyChange) {
  const auto stream = watch(0);
  stream->next(stop_.get_token());
  behaviours_.add({.endpoint = "tracking"});
  feed_.publish();
  EXPECT_TRUE(holds(stream->next(stop_.get_token()), "event: behaviours\ndata: [{\"endpoint\":\"tracking\","));
}

TEST_F(InspectStreamTest, TellsWhenADeviceToldItsLedger) {
  const auto stream = watch(0);
  stream->next(stop_.get_token());
  ledgers_.tell(test::ledger("i").dump());
  feed_.publish();
  EXPECT_EQ("event: ledgers\ndata: {\"devices\":1,\"told\":1}\n\n", *stream->next(stop_.get_token()));
}

TEST_F(InspectStreamTest, BehavioursAreToldWithoutTheirBodies) {
  behaviours_.add(
      {.endpoint = "crash", .kind = BehaviourKind::kJson, .json = Json{{"large", std::string(100000, 'x')}}});
  behaviours_.add({.endpoint = "crash", .kind = BehaviourKind::kGarbage, .text = std::string(100000, 'x')});
  behaviours_.add({.endpoint = "crash", .kind = BehaviourKind::kDelay, .delay = std::chrono::milliseconds(7)});
  EXPECT_TRUE(holds(watch(0)->next(stop_.get_token()),
                    R"([{"endpoint":"crash","count":1,"kind":"json"},{"endpoint":"crash","count":1,"kind":"garbage"},)"
                    R"({"endpoint":"crash","count":1,"kind":"delay","milliseconds":7}])"));
}

TEST_F(InspectStreamTest, WithoutNewsItGivesASignOfLife) {
  const auto stream = watch(0, std::chrono::milliseconds(1));
  stream->next(stop_.get_token());
  EXPECT_EQ(": still here\n\n", stream->next(stop_.get_token()));
}

TEST_F(InspectStreamTest, AStopEndsIt) {
  const auto stream = watch(0);
  stream->next(stop_.get_token());
  stop_.request_stop();
  EXPECT_EQ(std::nullopt, stream->next(stop_.get_token()));
}

TEST_F(InspectStreamTest, AListingWaitsForItsFirstEntry) {
  const auto stream = listing(0, kForever);
  auto told = std::async(std::launch::async, [&] { return stream->next(stop_.get_token()); });
  arrive();
  EXPECT_TRUE(holds(told.get(), "\"next_after\":1}"));
  EXPECT_EQ(std::nullopt, stream->next(stop_.get_token()));
}

TEST_F(InspectStreamTest, AListingIsEmptyWhenItsPatienceEndsOrTheServiceStops) {
  const std::string empty = R"({"requests":[],"complete":true,"next_after":0})";
  EXPECT_EQ(empty, listing(0, std::chrono::milliseconds(1))->next(stop_.get_token()));
  stop_.request_stop();
  EXPECT_EQ(empty, listing(0, kForever)->next(stop_.get_token()));
}

TEST_F(InspectStreamTest, WatchersAreCountedAndTheirSeatsComeBack) {
  std::vector<std::shared_ptr<BodyStream>> watching;
  for (int i = 0; i < kMaxWatchers; ++i)
    watching.push_back(watch(0));
  EXPECT_EQ(503, test::refusalOf([&] { watchers_.take(); }).status());
  watching.pop_back();
  EXPECT_NO_THROW(watchers_.take());
}

}  // namespace
}  // namespace morvik_service
