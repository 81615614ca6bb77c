#include "services/MorvikADAFJSONRequestOperation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "testing/fake_crypto.h"
#include "testing/fake_services_lib.h"
#include "testing/json_reader.h"
#include "testing/memory_store.h"
#include "testing/recording_ledger.h"
#include "testing/scripted_transport.h"
#include "testing/virtual_loop.h"

namespace morvik::services {
namespace {

using kit::Dictionary;
using kit::Value;
using testing::Answer;

/// Hands its handler out, so that a test can end the exchange in any way.
class HeldTransport : public kit::Transport {
 public:
  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override {
    requests.push_back(std::move(request));
    handlers.push_back(std::move(handler));
  }
  std::vector<kit::Request> requests;
  std::vector<std::function<void(kit::TransportOutcome)>> handlers;
};

class RequestOperation : public ::testing::Test {
 protected:
  struct Success {
    kit::Request request;
    kit::Response response;
    Value json;
  };
  struct Failure {
    kit::Request request;
    std::optional<kit::Response> response;
    kit::Error error;
    Value json;
  };

  static MutableURLRequest request() {
    MutableURLRequest request("https://a.example/v1/x");
    request.setHTTPMethod("POST");
    request.setValue("gzip", "Accept-Encoding");
    request.setHTTPBody("k=1&j=2");
    request.setTimeoutInterval(15);
    return request;
  }
  SuccessHandler onSuccess() {
    return [this](const kit::Request& sent, const kit::Response& response, const Value& json) {
      order.emplace_back("success");
      ended_before_handler = services.endedExchanges().size();
      turn_of_handler = loop.turns();
      running_in_handler = loop.running();
      successes.push_back({sent, response, json});
    };
  }
  FailureHandler onFailure() {
    return [this](const kit::Request& sent, const std::optional<kit::Response>& response, const kit::Error& error,
                  const Value& json) {
      order.emplace_back("failure");
      ended_before_handler = services.endedExchanges().size();
      turn_of_handler = loop.turns();
      running_in_handler = loop.running();
      failures.push_back({sent, response, error, json});
    };
  }
  MorvikADAFJSONRequestOperation operation() {
    return MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequest(tools, request(), onSuccess(), onFailure());
  }
  /// Runs one operation to its end, over any time-out.
  void run() {
    loop.perform([this] { operation().start(); });
    loop.advance(100);
  }
  void runWith(const Answer& answer) {
    transport.on("v1/x").then(answer);
    run();
  }
  /// The one failure of an exchange that was answered so.
  Failure failureOf(const Answer& answer) {
    runWith(answer);
    EXPECT_EQ(order, std::vector<std::string>{"failure"});
    return failures.empty() ? Failure{} : failures.back();
  }

  testing::VirtualLoop loop;
  testing::MemoryStore store;
  kit::ListLock lock;
  testing::FakeCipher cipher;
  testing::FakeCompressor compressor;
  testing::SeededRandom random;
  testing::FakeServicesLib services{MorvikGVUserDefaults(store, lock), {cipher, compressor, random}};
  testing::ScriptedTransport transport{loop};
  testing::PlainJsonCodec codec;
  RequestTools tools{transport, codec, services};

  std::vector<std::string> order;
  std::vector<Success> successes;
  std::vector<Failure> failures;
  size_t ended_before_handler = 0;
  uint64_t turn_of_handler = 0;
  testing::VirtualLoop::Running running_in_handler = testing::VirtualLoop::Running::kNothing;
};

TEST_F(RequestOperation, DoesNothingBeforeItIsStarted) {
  { const auto waiting = operation(); }
  loop.advance(100);
  EXPECT_TRUE(transport.requests().empty());
  EXPECT_TRUE(order.empty());
}

TEST_F(RequestOperation, SendsTheRequestWholeAndBoundsTheAnswer) {
  runWith(Answer::json(Dictionary{{"result", true}}));
  ASSERT_EQ(transport.requests().size(), 1U);
  const kit::Request sent = transport.requests()[0];
  EXPECT_EQ(sent.method, "POST");
  EXPECT_EQ(sent.url, "https://a.example/v1/x");
  EXPECT_EQ(sent.headers, (std::vector<kit::HttpHeader>{{"Accept-Encoding", "gzip"}}));
  EXPECT_EQ(sent.body, "k=1&j=2");
  EXPECT_EQ(sent.timeout_seconds, 15.0);
  EXPECT_EQ(sent.max_answer_bytes, size_t{4} * 1024 * 1024);
}

TEST_F(RequestOperation, HandsTheAnswersObjectToTheSuccessHandlerOnceOnTheMainQueueInALaterTurn) {
  transport.on("v1/x").then(Answer::json(Dictionary{{"ResultCode", 1}}));
  uint64_t turn_of_start = 0;
  loop.perform([&] {
    turn_of_start = loop.turns();
    operation().start();
    EXPECT_TRUE(order.empty());
  });
  loop.advance(100);
  EXPECT_EQ(order, std::vector<std::string>{"success"});
  EXPECT_GT(turn_of_handler, turn_of_start);
  EXPECT_EQ(running_in_handler, testing::VirtualLoop::Running::kMainBlock);
  EXPECT_EQ(successes[0].json, Value(Dictionary{{"ResultCode", 1}}));
  EXPECT_EQ(successes[0].response.status_code, 200);
  EXPECT_EQ(successes[0].request.url, "https://a.example/v1/x");
  EXPECT_EQ(successes[0].request.method, "POST");
  EXPECT_EQ(successes[0].request.body, "");
}

TEST_F(RequestOperation, TakesEveryStatusFrom200To299ForSuccessAndNoOther) {
  for (const int status : {0, 100, 199, 200, 201, 204, 299, 300, 301, 304, 400, 404, 500, 503, 599, 999}) {
    order.clear();
    runWith(Answer::json(status, Dictionary{{"a", 1}}));
    EXPECT_EQ(order, std::vector<std::string>{status >= 200 && status <= 299 ? "success" : "failure"}) << status;
  }
}

TEST_F(RequestOperation, FailsWithTheStatusAndTheJsonOfAnotherStatus) {
  const Failure failure = failureOf(Answer::json(503, Dictionary{{"message", "later"}}));
  ASSERT_TRUE(failure.response.has_value());
  EXPECT_EQ(failure.response->status_code, 503);
  EXPECT_EQ(statusCode(failure.response), 503);
  EXPECT_EQ(failure.error.message, "The server answered with status 503.");
  EXPECT_EQ(failure.json, Value(Dictionary{{"message", "later"}}));
  EXPECT_EQ(failure.request.url, "https://a.example/v1/x");
}

TEST_F(RequestOperation, FailsWithoutJsonWhereAnotherStatusBringsNone) {
  const Failure failure = failureOf(Answer::body(500, "<html>"));
  EXPECT_EQ(failure.error.message, "The server answered with status 500.");
  EXPECT_TRUE(failure.json.isAbsent());
}

TEST_F(RequestOperation, FailsOnABodyThatIsNoJson) {
  for (const char* body : {"", "garbage", "{\"a\":", "{} trailing"}) {
    order.clear();
    const Failure failure = failureOf(Answer::body(200, body));
    EXPECT_EQ(failure.response->status_code, 200);
    EXPECT_EQ(failure.error.message, std::get<kit::Error>(codec.read(body)).message);
    EXPECT_TRUE(failure.json.isAbsent());
  }
}

TEST_F(RequestOperation, FailsOnJsonThatIsNoObjectAndHandsItOn) {
  for (const char* body : {"[1]", "\"text\"", "5", "true", "null"}) {
    order.clear();
    const Failure failure = failureOf(Answer::body(200, body));
    EXPECT_EQ(failure.error.message, "The answer is JSON, but not an object.");
    EXPECT_EQ(failure.json, testing::json(body));
    EXPECT_EQ(failure.json.kind(), testing::json(body).kind());
  }
}

TEST_F(RequestOperation, FailsWithoutAResponseWhenNoneCameAndItsStatusIsThen0) {
  const Failure failure = failureOf(Answer::error("connection refused"));
  EXPECT_FALSE(failure.response.has_value());
  EXPECT_EQ(statusCode(failure.response), 0);
  EXPECT_EQ(failure.error.message, "connection refused");
  EXPECT_TRUE(failure.json.isAbsent());
}

TEST_F(RequestOperation, FailsWhenItsTimeOutRunsOut) {
  transport.on("v1/x").then(Answer::silence());
  loop.perform([this] { operation().start(); });
  loop.advance(14.9);
  EXPECT_TRUE(order.empty());
  loop.advance(0.2);
  EXPECT_EQ(order, std::vector<std::string>{"failure"});
  EXPECT_FALSE(failures.at(0).response.has_value());
}

TEST_F(RequestOperation, FailsOnABodyOfMoreThanFourMebibytesAndTakesOneOfJustThese) {
  const std::string head = "{\"a\":\"";
  const std::string tail = "\"}";
  const size_t room = kMaxAnswerBytes - head.size() - tail.size();
  const Failure failure = failureOf(Answer::body(200, head + std::string(room + 1, 'x') + tail));
  EXPECT_EQ(statusCode(failure.response), 200);
  EXPECT_TRUE(failure.json.isAbsent());
  runWith(Answer::body(200, head + std::string(room, 'x') + tail));
  EXPECT_EQ(order, (std::vector<std::string>{"failure", "success"}));
}

TEST_F(RequestOperation, FailsWithItsErrorWhenAnAnswersBodyHadToBeRefused) {
  HeldTransport held;
  const RequestTools with_held{held, codec, services};
  MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequest(with_held, request(), onSuccess(), onFailure())
      .start();
  held.handlers.at(0)({kit::Response{200, "https://a.example/v1/x", ""}, kit::Error{"undecodable"}});
  ASSERT_EQ(order, std::vector<std::string>{"failure"});
  EXPECT_EQ(statusCode(failures[0].response), 200);
  EXPECT_EQ(failures[0].error.message, "undecodable");
}

TEST_F(RequestOperation, RunsNeitherHandlerAndTellsNobodyWhereTheRequestNeverLeft) {
  HeldTransport held;
  const RequestTools with_held{held, codec, services};
  MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequest(
      with_held, request(), onSuccess(), onFailure(),
      {.when_held = kit::WhenHeld::kEnds, .not_sent = [this] { order.push_back("not sent"); }})
      .start();
  EXPECT_EQ(held.requests.at(0).when_held, kit::WhenHeld::kEnds);
  held.handlers.at(0)({});
  EXPECT_EQ(order, std::vector<std::string>{"not sent"});
  EXPECT_TRUE(services.endedExchanges().empty());
}

TEST_F(RequestOperation, RunsNothingWhereTheRequestNeverLeftAndNobodyAsks) {
  HeldTransport held;
  const RequestTools with_held{held, codec, services};
  MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequest(with_held, request(), onSuccess(), onFailure())
      .start();
  EXPECT_EQ(held.requests.at(0).when_held, kit::WhenHeld::kWaits);
  held.handlers.at(0)({});
  EXPECT_TRUE(order.empty());
}

/// A request that carries something.
class FollowedOperation : public RequestOperation {
 protected:
  void start() {
    const RequestTools with_ledger{held, codec, services, ledger};
    MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequest(with_ledger, request(), onSuccess(), onFailure(),
                                                                    {.ticket = 7})
        .start();
  }
  std::vector<std::string> toldOf(const kit::TransportOutcome& outcome) {
    start();
    held.handlers.back()(outcome);
    return ledger.take();
  }
  HeldTransport held;
  testing::RecordingLedger ledger;
};

TEST_F(FollowedOperation, TellsTheLedgerWhenItLeavesAndHowItEnded) {
  start();
  EXPECT_EQ(held.requests.at(0).ledger_ticket, 7U);
  EXPECT_THAT(ledger.take(), ::testing::IsEmpty());
  held.requests.at(0).when_it_leaves();
  EXPECT_THAT(ledger.take(), ::testing::ElementsAre("7 departed"));
  held.handlers.at(0)({kit::Response{202, "https://a.example/v1/x", "{}"}, std::nullopt});
  EXPECT_EQ(order, std::vector<std::string>{"success"});
  EXPECT_EQ(successes[0].request.ledger_ticket, 7U);
  EXPECT_THAT(ledger.take(), ::testing::ElementsAre("7 ended: 202")) << "the handler says whether it was accepted";
}

TEST_F(FollowedOperation, TellsTheLedgerOfEachFailureWithItsStatusAndError) {
  EXPECT_THAT(toldOf({std::nullopt, kit::Error{"no route"}}),
              ::testing::ElementsAre("7 answered: notAccepted", "7 ended: 0, no route"));
  EXPECT_THAT(toldOf({kit::Response{500, "https://a.example/v1/x", "{}"}, std::nullopt}),
              ::testing::ElementsAre("7 answered: notAccepted", "7 ended: 500, The server answered with status 500."));
  EXPECT_EQ(order.size(), 2U);
}

TEST_F(FollowedOperation, TellsTheLedgerThatItWasNotSent) {
  EXPECT_THAT(toldOf({}), ::testing::ElementsAre("7 answered: notAccepted", "7 ended: not sent"));
  services.setIsGDPRForgetMe(true);
  start();
  EXPECT_EQ(held.requests.size(), 1U);
  EXPECT_THAT(ledger.take(), ::testing::ElementsAre("7 ended: not sent"));
}

TEST_F(FollowedOperation, TellsTheLedgerOfItsEndWhateverTheHandlerThrows) {
  const RequestTools with_ledger{held, codec, services, ledger};
  MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequest(with_ledger, request(),
                                                                  [](const auto&, const auto&, const auto&) {
                                                                    throw kit::Exception{"a", "b", {}};
                                                                  },
                                                                  {}, {.ticket = 7})
      .start();
  EXPECT_THROW(held.handlers.at(0)({kit::Response{200, "https://a.example/v1/x", "{}"}, std::nullopt}), kit::Exception);
  EXPECT_THAT(ledger.take(), ::testing::ElementsAre("7 ended: 200"));
}

TEST_F(RequestOperation, KeepsItsHandlersUntilTheyRanAndNoLonger) {
  const auto captured = std::make_shared<int>(0);
  transport.on("v1/x").then(Answer::json(Dictionary{}).after(5));
  loop.perform([&] {
    MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequest(
        tools, request(), [captured](const auto&, const auto&, const auto&) { ++*captured; },
        [captured](const auto&, const auto&, const auto&, const auto&) { *captured += 100; })
        .start();
  });
  EXPECT_EQ(captured.use_count(), 3);
  loop.advance(10);
  EXPECT_EQ(*captured, 1);
  EXPECT_EQ(captured.use_count(), 1);
}

TEST_F(RequestOperation, DoesWithoutAHandlerThatIsNotThere) {
  for (const int status : {200, 500}) {
    transport.on("v1/x").then(Answer::json(status, Dictionary{}));
    loop.perform([&] {
      MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequest(tools, request(), nullptr, nullptr).start();
    });
    loop.advance(1);
  }
  EXPECT_EQ(services.endedExchanges().size(), 2U);
}

TEST_F(RequestOperation, TellsTheServicesObjectOfASuccessBeforeItsHandler) {
  runWith(Answer::json(Dictionary{{"Result", true}}));
  EXPECT_EQ(ended_before_handler, 1U);
  ASSERT_EQ(services.endedExchanges().size(), 1U);
  EXPECT_EQ(services.endedExchanges()[0].url, "https://a.example/v1/x");
  EXPECT_TRUE(services.endedExchanges()[0].result.succeeded);
  EXPECT_EQ(services.endedExchanges()[0].result.json, Value(Dictionary{{"Result", true}}));
  EXPECT_EQ(services.endedExchanges()[0].result.status_code, 200);
  EXPECT_EQ(services.endedExchanges()[0].result.error.message, "");
}

TEST_F(RequestOperation, TellsTheServicesObjectOfEveryFailureBeforeItsHandler) {
  const Answer failures_of_each_kind[] = {Answer::json(500, Dictionary{{"a", 1}}), Answer::body(200, "garbage"),
                                          Answer::body(200, "[1]"), Answer::error("no route"), Answer::silence()};
  size_t count = 0;
  for (const Answer& answer : failures_of_each_kind) {
    runWith(answer);
    ++count;
    EXPECT_EQ(ended_before_handler, count);
    ASSERT_EQ(services.endedExchanges().size(), count);
    EXPECT_FALSE(services.endedExchanges().back().result.succeeded);
    EXPECT_EQ(services.endedExchanges().back().result.json, failures.back().json);
    EXPECT_EQ(services.endedExchanges().back().result.status_code, statusCode(failures.back().response));
    EXPECT_EQ(services.endedExchanges().back().result.error.message, failures.back().error.message);
  }
}

TEST_F(RequestOperation, UnderForgetMeMakesNoRequestCallsNoHandlerAndTellsNobody) {
  services.setIsGDPRForgetMe(true);
  const std::vector<std::string> calls_before = services.calls();
  runWith(Answer::json(Dictionary{}));
  EXPECT_TRUE(transport.requests().empty());
  EXPECT_TRUE(order.empty());
  EXPECT_TRUE(services.endedExchanges().empty());
  EXPECT_EQ(services.calls(), calls_before);
}

TEST_F(RequestOperation, LooksAtForgetMeWhenItIsStartedNotWhenItIsMade) {
  services.setIsGDPRForgetMe(true);
  auto made_under_it = operation();
  services.setIsGDPRForgetMe(false);
  transport.on("v1/x").always(Answer::json(Dictionary{}));
  loop.perform([&] { made_under_it.start(); });
  loop.advance(1);
  EXPECT_EQ(order, std::vector<std::string>{"success"});
  auto made_before_it = operation();
  services.setIsGDPRForgetMe(true);
  loop.perform([&] { made_before_it.start(); });
  loop.advance(1);
  EXPECT_EQ(order, std::vector<std::string>{"success"});
  EXPECT_EQ(transport.requests().size(), 1U);
}

TEST_F(RequestOperation, CallsItsHandlerForAnExchangeThatWasUnderWayWhenForgetMeCame) {
  transport.on("v1/x").then(Answer::json(Dictionary{}).after(5));
  loop.perform([this] { operation().start(); });
  services.setIsGDPRForgetMe(true);
  loop.advance(10);
  EXPECT_EQ(order, std::vector<std::string>{"success"});
}

TEST_F(RequestOperation, OfTheErasureRunsUnderForgetMe) {
  services.setIsGDPRForgetMe(true);
  transport.on("v1/x").then(Answer::json(Dictionary{{"result", 1}})).then(Answer::body(500, ""));
  for (int i = 0; i < 2; ++i) {
    loop.perform([this] {
      MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequestIgnoreGDPR(tools, request(), onSuccess(),
                                                                                onFailure())
          .start();
    });
    loop.advance(1);
  }
  EXPECT_EQ(order, (std::vector<std::string>{"success", "failure"}));
  EXPECT_EQ(transport.requests().size(), 2U);
}

TEST_F(RequestOperation, OfTheErasureRunsWithoutForgetMeToo) {
  transport.on("v1/x").then(Answer::json(Dictionary{}));
  loop.perform([this] {
    MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequestIgnoreGDPR(tools, request(), onSuccess(),
                                                                              onFailure())
        .start();
  });
  loop.advance(1);
  EXPECT_EQ(order, std::vector<std::string>{"success"});
}

TEST_F(RequestOperation, SurvivesAnswersOfRandomBytes) {
  std::mt19937_64 chance(11);
  const std::string alphabet = "{}[]\",:0123456789-+.eEtrufalsn \\\xC3\xA9\x01";
  for (int i = 0; i < 500; ++i) {
    std::string body(chance() % 40, '\0');
    for (char& c : body)
      c = alphabet[chance() % alphabet.size()];
    order.clear();
    runWith(Answer::body(200, body));
    ASSERT_EQ(order.size(), 1U) << body;
  }
}

TEST_F(RequestOperation, RefusesAnAnswerThatIsNestingAlone) {
  const Failure failure = failureOf(Answer::body(200, "{\"a\":" + std::string(kMaxAnswerBytes - 10, '[')));
  EXPECT_TRUE(failure.json.isAbsent());
}

}  // namespace
}  // namespace morvik::services
