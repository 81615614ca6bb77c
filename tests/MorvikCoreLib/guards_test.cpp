// Every guarded operation with everything it calls throwing: it returns normally and writes exactly its lines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/MorvikCoreLib/clicks.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::Fault;
using testing::TestWorld;
using testing::WorldOptions;

const std::string kBlanks26(26, ' ');
const std::string kBlanks30(30, ' ');

struct GuardCase {
  const char* name;
  /// Plans the fault and runs the operation.
  void (*run)(TestWorld& world, const Fault& fault);
  std::string exception_line;
  std::string other_line;
  /// "" for a line that is written past the logger.
  const char* exception_level;
  const char* other_level;
  const char* operation;
};

std::string exceptionBlock(const std::string& head, const std::string& blanks) {
  return head + "\n" + blanks + "exceptionName: Name\n" + blanks + "reason: Reason\n" + blanks +
         "exceptionInfo: {\"key\":\"info\"}";
}
std::string otherBlock(const std::string& head, const std::string& blanks) {
  return head + "\n" + blanks + "exception print: boom";
}

GuardCase blockCase(const char* name, void (*run)(TestWorld&, const Fault&), const std::string& head,
                    const std::string& blanks, const char* operation) {
  return {name, run, exceptionBlock(head, blanks), otherBlock(head, blanks), "ERROR", "ERROR", operation};
}

void failTenConversions(TestWorld& world) {
  world.transport.on("v1/conversion").times(10, testing::Answer::error("down"));
  for (int i = 0; i < 10; ++i)
    world.loop.perform([&] { world.core().conversion(Value()); });
}

const std::vector<GuardCase>& cases() {
  static const std::vector<GuardCase> all = {
      blockCase(
          "startSession",
          [](TestWorld& world, const Fault& fault) {
            world.faulty.calendar.faults.throwAlways("components", fault);
            world.userDefaults().setFendoUserInfo_last_app_launched_date(testing::at(0));
            world.becomeActive();
            EXPECT_TRUE(world.core().isStartSessionCalled());
          },
          "MRVK_QA-[MorvikCoreLib error] Exception from startSession!", kBlanks26, "-[MorvikCoreLib startSession]"),
      blockCase(
          "enterBackground",
          [](TestWorld& world, const Fault& fault) {
            world.faulty.device.faults.throwAlways("isMultitaskingSupported", fault);
            world.enterBackground();
          },
          "MRVK_QA-[MorvikCoreLib error] Exception from enterBackground!", kBlanks26,
          "-[MorvikCoreLib enterBackground]"),
      blockCase(
          "endSession",
          [](TestWorld& world, const Fault& fault) {
            world.faulty.clock.faults.throwAlways("now", fault);
            world.loop.perform([&] { world.core().endSession(); });
          },
          "MRVK_QA-[MorvikCoreLib error] Exception from endSession!", kBlanks26, "-[MorvikCoreLib endSession]"),
      blockCase(
          "makeTrackingParameter",
          [](TestWorld& world, const Fault& fault) {
            world.faultyServices().faults.throwAlways("makeCommonParameter", fault);
            EXPECT_TRUE(world.core().makeTrackingParameter(EndActivities::kSend).isAbsent());
            EXPECT_TRUE(world.core()._isTrackingCalled());
          },
          "MRVK_QA-[MorvikCoreLib error] Exception from makeTrackingParameter!", kBlanks30,
          "-[MorvikCoreLib makeTrackingParameter:]"),
      blockCase(
          "chkAndSendDataWhenActivityCntMoreThenTen",
          [](TestWorld& world, const Fault& fault) {
            world.faulty.key_value_store.faults.throwAlways("get", fault);
            world.core().chkAndSendDataWhenActivityCntMoreThenTen();
          },
          "MRVK_QA-[MorvikCoreLib error] Exception from chkAndSendDataWhenActivityCntMoreThenTen!", kBlanks30,
          "-[MorvikCoreLib chkAndSendDataWhenActivityCntMoreThenTen]"),
      blockCase(
          "deleteActivitysForTracking",
          [](TestWorld& world, const Fault& fault) {
            world.faulty.key_value_store.faults.throwAlways("synchronize", fault);
            world.core().deleteActivitysForTracking();
          },
          "MRVK_QA-[MorvikCoreLib deleteCommerceEvents error] Exception from deleteActivitysForTracking!", kBlanks26,
          "-[MorvikCoreLib deleteActivitysForTracking]"),
      blockCase(
          "makeConversionParameter",
          [](TestWorld& world, const Fault& fault) {
            world.faultyServices().faults.throwAlways("hashKey", fault);
            EXPECT_TRUE(world.core().makeConversionParameter().isAbsent());
          },
          "MRVK_QA-[MorvikCoreLib error] Exception from makeConversionParameter!", kBlanks26,
          "-[MorvikCoreLib makeConversionParameter]"),
      blockCase(
          "saveFendoUserInfo",
          [](TestWorld& world, const Fault& fault) {
            world.faulty.facade.faults.throwAlways("delegate", fault);
            world.core().saveFendoUserInfo({});
          },
          "MRVK_QA-[MorvikCoreLib error] Exception from saveFendoUserInfo!", kBlanks26,
          "-[MorvikCoreLib saveFendoUserInfo:shardNum:referralKey:subReferralKey:refUSN:channelType:shardNo:"
          "referralData:reengagementConversionKey:reengagementData:reengagementDateTime:lastReferralKey:"
          "lastReferralData:lastReferralDatetime:installDatetime:installmDatetime:]"),
      blockCase(
          "makeIAdAppAttributionTrackingParameter",
          [](TestWorld& world, const Fault& fault) {
            world.faultyServices().faults.throwAlways("makeJsonParameter", fault);
            EXPECT_TRUE(world.core().makeIAdAppAttributionTrackingParameter(testing::at(0), testing::at(1)).isAbsent());
          },
          "MRVK_QA-[MorvikCoreService error] Exception from MorvikCoreService!", kBlanks26,
          "-[MorvikCoreLib makeIAdAppAttributionTrackingParameter:iAdImpressionDate:]"),
      {"pushTracking",
       [](TestWorld& world, const Fault& fault) {
         world.faulty.key_value_store.faults.throwAlways("get", fault);
         world.core().pushTracking();
       },
       "MRVK_QA-[MorvikCoreLib error] Exception : Reason]", "MRVK_QA-[MorvikCoreLib error] Exception : boom]", "TRACE",
       "TRACE", "-[MorvikCoreLib pushTracking]"},
      {"referralRefetch",
       [](TestWorld& world, const Fault& fault) {
         failTenConversions(world);
         world.log.clear();
         world.faulty.main_queue.faults.throwAlways("after", fault);
         world.loop.perform([&] { world.core().tracking(Dictionary{{"j", "x"}}); });
       },
       "! MRVK_QA-MorvikCore reGetReferral Failed Exception: Reason\n",
       "! MRVK_QA-MorvikCore reGetReferral Failed Exception: boom\n", "", "", ""},
      {"conversionRetry",
       [](TestWorld& world, const Fault& fault) {
         world.faulty.main_queue.faults.throwAlways("after", fault);
         world.loop.perform([&] { world.core().conversion(Value()); });
       },
       "MRVK_QA-[MorvikCoreLib error] Exception : Reason]",
       "! MRVK_QA-MorvikCore reGetReferral Failed Exception: boom\n", "TRACE", "TRACE",
       "-[MorvikCoreLib conversion:]_block_invoke"},
      blockCase(
          "passOpenURL",
          [](TestWorld& world, const Fault& fault) {
            world.faulty.util.faults.throwAlways("getURLParmaters", fault);
            testing::open(world, "app://x?ck=12");
          },
          "MRVK_QA-[MorvikCoreLib error] Exception from passOpenURL!", kBlanks26, "-[MorvikCoreLib passOpenURL:]"),
      blockCase(
          "makeReEngagementConversionParameter",
          [](TestWorld& world, const Fault& fault) {
            world.faultyServices().faults.throwAlways("hashKey", fault);
            EXPECT_TRUE(world.core().makeReEngagementConversionParameter(kit::Url("app://x?ck=12")).isAbsent());
          },
          "MRVK_QA-[MorvikCore error] Exception from MorvikCoreService!", kBlanks30,
          "-[MorvikCoreLib makeReEngagementConversionParameter:]"),
      blockCase(
          "reEngagementConversion",
          [](TestWorld& world, const Fault& fault) {
            world.faulty.transport.faults.throwAlways("start", fault);
            world.loop.perform([&] { world.core().reEngagementConversion(Dictionary{{"j", "x"}}); });
            EXPECT_TRUE(world.userDefaults().reEngagementInfos().isAbsent());
          },
          "MRVK_QA-[MorvikCoreLib error] Exception from MorvikCoreService!", kBlanks30,
          "-[MorvikCoreLib reEngagementConversion:]"),
      {"failureRecorder",
       [](TestWorld& world, const Fault& fault) {
         world.transport.setDefaultAnswer(testing::Answer::error("down"));
         world.faulty.key_value_store.faults.throwAlways("set", fault);
         testing::open(world, "app://x?ck=12");
       },
       "! MRVK_QA-MorvikCore makeReEngagementConversionParameter Exception: Reason\n",
       "! MRVK_QA-MorvikCore makeReEngagementConversionParameter Exception: boom\n", "TRACE", "TRACE",
       "-[MorvikCoreLib makeReEngagementConversionParameter:]_block_invoke"},
      {"heldTask",
       [](TestWorld& world, const Fault& fault) {
         world.core().setReEngagement_task([fault] { fault.raise(); });
         world.loop.perform([&] { world.core().reEngagementConversion(Dictionary{{"j", "x"}}); });
       },
       "! MRVK_QA-reEngagementConversion_MorvikCore reEngagementConversion from ReEngagement task(Block) Exception: "
       "Reason\n",
       "! MRVK_QA-reEngagementConversion_MorvikCore reEngagementConversion from ReEngagement task(Block) Exception: "
       "boom\n",
       "TRACE", "TRACE", "-[MorvikCoreLib reEngagementConversion:]_block_invoke"},
      {"makeFailureReEngagementConversionParameter",
       [](TestWorld& world, const Fault& fault) {
         world.faultyServices().faults.throwAlways("makeCommonParameter", fault);
         world.core().makeFailureReEngagementConversionParameter();
       },
       "! MRVK_QA-MorvikCore makeFailureReEngagementConversionParameter Exception: Reason\n",
       otherBlock("MRVK_QA-[MorvikCore error] Exception from makeFailureReEngagementConversionParameter!", kBlanks30),
       "TRACE", "ERROR", "-[MorvikCoreLib makeFailureReEngagementConversionParameter]"},
      {"setReferralUrlForFacebook",
       [](TestWorld& world, const Fault& fault) {
         world.faulty.util.faults.throwAlways("getURLParmaters", fault);
         world.core().setReferralUrlForFacebook(kit::Url("https://f.example/?ck=12"));
       },
       "! MRVK_QA-MorvikCoreLib setReferralUrlForFacebook Exception: Reason\n",
       "! MRVK_QA-MorvikCoreLib setReferralUrlForFacebook Exception: boom\n", "TRACE", "TRACE",
       "-[MorvikCoreLib setReferralUrlForFacebook:]"},
      {"getPremiumPostbackInfoss",
       [](TestWorld& world, const Fault& fault) {
         world.faultyServices().faults.throwAlways("appKey", fault);
         world.core().getPremiumPostbackInfoss();
       },
       "MRVK_QA-[MorvikCoreLib error] Exception : Reason]", "MRVK_QA-[MorvikCoreLib error] Exception : boom]", "TRACE",
       "TRACE", "-[MorvikCoreLib getPremiumPostbackInfoss]"},
      {"makeCrashParameter",
       [](TestWorld& world, const Fault& fault) {
         world.faulty.clock.faults.throwAlways("now", fault);
         world.core().makeCrashParameter({.reason = "fendo", .call_stack_symbols = {}, .moment = {}});
         EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
       },
       "! MRVK_QA-MorvikCoreLib makeCrashParameter exception : Reason\n",
       "! MRVK_QA-MorvikCoreLib makeCrashParameter exception : boom\n", "", "", ""},
      {"keepCrashReport",
       [](TestWorld& world, const Fault& fault) {
         world.faulty.key_value_store.faults.throwAlways("trySetAndSynchronize", fault);
         world.core().makeCrashParameter({.reason = "fendo", .call_stack_symbols = {}, .moment = {}});
         EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
       },
       "MRVK_QA-[MorvikCoreLib error] Exception from startSessinAfter fail to save initial idfa  : Reason]",
       "MRVK_QA-[MorvikCoreLib error] Exception from startSessinAfter fail to save initial idfa  : boom]", "TRACE",
       "TRACE", "-[MorvikCoreLib makeCrashParameter:]"},
      blockCase(
          "makeGdprParameter",
          [](TestWorld& world, const Fault& fault) {
            world.faulty.random.faults.throwAlways("fill", fault);
            EXPECT_TRUE(world.core().makeGdprParameter(ErasureForm::kPlain).isAbsent());
          },
          "MRVK_QA-[MorvikCoreLib error] Exception from makeConversionParameter!", kBlanks26,
          "-[MorvikCoreLib makeGdprParameter:]"),
  };
  return all;
}

/// The guards' lines; nothing else in the log holds these words.
size_t guardLinesIn(const testing::RecordingLog& log) {
  return log.countContaining("Exception") + log.countContaining("makeCrashParameter exception");
}

class Guards : public ::testing::TestWithParam<GuardCase> {
 protected:
  void expectLine(const std::string& message, const char* level) {
    ASSERT_EQ(world.log.count(message), 1U) << "not exactly one line:\n" << message;
    const auto line = world.log.find(message);
    if (*level == '\0') {
      EXPECT_FALSE(line->prefix.has_value());
      return;
    }
    ASSERT_TRUE(line->prefix.has_value());
    EXPECT_EQ(line->prefix->level, level);
    EXPECT_EQ(line->prefix->operation, GetParam().operation);
  }
  size_t guardLines() { return guardLinesIn(world.log); }

  TestWorld world;
};

TEST_P(Guards, WriteThePlatformExceptionInOneLineAndReturn) {
  GetParam().run(world, Fault::exception("Name", "Reason", Dictionary{{"key", "info"}}));
  expectLine(GetParam().exception_line, GetParam().exception_level);
  EXPECT_EQ(guardLines(), 1U);
}

TEST_P(Guards, WriteAnyOtherThrownObjectInOneLineAndReturn) {
  GetParam().run(world, Fault::runtimeError("boom"));
  expectLine(GetParam().other_line, GetParam().other_level);
  EXPECT_EQ(guardLines(), 1U);
}

TEST_P(Guards, OfALevelWriteNothingBelowIt) {
  const std::pair<Fault, std::string_view> clauses[] = {
      {Fault::exception("Name", "Reason", Dictionary{{"key", "info"}}), GetParam().exception_level},
      {Fault::runtimeError("boom"), GetParam().other_level}};
  for (const auto& [fault, level] : clauses) {
    TestWorld quiet;
    quiet.sharedState().log_levels._lcl_component_level[kit::lcl_cKesmo] =
        level == "ERROR" ? kit::lcl_vCritical : kit::lcl_vDebug;
    quiet.log.clear();
    GetParam().run(quiet, fault);
    EXPECT_EQ(guardLinesIn(quiet.log), level.empty() ? 1U : 0U) << fault.description();
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, Guards, ::testing::ValuesIn(cases()),
                         [](const auto& row) { return row.param.name; });

TEST(GuardedStart, KeepsWhatWasDoneAndWaitsForTheNextSession) {
  TestWorld world(WorldOptions::attributed());
  world.faulty.ad_client.faults.throwAlways("offersAttributionDetails", Fault::number(5));
  world.becomeActive();
  EXPECT_TRUE(world.core().isStartSessionCalled());
  EXPECT_EQ(world.userDefaults().fendoActivityInfos().size(), 2U);
  EXPECT_FALSE(world.userDefaults().MorvikCoreUserInfo_IDFA().has_value());
  EXPECT_TRUE(world.log.has("MRVK_QA-[MorvikCoreLib error] Exception from startSession!\n" + kBlanks26 +
                            "exception print: int"));
}

// -------------------------------------------------------------------------------------------- every call that throws

/// One call that throws, and the guard that it ends in.
struct ThrowingCall {
  enum class Guard {
    kOpen,
    kParameters,
    kRequest,
    kRecorder,
    kRetry,
    kFacebook,
    kPremium,
    kCrash,
    kKeep,
    kErasure,
    kConversion,
    kReferral,
    kIad
  };
  const char* what;
  void (*run)(TestWorld& world);
  testing::Faults& (*faults)(TestWorld& world);
  const char* operation;
  size_t nth;
  Guard guard;
};

testing::Faults& ofUtil(TestWorld& world) {
  return world.faulty.util.faults;
}
testing::Faults& ofStore(TestWorld& world) {
  return world.faulty.key_value_store.faults;
}
testing::Faults& ofServices(TestWorld& world) {
  return world.faultyServices().faults;
}
testing::Faults& ofModules(TestWorld& world) {
  return world.faulty.modules.faults;
}
testing::Faults& ofTransport(TestWorld& world) {
  return world.faulty.transport.faults;
}
testing::Faults& ofJson(TestWorld& world) {
  return world.faulty.json.faults;
}
testing::Faults& ofClock(TestWorld& world) {
  return world.faulty.clock.faults;
}
testing::Faults& ofVersion(TestWorld& world) {
  return world.faulty.update_log.faults;
}
testing::Faults& ofLog(TestWorld& world) {
  return world.faulty.log_sink.faults;
}
testing::Faults& ofDevice(TestWorld& world) {
  return world.faulty.device.faults;
}
testing::Faults& ofBundle(TestWorld& world) {
  return world.faulty.bundle.faults;
}
testing::Faults& ofShelf(TestWorld& world) {
  return world.faulty.report_shelf.faults;
}
testing::Faults& ofFacade(TestWorld& world) {
  return world.faulty.facade.faults;
}
testing::Faults& ofRandom(TestWorld& world) {
  return world.faulty.random.faults;
}

void openCommerceClick(TestWorld& world) {
  testing::open(world, "app://x?ck=12&cid=shoe");
}
void openDeepLinkConversion(TestWorld& world) {
  testing::open(world, "app://x?ck=12&isFacebookCpi=1&mrvk_deeplink_cvr=1&sn=1");
}
void record(TestWorld& world) {
  world.loop.perform([&] { world.core().ReEngagement_task()(); });
}
void retry(TestWorld& world) {
  world.loop.perform([&] { world.core().makeFailureReEngagementConversionParameter(); });
}
void refer(TestWorld& world) {
  world.loop.perform([&] { world.core().setReferralUrlForFacebook(kit::Url("https://f.example/?ck=12")); });
}
void askForPremium(TestWorld& world) {
  world.loop.perform([&] { world.core().getPremiumPostbackInfoss(); });
}
void crash(TestWorld& world) {
  world.core().makeCrashParameter({.reason = "fendo", .call_stack_symbols = {"main"}, .moment = {}});
}
void crashOutsideTheStore(TestWorld& world) {
  world.store.setInUse(true);
  crash(world);
  world.store.setInUse(false);
}
void makeErasureBody(TestWorld& world) {
  EXPECT_FALSE(world.core().makeGdprParameter(ErasureForm::kPlain).isNull());
}
void sealErasureBody(TestWorld& world) {
  EXPECT_FALSE(world.core().makeGdprParameter(ErasureForm::kSealed).isNull());
}

void makeConversionBody(TestWorld& world) {
  EXPECT_TRUE(world.core().makeConversionParameter().isAbsent());
}
void saveReferral(TestWorld& world) {
  world.core().saveFendoUserInfo({});
}
void makeIadBody(TestWorld& world) {
  EXPECT_TRUE(world.core().makeIAdAppAttributionTrackingParameter(testing::at(0), testing::at(1)).isAbsent());
}

using enum ThrowingCall::Guard;
const std::vector<ThrowingCall> kThrowingCalls = {
    {"openReadsTheQuery", openCommerceClick, ofUtil, "getURLParmaters", 1, kOpen},
    {"openReadsAFlag", openCommerceClick, ofUtil, "checkNilToNo", 1, kOpen},
    {"openReadsAnotherFlag", openCommerceClick, ofUtil, "checkNilToNo", 2, kOpen},
    {"openAsksForTheDevicesIdentifier", openCommerceClick, ofUtil, "IDFA", 1, kOpen},
    {"openReadsTheClock", openCommerceClick, ofClock, "now", 1, kOpen},
    {"openReadsTheCommerceClicks", openCommerceClick, ofStore, "get", 1, kOpen},
    {"openStoresTheCommerceClick", openCommerceClick, ofStore, "set", 1, kOpen},
    {"openReadsTheCommerceClicksBack", openCommerceClick, ofStore, "get", 2, kOpen},
    {"openFlushes", openCommerceClick, ofStore, "synchronize", 1, kOpen},
    {"openWritesALine", openCommerceClick, ofLog, "line", 1, kOpen},
    {"openAsksForForgetMeOfCommerce", openCommerceClick, ofServices, "isGDPRForgetMe", 1, kOpen},
    {"openReadsTheCommerceClicksToSend", openCommerceClick, ofStore, "get", 3, kOpen},
    {"openWritesTheBodyOfCommerce", openCommerceClick, ofJson, "write", 1, kOpen},
    {"openIsGatedInTheRequestOfCommerce", openCommerceClick, ofServices, "isGDPRForgetMe", 2, kOpen},
    {"openStartsTheRequestOfCommerce", openCommerceClick, ofTransport, "start", 1, kOpen},
    {"openLooksForTheModule", openCommerceClick, ofModules, "find", 1, kOpen},
    {"openSetsTheDelegate", openCommerceClick, ofServices, "setResetRetainedConversionCacheDeleate", 1, kOpen},
    {"openReadsTheDelegate", openCommerceClick, ofServices, "resetRetainedConversionCacheDeleate", 1, kOpen},
    {"openAsksForTheIdentifier", openDeepLinkConversion, ofServices, "appleAdvertisingIdentifier", 1, kOpen},
    {"openReadsTheReferralKey", openDeepLinkConversion, ofStore, "get", 1, kOpen},
    {"parametersAskForForgetMe", openCommerceClick, ofServices, "isGDPRForgetMe", 3, kParameters},
    {"parametersAskForTheVersion", openCommerceClick, ofVersion, "getSDKVersion", 1, kParameters},
    {"parametersMakeTheCommonOnes", openCommerceClick, ofServices, "makeCommonParameter", 1, kParameters},
    {"parametersReadTheQuery", openCommerceClick, ofUtil, "getURLParmaters", 2, kParameters},
    {"parametersReadTheSession", openCommerceClick, ofUtil, "checkLongLongNilToZero", 1, kParameters},
    {"parametersReadTheKey", openCommerceClick, ofUtil, "checkIntegerNilToZero", 1, kParameters},
    {"parametersReadTheSubKey", openCommerceClick, ofUtil, "checkNilToBlankString", 1, kParameters},
    {"parametersWriteALine", openCommerceClick, ofLog, "line", 5, kParameters},
    {"parametersAskForTheHashKey", openCommerceClick, ofServices, "hashKey", 1, kParameters},
    {"parametersAreSealed", openCommerceClick, ofServices, "makeJsonParameter", 1, kParameters},
    {"requestAsksForForgetMe", openCommerceClick, ofServices, "isGDPRForgetMe", 4, kRequest},
    {"requestWritesALine", openCommerceClick, ofLog, "line", 6, kRequest},
    {"requestIsGated", openCommerceClick, ofServices, "isGDPRForgetMe", 5, kRequest},
    {"requestIsStarted", openCommerceClick, ofTransport, "start", 2, kRequest},
    {"recorderReadsTheQuery", record, ofUtil, "getURLParmaters", 1, kRecorder},
    {"recorderReadsTheSession", record, ofUtil, "checkLongLongNilToZero", 1, kRecorder},
    {"recorderReadsTheKey", record, ofUtil, "checkIntegerNilToZero", 1, kRecorder},
    {"recorderReadsTheSubKey", record, ofUtil, "checkNilToBlankString", 1, kRecorder},
    {"recorderReadsTheClicks", record, ofStore, "get", 1, kRecorder},
    {"recorderReadsTheCounts", record, ofStore, "get", 2, kRecorder},
    {"recorderStoresTheClick", record, ofStore, "set", 1, kRecorder},
    {"recorderStoresTheCount", record, ofStore, "set", 2, kRecorder},
    {"recorderFlushes", record, ofStore, "synchronize", 1, kRecorder},
    {"retryAsksForForgetMe", retry, ofServices, "isGDPRForgetMe", 1, kRetry},
    {"retryAsksForTheVersion", retry, ofVersion, "getSDKVersion", 1, kRetry},
    {"retryMakesTheCommonParameters", retry, ofServices, "makeCommonParameter", 1, kRetry},
    {"retryReadsTheCounts", retry, ofStore, "get", 1, kRetry},
    {"retryStoresTheCounts", retry, ofStore, "set", 1, kRetry},
    {"retryReadsTheClicksToGiveUp", retry, ofStore, "get", 2, kRetry},
    {"retryStoresTheClicksThatStay", retry, ofStore, "set", 2, kRetry},
    {"retryFlushes", retry, ofStore, "synchronize", 1, kRetry},
    {"retryReadsTheClicksToSend", retry, ofStore, "get", 3, kRetry},
    {"retryReadsTheSession", retry, ofUtil, "checkLongLongNilToZero", 1, kRetry},
    {"retryReadsTheKey", retry, ofUtil, "checkIntegerNilToZero", 1, kRetry},
    {"retryReadsTheUrl", retry, ofUtil, "checkNilToBlankString", 1, kRetry},
    {"retryReadsTheSubKey", retry, ofUtil, "checkNilToBlankString", 2, kRetry},
    {"retryReadsTheFlag", retry, ofUtil, "checkNilToNo", 1, kRetry},
    {"retryWritesALine", retry, ofLog, "line", 1, kRetry},
    {"retryAsksForTheHashKey", retry, ofServices, "hashKey", 1, kRetry},
    {"retrySeals", retry, ofServices, "makeJsonParameter", 1, kRetry},
    {"retrySends", retry, ofServices, "isGDPRForgetMe", 2, kRequest},
    {"retryStartsTheRequest", retry, ofTransport, "start", 1, kRequest},
    {"facebookAsksForForgetMe", refer, ofServices, "isGDPRForgetMe", 1, kFacebook},
    {"facebookReadsTheQuery", refer, ofUtil, "getURLParmaters", 1, kFacebook},
    {"facebookReadsTheKey", refer, ofUtil, "checkIntegerNilToZero", 1, kFacebook},
    {"facebookReadsTheReportedKeys", refer, ofStore, "get", 1, kFacebook},
    {"facebookComparesAReportedKey", refer, ofUtil, "checkIntegerNilToZero", 2, kFacebook},
    {"facebookReadsTheSubKey", refer, ofUtil, "checkNilToBlankString", 1, kFacebook},
    {"facebookSends", refer, ofServices, "isGDPRForgetMe", 2, kFacebook},
    {"facebookStartsTheRequest", refer, ofTransport, "start", 1, kFacebook},
    {"premiumAsksForForgetMe", askForPremium, ofServices, "isGDPRForgetMe", 1, kPremium},
    {"premiumReadsTheGrant", askForPremium, ofStore, "get", 1, kPremium},
    {"premiumReadsTheClock", askForPremium, ofClock, "now", 1, kPremium},
    {"premiumAsksForTheAppKey", askForPremium, ofServices, "appKey", 1, kPremium},
    {"premiumIsGated", askForPremium, ofServices, "isGDPRForgetMe", 2, kPremium},
    {"premiumStartsTheRequest", askForPremium, ofTransport, "start", 1, kPremium},
    {"crashLooksForAModule", crash, ofModules, "find", 1, kCrash},
    {"crashLooksForTheLastModule", crash, ofModules, "find", 7, kCrash},
    {"crashReadsTheClock", crash, ofClock, "now", 1, kCrash},
    {"crashAsksForTheIdentifier", crash, ofUtil, "IDFA", 1, kCrash},
    {"crashConvertsTheFirstText", crash, ofUtil, "checkNilToBlankString", 1, kCrash},
    {"crashAsksForTheSystem", crash, ofDevice, "systemVersion", 1, kCrash},
    {"crashAsksForTheAppKey", crash, ofServices, "appKey", 1, kCrash},
    {"crashReadsTheAppsVersion", crash, ofBundle, "objectForInfoDictionaryKey", 1, kCrash},
    {"crashReadsTheAppsBuild", crash, ofBundle, "objectForInfoDictionaryKey", 2, kCrash},
    {"crashReadsTheAppsIdentifier", crash, ofBundle, "objectForInfoDictionaryKey", 3, kCrash},
    {"crashReadsTheInstallsTime", crash, ofStore, "tryGet", 1, kCrash},
    {"crashAsksForTheVersion", crash, ofVersion, "getSDKVersion", 1, kCrash},
    {"crashAsksForFreeStorage", crash, ofUtil, "freeDiskSpace", 1, kCrash},
    {"crashAsksWhetherTheDeviceWasBrokenInto", crash, ofDevice, "canOpenURL", 1, kCrash},
    {"crashAsksForTheModel", crash, ofUtil, "platformString", 1, kCrash},
    {"crashAsksForFreeMemory", crash, ofUtil, "getFreeRam", 1, kCrash},
    {"crashFormatsFreeMemory", crash, ofUtil, "memoryFormatter", 1, kCrash},
    {"crashReadsTheQueue", crash, ofStore, "tryGet", 2, kKeep},
    {"crashStoresTheQueue", crash, ofStore, "trySetAndSynchronize", 1, kKeep},
    {"crashPutsTheReportOnTheShelf", crashOutsideTheStore, ofShelf, "append", 1, kKeep},
    {"erasureDrawsItsId", makeErasureBody, ofRandom, "fill", 1, kErasure},
    {"erasureReadsTheClock", makeErasureBody, ofClock, "now", 1, kErasure},
    {"erasureAsksForTheServersTime", makeErasureBody, ofServices, "intervalSinceServerDate", 1, kErasure},
    {"erasureFormatsTheTime", makeErasureBody, ofUtil, "getUTCFormateDateISO", 1, kErasure},
    {"erasureAsksForTheIdentifier", makeErasureBody, ofUtil, "IDFA", 1, kErasure},
    {"erasureAsksForTheAppKey", makeErasureBody, ofServices, "appKey", 1, kErasure},
    {"erasureWritesALine", makeErasureBody, ofLog, "line", 1, kErasure},
    {"erasureAsksForTheHashKey", sealErasureBody, ofServices, "hashKey", 1, kErasure},
    {"erasureIsSealed", sealErasureBody, ofServices, "makeJsonParameter", 1, kErasure},
    {"conversionAsksForTheVersion", makeConversionBody, ofVersion, "getSDKVersion", 1, kConversion},
    {"conversionMakesTheCommonParameters", makeConversionBody, ofServices, "makeCommonParameter", 1, kConversion},
    {"conversionReadsTheClock", makeConversionBody, ofClock, "now", 1, kConversion},
    {"conversionAsksForTheServersTime", makeConversionBody, ofServices, "intervalSinceServerDate", 1, kConversion},
    {"conversionFormatsTheTime", makeConversionBody, ofUtil, "getUTCFormateDate", 1, kConversion},
    {"conversionWritesALine", makeConversionBody, ofLog, "line", 1, kConversion},
    {"conversionAsksForTheHashKey", makeConversionBody, ofServices, "hashKey", 1, kConversion},
    {"conversionIsSealed", makeConversionBody, ofServices, "makeJsonParameter", 1, kConversion},
    {"referralWritesALine", saveReferral, ofLog, "line", 1, kReferral},
    {"referralReadsTheClock", saveReferral, ofClock, "now", 1, kReferral},
    {"referralStoresItsFirstField", saveReferral, ofStore, "set", 1, kReferral},
    {"referralStoresItsTime", saveReferral, ofStore, "set", 8, kReferral},
    {"referralStoresItsLastField", saveReferral, ofStore, "set", 17, kReferral},
    {"referralReadsTheDelegateOfTheServices", saveReferral, ofServices, "saveFendoUserInfoDelegate", 1, kReferral},
    {"referralReadsTheDelegateOfTheApp", saveReferral, ofFacade, "delegate", 1, kReferral},
    {"iadAsksForTheVersion", makeIadBody, ofVersion, "getSDKVersion", 1, kIad},
    {"iadMakesTheCommonParameters", makeIadBody, ofServices, "makeCommonParameter", 1, kIad},
    {"iadFormatsTheTimeOfThePurchase", makeIadBody, ofUtil, "getKoreaDateFormateDate", 1, kIad},
    {"iadFormatsTheTimeOfTheImpression", makeIadBody, ofUtil, "getKoreaDateFormateDate", 2, kIad},
    {"iadAsksForTheHashKey", makeIadBody, ofServices, "hashKey", 1, kIad},
    {"iadIsSealed", makeIadBody, ofServices, "makeJsonParameter", 1, kIad},
};

class EverythingCalled : public ::testing::TestWithParam<ThrowingCall> {
 protected:
  EverythingCalled() {
    world.transport.setDefaultAnswer(testing::Answer::silence());
    world.modules.add("FendoLib");
    world.loop.perform([this] { world.core().endSession(); });
    world.loop.advance(100);
    world.userDefaults().setReEngagementInfos(Array{testing::clickOf(1), testing::clickOf(2)});
    world.userDefaults().setReEngagementConversionFailedCnt(Array{testing::countOf(1, 6), testing::countOf(2, 1)});
    world.userDefaults().setFendoConversionInfoForCaches(Array{99});
    EXPECT_TRUE(world.core().makeReEngagementConversionParameter(kit::Url("app://x?ck=7")).isDictionary());
    world.log.clear();
  }
  /// The line that the guard writes: of the exception Name, Reason, or of the text "boom".
  static std::string lineOf(ThrowingCall::Guard guard, bool is_exception) {
    const std::string text = is_exception ? "Reason" : "boom";
    const auto block = is_exception ? exceptionBlock : otherBlock;
    switch (guard) {
      case kOpen:
        return block("MRVK_QA-[MorvikCoreLib error] Exception from passOpenURL!", kBlanks26);
      case kParameters:
        return block("MRVK_QA-[MorvikCore error] Exception from MorvikCoreService!", kBlanks30);
      case kRequest:
        return block("MRVK_QA-[MorvikCoreLib error] Exception from MorvikCoreService!", kBlanks30);
      case kRecorder:
        return "! MRVK_QA-MorvikCore makeReEngagementConversionParameter Exception: " + text + "\n";
      case kRetry:
        if (is_exception)
          return "! MRVK_QA-MorvikCore makeFailureReEngagementConversionParameter Exception: Reason\n";
        return block("MRVK_QA-[MorvikCore error] Exception from makeFailureReEngagementConversionParameter!",
                     kBlanks30);
      case kFacebook:
        return "! MRVK_QA-MorvikCoreLib setReferralUrlForFacebook Exception: " + text + "\n";
      case kPremium:
        return "MRVK_QA-[MorvikCoreLib error] Exception : " + text + "]";
      case kCrash:
        return "! MRVK_QA-MorvikCoreLib makeCrashParameter exception : " + text + "\n";
      case kKeep:
        return "MRVK_QA-[MorvikCoreLib error] Exception from startSessinAfter fail to save initial idfa  : " + text +
               "]";
      case kReferral:
        return block("MRVK_QA-[MorvikCoreLib error] Exception from saveFendoUserInfo!", kBlanks26);
      case kIad:
        return block("MRVK_QA-[MorvikCoreService error] Exception from MorvikCoreService!", kBlanks26);
      case kConversion:
      case kErasure:
        return block("MRVK_QA-[MorvikCoreLib error] Exception from makeConversionParameter!", kBlanks26);
    }
    return {};
  }
  void expectOneLineOf(const Fault& fault, bool is_exception) {
    testing::Faults& faults = GetParam().faults(world);
    faults.throwAt(GetParam().operation, GetParam().nth, fault);
    EXPECT_NO_THROW(GetParam().run(world));
    EXPECT_EQ(faults.thrown().size(), 1U) << "the call was not made";
    EXPECT_EQ(world.log.count(lineOf(GetParam().guard, is_exception)), 1U);
    EXPECT_EQ(guardLinesIn(world.log), 1U);
  }

  TestWorld world{WorldOptions::attributed()};
};

TEST_P(EverythingCalled, MayThrowThePlatformExceptionAndEndsInItsGuard) {
  expectOneLineOf(Fault::exception("Name", "Reason", Dictionary{{"key", "info"}}), true);
}

TEST_P(EverythingCalled, MayThrowAnyOtherObjectAndEndsInItsGuard) {
  expectOneLineOf(Fault::runtimeError("boom"), false);
}

INSTANTIATE_TEST_SUITE_P(Core, EverythingCalled, ::testing::ValuesIn(kThrowingCalls),
                         [](const auto& row) { return row.param.what; });

TEST(GuardedRefetch, GoesOnAfterTheException) {
  // A stored key of 3 would end the re-fetch; with -1 the request is held back, as ever: for that the key is read
  // again.
  TestWorld world;
  failTenConversions(world);
  world.faulty.main_queue.faults.throwAlways("after", Fault::number(5));
  const size_t reads = ofStore(world).calls("get");
  world.loop.perform([&] { world.core().tracking(Dictionary{{"j", "x"}}); });
  EXPECT_EQ(world.core().failedGetReferralCnt(), 11);
  EXPECT_EQ(ofStore(world).calls("get") - reads, 2U) << "before the re-fetch, and behind its exception";
  EXPECT_THAT(world.requests("v1/tracking"), ::testing::IsEmpty());
}

TEST(GuardedDelegates, ThatThrowEndInTheGuardOfTheReferral) {
  for (const Fault& fault : {Fault::exception("Name", "Reason"), Fault::runtimeError("boom")}) {
    TestWorld world;
    world.app.of_services->didSaveFendoUserInfo = [&](int64_t, int64_t, int64_t, const std::string&, int32_t) {
      fault.raise();
    };
    world.core().saveFendoUserInfo({});
    EXPECT_EQ(world.log.countContaining("Exception from saveFendoUserInfo!"), 1U);
    EXPECT_THAT(world.app.calls(), ::testing::IsEmpty()) << "what comes after is not done";
    world.app.of_services->didSaveFendoUserInfo = nullptr;
    world.app.of_facade->didSaveConversionKey = [&](int64_t, const std::string&) { fault.raise(); };
    world.core().saveFendoUserInfo({});
    EXPECT_EQ(world.log.countContaining("Exception from saveFendoUserInfo!"), 2U);
    EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), 0) << "the record stays stored";
  }
}

TEST(GuardedModules, ThatThrowEndInTheGuardOfTheUrl) {
  for (const Fault& fault : {Fault::exception("Name", "Reason"), Fault::runtimeError("boom")}) {
    TestWorld world(WorldOptions::attributed());
    world.modules.add("FendoLib");
    world.modules.sharedOf("FendoLib").resetRetainedConversionCache = [&](const Value&) { fault.raise(); };
    testing::open(world, "app://x?ck=12");
    EXPECT_EQ(world.log.countContaining("Exception from passOpenURL!"), 1U);
    world.log.clear();
    world.modules.add("FendoLib").shared = [&]() -> std::shared_ptr<const kit::ModuleObject> { fault.raise(); };
    testing::open(world, "app://x?ck=13");
    EXPECT_EQ(world.log.countContaining("Exception from passOpenURL!"), 1U);
  }
}

TEST(GuardedModules, WhoseVersionThrowsEndInTheGuardOfTheCrash) {
  for (const Fault& fault : {Fault::exception("Name", "Reason"), Fault::runtimeError("Reason")}) {
    TestWorld world;
    world.modules.add("QuintUpdateLog").getSDKVersion = [&]() -> std::optional<std::string> { fault.raise(); };
    crash(world);
    EXPECT_TRUE(world.log.has("! MRVK_QA-MorvikCoreLib makeCrashParameter exception : Reason\n"));
    EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_Crash().isAbsent());
  }
}

TEST(UnguardedOperations, OfForgetMeAndScheduleGoUpToTheGuardOfTheQueue) {
  TestWorld world(WorldOptions::attributed());
  size_t caught = 0;
  world.loop.setExceptionSink([&caught](const std::exception_ptr&) { ++caught; });
  world.modules.add("QuintPush").setRemotePushEnable = [](bool) { throw 1; };
  world.modules.add("Fendo");
  world.modules.sharedOf("Fendo").didGetSchedule = [](const Value&) { throw 1; };
  world.transport.on("v2/schedule").always(testing::Answer::json(Dictionary{{"Result", true}}));
  world.loop.perform([&] { world.core().getSchedule(Dictionary{}); });
  EXPECT_EQ(caught, 1U);
  EXPECT_TRUE(world.core()._lastJSON().isDictionary());
  world.loop.perform([&] { world.core().gdprForgetMe(true); });
  EXPECT_EQ(caught, 2U);
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_isGDPRForgetMe()) << "the wish stays recorded";
  EXPECT_THAT(world.requests("v1/erasure"), ::testing::IsEmpty());
}

TEST(UnguardedHandlers, GoUpToTheGuardOfTheQueue) {
  TestWorld world(WorldOptions::attributed());
  size_t caught = 0;
  world.loop.setExceptionSink([&caught](const std::exception_ptr&) { ++caught; });
  world.modules.add("FendoLib");
  world.modules.sharedOf("FendoLib").saveRetainedConversionKey = [](int64_t) { throw 1; };
  world.userDefaults().setReEngagementInfos(Array{testing::clickOf(12)});
  world.transport.on(testing::kReEngagement).always(testing::Answer::json(testing::acceptanceOf(12)));
  world.loop.perform([&] { world.core().reEngagementConversion(Dictionary{{"j", "x"}}); });
  EXPECT_EQ(caught, 1U);
  EXPECT_EQ(world.userDefaults().fendoUserInfo_reengagement_conversion_key(), 0) << "what comes after is not done";
  EXPECT_EQ(world.userDefaults().reEngagementInfos().size(), 1U);
}

}  // namespace
}  // namespace morvik
