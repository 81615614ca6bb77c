#include "apps/service/checks/crash_rules.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::crashReport;
using test::kKeys;
using test::refusalOf;

std::string problemOf(const std::vector<Json>& reports) {
  const Refusal refusal = refusalOf([&] { checkCrashReports(reports); });
  EXPECT_EQ(400, refusal.status());
  return refusal.what();
}

TEST(CrashRules, AcceptsWhatTheProtocolLists) {
  EXPECT_NO_THROW(checkCrashReports(Json::array()));
  EXPECT_NO_THROW(checkCrashReports(Json::array({crashReport("fendo"), crashReport("")})));
}

TEST(CrashRules, AReportHasExactlyItsTwentyMembers) {
  const Json good = crashReport("fendo");
  EXPECT_EQ(20U, good.size());
  for (const auto& [name, value] : good.items()) {
    Json report = good;
    report.erase(name);
    EXPECT_EQ("[1]." + name + " is missing", problemOf({good, report}));
    report[name] = 1;
    EXPECT_EQ("[1]." + name + (value.is_string() ? " is not a string" : " is not an object"),
              problemOf({good, report}));
  }
  Json report = good;
  report["password"] = "secret";
  EXPECT_EQ("[0].password does not belong there", problemOf({report}));
  EXPECT_EQ("[0] is not an object", problemOf({"fendo"}));
}

TEST(CrashRules, TheDeviceHasExactlyItsFiveMembers) {
  const Json good = crashReport("fendo");
  EXPECT_EQ(5U, good["device_information"].size());
  const std::map<std::string, std::string> problems = {{"app_in_focus", "is not a boolean"},
                                                       {"root_device", "is not a boolean"},
                                                       {"free_device_storage", "is neither a number nor a string"},
                                                       {"free_memory", "is neither a number nor a string"},
                                                       {"device_model", "is not a string"}};
  for (const auto& [name, value] : good["device_information"].items()) {
    Json report = good;
    report["device_information"].erase(name);
    EXPECT_EQ("[0].device_information." + name + " is missing", problemOf({report}));
    report["device_information"][name] = nullptr;
    EXPECT_EQ("[0].device_information." + name + " " + problems.at(name), problemOf({report}));
  }
  Json report = good;
  report["device_information"]["more"] = 1;
  EXPECT_EQ("[0].device_information.more does not belong there", problemOf({report}));
}

TEST(CrashRules, FreeSizesMayBeNumbersOrTexts) {
  Json report = crashReport("fendo");
  for (const Json& size : {Json(12345678901), Json("812.4 MB"), Json("")}) {
    report["device_information"]["free_device_storage"] = size;
    report["device_information"]["free_memory"] = size;
    EXPECT_NO_THROW(checkCrashReports(Json::array({report}))) << size;
  }
}

TEST(CrashRules, AReportOfAnotherAppIsRefused) {
  Json report = crashReport("fendo");
  EXPECT_NO_THROW(checkAppOfCrashReports(Json::array({report}), kKeys));
  report["appkey"] = "app-2";
  const Refusal refusal = refusalOf([&] {
    checkAppOfCrashReports(Json::array({crashReport("fendo"), report}), kKeys);
  });
  EXPECT_EQ(403, refusal.status());
  EXPECT_EQ("the payload, [1].appkey", refusal.where());
}

}  // namespace
}  // namespace morvik_service
