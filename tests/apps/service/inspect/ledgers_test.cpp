#include "apps/service/inspect/ledgers.h"

#include <gtest/gtest.h>

#include "apps/service/base/refusal.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::refusalOf;

class LedgersTest : public testing::Test {
 protected:
  std::string refusalOfLedger(const Json& ledger) {
    const Refusal refusal = refusalOf([&] { ledgers_.tell(ledger.dump()); });
    EXPECT_EQ(400, refusal.status());
    return refusal.what();
  }
  // The ledger with one member of the first account changed.
  static Json withAccount(const char* member, const Json& value) {
    Json ledger = test::ledger("i");
    ledger["accounts"][0][member] = value;
    return ledger;
  }

  std::int64_t now_ = 1000;
  Ledgers ledgers_{[this] { return now_; }};
};

TEST_F(LedgersTest, ShowWhatWasToldWithWhatFollowsFromIt) {
  ledgers_.tell(test::ledger("i").dump());
  EXPECT_EQ(R"({"install":"i","time":"1970-01-01T00:00:01.000Z","accounts":[)"
            R"({"kind":"activities","recorded":6,"delivered":3,"stored":1,"under_way":1,"given_up":1,)"
            R"("found_uncounted":0,"balances":true},)"
            R"({"kind":"impressions","recorded":0,"delivered":0,"stored":0,"under_way":0,"given_up":0,)"
            R"("found_uncounted":0,"balances":true}],)"
            R"("given_up":[{"kind":"activities","count":1,"reason":"a rule","by_rule":true}],)"
            R"("balances":true,"sound":true})",
            jsonText(ledgers_.of("i")));
  EXPECT_TRUE(ledgers_.of("j").is_null());
}

TEST_F(LedgersTest, AnAccountThatDoesNotAddUpDoesNotBalance) {
  ledgers_.tell(withAccount("recorded", 7).dump());
  EXPECT_EQ(false, ledgers_.of("i")["accounts"][0]["balances"]);
  EXPECT_EQ(true, ledgers_.of("i")["accounts"][1]["balances"]);
  EXPECT_EQ(false, ledgers_.of("i")["balances"]);
  EXPECT_EQ(false, ledgers_.of("i")["sound"]);
}

TEST_F(LedgersTest, WhatWentAgainstTheRulesOrUncountedIsNotSound) {
  Json ledger = test::ledger("i");
  ledger["given_up"][0]["by_rule"] = false;
  ledgers_.tell(ledger.dump());
  EXPECT_EQ(true, ledgers_.of("i")["balances"]);
  EXPECT_EQ(false, ledgers_.of("i")["sound"]);
  ledgers_.tell(withAccount("found_uncounted", 1).dump());
  EXPECT_EQ(true, ledgers_.of("i")["balances"]);
  EXPECT_EQ(false, ledgers_.of("i")["sound"]);
}

TEST_F(LedgersTest, OfEachDeviceTheLatestIsKept) {
  ledgers_.tell(test::ledger("one").dump());
  ledgers_.tell(test::ledger("two").dump());
  now_ = 2000;
  Json later = test::ledger("one");
  later["accounts"][0]["stored"] = 0;
  ledgers_.tell(later.dump());
  EXPECT_EQ(2U, ledgers_.size());
  EXPECT_EQ(3U, ledgers_.told());
  EXPECT_EQ(0, ledgers_.of("one")["accounts"][0]["stored"]);
  EXPECT_EQ("one", ledgers_.list()[0]["install"]);
  EXPECT_EQ("1970-01-01T00:00:02.000Z", ledgers_.list()[0]["time"]);
  EXPECT_EQ("two", ledgers_.list()[1]["install"]);
}

TEST_F(LedgersTest, PastTheLimitTheDeviceThatToldItsOwnLongestAgoIsForgotten) {
  for (std::size_t i = 0; i < kMaxLedgers; ++i)
    ledgers_.tell(test::ledger("device " + std::to_string(i)).dump());
  ledgers_.tell(test::ledger("device 0").dump());
  EXPECT_EQ(kMaxLedgers, ledgers_.size());
  ledgers_.tell(test::ledger("one more").dump());
  EXPECT_EQ(kMaxLedgers, ledgers_.size());
  EXPECT_TRUE(ledgers_.of("device 1").is_null());
  EXPECT_FALSE(ledgers_.of("device 0").is_null());
  EXPECT_FALSE(ledgers_.of("one more").is_null());
}

TEST_F(LedgersTest, AMemberThatIsMissingStrangeOrOfAnotherTypeIsNamed) {
  EXPECT_STREQ("the JSON is not an object", refusalOf([&] { ledgers_.tell("[]"); }).what());
  EXPECT_EQ(400, refusalOf([&] { ledgers_.tell("{"); }).status());
  EXPECT_EQ("install is missing", refusalOfLedger(Json::object()));
  Json ledger = test::ledger("");
  EXPECT_EQ("install is empty", refusalOfLedger(ledger));
  ledger = test::ledger("i");
  ledger["balances"] = true;
  EXPECT_EQ("balances does not belong there", refusalOfLedger(ledger));
  ledger = test::ledger("i");
  ledger["accounts"] = Json::array();
  ledger["given_up"] = Json::array();
  EXPECT_EQ("accounts is empty", refusalOfLedger(ledger));
  EXPECT_EQ("accounts[0].kind is empty", refusalOfLedger(withAccount("kind", "")));
  EXPECT_EQ("accounts[0].stored is not a 64-bit integer", refusalOfLedger(withAccount("stored", 1.5)));
  EXPECT_EQ("accounts[0].stored is not a number from 0 to 1000000000000000",
            refusalOfLedger(withAccount("stored", -1)));
  EXPECT_EQ("accounts[0].stored is not a number from 0 to 1000000000000000",
            refusalOfLedger(withAccount("stored", kMaxLedgerCount + 1)));
  EXPECT_EQ("accounts[1].kind stands twice", refusalOfLedger(withAccount("kind", "impressions")));
  ledger = test::ledger("i");
  ledger["given_up"][0]["by_rule"] = "yes";
  EXPECT_EQ("given_up[0].by_rule is not a boolean", refusalOfLedger(ledger));
  EXPECT_EQ(0U, ledgers_.size());
}

TEST_F(LedgersTest, ReasonsAreOfItsKindsAndAddUp) {
  Json ledger = test::ledger("i");
  ledger["given_up"][0]["kind"] = "others";
  EXPECT_EQ("given_up[0].kind is not the kind of any account", refusalOfLedger(ledger));
  EXPECT_EQ("accounts[0].given_up is not the sum of its reasons", refusalOfLedger(withAccount("given_up", 2)));
  ledger = withAccount("given_up", 3);
  ledger["given_up"].push_back({{"kind", "activities"}, {"count", 2}, {"reason", "another"}, {"by_rule", true}});
  ledgers_.tell(ledger.dump());
  EXPECT_EQ(3, ledgers_.of("i")["accounts"][0]["given_up"]);
}

TEST_F(LedgersTest, AsManyOfTheLargestNumbersAsFitAreAddedUp) {
  Json ledger = withAccount("given_up", kMaxLedgerCount);
  ledger["given_up"] = Json::array();
  const Json row = {{"kind", "activities"}, {"count", kMaxLedgerCount}, {"reason", "r"}, {"by_rule", true}};
  while (ledger.dump().size() + row.dump().size() < kMaxLedgerBytes)
    ledger["given_up"].push_back(row);
  EXPECT_GT(ledger["given_up"].size(), 500U);
  EXPECT_EQ("accounts[0].given_up is not the sum of its reasons", refusalOfLedger(ledger));
}

TEST_F(LedgersTest, ALongerOneIsRefused) {
  Json ledger = test::ledger("i");
  ledger["install"] = std::string(kMaxLedgerBytes - ledger.dump().size() + 1, 'i');
  ASSERT_EQ(kMaxLedgerBytes, ledger.dump().size());
  ledgers_.tell(ledger.dump());
  EXPECT_EQ(413, refusalOf([&] { ledgers_.tell(ledger.dump() + " "); }).status());
}

}  // namespace
}  // namespace morvik_service
