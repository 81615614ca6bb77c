// Every guarded operation with everything it calls throwing: it returns normally and writes exactly its lines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::activities;
using ::testing::ElementsAre;
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
  };
  return all;
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
  /// The guards' lines; nothing else in the log holds this word.
  size_t guardLines() { return world.log.countContaining("Exception"); }

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
  for (const Fault& fault :
       {Fault::exception("Name", "Reason", Dictionary{{"key", "info"}}), Fault::runtimeError("boom")}) {
    TestWorld quiet;
    const bool is_error = std::string_view(GetParam().exception_level) == "ERROR";
    quiet.sharedState().log_levels._lcl_component_level[kit::lcl_cKesmo] =
        is_error ? kit::lcl_vCritical : kit::lcl_vDebug;
    quiet.log.clear();
    GetParam().run(quiet, fault);
    const bool is_ungated = *GetParam().exception_level == '\0';
    EXPECT_EQ(quiet.log.countContaining("Exception"), is_ungated ? 1U : 0U) << fault.description();
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

TEST(GuardedRefetch, GoesOnAfterTheException) {
  // A stored key of 3 would end the re-fetch; with -1 the request is held back, as ever.
  TestWorld world;
  failTenConversions(world);
  world.faulty.main_queue.faults.throwAlways("after", Fault::number(5));
  world.loop.perform([&] { world.core().tracking(Dictionary{{"j", "x"}}); });
  EXPECT_EQ(world.core().failedGetReferralCnt(), 11);
  EXPECT_THAT(world.requests("v1/tracking"), ::testing::IsEmpty());
}

}  // namespace
}  // namespace morvik
