#include "apps/device/inspection_text.h"

#include <gtest/gtest.h>

#include "services/MorvikGVUserDefaults.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;
namespace property = morvik::services::property;

const kit::Date kDate = kit::Date::fromSeconds(1'709'251'200);

StoredEntries someEntries() {
  return {
      {property::fendoUserInfo_fendoUserNo, kit::Value(1001)},
      {property::fendoUserInfo_referralKey, kit::Value(-1)},
      {property::MorvikCoreUserInfo_endSessoinDate, kit::Value(kDate)},
      {property::fendoActivityInfos, kit::Array{kit::Dictionary{{"activityGroupName", "session"},
                                                                {"activityName", "start"},
                                                                {"activityParam", ""},
                                                                {"activityCreatedAt", kDate},
                                                                {"activityEventID", "id-1"}},
                                                kit::Dictionary{{"activityGroupName", "shop"},
                                                                {"activityName", "gekauft für 3 €"},
                                                                {"activityParam", "sku-42"},
                                                                {"activityCreatedAt", kDate},
                                                                {"activityEventID", "id-2"},
                                                                {"of tomorrow", 5}}}},
      {property::fendoActivityInfosSentEventKeys, kit::Array{kit::Value("id-1")}},
      {property::commerceConversionInfos, kit::Array{kit::Dictionary{{"clickId", "abc"}, {"mtime", 1709251200000.5}}}},
      {property::fendoUserDemoInfo_gender, kit::Value(1)},
      {property::MorvikCoreUserInfo_isGDPRForgetMe, kit::Value(true)},
      {"of tomorrow", kit::Dictionary{{"a", 1}}},
  };
}

Inspection someInspection(size_t shown = 10) {
  return {"/data/morvik.store", sorted(someEntries(), {}, shown), {}};
}

TEST(InspectionText, ShowsEachSectionWithWhatIsInIt) {
  EXPECT_EQ(describe(someInspection(), {}), R"(Store /data/morvik.store, read and left as it is

Install
  user number   1001
  referral key  none

Sessions
  last session ended  2024-03-01T00:00:00Z

Activities
  waiting  2
    recorded              group    name             param   id
    2024-03-01T00:00:00Z  session  start            ""      id-1  in the latest batch
    2024-03-01T00:00:00Z  shop     gekauft für 3 €  sku-42  id-2  of tomorrow=5
  in the latest batch  1

Impressions
  none wait

Re-engagement clicks
  none failed

Commerce
  clicks waiting  1
    clicked                      click  advertising identifier
    2024-03-01T00:00:00.000500Z  abc    -

Crash reports
  none wait

Demographics
  gender to be sent  1 (female)

Campaign schedule
  never in the store: each process fetches it again

Consent
  forgotten, or to be  yes

Ledger: what became of all that was recorded
  balances  yes
  sound     yes
  accounts  6
                          recorded  delivered  stored  under way  given up  found uncounted
    activities            2         0          2       0          0         0
    impressions           0         0          0       0          0         0
    re-engagement clicks  0         0          0       0          0         0
    commerce clicks       1         0          1       0          0         0
    crash reports         0         0          0       0          0         0
    demographics          1         0          1       0          0         0
  given up, by reason  0

The host's own
  nothing

Unknown to this program
  of tomorrow  {"a":1}
)");
}

std::string activityWith(const std::string& param, const TextStyle& style = {}) {
  const StoredEntries entries = {
      {property::fendoActivityInfos, kit::Array{kit::Dictionary{{"activityGroupName", "shop"},
                                                                {"activityName", "purchase"},
                                                                {"activityParam", param},
                                                                {"activityCreatedAt", kDate},
                                                                {"activityEventID", "id-1"}}}}};
  const std::string text = describe({"/data/morvik.store", sorted(entries, {}, 10), {}}, style);
  const size_t begin = text.find("  waiting");
  return text.substr(begin, text.find("\nImpressions") - begin);
}

TEST(InspectionText, OpensAStructuredParameter) {
  EXPECT_EQ(activityWith(R"({"price":9.99,"currency":"EUR","item":{"sku":"42"},"tags":["new",null]})"),
            R"(  waiting  1
    recorded              group  name      param  id
    2024-03-01T00:00:00Z  shop   purchase  {…}    id-1
      price     9.99
      currency  "EUR"
      item      {"sku":"42"}
      tags      ["new",null]
)");
}

TEST(InspectionText, LeavesAParameterThatIsNoObjectAsItIs) {
  for (const char* param : {"{", "{}", "[1]", "{\"a\":1} x", "42"})
    EXPECT_NE(activityWith(param).find(std::string("purchase  ") + param + " "), std::string::npos) << param;
}

TEST(InspectionText, ShowsSoManyMembersOfAParameterUnlessAllIsAskedFor) {
  std::string param = "{\"m0\":0";
  for (size_t member = 1; member < kShownOfAParameter; ++member)
    param += ",\"m" + std::to_string(member) + "\":0";
  EXPECT_EQ(activityWith(param + "}").find("more"), std::string::npos);
  param += ",\"last\":\"\\u001b[2J\"}";
  EXPECT_NE(activityWith(param).find("      … and 1 more\n"), std::string::npos);
  EXPECT_EQ(activityWith(param).find("last"), std::string::npos);
  EXPECT_NE(activityWith(param, {false, false}).find("      last  \"\\u001b[2J\"\n"), std::string::npos);
}

TEST(InspectionText, SaysHowManyAreNotShown) {
  EXPECT_NE(describe(someInspection(1), {}).find("  waiting  2, the newest 1:\n"), std::string::npos);
}

TEST(InspectionText, IsOneLineOfJsonForMachines) {
  Inspection inspection = someInspection(1);
  inspection.remarks.emplace_back("a remark");
  EXPECT_EQ(
      describeAsJson(inspection),
      R"({"store":"/data/morvik.store",)"
      R"("install":{"fendoUserInfo_fendoUserNo":1001,"fendoUserInfo_referralKey":-1},)"
      R"("sessions":{"MorvikCoreUserInfo_endSessoinDate":"2024-03-01T00:00:00Z"},)"
      R"("activities":{"fendoActivityInfos":{"count":2,"newest":[{"activityGroupName":"shop",)"
      R"("activityName":"gekauft für 3 €","activityParam":"sku-42","activityCreatedAt":"2024-03-01T00:00:00Z",)"
      R"("activityEventID":"id-2","of tomorrow":5}]},)"
      R"("fendoActivityInfosSentEventKeys":{"count":1,"newest":["id-1"]}},)"
      R"("impressions":{},"re_engagements":{},)"
      R"("commerce":{"commerceConversionInfos":{"count":1,"newest":[{"clickId":"abc","mtime":1709251200000.5}]}},)"
      R"("crashes":{},"demographics":{"fendoUserDemoInfo_gender":1},"schedule":{},)"
      R"("consent":{"MorvikCoreUserInfo_isGDPRForgetMe":true},)"
      R"("ledger":{"balances":true,"sound":true,"accounts":{"count":6,"newest":[)"
      R"({"kind":"activities","recorded":2,"delivered":0,"stored":2,"under_way":0,)"
      R"("given_up":0,"found_uncounted":0},)"
      R"({"kind":"impressions","recorded":0,"delivered":0,"stored":0,"under_way":0,)"
      R"("given_up":0,"found_uncounted":0},)"
      R"({"kind":"re-engagement clicks","recorded":0,"delivered":0,"stored":0,"under_way":0,)"
      R"("given_up":0,"found_uncounted":0},)"
      R"({"kind":"commerce clicks","recorded":1,"delivered":0,"stored":1,"under_way":0,)"
      R"("given_up":0,"found_uncounted":0},)"
      R"({"kind":"crash reports","recorded":0,"delivered":0,"stored":0,"under_way":0,)"
      R"("given_up":0,"found_uncounted":0},)"
      R"({"kind":"demographics","recorded":1,"delivered":0,"stored":1,"under_way":0,)"
      R"("given_up":0,"found_uncounted":0}]})"
      R"(,"given_up":{"count":0,"newest":[]}},"host":{},"unknown":{"of tomorrow":{"a":1}},)"
      R"("remarks":["a remark"]})"
      "\n");
}

TEST(InspectionText, SaysThatNothingWasRecordedYet) {
  EXPECT_NE(describe({"s", sorted({}, {}, 10), {}}, {}).find("was recorded\n  nothing was recorded yet\n"),
            std::string::npos);
}

TEST(InspectionText, ShowsTheLedgerAsATableOfItsKindsAndOneOfTheReasons) {
  const kit::Value written = kit::Dictionary{
      {"activities",
       kit::Dictionary{{"recorded", 1003}, {"delivered", 1000}, {"given_up", kit::Dictionary{{"keptSession", 1}}}}},
      {"crash reports", kit::Dictionary{{"recorded", 1}, {"under_way", 1}}},
      {"impressions", kit::Dictionary{{"recorded", 2}, {"given_up", kit::Dictionary{{"missing", 1}}}}}};
  const StoredEntries entries = {{property::fendoActivityInfos, kit::Array{1, 2}}, {"host.ledger", written}};
  const std::string text = describe({"s", sorted(entries, {}, 1), {}}, {});
  EXPECT_NE(text.find(R"(
Ledger: what became of all that was recorded
  balances  no
  sound     no
  accounts  6
                          recorded  delivered  stored  under way  given up  found uncounted
    activities            1005      1000       2       0          1         0
    impressions           2         0          0       0          1         0
    re-engagement clicks  0         0          0       0          0         0
    commerce clicks       0         0          0       0          0         0
    crash reports         1         0          0       1          0         0
    demographics          0         0          0       0          0         0
  given up, by reason  2
    kind         count  reason                                               by a rule
    activities   1      the "end" of a session that went on within a minute  yes
    impressions  1      no longer in the store when it was opened            no
)"),
            std::string::npos)
      << text;
}

TEST(InspectionText, SetsTitlesApartOnATerminalOnly) {
  EXPECT_NE(describe(someInspection(), {.is_coloured = true}).find("\x1b[1mInstall\x1b[0m\n"), std::string::npos);
  EXPECT_EQ(describe(someInspection(), {}).find('\x1b'), std::string::npos);
}

TEST(InspectionText, LetsNothingStoredMoveTheCursor) {
  const Inspection inspection{
      "/data/\x1b[2J",
      sorted({{property::fendoUserInfo_refUSN, kit::Value("a\x1b[31mred\nline\x7f\xff\xc2\x9b é")}}, {}, 10),
      {"\r"}};
  const std::string text = describe(inspection, {});
  EXPECT_NE(text.find("referring user  a\\x1b[31mred\\x0aline\\x7f\\xff\\xc2\\x9b é\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Store /data/\\x1b[2J,"), std::string::npos) << text;
  EXPECT_NE(text.find("Remarks\n  \\x0d\n"), std::string::npos) << text;
}

TEST(InspectionText, CutsLongTextBetweenCharactersUnlessAllIsAskedFor) {
  std::string fits;
  for (size_t i = 0; i < kShownOfACell; ++i)
    fits += "é";
  const auto shown = [](const std::string& text, bool cuts) {
    return describe({"s", sorted({{property::fendoUserInfo_refUSN, kit::Value(text)}}, {}, 10), {}},
                    {.cuts_long_text = cuts});
  };
  EXPECT_NE(shown(fits, true).find("user  " + fits + "\n"), std::string::npos);
  EXPECT_NE(shown(fits + "é", true).find("user  " + fits + "…\n"), std::string::npos);
  EXPECT_NE(shown(fits + "é", false).find("user  " + fits + "é\n"), std::string::npos);
}

TEST(InspectionText, TellsOfACrashWhenAndWhy) {
  const kit::Value report = kit::Dictionary{{"local_kst_time", "2024-03-01 09:00:00"},
                                            {"exception_reason", "fendo broke"},
                                            {"exception_log_trace", "0 frame<br>"}};
  const std::string text = describe({"s", sorted({}, {kit::Array{report}, {}}, 10), {}}, {});
  EXPECT_NE(text.find("  on the shelf until the next start  1\n"
                      "    at UTC+9             reason\n"
                      "    2024-03-01 09:00:00  fendo broke\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("frame<br>"), std::string::npos);
}

TEST(InspectionText, AnyValueMayStandWhereAPointInTimeIsDue) {
  for (const kit::Value& strange : {kit::Value("text"), kit::Value(1e300), kit::Value(), kit::Value(kit::Array{})}) {
    const std::string text = describe(
        {"s",
         sorted({{property::commerceConversionInfos, kit::Array{kit::Dictionary{{"mtime", strange}}}}}, {}, 10),
         {}},
        {});
    EXPECT_NE(text.find("  clicks waiting  1\n"), std::string::npos);
  }
}

}  // namespace
}  // namespace morvik_device
