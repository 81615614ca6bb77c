// Any bytes as a URL: its query is read, it opens the app, and it comes as a referral URL from Facebook.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

#include "fuzz/checks.h"
#include "services/json_writer.h"
#include "services/url_query.h"
#include "testing/world.h"

namespace {

using morvik::fuzz::hasThrown;
using morvik::fuzz::require;
using morvik::kit::Entry;
using morvik::kit::Url;
using morvik::kit::Value;
using morvik::testing::Answer;
using morvik::testing::TestWorld;
using morvik::testing::WorldOptions;

Value checkedQuery(const std::string& url) {
  Value query = morvik::services::urlQuery(url);
  const bool has_query = url.substr(0, url.find('#')).find('?') != std::string::npos;
  require(has_query ? query.isDictionary() : query.isAbsent(), "a query that is there and not found, or the reverse");
  std::unordered_set<std::string_view> keys;
  for (const Entry& entry : query.dictionary()) {
    require(!entry.key.string().empty(), "a key without a name");
    require(keys.insert(entry.key.string()).second, "a key that stands twice");
    require(entry.value.isString(), "a value that is no text");
    require(morvik::services::isUtf8(entry.key.string()), "a key that is not UTF-8");
    require(morvik::services::isUtf8(entry.value.string()), "a value that is not UTF-8");
  }
  return query;
}

bool isReEngagement(const TestWorld& world, const Value& query) {
  if (query["ck"].isAbsent())
    return false;
  if (world.util.checkNilToNo(query["mrvk_eng"]) || !world.util.checkNilToNo(query["isFacebookCpi"]))
    return true;
  return world.util.checkNilToNo(query["mrvk_deeplink_cvr"]) && !query["sn"].isAbsent();
}

/// The request fails, so that the click is recorded too.
void openTheApp(const std::string& url, const Value& query) {
  TestWorld world(WorldOptions::attributed());
  world.transport.setDefaultAnswer(Answer::error("down"));
  world.log.clear();
  world.loop.perform([&] { world.core().passOpenURL(Url(url)); });
  require(!hasThrown(world), "opening the app threw");
  const size_t commerce_clicks = query["cid"].isAbsent() ? 0 : 1;
  require(world.userDefaults().commerceConversionInfos().size() == commerce_clicks, "a commerce click too many or few");
  require(world.requests("v1/commerce-conversion").size() == commerce_clicks, "a commerce request too many or few");
  const size_t clicks = isReEngagement(world, query) ? 1 : 0;
  const auto sent = world.payloads("v1/reengagement-conversion");
  require(sent.size() == clicks, "a re-engagement too many or few");
  const Value recorded = world.userDefaults().reEngagementInfos();
  require(recorded.size() == clicks, "a failed click too many or few");
  if (clicks == 0)
    return;
  const Value click = recorded.array()[0];
  require(click["deeplink_uri"] == Value(url), "a failed click whose URL is not the opened one");
  require(click["conversion_key"] == Value(world.util.checkIntegerNilToZero(query["ck"])), "a failed click's key");
  require(sent[0]["deeplink_info"]["conversion_key"] == click["conversion_key"], "a key that is sent and not recorded");
}

void comeFromFacebook(const std::string& url, const Value& query) {
  TestWorld world(WorldOptions::attributed());
  world.transport.setDefaultAnswer(Answer::error("down"));
  world.log.clear();
  world.loop.perform([&] { world.core().setReferralUrlForFacebook(Url(url)); });
  require(!hasThrown(world), "the referral threw");
  const Value info = world.core().fB_DeepLinkData()["deeplink_info"];
  require(info["deeplink_uri"] == Value(url), "a referral whose URL is not the one that came");
  require(info["conversion_key"] == Value(world.util.checkIntegerNilToZero(query["ck"])), "a referral's key");
  require(world.payloads("v1/thirdparty-conversion").size() == 1, "a referral that was not reported once");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string url(data, data + size);
  const Value query = checkedQuery(url);
  openTheApp(url, query);
  comeFromFacebook(url, query);
  return 0;
}
