#include "runtime/ledger/ledger_transport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/runtime/ledger/book_rig.h"

namespace morvik::runtime {
namespace {

/// Holds what is started until it is answered.
class HoldingTransport final : public MachineTransport {
 public:
  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override {
    started.push_back(std::move(request));
    handlers.push_back(std::move(handler));
  }
  size_t inFlight() const override { return handlers.size(); }
  void setHeld(bool) override {}
  void wishDidChange() override {}
  void shutdown() override { is_shut_down = true; }
  std::vector<kit::Request> started;
  std::vector<std::function<void(kit::TransportOutcome)>> handlers;
  bool is_shut_down = false;
};

class LedgerTransportTest : public ::testing::Test, protected BookRig {
 protected:
  void start(const char* url, const std::string& sealed) {
    kit::Request request;
    request.url = url;
    request.body = "j=" + sealed;
    counted_.start(std::move(request), [this](const kit::TransportOutcome&) {
      book->exchangeDidEnd({.succeeded = true, .json = yes()});
      ++handled_;
    });
  }
  HoldingTransport plain_;
  LedgerTransport counted_{plain_, *book};
  int handled_ = 0;
};

TEST_F(LedgerTransportTest, TellsTheBookWhatLeavesAndWhenItsHandlerRuns) {
  const std::string sealed = seal(kit::Dictionary{{"deeplink_info", clickOf(5)}});
  start("https://conversion.morvik.example/v1/reengagement-conversion", sealed);
  EXPECT_EQ(of("re-engagement clicks").under_way, 1U);
  EXPECT_EQ(counted_.inFlight(), 1U);
  ASSERT_EQ(plain_.started.size(), 1U);
  EXPECT_EQ(plain_.started[0].body, "j=" + sealed);
  plain_.handlers[0]({});
  EXPECT_EQ(handled_, 1);
  EXPECT_EQ(of("re-engagement clicks").delivered, 1U);
}

TEST_F(LedgerTransportTest, TellsHowManyActivitiesABatchCarriesAndNothingOfOtherRequests) {
  std::vector<size_t> left;
  LedgerTransport telling(plain_, *book, [&left](size_t activities) { left.push_back(activities); });
  const std::string sealed = seal(kit::Dictionary{
      {"activity_info", kit::Array{kit::Dictionary{{"event_id", "a"}}, kit::Dictionary{{"event_id", "b"}}}}});
  const auto send = [&telling](const char* url, const std::string& body) {
    kit::Request request;
    request.url = url;
    request.body = body;
    telling.start(std::move(request), [](const kit::TransportOutcome&) {});
  };
  send("https://tracking.morvik.example/v1/tracking", "j=" + sealed);
  send("https://crash.morvik.example/v1/crash", "");
  send("https://erasure.morvik.example/v1/erasure", "");
  EXPECT_TRUE(left.empty()) << "they are started, and none has left";
  for (const kit::Request& request : plain_.started) {
    if (request.when_it_leaves)
      request.when_it_leaves();
  }
  EXPECT_EQ(left, std::vector<size_t>{2});
}

TEST_F(LedgerTransportTest, LetsOtherRequestsThroughAsTheyAre) {
  start("https://erasure.morvik.example/v1/erasure", "x");
  plain_.handlers[0]({});
  EXPECT_EQ(handled_, 1);
  EXPECT_TRUE(book->read().isSound());
  counted_.shutdown();
  EXPECT_TRUE(plain_.is_shut_down);
}

}  // namespace
}  // namespace morvik::runtime
