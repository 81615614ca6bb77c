#include "apps/device/ledger_reporter.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

namespace morvik_device {
namespace {

namespace kit = morvik::kit;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Answers at once and records what was sent.
class AnsweringTransport final : public kit::Transport {
 public:
  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override {
    requests.push_back(std::move(request));
    handler(outcome);
  }

  std::vector<kit::Request> requests;
  kit::TransportOutcome outcome{kit::Response{200, "", "{}"}, std::nullopt};
};

class LedgerReporterTest : public ::testing::Test {
 protected:
  static morvik::Ledger ledger(uint64_t recorded) {
    morvik::Ledger ledger;
    ledger.accounts = {{.kind = "activities", .recorded = recorded, .given_up = {{"a rule", 1, true}}}};
    return ledger;
  }

  AnsweringTransport transport;
  std::vector<std::string> complaints;
  LedgerReporter reporter{transport, "https://service.example/", "an install",
                          [this](const std::string& line) { complaints.push_back(line); }};
};

TEST_F(LedgerReporterTest, TellsTheInstallAndItsAccounts) {
  reporter.tell(ledger(2));
  ASSERT_EQ(transport.requests.size(), 1u);
  EXPECT_EQ(transport.requests[0].method, "POST");
  EXPECT_EQ(transport.requests[0].url, "https://service.example/inspect/ledger");
  EXPECT_THAT(transport.requests[0].headers, ElementsAre(kit::HttpHeader{"Content-Type", "application/json"}));
  EXPECT_EQ(transport.requests[0].timeout_seconds, kReportTimeoutSeconds);
  EXPECT_EQ(transport.requests[0].body,
            R"({"install":"an install","accounts":[{"kind":"activities","recorded":2,"delivered":0,"stored":0,)"
            R"("under_way":0,"given_up":1,"found_uncounted":0}],)"
            R"("given_up":[{"kind":"activities","count":1,"reason":"a rule","by_rule":true}]})");
  EXPECT_THAT(complaints, IsEmpty());
}

TEST_F(LedgerReporterTest, TellsAgainOnlyWhatChanged) {
  reporter.tell(ledger(1));
  reporter.tell(ledger(1));
  EXPECT_EQ(transport.requests.size(), 1u);
  reporter.tell(ledger(2));
  EXPECT_EQ(transport.requests.size(), 2u);
}

TEST_F(LedgerReporterTest, TriesAgainWhatCouldNotBeToldAndComplainsOnce) {
  transport.outcome = {std::nullopt, kit::Error{"there is no way to it"}};
  reporter.tell(ledger(1));
  reporter.tell(ledger(1));
  EXPECT_EQ(transport.requests.size(), 2u);
  EXPECT_THAT(complaints,
              ElementsAre("the ledger could not be reported to https://service.example/inspect/ledger: there "
                          "is no way to it"));
  transport.outcome = {kit::Response{200, "", "{}"}, std::nullopt};
  reporter.tell(ledger(1));
  transport.outcome = {std::nullopt, kit::Error{"there is no way to it"}};
  reporter.tell(ledger(2));
  EXPECT_EQ(complaints.size(), 2u) << "it had worked in between";
}

TEST_F(LedgerReporterTest, TakesAComplaintThatTellsAnotherDurationForTheSame) {
  for (const char* reason : {"nobody listens after 0 ms: refused", "nobody listens after 12 ms: refused"}) {
    transport.outcome = {std::nullopt, kit::Error{reason}};
    reporter.tell(ledger(1));
  }
  EXPECT_EQ(complaints.size(), 1u);
  transport.outcome = {std::nullopt, kit::Error{"nobody listens after 12 ms: another reason"}};
  reporter.tell(ledger(1));
  EXPECT_EQ(complaints.size(), 2u);
}

TEST_F(LedgerReporterTest, ShowsTheBeginningOfARefusalInOneLine) {
  transport.outcome = {kit::Response{403, "", "not\nyou" + std::string(1000, '.')}, std::nullopt};
  reporter.tell(ledger(1));
  EXPECT_THAT(complaints, ElementsAre("the ledger could not be reported to https://service.example/inspect/ledger: it "
                                      "answered 403 not\\x0ayou" +
                                      std::string(293, '.')));
}

}  // namespace
}  // namespace morvik_device
