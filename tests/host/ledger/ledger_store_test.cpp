#include "host/ledger/ledger_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/ledger/book_rig.h"

namespace morvik::host {
namespace {

using kit::Array;
using kit::Value;
using ::testing::ElementsAre;
using ::testing::Pair;

class LedgerStoreTest : public ::testing::Test, protected BookRig {
 protected:
  LedgerStore counted_{store, *book};
};

TEST_F(LedgerStoreTest, CountsWhatTheKitSets) {
  counted_.set("commerceConversionInfos", Array{1, 2});
  EXPECT_EQ(of("commerce clicks").recorded, 2U);
  EXPECT_EQ(store.get("commerceConversionInfos"), Value(Array{1, 2}));
  EXPECT_EQ(counted_.get("commerceConversionInfos"), Value(Array{1, 2}));
}

TEST_F(LedgerStoreTest, KeepsTheBookInOneCommitWithWhatItCounts) {
  counted_.set("commerceConversionInfos", Array{1, 2});
  EXPECT_TRUE(counted_.synchronize());
  const auto all = counted_.all();
  EXPECT_THAT(all, ElementsAre(Pair("commerceConversionInfos", Value(Array{1, 2})), Pair("host.ledger", ::testing::_)));
}

TEST_F(LedgerStoreTest, LetsADyingProcessWriteWithoutWaitingForTheBook) {
  EXPECT_TRUE(counted_.trySetAndSynchronize("MorvikCoreUserInfo_Crash", Array{1}));
  EXPECT_EQ(counted_.tryGet("MorvikCoreUserInfo_Crash"), Value(Array{1}));
  EXPECT_EQ(of("crash reports").recorded, 1U);
}

#ifndef NDEBUG
using LedgerStoreDeathTest = LedgerStoreTest;

TEST_F(LedgerStoreDeathTest, TellsWithTheNextCommitWhatNoRuleExplains) {
  counted_.set("fendoImpressionInfos", Array{1});
  counted_.set("fendoImpressionInfos", Array());
  EXPECT_DEATH(counted_.synchronize(), "no rule gives up \\(impressions\\)");
  EXPECT_DEATH(counted_.commitTurn(), "no rule gives up \\(impressions\\)");
}
#endif

}  // namespace
}  // namespace morvik::host
