#include "runtime/siblings/app_ad_client.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "host/json/simdjson_codec.h"
#include "services/describe.h"
#include "testing/virtual_loop.h"

namespace morvik::runtime {
namespace {

using morvik::AdClient;

class AppAdClientTest : public ::testing::Test {
 protected:
  /// What the core is told of a client that answers so, and in which turn.
  std::vector<std::string> told(const AdClient& client) {
    AppAdClient ad_client(client, json, loop.mainQueue());
    std::vector<std::string> told;
    ad_client.requestAttributionDetailsWithBlock(
        [&told](const kit::Value& details, const std::optional<kit::Error>& error) {
          told.push_back(services::describe(details) + " / " + (error ? error->message : "no error"));
        });
    EXPECT_TRUE(told.empty()) << "not in a later turn";
    loop.runUntilIdle();
    return told;
  }
  std::vector<std::string> toldDetails(std::optional<std::string> details, std::optional<std::string> error) {
    AdClient client;
    client.requestAttributionDetails = [=](const AdClient::AttributionDetails& answer) { answer(details, error); };
    return told(client);
  }

  testing::VirtualLoop loop;
  host::SimdjsonCodec json;
};

TEST_F(AppAdClientTest, OffersWhatTheAppsClientHas) {
  const AppAdClient none({}, json, loop.mainQueue());
  EXPECT_FALSE(none.offersAttributionDetails());
  EXPECT_FALSE(none.offersConversionDetails());
  EXPECT_FALSE(none.offersInstallationAttribution());
  const AppAdClient shipped(AdClient::withoutDetails(), json, loop.mainQueue());
  EXPECT_TRUE(shipped.offersAttributionDetails());
  EXPECT_FALSE(shipped.offersConversionDetails());
  EXPECT_FALSE(shipped.offersInstallationAttribution());
}

TEST_F(AppAdClientTest, AnswersNoDetailsAndNoErrorAsItShips) {
  EXPECT_EQ(told(AdClient::withoutDetails()), std::vector<std::string>{"(null) / no error"});
}

TEST_F(AppAdClientTest, ReadsTheDetails) {
  EXPECT_EQ(toldDetails("{\"a\":{\"b\":1}}", {}), std::vector<std::string>{"{\"a\":{\"b\":1}} / no error"});
  EXPECT_EQ(toldDetails({}, "broken"), std::vector<std::string>{"(null) / broken"});
  EXPECT_EQ(toldDetails("{}", "broken"), std::vector<std::string>{"{} / broken"});
}

TEST_F(AppAdClientTest, TakesDetailsThatAreNoObjectAsAnError) {
  const std::string no_object = "The details that the app's ad client answered are no JSON object.";
  EXPECT_EQ(toldDetails("[1]", {}), std::vector<std::string>{"(null) / " + no_object});
  EXPECT_EQ(toldDetails("not JSON", {}), std::vector<std::string>{"(null) / " + no_object});
  EXPECT_EQ(toldDetails("not JSON", "broken"), std::vector<std::string>{"(null) / broken"});
}

TEST_F(AppAdClientTest, TakesTheFirstAnswerOfACallAlone) {
  AdClient client;
  client.requestAttributionDetails = [](const AdClient::AttributionDetails& answer) {
    answer(std::nullopt, "first");
    answer(std::nullopt, "second");
  };
  EXPECT_EQ(told(client), std::vector<std::string>{"(null) / first"});
}

TEST_F(AppAdClientTest, PassesTheDatesOfAConversion) {
  AdClient client;
  client.lookupAdConversionDetails = [](const AdClient::ConversionDetails& answer) {
    answer(AdClient::Time(std::chrono::microseconds(1'500'001)), std::nullopt);
  };
  AppAdClient ad_client(client, json, loop.mainQueue());
  EXPECT_TRUE(ad_client.offersConversionDetails());
  std::optional<kit::Date> purchase;
  std::optional<kit::Date> impression = kit::Date{1};
  ad_client.lookupAdConversionDetails([&](std::optional<kit::Date> first, std::optional<kit::Date> second) {
    purchase = first;
    impression = second;
  });
  loop.runUntilIdle();
  EXPECT_EQ(purchase, kit::Date{1'500'001});
  EXPECT_EQ(impression, std::nullopt);
}

TEST_F(AppAdClientTest, PassesWhetherTheInstallWasAttributed) {
  AdClient client;
  client.determineAppInstallationAttribution = [](const AdClient::InstallationAttribution& answer) { answer(true); };
  AppAdClient ad_client(client, json, loop.mainQueue());
  EXPECT_TRUE(ad_client.offersInstallationAttribution());
  bool attributed = false;
  ad_client.determineAppInstallationAttributionWithCompletionHandler([&](bool answer) { attributed = answer; });
  EXPECT_FALSE(attributed);
  loop.runUntilIdle();
  EXPECT_TRUE(attributed);
}

TEST_F(AppAdClientTest, DropsAnAnswerThatComesAfterItsEnd) {
  AdClient client;
  AdClient::InstallationAttribution kept;
  client.determineAppInstallationAttribution = [&](AdClient::InstallationAttribution answer) {
    kept = std::move(answer);
  };
  {
    AppAdClient ad_client(client, json, loop.mainQueue());
    ad_client.determineAppInstallationAttributionWithCompletionHandler([](bool) { FAIL(); });
  }
  kept(true);
  EXPECT_EQ(loop.waitingMainBlocks(), 0U);
}

}  // namespace
}  // namespace morvik::runtime
