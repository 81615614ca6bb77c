#include "runtime/siblings/MorvikADUtil.h"

#include <gtest/gtest.h>

#include <set>

#include "host/linux/system_facts.h"
#include "services/dates.h"

namespace morvik::runtime {
namespace {

const host::SystemFacts kMachine;
const MorvikADUtil kUtil({.idfa = "AAAA-BBBB"}, kMachine);

TEST(MorvikADUtil, ConvertsValuesOfAnyKind) {
  EXPECT_EQ(kUtil.checkNilToBlankString({}), kit::Value(""));
  EXPECT_EQ(kUtil.checkNilToBlankString(17), kit::Value("17"));
  EXPECT_FALSE(kUtil.checkNilToNo(kit::Value::null()));
  EXPECT_TRUE(kUtil.checkNilToNo("yes"));
  EXPECT_EQ(kUtil.checkIntegerNilToZero("12 and more"), 12);
  EXPECT_EQ(kUtil.checkLongLongNilToZero(5.9), 5);
  EXPECT_EQ(kUtil.checkDoubleNilToZero("1.5"), 1.5);
  EXPECT_EQ(kUtil.checkNilToZero(int64_t{1} << 32), 0);
}

TEST(MorvikADUtil, WritesDatesAsTheServicesReadThem) {
  const kit::Date date = *services::dateFromIso8601("2024-03-01T20:30:40Z");
  EXPECT_EQ(kUtil.getKoreaDateFormateDate(date), "20240302053040");
  EXPECT_EQ(kUtil.getUTCFormateDate(date), "20240301203040");
  EXPECT_EQ(kUtil.getUTCFormateDateISO(kit::Date{date.microseconds + 999'999}), "2024-03-01T20:30:40Z");
}

TEST(MorvikADUtil, TellsServerTimeMinusDeviceTime) {
  EXPECT_EQ(kUtil.timeIntervalSinceServerDate(kit::Date::fromSeconds(1'700'000'000), 1'700'000'012.5), 12.5);
  EXPECT_EQ(kUtil.timeIntervalSinceServerDate(kit::Date::fromSeconds(1'700'000'000), 1'699'999'990.0), -10.0);
}

TEST(MorvikADUtil, KnowsTheAdvertisingIdentifierUnlessTrackingIsLimited) {
  EXPECT_EQ(kUtil.IDFA(), "AAAA-BBBB");
  EXPECT_EQ(MorvikADUtil({}, kMachine).IDFA(), std::nullopt);
}

TEST(MorvikADUtil, AlwaysKnowsANetworkWithAnEndpointOnThisMachine) {
  const std::set<std::string> known = {"wifi", "cellular", "ethernet"};
  EXPECT_TRUE(known.contains(MorvikADUtil({.has_loopback_endpoint = true}, kMachine).getNetworkStatus()));
}

TEST(MorvikADUtil, TellsWhatCrashReportsSayOfTheDevice) {
  const MorvikADUtil util({.model = "a-model", .disk_path = "/"}, kMachine);
  EXPECT_EQ(util.platformString(), "a-model");
  EXPECT_GT(util.freeDiskSpace().integer(), 0);
  EXPECT_GT(util.getFreeRam(), 0U);
  EXPECT_EQ(util.memoryFormatter(831'898), "812.4 MB");
  EXPECT_TRUE(MorvikADUtil({.disk_path = "/no/such/folder"}, kMachine).freeDiskSpace().isAbsent());
}

TEST(MorvikADUtil, ReadsTheQueryOfAUrl) {
  EXPECT_EQ(kUtil.getURLParmaters(kit::Url("app://x?ck=12&a+b=%63&ck=13&e#f=1")),
            kit::Value(kit::Dictionary{{"ck", "12"}, {"a b", "c"}, {"e", ""}}));
  EXPECT_EQ(kUtil.getURLParmaters(kit::Url("app://x?")), kit::Value(kit::Dictionary{}));
  EXPECT_TRUE(kUtil.getURLParmaters(kit::Url("app://x")).isAbsent());
  EXPECT_TRUE(kUtil.getURLParmaters(kit::Url("")).isAbsent());
}

TEST(MorvikADUtil, TellsAnotherAdvertisingIdentifierOnceItIsReplaced) {
  MorvikADUtil util({.idfa = "AAAA"}, kMachine);
  util.replaceIDFA("BBBB");
  EXPECT_EQ(util.IDFA(), "BBBB");
  util.replaceIDFA("CCCC");
  EXPECT_EQ(util.IDFA(), "BBBB");
}

}  // namespace
}  // namespace morvik::runtime
