#include "runtime/siblings/MorvikCoreServicesLib.h"

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/linux/system_facts.h"
#include "testing/fake_crypto.h"
#include "testing/memory_store.h"
#include "testing/recording_log.h"
#include "testing/virtual_loop.h"

namespace morvik::runtime {
namespace {

constexpr const char* kTrackingUrl = "https://tracking.morvik.example/v1/tracking";

class ServicesLib : public ::testing::Test {
 protected:
  ServicesLib() {
    levels_._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vTrace;
    trigger_.setCall([this] { ++calls_; });
  }

  MorvikCoreServicesLib& lib() {
    if (!lib_)
      lib_.emplace(ServicesLibParts{.app_key = "the app",
                                    .hash_key = "the hash key",
                                    .tracking_url = kTrackingUrl,
                                    .store = properties_,
                                    .logger = services::Logger(levels_, log_),
                                    .clock = loop_.clock(),
                                    .sealing = {cipher_, compressor_, random_},
                                    .common = common_,
                                    .util = util_,
                                    .size_trigger = trigger_});
    return *lib_;
  }
  void record(int count) {
    for (int i = 0; i < count; ++i)
      lib().addActivityGroupName("g", "n", "", kit::Date{i});
    loop_.runUntilIdle();
  }
  void batchEnds(bool succeeded, const kit::Value& json, size_t sent = 0) {
    kit::MutableArray keys;
    for (size_t i = 0; i < sent; ++i)
      keys.append(static_cast<int64_t>(i));
    properties_.setFendoActivityInfosSentEventKeys(kit::Value(std::move(keys)));
    kit::Request request;
    request.url = kTrackingUrl;
    lib().exchangeDidEnd(request, {succeeded, json});
  }

  testing::VirtualLoop loop_;
  testing::MemoryStore store_;
  kit::ListLock lock_;
  services::MorvikGVUserDefaults properties_{store_, lock_};
  kit::LogLevels levels_;
  testing::RecordingLog log_;
  testing::FakeCipher cipher_;
  testing::FakeCompressor compressor_;
  testing::SeededRandom random_{1};
  const host::SystemFacts machine_;
  MorvikADUtil util_{{.idfa = "the identifier"}, machine_};
  MorvikADGetPUID puid_;
  DeviceDescription device_;
  CommonParameters common_{{.device = device_,
                            .app_key = "the app",
                            .install_id = "the install",
                            .zone_name = "UTC",
                            .util = util_,
                            .puid = puid_}};
  SizeTrigger trigger_{loop_.mainQueue()};
  int calls_ = 0;
  std::optional<MorvikCoreServicesLib> lib_;
};

TEST_F(ServicesLib, GivesABackgroundBlockOneAnswerAboutSendingAndOtherThreadsTheNewestOne) {
  {
    const MorvikCoreServicesLib::BackgroundBlock block(lib());
    lib().setIsSendingOff(true);
    EXPECT_FALSE(lib().isSendingOff());
    bool elsewhere = false;
    std::thread([&] { elsewhere = lib().isSendingOff(); }).join();
    EXPECT_TRUE(elsewhere);
  }
  EXPECT_TRUE(lib().isSendingOff());
  const MorvikCoreServicesLib::BackgroundBlock block(lib());
  lib().setIsSendingOff(false);
  EXPECT_TRUE(lib().isSendingOff());
}

TEST_F(ServicesLib, KnowsItsKeysAndTheSessionGroup) {
  EXPECT_EQ(lib().appKey(), "the app");
  EXPECT_EQ(lib().hashKey(), "the hash key");
  EXPECT_EQ(lib().activityGroupName(0), "session");
  EXPECT_EQ(lib().activityGroupName(1), "");
  EXPECT_EQ(lib().appleAdvertisingIdentifier(), "the identifier");
}

TEST_F(ServicesLib, LoadsTheForgetMeMirrorFromTheStore) {
  properties_.setMorvikCoreUserInfo_isGDPRForgetMe(true);
  EXPECT_TRUE(lib().isGDPRForgetMe());
}

TEST_F(ServicesLib, LoadsFromTheStoreWhetherTheWishWasAccepted) {
  properties_.setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(true);
  EXPECT_TRUE(lib().isGDPRForgetMeServerSynced());
}

TEST_F(ServicesLib, MirrorsTheWishAndItsAcceptanceInMemoryAlone) {
  EXPECT_FALSE(lib().isGDPRForgetMeServerSynced());
  lib().setIsGDPRForgetMe(true);
  lib().setIsGDPRForgetMeServerSynced(true);
  EXPECT_TRUE(lib().isGDPRForgetMe());
  EXPECT_TRUE(lib().isGDPRForgetMeServerSynced());
  lib().setIsGDPRForgetMe(false);
  lib().setIsGDPRForgetMeServerSynced(false);
  EXPECT_FALSE(lib().isGDPRForgetMe());
  EXPECT_FALSE(lib().isGDPRForgetMeServerSynced());
  EXPECT_TRUE(store_.journalTexts().empty());
}

TEST_F(ServicesLib, HoldsTheScheduleDelegateWeakly) {
  EXPECT_EQ(lib().getScheduleDelegate(), nullptr);
  auto delegate = std::make_shared<const kit::GetScheduleDelegate>();
  lib().setGetScheduleDelegate(delegate);
  EXPECT_EQ(lib().getScheduleDelegate(), delegate);
  delegate.reset();
  EXPECT_EQ(lib().getScheduleDelegate(), nullptr);
}

TEST_F(ServicesLib, StartsWithoutForgetMeOffsetOrConversionResult) {
  EXPECT_FALSE(lib().isGDPRForgetMe());
  EXPECT_EQ(lib().intervalSinceServerDate(), 0.0);
  EXPECT_FALSE(lib().conversionResult());
  EXPECT_EQ(lib().conversionResultCode(), 0);
}

TEST_F(ServicesLib, KeepsOffsetAndConversionResult) {
  lib().setIntervalSinceServerDate(-1.5);
  lib().setConversionResult(true);
  lib().setConversionResultCode(7);
  EXPECT_EQ(lib().intervalSinceServerDate(), -1.5);
  EXPECT_TRUE(lib().conversionResult());
  EXPECT_EQ(lib().conversionResultCode(), 7);
}

TEST_F(ServicesLib, AppendsARecordWithAnEventIdAndFlushes) {
  lib().addActivityGroupName("shop", "buy", "sku", kit::Date{5});
  lib().addActivityGroupName("shop", "look", {}, kit::Date{6});
  const kit::Array activities = properties_.fendoActivityInfos().array();
  ASSERT_EQ(activities.size(), 2U);
  EXPECT_EQ(activities[0]["activityGroupName"], kit::Value("shop"));
  EXPECT_EQ(activities[0]["activityName"], kit::Value("buy"));
  EXPECT_EQ(activities[0]["activityParam"], kit::Value("sku"));
  EXPECT_EQ(activities[0]["activityCreatedAt"], kit::Value(kit::Date{5}));
  EXPECT_EQ(activities[0].size(), 5U);
  EXPECT_TRUE(activities[1]["activityParam"].isAbsent());
  EXPECT_EQ(activities[1].size(), 4U);
  const std::string id(activities[0]["activityEventID"].string());
  EXPECT_EQ(id.size(), 36U);
  EXPECT_EQ(id[14], '7');
  EXPECT_NE(activities[1]["activityEventID"].string(), id);
  EXPECT_EQ(store_.journalTexts(),
            (std::vector<std::string>{"fendoActivityInfos", "synchronize", "fendoActivityInfos", "synchronize"}));
}

TEST_F(ServicesLib, RefusesAnActivityWithoutGroupOrName) {
  lib().addActivityGroupName({}, "buy", "", kit::Date{});
  lib().addActivityGroupName("shop", kit::Value::null(), "", kit::Date{});
  lib().addActivityGroupName(kit::Array{}, "buy", "", kit::Date{});
  EXPECT_TRUE(properties_.fendoActivityInfos().isAbsent());
  EXPECT_EQ(
      log_.messages(),
      (std::vector<std::string>{
          "Morvik host: an activity was not recorded: its group is no text; it needs a group and a name, both text",
          "Morvik host: an activity was not recorded: its name is no text; it needs a group and a name, both text",
          "Morvik host: an activity was not recorded: its group is no text; it needs a group and a name, both text"}));
  EXPECT_EQ(log_.lines().front().prefix->level, "ERROR");
  EXPECT_EQ(log_.lines().front().prefix->operation,
            "-[MorvikCoreServicesLib addActivityGroupName:activityName:param:createdAt:]");
}

TEST_F(ServicesLib, WritesANumberAsText) {
  lib().addActivityGroupName("shop", "buy", 42, kit::Date{});
  EXPECT_EQ(properties_.fendoActivityInfos().array()[0]["activityParam"], kit::Value("42"));
}

TEST_F(ServicesLib, RepairsTextThatIsNotUtf8) {
  lib().addActivityGroupName("sh\xFFop", "buy", "\xC3", kit::Date{});
  const kit::Array activities = properties_.fendoActivityInfos().array();
  EXPECT_EQ(activities[0]["activityGroupName"], kit::Value("sh\xEF\xBF\xBDop"));
  EXPECT_EQ(activities[0]["activityParam"], kit::Value("\xEF\xBF\xBD"));
  EXPECT_EQ(
      log_.messages(),
      (std::vector<std::string>{
          "Morvik host: the group of an activity is not UTF-8 at byte 2 of 5 and was recorded with U+FFFD in place "
          "of each bad byte; give it as UTF-8",
          "Morvik host: the param of an activity is not UTF-8 at byte 0 of 1 and was recorded with U+FFFD in place "
          "of each bad byte; give it as UTF-8"}));
  EXPECT_EQ(log_.lines().front().prefix->level, "WARNING");
}

TEST_F(ServicesLib, RefusesTheAppsOwnActivitiesWhileTheUserIsForgottenAndRecordsTheCores) {
  properties_.setMorvikCoreUserInfo_isGDPRForgetMe(true);
  EXPECT_EQ(lib().addActivityOfApp("shop", "buy", "", kit::Date{}), Recorded::kRefusedForgotten);
  EXPECT_EQ(lib().addImpressionOfApp({}, kit::Date{}), Recorded::kRefusedForgotten);
  EXPECT_TRUE(properties_.fendoImpressionInfos().isAbsent());
  EXPECT_TRUE(properties_.fendoActivityInfos().isAbsent());
  EXPECT_EQ(
      log_.messages(),
      (std::vector<std::string>{"Morvik host: an activity of the app was not recorded: the user asked to be forgotten; "
                                "ask isGdprForgetMe() before recording",
                                "Morvik host: an impression of the app was not recorded: the user asked to be "
                                "forgotten; ask isGdprForgetMe() before recording"}));
  EXPECT_EQ(log_.lines().front().prefix->level, "WARNING");
  lib().addActivityGroupName("session", "start", "", kit::Date{});
  EXPECT_EQ(properties_.fendoActivityInfos().size(), 1U);
}

TEST_F(ServicesLib, SaysWhetherTheAppsActivityIsStored) {
  EXPECT_EQ(lib().addActivityOfApp("shop", "buy", "", kit::Date{}), Recorded::kKept);
  store_.setKeepsNothing(true);
  EXPECT_EQ(lib().addActivityOfApp("shop", "buy", "", kit::Date{}), Recorded::kKeptInMemory);
  EXPECT_EQ(lib().addImpressionOfApp({}, kit::Date{}), Recorded::kKeptInMemory);
  EXPECT_EQ(properties_.fendoActivityInfos().size(), 2U);
  EXPECT_EQ(properties_.fendoImpressionInfos().size(), 1U);
}

TEST_F(ServicesLib, RefusesTheAppsActivityWithoutGroupOrName) {
  EXPECT_EQ(lib().addActivityOfApp("", "buy", "", kit::Date{}), Recorded::kRefusedEmpty);
  EXPECT_EQ(lib().addActivityOfApp("shop", "", "", kit::Date{}), Recorded::kRefusedEmpty);
  EXPECT_TRUE(properties_.fendoActivityInfos().isAbsent());
}

TEST_F(ServicesLib, TakesTextsOfTheAppsUpToTheLimitTogetherAndNotAByteMore) {
  const std::string param(kMaxEventBytes - 7, 'x');
  EXPECT_EQ(lib().addActivityOfApp("shop", "buy", param, kit::Date{}), Recorded::kKept);
  EXPECT_EQ(lib().addActivityOfApp("shop", "buy!", param, kit::Date{}), Recorded::kRefusedTooLarge);
  const Impression too_large{.space_key = std::string(kMaxEventBytes + 1, 'x')};
  EXPECT_EQ(lib().addImpressionOfApp(too_large, kit::Date{}), Recorded::kRefusedTooLarge);
  EXPECT_EQ(properties_.fendoActivityInfos().size(), 1U);
}

TEST_F(ServicesLib, RecordsAnImpressionWithAllItsFields) {
  const Impression impression{
      .campaign_key = 1, .space_key = "top", .resource_key = 2, .conversion_key = 3, .is_first_time = true};
  EXPECT_EQ(lib().addImpressionOfApp(impression, kit::Date{4}), Recorded::kKept);
  EXPECT_EQ(properties_.fendoImpressionInfos(), kit::Value(kit::Array{kit::Dictionary{{"campaignKey", 1},
                                                                                      {"spaceKey", "top"},
                                                                                      {"resourceKey", 2},
                                                                                      {"conversionKey", 3},
                                                                                      {"isFirstTime", true},
                                                                                      {"createdAt", kit::Date{4}}}}));
}

TEST_F(ServicesLib, LetsNothingInOnceTheMirrorOfAWishIsLoadedWhileThreadsRecord) {
  constexpr int kRounds = 300;
  constexpr int kThreads = 3;
  lib();
  for (int round = 0; round < kRounds; ++round) {
    properties_.setMorvikCoreUserInfo_isGDPRForgetMe(false);
    lib_->loadMirrors();
    std::atomic<int> recorded{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([this, &recorded] {
        while (isKept(lib_->addActivityOfApp("g", "n", "", kit::Date{})))
          ++recorded;
      });
    }
    while (recorded < 1) {
    }
    properties_.setMorvikCoreUserInfo_isGDPRForgetMe(true);
    lib_->loadMirrors();
    const size_t stored = properties_.fendoActivityInfos().size();
    for (std::thread& thread : threads)
      thread.join();
    ASSERT_EQ(properties_.fendoActivityInfos().size(), stored);
    properties_.setFendoActivityInfos(kit::Value(kit::Array()));
  }
}

TEST_F(ServicesLib, LosesNothingThatManyThreadsRecord) {
  constexpr int kThreads = 4;
  constexpr int kEach = 200;
  lib();
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this] {
      for (int j = 0; j < kEach; ++j)
        lib_->addActivityGroupName("g", "n", "", kit::Date{j});
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(properties_.fendoActivityInfos().size(), size_t{kThreads} * kEach);
}

TEST_F(ServicesLib, MakesSealedParameters) {
  const kit::Value payload = kit::Dictionary{{"a", 1}};
  const kit::Value parameters = lib().makeJsonParameter(payload, "key");
  EXPECT_EQ(parameters["k"], kit::Value("the app"));
  EXPECT_FALSE(parameters["j"].string().empty());
  EXPECT_EQ(parameters.size(), 2U);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(ServicesLib, SaysWhyAPayloadCannotBeSealed) {
  const kit::Value payload = kit::Dictionary{{"a", std::numeric_limits<double>::infinity()}};
  EXPECT_TRUE(lib().makeJsonParameter(payload, "key").isAbsent());
  ASSERT_EQ(log_.lines().size(), 1U);
  const std::string begin = "Morvik host: a payload could not be sealed, and is not sent: ";
  EXPECT_EQ(log_.messages().front().substr(0, begin.size()), begin);
  EXPECT_GT(log_.messages().front().size(), begin.size());
  EXPECT_EQ(log_.lines().front().prefix->level, "ERROR");
}

TEST_F(ServicesLib, MakesCommonParametersThatTheCallerMayChange) {
  kit::MutableDictionary first = lib().makeCommonParameter("1.2.3");
  first.set("own", 1);
  EXPECT_EQ(lib().makeCommonParameter("1.2.3").size(), first.size() - 1);
  EXPECT_EQ(first["sdk_version"], kit::Value("1.2.3"));
}

TEST_F(ServicesLib, ReplacesTheCachedConversionKeys) {
  lib().saveConversionInfoForCacheWithConversionArr(kit::Array{1, 2});
  lib().saveConversionInfoForCacheWithConversionArr(kit::Array{3});
  EXPECT_EQ(properties_.fendoConversionInfoForCaches(), kit::Value(kit::Array{3}));
  lib().saveConversionInfoForCacheWithConversionArr(kit::Array{});
  EXPECT_EQ(properties_.fendoConversionInfoForCaches(), kit::Value(kit::Array{}));
}

TEST_F(ServicesLib, HoldsItsDelegateWeakly) {
  EXPECT_EQ(lib().saveFendoUserInfoDelegate(), nullptr);
  auto delegate = std::make_shared<const kit::SaveFendoUserInfoDelegate>();
  lib().setSaveFendoUserInfoDelegate(delegate);
  EXPECT_EQ(lib().saveFendoUserInfoDelegate(), delegate);
  delegate.reset();
  EXPECT_EQ(lib().saveFendoUserInfoDelegate(), nullptr);
}

TEST_F(ServicesLib, CallsTheSizeTriggerAfterEachActivityAndRestsAfterAFailedBatch) {
  record(1);
  EXPECT_EQ(calls_, 1);
  batchEnds(false, {}, 250);
  record(24);
  EXPECT_EQ(calls_, 1);
  record(1);
  EXPECT_EQ(calls_, 2);
}

TEST_F(ServicesLib, RestsAfterABatchThatWasNotAcceptedAndNotAfterOneThatWas) {
  batchEnds(true, kit::Dictionary{{"Result", false}}, 10);
  record(9);
  EXPECT_EQ(calls_, 0);
  batchEnds(true, kit::Dictionary{{"Result", true}}, 10);
  record(1);
  EXPECT_EQ(calls_, 1);
  batchEnds(true, kit::Dictionary{}, 10);
  record(9);
  EXPECT_EQ(calls_, 1);
}

TEST_F(ServicesLib, TakesNoNoteOfOtherExchanges) {
  kit::Request conversion;
  conversion.url = "https://conversion.morvik.example/v1/conversion";
  lib().exchangeDidEnd(conversion, {false, {}});
  record(1);
  EXPECT_EQ(calls_, 1);
}

TEST_F(ServicesLib, AddsAConversionKeyToTheCachedOnesUnlessItIsAmongThem) {
  lib().saveConversionInfoForCacheWithConversionArr(kit::Array{1});
  lib().saveConversionInfoForCache(2);
  lib().saveConversionInfoForCache(1);
  lib().saveConversionInfoForCache(2);
  EXPECT_EQ(properties_.fendoConversionInfoForCaches(), kit::Value(kit::Array{1, 2}));
}

TEST_F(ServicesLib, KeepsTheTimesOfConversionsInAPropertyOfItsOwn) {
  lib().saveConversionTimeInfoForCache("12", 1'700'000'000'000.5);
  lib().saveConversionTimeInfoForCache("13", 0);
  lib().saveConversionTimeInfoForCache("12", 5);
  EXPECT_EQ(store_.get("host.conversionTimes"),
            kit::Value(kit::Array{kit::Dictionary{{"conversion_key", "13"}, {"time", 0.0}},
                                  kit::Dictionary{{"conversion_key", "12"}, {"time", 5.0}}}));
  EXPECT_TRUE(properties_.fendoConversionInfoForCaches().isAbsent());
}

TEST_F(ServicesLib, KeepsWhetherPremiumPostbacksAreGrantedForThisProcess) {
  EXPECT_FALSE(lib().isPremiumPostback());
  lib().setIsPremiumPostback(true);
  EXPECT_TRUE(lib().isPremiumPostback());
  lib().setIsPremiumPostback(false);
  EXPECT_FALSE(lib().isPremiumPostback());
  EXPECT_EQ(store_.journalTexts(), std::vector<std::string>{});
}

TEST_F(ServicesLib, HoldsTheDelegatesOfRetainedConversionsWeakly) {
  EXPECT_EQ(lib().resetRetainedConversionCacheDeleate(), nullptr);
  EXPECT_EQ(lib().saveRetainedConversionKeyDelegate(), nullptr);
  auto reset = std::make_shared<const kit::ResetRetainedConversionCacheDelegate>();
  auto save = std::make_shared<const kit::SaveRetainedConversionKeyDelegate>();
  lib().setResetRetainedConversionCacheDeleate(reset);
  lib().setSaveRetainedConversionKeyDelegate(save);
  EXPECT_EQ(lib().resetRetainedConversionCacheDeleate(), reset);
  EXPECT_EQ(lib().saveRetainedConversionKeyDelegate(), save);
  reset.reset();
  EXPECT_EQ(lib().resetRetainedConversionCacheDeleate(), nullptr);
  EXPECT_EQ(lib().saveRetainedConversionKeyDelegate(), save);
  lib().setSaveRetainedConversionKeyDelegate({});
  EXPECT_EQ(lib().saveRetainedConversionKeyDelegate(), nullptr);
}

}  // namespace
}  // namespace morvik::runtime
