#include "apps/device/ledger_rows.h"

#include <gtest/gtest.h>

#include "services/json_writer.h"

namespace morvik_device {
namespace {

std::string jsonOf(const morvik::Ledger& ledger) {
  std::string text;
  morvik::services::appendJsonDescription(morvik::kit::Value(rowsOf(ledger).asDictionary()), text);
  return text;
}

TEST(LedgerRows, AreOneForEachKindAndOneForEachReason) {
  morvik::Ledger ledger;
  ledger.accounts = {{.kind = "activities",
                      .recorded = 9,
                      .delivered = 4,
                      .stored = 2,
                      .given_up = {{"a rule", 1, true}, {"another", 2, true}}},
                     {.kind = "impressions", .recorded = 1, .under_way = 1}};
  EXPECT_EQ(
      jsonOf(ledger),
      R"({"balances":true,"sound":true,"accounts":[)"
      R"({"kind":"activities","recorded":9,"delivered":4,"stored":2,"under_way":0,"given_up":3,"found_uncounted":0},)"
      R"({"kind":"impressions","recorded":1,"delivered":0,"stored":0,"under_way":1,"given_up":0,"found_uncounted":0}],)"
      R"("given_up":[{"kind":"activities","count":1,"reason":"a rule","by_rule":true},)"
      R"({"kind":"activities","count":2,"reason":"another","by_rule":true}]})");
}

TEST(LedgerRows, SayWhatIsWrong) {
  morvik::Ledger ledger;
  ledger.accounts = {{.kind = "activities", .recorded = 2, .delivered = 1}};
  EXPECT_FALSE(rowsOf(ledger).balances);
  EXPECT_FALSE(rowsOf(ledger).is_sound);
  ledger.accounts = {{.kind = "activities", .recorded = 1, .given_up = {{"unexplained", 1, false}}}};
  EXPECT_TRUE(rowsOf(ledger).balances);
  EXPECT_FALSE(rowsOf(ledger).is_sound);
}

}  // namespace
}  // namespace morvik_device
