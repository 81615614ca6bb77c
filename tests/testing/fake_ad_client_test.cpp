#include "testing/fake_ad_client.h"

#include <gtest/gtest.h>

#include "testing/virtual_loop.h"

namespace morvik::test {
namespace {

class FakeAdClientTest : public ::testing::Test {
 protected:
  testing::VirtualLoop loop;
  testing::FakeAdClient client{loop.mainQueue()};
};

TEST_F(FakeAdClientTest, OffersNothingAtFirst) {
  EXPECT_FALSE(client.offersAttributionDetails());
  EXPECT_FALSE(client.offersConversionDetails());
  EXPECT_FALSE(client.offersInstallationAttribution());
  client.conversion_details.setOffered(true);
  EXPECT_FALSE(client.offersAttributionDetails());
  EXPECT_TRUE(client.offersConversionDetails());
}

TEST_F(FakeAdClientTest, AnswersEveryCallInALaterTurn) {
  client.attribution_details.answerEveryCall("details", kit::Error{"and an error"});
  EXPECT_TRUE(client.offersAttributionDetails());
  int answers = 0;
  for (int i = 0; i < 2; ++i) {
    client.requestAttributionDetailsWithBlock([&](const kit::Value& details, const std::optional<kit::Error>& error) {
      EXPECT_EQ(details, kit::Value("details"));
      EXPECT_EQ(error.value().message, "and an error");
      ++answers;
    });
  }
  EXPECT_EQ(answers, 0);
  loop.runUntilIdle();
  EXPECT_EQ(answers, 2);
  EXPECT_EQ(client.attribution_details.calls(), 2u);
}

TEST_F(FakeAdClientTest, AnswersOnDemandInTheOrderOfTheCalls) {
  client.conversion_details.letCallsWait();
  std::vector<std::optional<kit::Date>> seen;
  const auto note = [&](std::optional<kit::Date>, std::optional<kit::Date> impression) { seen.push_back(impression); };
  client.lookupAdConversionDetails(note);
  client.lookupAdConversionDetails(note);
  EXPECT_EQ(client.conversion_details.waiting(), 2u);
  EXPECT_TRUE(client.conversion_details.answer(std::nullopt, kit::Date{5}));
  EXPECT_TRUE(client.conversion_details.answer(kit::Date{1}, std::nullopt));
  EXPECT_FALSE(client.conversion_details.answer(std::nullopt, std::nullopt));
  EXPECT_TRUE(seen.empty());
  loop.runUntilIdle();
  EXPECT_EQ(seen, (std::vector<std::optional<kit::Date>>{kit::Date{5}, std::nullopt}));
}

TEST_F(FakeAdClientTest, NeverAnswersTheCallsOfAProcessThatDied) {
  client.installation_attribution.letCallsWait();
  client.determineAppInstallationAttributionWithCompletionHandler(
      [](bool) { FAIL() << "answered after the process died"; });
  client.kill();
  EXPECT_EQ(client.installation_attribution.waiting(), 0u);
  EXPECT_FALSE(client.installation_attribution.answer(true));
  loop.runUntilIdle();
}

}  // namespace
}  // namespace morvik::test
