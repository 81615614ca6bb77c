// What every transport must do, on any network. A transport's tests define a rig and instantiate these:
//
//   struct MyRig {                                               // made fresh for each test
//     kit::Transport& transport();
//     std::string url(const std::string& path);                  // where the rig's server answers
//     void answer(const std::string& path, int status, const std::string& body);  // every request there, at once
//     void hangUp(const std::string& path);                      // requests there never get an answer, only an end
//     void keepSilent(const std::string& path);                  // requests there get neither
//     size_t arrived(const std::string& path);                   // requests there that reached the server
//     void post(std::function<void()> block);                    // to the main queue, any thread
//     void atCommit(std::function<void()> action);               // runs once, at the commit of the next turn
//     bool isMainQueue();                                        // whether the caller is part of a turn
//     bool runUntil(std::function<bool()> done);                 // runs the main queue on the test's thread
//   };
//   INSTANTIATE_TYPED_TEST_SUITE_P(MyTransport, TransportContract, MyRig);
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kit/transport.h"

namespace morvik::test {

template <class Rig>
class TransportContract : public ::testing::Test {
 protected:
  kit::Request request(const std::string& path) {
    return {
        .method = "POST", .url = rig.url(path), .headers = {{"X-Test", "yes"}}, .body = "k=1", .timeout_seconds = 30};
  }
  void start(kit::Request request) {
    rig.transport().start(std::move(request), [this](kit::TransportOutcome outcome) {
      EXPECT_TRUE(rig.isMainQueue());
      outcomes.push_back(std::move(outcome));
    });
  }
  bool runUntilOutcomes(size_t count) {
    return rig.runUntil([this, count] { return outcomes.size() >= count; });
  }
  /// Starts the request in its own turn and waits for its outcome.
  kit::TransportOutcome exchange(const kit::Request& request) {
    const size_t before = outcomes.size();
    rig.post([this, request] { start(request); });
    if (!runUntilOutcomes(before + 1)) {
      ADD_FAILURE() << "no outcome";
      return {};
    }
    return outcomes.back();
  }

  Rig rig;
  std::vector<kit::TransportOutcome> outcomes;
};

TYPED_TEST_SUITE_P(TransportContract);

TYPED_TEST_P(TransportContract, GivesTheAnswerToTheHandlerInALaterTurn) {
  this->rig.answer("/a", 200, "the answer");
  bool turn_is_over = false;
  this->rig.post([&] {
    this->rig.transport().start(this->request("/a"), [&](kit::TransportOutcome outcome) {
      EXPECT_TRUE(turn_is_over);
      EXPECT_TRUE(this->rig.isMainQueue());
      this->outcomes.push_back(std::move(outcome));
    });
    EXPECT_TRUE(this->outcomes.empty());
  });
  this->rig.atCommit([&turn_is_over] { turn_is_over = true; });
  ASSERT_TRUE(this->runUntilOutcomes(1));
  const kit::TransportOutcome& outcome = this->outcomes.front();
  ASSERT_TRUE(outcome.response);
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.response->status_code, 200);
  EXPECT_EQ(outcome.response->url, this->rig.url("/a"));
  EXPECT_EQ(outcome.response->body, "the answer");
}

TYPED_TEST_P(TransportContract, CallsEachHandlerOnce) {
  this->rig.answer("/a", 200, "a");
  this->rig.post([this] {
    for (int i = 0; i < 3; ++i)
      this->start(this->request("/a"));
  });
  ASSERT_TRUE(this->runUntilOutcomes(3));
  this->exchange(this->request("/a"));
  EXPECT_EQ(this->outcomes.size(), 4u);
  EXPECT_EQ(this->rig.arrived("/a"), 4u);
}

TYPED_TEST_P(TransportContract, AnyStatusIsAnAnswer) {
  for (const int status : {201, 302, 404, 500, 503}) {
    this->rig.answer("/status", status, "why");
    const auto outcome = this->exchange(this->request("/status"));
    ASSERT_TRUE(outcome.response) << status;
    EXPECT_FALSE(outcome.error) << status;
    EXPECT_EQ(outcome.response->status_code, status);
    EXPECT_EQ(outcome.response->body, "why");
  }
}

TYPED_TEST_P(TransportContract, BringsEveryByteOfTheBody) {
  std::string every_byte;
  for (int byte = 0; byte < 256; ++byte)
    every_byte += static_cast<char>(byte);
  this->rig.answer("/bytes", 200, every_byte);
  this->rig.answer("/empty", 200, "");
  EXPECT_EQ(this->exchange(this->request("/bytes")).response.value().body, every_byte);
  EXPECT_EQ(this->exchange(this->request("/empty")).response.value().body, "");
}

TYPED_TEST_P(TransportContract, NoAnswerIsAnErrorAndNoResponse) {
  this->rig.hangUp("/gone");
  const auto outcome = this->exchange(this->request("/gone"));
  EXPECT_FALSE(outcome.response);
  ASSERT_TRUE(outcome.error);
  EXPECT_FALSE(outcome.error->message.empty());
}

TYPED_TEST_P(TransportContract, GivesUpWhenTheTimeIsOver) {
  this->rig.keepSilent("/silence");
  auto request = this->request("/silence");
  request.timeout_seconds = 0.05;
  const auto outcome = this->exchange(request);
  EXPECT_FALSE(outcome.response);
  ASSERT_TRUE(outcome.error);
  EXPECT_NE(outcome.error->message.find(this->rig.url("/silence")), std::string::npos) << outcome.error->message;
}

TYPED_TEST_P(TransportContract, TakesABodyAsLargeAsAskedForAndNoLarger) {
  this->rig.answer("/large", 207, std::string(1000, 'x'));
  auto request = this->request("/large");
  request.max_answer_bytes = 1000;
  EXPECT_EQ(this->exchange(request).response.value().body.size(), 1000u);
  request.max_answer_bytes = 999;
  const auto outcome = this->exchange(request);
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->status_code, 207);
  EXPECT_EQ(outcome.response->body, "");
  EXPECT_TRUE(outcome.error);
}

TYPED_TEST_P(TransportContract, BoundsABodyToFourMebibytesByItself) {
  constexpr size_t bound = size_t{4} << 20;
  this->rig.answer("/fits", 200, std::string(bound, 'x'));
  this->rig.answer("/large", 200, std::string(bound + 1, 'x'));
  EXPECT_EQ(this->exchange(this->request("/fits")).response.value().body.size(), bound);
  const auto outcome = this->exchange(this->request("/large"));
  EXPECT_TRUE(outcome.error);
  EXPECT_EQ(outcome.response.value().body, "");
}

TYPED_TEST_P(TransportContract, ARequestLeavesAfterTheCommitOfItsTurn) {
  this->rig.answer("/a", 200, "");
  bool is_committed = false;
  this->rig.post([&] {
    this->start(this->request("/a"));
    EXPECT_EQ(this->rig.arrived("/a"), 0u);
  });
  this->rig.atCommit([&] {
    EXPECT_EQ(this->rig.arrived("/a"), 0u);
    is_committed = true;
  });
  ASSERT_TRUE(this->runUntilOutcomes(1));
  EXPECT_TRUE(is_committed);
  EXPECT_EQ(this->rig.arrived("/a"), 1u);
}

TYPED_TEST_P(TransportContract, ARequestOfNoTurnLeavesAsWell) {
  this->rig.answer("/a", 200, "");
  std::thread([this] { this->start(this->request("/a")); }).join();
  ASSERT_TRUE(this->runUntilOutcomes(1));
  EXPECT_TRUE(this->outcomes.front().response);
}

TYPED_TEST_P(TransportContract, AHandlerMayStartTheNextRequest) {
  this->rig.answer("/first", 200, "1");
  this->rig.answer("/second", 200, "2");
  this->rig.post([this] {
    this->rig.transport().start(this->request("/first"), [this](kit::TransportOutcome outcome) {
      this->outcomes.push_back(std::move(outcome));
      this->start(this->request("/second"));
    });
  });
  ASSERT_TRUE(this->runUntilOutcomes(2));
  EXPECT_EQ(this->outcomes[0].response.value().body, "1");
  EXPECT_EQ(this->outcomes[1].response.value().body, "2");
}

TYPED_TEST_P(TransportContract, TakesRequestsOfSeveralThreads) {
  this->rig.answer("/a", 200, "a");
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this] {
      for (int i = 0; i < 10; ++i)
        this->start(this->request("/a"));
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  ASSERT_TRUE(this->runUntilOutcomes(40));
  for (const kit::TransportOutcome& outcome : this->outcomes)
    EXPECT_EQ(outcome.response.value().body, "a");
  EXPECT_EQ(this->rig.arrived("/a"), 40u);
}

REGISTER_TYPED_TEST_SUITE_P(TransportContract, GivesTheAnswerToTheHandlerInALaterTurn, CallsEachHandlerOnce,
                            AnyStatusIsAnAnswer, BringsEveryByteOfTheBody, NoAnswerIsAnErrorAndNoResponse,
                            GivesUpWhenTheTimeIsOver, TakesABodyAsLargeAsAskedForAndNoLarger,
                            BoundsABodyToFourMebibytesByItself, ARequestLeavesAfterTheCommitOfItsTurn,
                            ARequestOfNoTurnLeavesAsWell, AHandlerMayStartTheNextRequest,
                            TakesRequestsOfSeveralThreads);

}  // namespace morvik::test
