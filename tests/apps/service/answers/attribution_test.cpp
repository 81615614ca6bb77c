#include "apps/service/answers/attribution.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::refusalOf;

constexpr std::int64_t kInstalledAt = 1709251199999;

TEST(Attribution, TheRecordIsPlausible) {
  const Json record = Attribution().record(100007, kInstalledAt);
  EXPECT_EQ(
      "{\"user_no\":100007,\"shard_no\":1,\"referralKey\":1001,\"subreferralKey\":12,\"refusn\":\"partner-1001\","
      "\"channel_type\":1,\"referral_data\":\"\",\"reengagement_conversion_key\":0,\"reengagement_data\":\"\","
      "\"reengagement_datetime\":0,\"last_referral_key\":1001,\"last_referral_data\":\"\","
      "\"last_referral_datetime\":\"20240229235959\",\"install_datetime\":\"20240229235959\","
      "\"conversion_key_list\":[2001,2002],\"deeplink\":\"\"}",
      jsonText(record));
}

TEST(Attribution, ChosenMembersLieOverIt) {
  Attribution attribution;
  attribution.choose(R"({"deeplink":"my://offer","user_no":null,"extra":[1]})");
  const Json record = attribution.record(1, kInstalledAt);
  EXPECT_EQ("my://offer", record["deeplink"]);
  EXPECT_TRUE(record["user_no"].is_null());
  EXPECT_EQ(Json::array({1}), record["extra"]);
  EXPECT_EQ(1001, record["referralKey"]);
}

TEST(Attribution, ASecondChoiceForgetsTheFirst) {
  Attribution attribution;
  attribution.choose(R"({"deeplink":"my://offer"})");
  attribution.choose(R"({"referralKey":5})");
  EXPECT_EQ("", attribution.record(1, kInstalledAt)["deeplink"]);
  EXPECT_EQ("{\"referralKey\":5}", jsonText(attribution.chosen()));
}

TEST(Attribution, RefusesWhatIsNoObjectAndKeepsWhatItHad) {
  Attribution attribution;
  attribution.choose(R"({"referralKey":5})");
  EXPECT_EQ(400, refusalOf([&] { attribution.choose("[]"); }).status());
  EXPECT_EQ(400, refusalOf([&] { attribution.choose("{"); }).status());
  EXPECT_EQ(413,
            refusalOf([&] { attribution.choose("\"" + std::string(Attribution::kMaxBytes, 'x') + "\""); }).status());
  EXPECT_EQ(5, attribution.record(1, kInstalledAt)["referralKey"]);
}

}  // namespace
}  // namespace morvik_service
