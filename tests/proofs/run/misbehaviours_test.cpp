#include "proofs/run/misbehaviours.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>

#include "simulation/virtual_service.h"
#include "testing/virtual_loop.h"

namespace morvik::proofs {
namespace {

using ::testing::HasSubstr;

class Misbehaviours : public ::testing::Test {
 protected:
  Misbehaviours() : dice_(1) {}
  /// What a device gets for a commerce click, at the end of all waiting.
  kit::TransportOutcome outcomeOf(Misbehaviour misbehaviour) {
    kit::Request request;
    request.method = "POST";
    request.url = "https://service.example/v1/commerce-conversion";
    request.body = "[{\"clickId\":\"deal\"}]";
    request.timeout_seconds = 120;
    network_.on("").alwaysBy([&](const kit::Request& leaving) {
      TreatedRequest treated = treat(leaving, drawTreatment(misbehaviour, dice_), *service_, dice_, {});
      is_counted_ = treated.served.counted;
      return treated.answer;
    });
    std::optional<kit::TransportOutcome> outcome;
    network_.start(request, [&outcome](kit::TransportOutcome ended) { outcome = std::move(ended); });
    loop_.runUntilIdle();
    loop_.advance(121);
    return outcome.value_or(kit::TransportOutcome{});
  }

  ::morvik::testing::VirtualLoop loop_;
  ::morvik::testing::ScriptedTransport network_{loop_};
  simulation::VirtualService service_{[this] { return loop_.now(); }};
  simulation::Dice dice_;
  bool is_counted_ = false;
};

TEST_F(Misbehaviours, LeaveTheUsualAnswerWhenThereIsNone) {
  const kit::TransportOutcome outcome = outcomeOf(Misbehaviour::kNone);
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->status_code, 200);
  EXPECT_EQ(outcome.response->body, "{\"errMsg\":null}");
  EXPECT_TRUE(is_counted_);
}

TEST_F(Misbehaviours, ReceiveNothingThatTheyRefuse) {
  EXPECT_GE(outcomeOf(Misbehaviour::kRefuses).response->status_code, 400);
  EXPECT_FALSE(is_counted_);
  EXPECT_GE(outcomeOf(Misbehaviour::kRedirects).response->status_code, 300);
  EXPECT_FALSE(is_counted_);
  EXPECT_THAT(outcomeOf(Misbehaviour::kSaysNo).response->body, HasSubstr("not counted"));
  EXPECT_FALSE(is_counted_);
}

TEST_F(Misbehaviours, MayReceiveWhatTheyNeverAnswer) {
  EXPECT_TRUE(outcomeOf(Misbehaviour::kClosesAfter).error);
  EXPECT_TRUE(is_counted_);
  EXPECT_TRUE(outcomeOf(Misbehaviour::kSilentAfter).error);
  EXPECT_TRUE(is_counted_);
  EXPECT_TRUE(outcomeOf(Misbehaviour::kClosesBefore).error);
  EXPECT_FALSE(is_counted_);
}

TEST_F(Misbehaviours, AnswerWithSomethingThatIsNoAnswer) {
  EXPECT_EQ(outcomeOf(Misbehaviour::kNullBody).response->body, "null");
  EXPECT_EQ(outcomeOf(Misbehaviour::kEmptyObject).response->body, "{}");
  EXPECT_EQ(outcomeOf(Misbehaviour::kEmptyBody).response->status_code, 204);
  EXPECT_EQ(outcomeOf(Misbehaviour::kTruncated).response->body, "{\"errMs");
  EXPECT_TRUE(outcomeOf(Misbehaviour::kHuge).error) << "more than a device takes";
}

TEST_F(Misbehaviours, DeliverARequestTwiceBehindAProxy) {
  outcomeOf(Misbehaviour::kTwice);
  EXPECT_EQ(service_->requestCount(), 2U);
}

TEST_F(Misbehaviours, AreAllDrawn) {
  std::set<Misbehaviour> drawn;
  for (int draw = 0; draw < 20'000; ++draw)
    drawn.insert(drawMisbehaviour(dice_));
  EXPECT_EQ(drawn.size(), kMisbehaviours - 1) << "all but none";
  EXPECT_FALSE(drawn.contains(Misbehaviour::kNone));
}

TEST_F(Misbehaviours, LeaveNothingOpenInAScript) {
  EXPECT_TRUE(steadyTreatment(Misbehaviour::kGarbage).arrives);
  EXPECT_TRUE(steadyTreatment(Misbehaviour::kClosesAfter).arrives);
  EXPECT_FALSE(steadyTreatment(Misbehaviour::kClosesBefore).arrives);
  EXPECT_EQ(steadyTreatment(Misbehaviour::kSlow).delay_seconds, steadyTreatment(Misbehaviour::kNone).delay_seconds);
}

}  // namespace
}  // namespace morvik::proofs
