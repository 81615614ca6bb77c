#include "apps/device/ad_answers.h"

#include <gmock/gmock.h>

#include <utility>

namespace morvik_device {
namespace {

using morvik::AdClient;
using ::testing::HasSubstr;
using ::testing::StartsWith;

using OptionalText = std::optional<std::string>;

struct Details {
  OptionalText json;
  OptionalText error;
};

Details detailsOf(const AdClient& client) {
  Details given;
  client.requestAttributionDetails([&](OptionalText json, OptionalText error) {
    given = {std::move(json), std::move(error)};
  });
  return given;
}

AdClient searchAds(std::string_view form) {
  AdClient client = AdClient::withoutDetails();
  EXPECT_EQ(chooseSearchAds(form, client), std::nullopt);
  return client;
}

AdClient iad(std::string_view form) {
  AdClient client;
  EXPECT_EQ(chooseIad(form, client), std::nullopt);
  return client;
}

TEST(AdAnswers, AbsentSearchAdsAreNotOffered) {
  EXPECT_FALSE(searchAds("absent").requestAttributionDetails);
}

TEST(AdAnswers, NoneGivesNeitherDetailsNorError) {
  const Details details = detailsOf(searchAds("none"));
  EXPECT_EQ(details.json, std::nullopt);
  EXPECT_EQ(details.error, std::nullopt);
}

TEST(AdAnswers, AnErrorComesWithoutOrWithDetails) {
  const OptionalText kText = "the advertising client was asked to fail";
  EXPECT_EQ(detailsOf(searchAds("error")).json, std::nullopt);
  EXPECT_EQ(detailsOf(searchAds("error")).error, kText);
  EXPECT_EQ(detailsOf(searchAds("error:{\"Version3.1\":{}}")).json, "{\"Version3.1\":{}}");
  EXPECT_EQ(detailsOf(searchAds("error:{\"Version3.1\":{}}")).error, kText);
}

TEST(AdAnswers, JsonIsTheOuterDictionaryWhole) {
  const Details details = detailsOf(searchAds("{\"Version3.1\":{\"iad-attribution\":\"true\"}}"));
  EXPECT_EQ(details.json, "{\"Version3.1\":{\"iad-attribution\":\"true\"}}");
  EXPECT_EQ(details.error, std::nullopt);
}

TEST(AdAnswers, DetailsThatAreNoJsonObjectAreAMistake) {
  AdClient client;
  EXPECT_THAT(chooseSearchAds("[1]", client).value_or(""),
              StartsWith("the details are not a JSON object; write absent,"));
  EXPECT_THAT(chooseSearchAds("nothing", client).value_or(""), StartsWith("the details are not JSON ("));
  EXPECT_THAT(chooseSearchAds("error:", client).value_or(""), StartsWith("the details are not JSON ("));
}

TEST(AdAnswers, NoIadOffersNeitherCall) {
  const AdClient client = iad("none");
  EXPECT_FALSE(client.lookupAdConversionDetails);
  EXPECT_FALSE(client.determineAppInstallationAttribution);
}

TEST(AdAnswers, LookupGivesEachDateOrNone) {
  using Time = std::optional<AdClient::Time>;
  Time purchase;
  Time impression;
  const auto take = [&](Time first, Time second) {
    purchase = first;
    impression = second;
  };
  const AdClient both = iad("lookup:2024-05-01T12:00:00Z,2024-05-01T13:00:00+01:00");
  EXPECT_FALSE(both.determineAppInstallationAttribution);
  both.lookupAdConversionDetails(take);
  EXPECT_EQ(purchase, AdClient::Time(std::chrono::seconds(1714564800)));
  EXPECT_EQ(impression, purchase);
  iad("lookup:2024-05-01T12:00:00Z,none").lookupAdConversionDetails(take);
  EXPECT_NE(purchase, std::nullopt);
  EXPECT_EQ(impression, std::nullopt);
}

TEST(AdAnswers, DetermineGivesYesOrNo) {
  std::optional<bool> attributed;
  const auto take = [&](bool given) { attributed = given; };
  iad("determine:yes").determineAppInstallationAttribution(take);
  EXPECT_EQ(attributed, true);
  const AdClient no = iad("determine:no");
  no.determineAppInstallationAttribution(take);
  EXPECT_EQ(attributed, false);
  EXPECT_FALSE(no.lookupAdConversionDetails);
}

TEST(AdAnswers, OtherFormsOfIadAreMistakesThatSayTheRightOnes) {
  for (const std::string_view form : {"yes", "determine:maybe", "lookup:today,none", "lookup:none", "lookup:"}) {
    AdClient client;
    EXPECT_THAT(chooseIad(form, client).value_or("no mistake"), HasSubstr("; write none, lookup:PURCHASE,IMPRESSION"))
        << form;
  }
}

}  // namespace
}  // namespace morvik_device
