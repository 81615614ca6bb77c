#include "testing/scripted_transport.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "testing/json_reader.h"
#include "testing/memory_store.h"

namespace morvik::test {
namespace {

using testing::Answer;
using testing::json;
using testing::ScriptedTransport;
using testing::VirtualLoop;
using Texts = std::vector<std::string>;

class ScriptedTransportTest : public ::testing::Test {
 protected:
  static kit::Request request(const std::string& url) { return {.method = "POST", .url = url, .body = "k=1"}; }
  /// Starts the request in its own turn; records the outcome as text.
  void start(const kit::Request& request) {
    loop.perform([this, request] {
      transport.start(request, [this](const kit::TransportOutcome& outcome) {
        EXPECT_EQ(loop.running(), VirtualLoop::Running::kMainBlock);
        outcomes.push_back(describe(outcome));
      });
    });
  }
  void start(const std::string& url) { start(request(url)); }
  static std::string describe(const kit::TransportOutcome& outcome) {
    std::string text;
    if (outcome.response)
      text += std::to_string(outcome.response->status_code) + " " + outcome.response->body;
    if (outcome.error)
      text += "error: " + outcome.error->message;
    return text;
  }

  VirtualLoop loop;
  ScriptedTransport transport{loop};
  Texts outcomes;
};

TEST_F(ScriptedTransportTest, GivesAnswersInTheOrderOfTheScriptAndThenTheStandingOne) {
  transport.on("v1/tracking")
      .then(Answer::json(json(R"({"Result":true})")))
      .then(Answer::body(500, "<html>"))
      .then(Answer::error("connection lost"))
      .times(2, Answer::body(204, ""))
      .always(Answer::json(404, json("{}")));
  EXPECT_EQ(transport.on("v1/tracking").waiting(), 5u);
  for (int i = 0; i < 7; ++i)
    start("https://a.example/v1/tracking");
  EXPECT_EQ(outcomes, (Texts{R"(200 {"Result":true})", "500 <html>", "error: connection lost", "204 ", "204 ", "404 {}",
                             "404 {}"}));
}

TEST_F(ScriptedTransportTest, AnswersByURLAndNamesTheURLThatNothingAnswers) {
  transport.on("v1/conversion").always(Answer::body(200, "conversion"));
  transport.on("tracking.morvik").then(Answer::body(200, "tracking"));
  start("https://tracking.morvik.example/v1/tracking");
  start("https://conversion.morvik.example/v1/conversion");
  start("https://tracking.morvik.example/v1/tracking");
  EXPECT_EQ(outcomes, (Texts{"200 tracking", "200 conversion",
                             "error: scripted transport: no answer was written down for POST "
                             "https://tracking.morvik.example/v1/tracking"}));
  transport.setDefaultAnswer(Answer::body(200, "default"));
  start("https://tracking.morvik.example/v1/tracking");
  EXPECT_EQ(outcomes.back(), "200 default");
}

TEST_F(ScriptedTransportTest, AnswersWithASmallServer) {
  transport.on("").alwaysBy([](const kit::Request& asked) { return Answer::body(200, "you said " + asked.body); });
  start("https://a.example/");
  EXPECT_EQ(outcomes, Texts{"200 you said k=1"});
  transport.on("").clear().then(Answer::body(200, "once"));
  start("https://a.example/");
  EXPECT_EQ(outcomes.back(), "200 once");
}

TEST_F(ScriptedTransportTest, LetsScriptsStandInFrontOfASmallServer) {
  transport.setDefaultReply([](const kit::Request& asked) { return Answer::body(200, "you said " + asked.body); });
  transport.on("a.example").then(Answer::body(503, "once"));
  start("https://a.example/");
  start("https://a.example/");
  EXPECT_EQ(outcomes, (Texts{"503 once", "200 you said k=1"}));
}

TEST_F(ScriptedTransportTest, RecordsTheWholeRequestAndWhenItLeft) {
  kit::Request full = request("https://a.example/v1/tracking");
  full.headers = {{"Accept-Encoding", "gzip"}};
  full.timeout_seconds = 15;
  loop.advance(3);
  start(full);
  start("https://b.example/other");
  ASSERT_EQ(transport.requests().size(), 2u);
  const auto sent = transport.sent().front();
  EXPECT_EQ(sent.request.method, "POST");
  EXPECT_EQ(sent.request.url, "https://a.example/v1/tracking");
  EXPECT_EQ(sent.request.headers, full.headers);
  EXPECT_EQ(sent.request.body, "k=1");
  EXPECT_EQ(sent.request.timeout_seconds, 15);
  EXPECT_EQ(sent.wall_clock, loop.now());
  EXPECT_DOUBLE_EQ(sent.monotonic_seconds, loop.monotonicSeconds());
  EXPECT_EQ(transport.requests("other").size(), 1u);
  transport.clearRequests();
  EXPECT_EQ(transport.requests().size(), 0u);
}

TEST_F(ScriptedTransportTest, LetsARequestLeaveOnlyAfterTheCommitOfItsTurn) {
  testing::MemoryStore store;
  loop.addCommit([&] { store.commitTurn(); });
  kit::Value seen_by_server;
  transport.setObserver([&](const kit::Request&) { seen_by_server = store.committed()["wish"]; });
  loop.perform([&] {
    transport.start(request("https://a.example/"), [](const kit::TransportOutcome&) {});
    EXPECT_EQ(transport.sent().size(), 0u);
    store.set("wish", "kept");
  });
  EXPECT_EQ(transport.sent().size(), 1u);
  EXPECT_EQ(seen_by_server, kit::Value("kept"));
}

TEST_F(ScriptedTransportTest, RunsTheHandlerInALaterTurn) {
  transport.on("").always(Answer::body(200, ""));
  loop.mainQueue().async([this] {
    transport.start(request("https://a.example/"), [this](const kit::TransportOutcome&) { outcomes.push_back("x"); });
  });
  EXPECT_TRUE(loop.step());
  EXPECT_EQ(transport.requests().size(), 1u);
  EXPECT_EQ(outcomes, Texts{});
  EXPECT_EQ(transport.unanswered(), 1u);
  EXPECT_TRUE(loop.step());
  EXPECT_EQ(outcomes, Texts{"x"});
  EXPECT_EQ(transport.unanswered(), 0u);
}

TEST_F(ScriptedTransportTest, AnswersALateAnswerInVirtualTime) {
  transport.on("").then(Answer::body(200, "late").after(5).after(2));
  start("https://a.example/");
  loop.advance(6.999);
  EXPECT_EQ(outcomes, Texts{});
  loop.advance(0.001);
  EXPECT_EQ(outcomes, Texts{"200 late"});
}

TEST_F(ScriptedTransportTest, EndsARequestThatGetsNoAnswerByItsTimeOut) {
  transport.on("").then(Answer::silence()).then(Answer::silence()).then(Answer::body(200, "too late").after(16));
  kit::Request bounded = request("https://a.example/");
  bounded.timeout_seconds = 15;
  start(bounded);
  start("https://a.example/");
  loop.advance(14.999);
  EXPECT_EQ(outcomes, Texts{});
  loop.advance(0.001);
  EXPECT_EQ(outcomes, Texts{"error: https://a.example/: no answer within 15 s"});
  loop.advance(45);
  EXPECT_EQ(outcomes.back(), "error: https://a.example/: no answer within 60 s");
  start(bounded);
  loop.advance(20);
  EXPECT_EQ(outcomes.back(), "error: https://a.example/: no answer within 15 s");
  EXPECT_EQ(outcomes.size(), 3u);
}

TEST_F(ScriptedTransportTest, RefusesABodyThatIsTooLarge) {
  transport.on("").always(Answer::body(200, "12345"));
  kit::Request bounded = request("https://a.example/");
  bounded.max_answer_bytes = 4;
  start(bounded);
  bounded.max_answer_bytes = 5;
  start(bounded);
  transport.on("").always(Answer::body(200, std::string(testing::kDefaultMaxAnswerBytes + 1, 'x')));
  start("https://a.example/");
  EXPECT_EQ(outcomes, (Texts{"200 error: https://a.example/: the answer is larger than 4 bytes", "200 12345",
                             "200 error: https://a.example/: the answer is larger than 4194304 bytes"}));
}

TEST_F(ScriptedTransportTest, KeepsTheScriptWhileOffline) {
  transport.on("").then(Answer::body(200, "online"));
  transport.goOffline();
  start("https://a.example/");
  transport.goOffline("aeroplane mode");
  start("https://a.example/");
  transport.goOnline();
  start("https://a.example/");
  EXPECT_EQ(outcomes, (Texts{"error: the network is unreachable", "error: aeroplane mode", "200 online"}));
}

TEST_F(ScriptedTransportTest, HoldsSixConnectionsAHostAndLetsTheRestWaitInOrder) {
  transport.on("a.example").always(Answer::body(200, "").after(1));
  transport.on("b.example").always(Answer::body(200, "other host"));
  for (int i = 0; i < 8; ++i)
    start("https://a.example/" + std::to_string(i));
  EXPECT_EQ(transport.requests().size(), testing::kMaxConnectionsPerHost);
  EXPECT_EQ(transport.waitingForConnection(), 2u);
  start("https://b.example/");
  EXPECT_EQ(outcomes, Texts{"200 other host"});
  const double waited = loop.monotonicSeconds() + 1;
  loop.advance(1);
  ASSERT_EQ(transport.requests("a.example").size(), 8u);
  EXPECT_EQ(transport.requests("a.example")[6].url, "https://a.example/6");
  EXPECT_EQ(transport.requests("a.example")[7].url, "https://a.example/7");
  EXPECT_DOUBLE_EQ(transport.sent().back().monotonic_seconds, waited);
  loop.advance(1);
  EXPECT_EQ(outcomes.size(), 9u);
}

TEST_F(ScriptedTransportTest, CountsTheTimeOutFromTheMomentARequestHasAConnection) {
  transport.on("").always(Answer::silence());
  kit::Request bounded = request("https://a.example/");
  bounded.timeout_seconds = 10;
  for (size_t i = 0; i <= testing::kMaxConnectionsPerHost; ++i)
    start(bounded);
  loop.advance(10);
  EXPECT_EQ(outcomes.size(), testing::kMaxConnectionsPerHost);
  loop.advance(9.999);
  EXPECT_EQ(outcomes.size(), testing::kMaxConnectionsPerHost);
  loop.advance(0.001);
  EXPECT_EQ(outcomes.size(), testing::kMaxConnectionsPerHost + 1);
}

TEST_F(ScriptedTransportTest, RunsNoHandlerOfAProcessThatDied) {
  transport.on("").always(Answer::body(200, "").after(1));
  for (size_t i = 0; i <= testing::kMaxConnectionsPerHost; ++i)
    start("https://a.example/");
  transport.kill();
  EXPECT_EQ(transport.unanswered(), 0u);
  EXPECT_EQ(transport.waitingForConnection(), 0u);
  loop.advance(5);
  EXPECT_EQ(outcomes, Texts{});
  EXPECT_EQ(transport.requests().size(), testing::kMaxConnectionsPerHost) << "the waiting one never leaves";
  start("https://a.example/");
  loop.advance(1);
  EXPECT_EQ(outcomes, Texts{"200 "}) << "the next process has its connections";
}

TEST_F(ScriptedTransportTest, TakesRequestsFromAnyThread) {
  transport.on("").always(Answer::body(200, ""));
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this] {
      for (int i = 0; i < 50; ++i)
        transport.start(request("https://a.example/"),
                        [this](const kit::TransportOutcome& outcome) { outcomes.push_back(describe(outcome)); });
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(transport.requests().size(), 0u);
  loop.advance(0);
  EXPECT_EQ(outcomes.size(), 200u);
}

TEST(Answer, RefusesAValueThatHasNoJsonForm) {
  EXPECT_THROW(Answer::json(kit::Value(kit::Date{})), std::invalid_argument);
}

}  // namespace
}  // namespace morvik::test
