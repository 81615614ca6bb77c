#include "runtime/sending/exchange_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/machine/turn_gate.h"
#include "tests/support/pumped_queue.h"

namespace morvik::runtime {
namespace {

using kit::WhenHeld;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Answers when the test says so.
class NetworkInHand final : public MachineNetwork {
 public:
  void begin(kit::Request request, TransportHandler done) override {
    if (std::exchange(throws_once, false))
      throw std::bad_alloc();
    if (when_begun)
      when_begun();
    left.push_back(request.url);
    may_leave.push_back(std::move(request.may_leave));
    answers.push_back(std::move(done));
    if (answers_at_once)
      answer(answers.size() - 1);
  }
  void shutdown() override {}
  void answer(size_t index, int status = 200) {
    // The queue may go on to the next one in this call.
    const TransportHandler done = answers[index];
    done({.response = kit::Response{.status_code = status, .url = "", .body = ""}, .error = std::nullopt});
  }

  bool answers_at_once = false;
  bool throws_once = false;
  std::function<void()> when_begun;
  std::vector<std::string> left;
  std::vector<std::function<bool()>> may_leave;
  std::vector<TransportHandler> answers;
};

class ExchangeQueueTest : public ::testing::Test {
 protected:
  void start(const std::string& path, WhenHeld when_held = WhenHeld::kWaits, const std::string& host = "one.example") {
    kit::Request request{.method = "POST", .url = "https://" + host + path};
    request.when_held = when_held;
    queue.start(std::move(request), [this, path](const kit::TransportOutcome& outcome) {
      if (outcome.isNotSent())
        not_sent.push_back(path);
      else
        answered.push_back(path);
    });
  }
  /// Takes all connections of a host, and one more request that waits.
  void fillHost() {
    for (size_t i = 1; i <= kMaxConnectionsPerHost; ++i)
      start("/busy" + std::to_string(i));
    network.left.clear();
  }
  void setForgotten(bool forgotten) {
    is_forgotten = forgotten;
    queue.wishDidChange();
  }

  test::PumpedQueue main_queue;
  TurnGate gate;
  std::atomic<bool> is_forgotten{false};
  std::unique_ptr<NetworkInHand> made = std::make_unique<NetworkInHand>();
  NetworkInHand& network = *made;
  ExchangeQueue queue{std::move(made), {.ca_file = "", .main_queue = main_queue, .gate = gate, .is_forgotten = [this] {
                                          return is_forgotten.load();
                                        }}};
  std::vector<std::string> answered;
  std::vector<std::string> not_sent;
};

// ----------------------------------------------------------------------------------------------------- the user's wish

TEST_F(ExchangeQueueTest, AsksForTheWishAgainWhenTheTurnThatStartedARequestIsOver) {
  {
    const TurnGate::Turn turn(gate);
    start("/conversion");
    is_forgotten = true;
  }
  EXPECT_THAT(network.left, IsEmpty());
  EXPECT_THAT(not_sent, IsEmpty()) << "in a later turn";
  main_queue.runAll();
  EXPECT_THAT(not_sent, ElementsAre("/conversion"));
  EXPECT_EQ(queue.inFlight(), 0U);
}

TEST_F(ExchangeQueueTest, LetsARequestLeaveWhoseTurnTookTheWishBack) {
  {
    const TurnGate::Turn turn(gate);
    start("/conversion");
    setForgotten(true);
    setForgotten(false);
  }
  EXPECT_THAT(network.left, ElementsAre("https://one.example/conversion"));
}

TEST_F(ExchangeQueueTest, EndsWhatWaitsForAPlaceWhenTheUserAsksToBeForgottenAndNotWhatHasLeft) {
  fillHost();
  start("/waits1");
  start("/waits2");
  setForgotten(true);
  main_queue.runAll();
  EXPECT_THAT(not_sent, ElementsAre("/waits1", "/waits2"));
  network.answer(0);
  main_queue.runAll();
  EXPECT_THAT(answered, ElementsAre("/busy1")) << "its bytes were on their way";
  EXPECT_THAT(network.left, IsEmpty());
}

TEST_F(ExchangeQueueTest, HasTheNetworkAskForTheWishOnceMoreWhenAConnectionHasComeAbout) {
  start("/conversion");
  start("/erasure", WhenHeld::kPasses);
  ASSERT_EQ(network.may_leave.size(), 2U);
  EXPECT_TRUE(network.may_leave[0]());
  setForgotten(true);
  EXPECT_FALSE(network.may_leave[0]());
  EXPECT_FALSE(network.may_leave[1]) << "the erasure leaves under the wish";
  network.answers[0]({});
  main_queue.runAll();
  EXPECT_THAT(not_sent, ElementsAre("/conversion"));
}

TEST_F(ExchangeQueueTest, AsksForTheWishAgainWhenAPlaceGetsFreeAlsoIfNobodyToldOfIt) {
  fillHost();
  start("/waits");
  is_forgotten = true;
  network.answer(0);
  main_queue.runAll();
  EXPECT_THAT(network.left, IsEmpty());
  EXPECT_THAT(not_sent, ElementsAre("/waits"));
}

TEST_F(ExchangeQueueTest, LetsTheErasureGoAheadOfAllButEarlierErasures) {
  fillHost();
  start("/waits");
  start("/erasure1", WhenHeld::kPasses);
  start("/erasure2", WhenHeld::kPasses);
  for (size_t i = 0; i < 3; ++i)
    network.answer(i);
  EXPECT_THAT(network.left,
              ElementsAre("https://one.example/erasure1", "https://one.example/erasure2", "https://one.example/waits"));
}

TEST_F(ExchangeQueueTest, LetsTheErasureLeaveUnderTheWishAndNotBeforeItsTurnIsOver) {
  is_forgotten = true;
  {
    const TurnGate::Turn turn(gate);
    start("/erasure", WhenHeld::kPasses);
    EXPECT_THAT(network.left, IsEmpty());
  }
  EXPECT_THAT(network.left, ElementsAre("https://one.example/erasure"));
}

// ---------------------------------------------------------------------------------------------------- the app's switch

TEST_F(ExchangeQueueTest, HeldEndsWhatIsMadeAgainAndKeepsTheRestInOrder) {
  fillHost();
  start("/click1");
  start("/batch", WhenHeld::kEnds);
  start("/click2");
  queue.setHeld(true);
  start("/schedule", WhenHeld::kEnds);
  main_queue.runAll();
  EXPECT_THAT(not_sent, ElementsAre("/batch", "/schedule"));
  for (size_t i = 0; i < kMaxConnectionsPerHost; ++i)
    network.answer(i);
  EXPECT_THAT(network.left, IsEmpty());
  queue.setHeld(false);
  EXPECT_THAT(network.left, ElementsAre("https://one.example/click1", "https://one.example/click2"));
}

TEST_F(ExchangeQueueTest, HeldAndForgottenEndsAllThatWaits) {
  queue.setHeld(true);
  start("/click");
  setForgotten(true);
  queue.setHeld(false);
  main_queue.runAll();
  EXPECT_THAT(network.left, IsEmpty());
  EXPECT_THAT(not_sent, ElementsAre("/click"));
}

// -------------------------------------------------------------------------------------------------------------- places

TEST_F(ExchangeQueueTest, GivesEachHostSixPlacesAndCallsAPortAHostOfItsOwn) {
  fillHost();
  start("/seventh");
  start("/other", WhenHeld::kWaits, "one.example:8443");
  EXPECT_THAT(network.left, ElementsAre("https://one.example:8443/other"));
  EXPECT_EQ(queue.inFlight(), 8U);
}

TEST_F(ExchangeQueueTest, GoesOnWithoutAPileOfCallsWhereTheNetworkAnswersAtOnce) {
  fillHost();
  constexpr size_t kMany = 100'000;
  for (size_t i = 0; i < kMany; ++i)
    start("/many");
  network.answers_at_once = true;
  network.answer(0);
  main_queue.runAll();
  EXPECT_EQ(answered.size(), kMany + 1);
}

TEST_F(ExchangeQueueTest, TakesTheFirstAnswerOfANetworkThatAnswersTwice) {
  fillHost();
  start("/waits1");
  start("/waits2");
  network.answer(0);
  network.answer(0);
  main_queue.runAll();
  EXPECT_THAT(answered, ElementsAre("/busy1"));
  EXPECT_THAT(network.left, ElementsAre("https://one.example/waits1")) << "one place was freed";
}

TEST_F(ExchangeQueueTest, TellsOfANetworkThatThrowsAndGoesOn) {
  network.throws_once = true;
  start("/first");
  start("/second");
  main_queue.runAll();
  EXPECT_THAT(answered, ElementsAre("/first")) << "with an error";
  EXPECT_THAT(network.left, ElementsAre("https://one.example/second"));
}

TEST_F(ExchangeQueueTest, ReturnsFromAWishOnlyWhenNothingThatWasLetOutBeforeIsStillOnItsWayOut) {
  std::promise<void> leaving;
  std::promise<void> go_on;
  std::atomic<bool> has_left{false};
  network.when_begun = [&] {
    leaving.set_value();
    go_on.get_future().wait();
    has_left = true;
  };
  std::thread sender([this] { start("/click"); });
  leaving.get_future().wait();
  auto wish = std::async(std::launch::async, [&] {
    setForgotten(true);
    return has_left.load();
  });
  go_on.set_value();
  EXPECT_TRUE(wish.get());
  sender.join();
}

// ------------------------------------------------------------------------------------------------------------- the end

TEST_F(ExchangeQueueTest, RunsNoHandlerAfterItsEndWhateverTheNetworkDoes) {
  fillHost();
  start("/waits");
  queue.shutdown();
  network.answer(0);
  start("/late");
  main_queue.runAll();
  EXPECT_THAT(answered, IsEmpty());
  EXPECT_THAT(not_sent, IsEmpty());
  EXPECT_THAT(network.left, IsEmpty());
  EXPECT_EQ(queue.inFlight(), 0U);
}

TEST_F(ExchangeQueueTest, EndsEachOfTheRequestsOfManyThreadsOnceWhileTheWishComesAndGoes) {
  std::atomic<bool> forgotten{false};
  ExchangeQueue shared(std::make_unique<NetworkInHand>(),
                       {.ca_file = "", .main_queue = main_queue, .gate = gate, .is_forgotten = [&forgotten] {
                          return forgotten.load();
                        }});
  std::atomic<size_t> ended{0};
  std::vector<std::thread> threads;
  constexpr size_t kThreads = 4;
  constexpr size_t kEach = 200;
  for (size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (size_t i = 0; i < kEach; ++i) {
        kit::Request request{.method = "POST", .url = "https://one.example/"};
        request.when_held = WhenHeld::kEnds;
        shared.start(std::move(request), [&ended](const kit::TransportOutcome&) { ++ended; });
        forgotten = (i + thread) % 3 == 0;
        shared.wishDidChange();
        shared.setHeld(i % 2 == 0);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  shared.setHeld(true);
  main_queue.runAll();
  EXPECT_EQ(ended + shared.inFlight(), kThreads * kEach);
  EXPECT_LE(shared.inFlight(), kMaxConnectionsPerHost) << "those that have left";
}

}  // namespace
}  // namespace morvik::runtime
