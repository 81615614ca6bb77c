#include "runtime/ledger/ledger_stored.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/memory_store.h"

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Value;
using Kind = LedgerKind;
using Part = LedgerKey::Part;
using ::testing::Each;
using ::testing::ElementsAre;

constexpr const char* kAge = "fendoUserDemoInfo_age";
constexpr const char* kGender = "fendoUserDemoInfo_gender";
constexpr const char* kUserId = "fendoUserDemoInfo_userId";

TEST(LedgerKey, IsKnownForWhatIsCounted) {
  EXPECT_EQ(ledgerKeyOf("fendoActivityInfos").part, Part::kList);
  EXPECT_EQ(ledgerKeyOf("fendoActivityInfos").kind, Kind::kActivities);
  EXPECT_EQ(ledgerKeyOf("fendoImpressionInfos").kind, Kind::kImpressions);
  EXPECT_EQ(ledgerKeyOf("reEngagementInfos").kind, Kind::kReEngagementClicks);
  EXPECT_EQ(ledgerKeyOf("commerceConversionInfos").kind, Kind::kCommerceClicks);
  EXPECT_EQ(ledgerKeyOf("MorvikCoreUserInfo_Crash").kind, Kind::kCrashReports);
  for (const auto& [key, slot] : {std::pair(kAge, 0U), std::pair(kGender, 1U), std::pair(kUserId, 2U)}) {
    EXPECT_EQ(ledgerKeyOf(key).part, Part::kDemographic);
    EXPECT_EQ(ledgerKeyOf(key).kind, Kind::kDemographics);
    EXPECT_EQ(ledgerKeyOf(key).slot, slot);
  }
  for (const char* other :
       {"", "host.ledger", "fendoActivityInfo", "fendoActivityInfosSentEventKeys", "fendoActivityInfosX"})
    EXPECT_EQ(ledgerKeyOf(other).part, Part::kNone) << other;
}

TEST(LedgerStored, CountsWhatIsThere) {
  testing::MemoryStore store(
      {{"fendoActivityInfos", Array{1, 2, 3}}, {"MorvikCoreUserInfo_Crash", Array{1}}, {kAge, 30}, {kUserId, "me"}});
  const LedgerStored stored(store);
  EXPECT_THAT(stored.counts(), ElementsAre(3, 0, 0, 0, 1, 2));
  EXPECT_EQ(stored.list(Kind::kActivities), Value(Array{1, 2, 3}));
  EXPECT_TRUE(stored.list(Kind::kImpressions).isAbsent());
}

TEST(LedgerStored, CountsNoDemographicValueThatSaysThatNoneWaits) {
  testing::MemoryStore store({{kAge, -1}, {kGender, -1}, {kUserId, Value::null()}});
  EXPECT_THAT(LedgerStored(store).counts(), Each(0U));
  testing::MemoryStore garbage({{kAge, "old"}, {kUserId, 4}, {"fendoActivityInfos", "many"}});
  EXPECT_THAT(LedgerStored(garbage).counts(), Each(0U));
}

TEST(LedgerStored, TellsEachDemographicValueFromTheOneBefore) {
  testing::MemoryStore store;
  LedgerStored stored(store);
  EXPECT_EQ(stored.setDemographic(0, 30).version, 0U);
  const uint64_t first = stored.versions()[0];
  const LedgerStored::Replaced replaced = stored.setDemographic(0, 30);
  EXPECT_EQ(replaced.version, first);
  EXPECT_TRUE(replaced.is_pending);
  EXPECT_NE(stored.versions()[0], first);
  const LedgerStored::Replaced taken_back = stored.setDemographic(0, -1);
  EXPECT_FALSE(taken_back.is_pending);
  EXPECT_EQ(stored.count(Kind::kDemographics), 0U);
}

TEST(LedgerStored, SeesWhatChangedBehindItsBackOnce) {
  testing::MemoryStore store({{"fendoActivityInfos", Array{1, 2, 3}}});
  LedgerStored stored(store);
  EXPECT_EQ(stored.lookAgainAtList(Kind::kActivities).more, 0U);
  store.set("fendoActivityInfos", Array{1, 2, 3, 4, 5});
  EXPECT_EQ(stored.lookAgainAtList(Kind::kActivities).more, 2U);
  EXPECT_EQ(stored.lookAgainAtList(Kind::kActivities).more, 0U);
  store.set("fendoActivityInfos", Array{1});
  const LedgerStored::Growth shrunk = stored.lookAgainAtList(Kind::kActivities);
  EXPECT_EQ(shrunk.more, 0U);
  EXPECT_EQ(shrunk.fewer, 4U);
  store.set(kGender, 1);
  EXPECT_EQ(stored.lookAgainAtDemographics().more, 1U);
  EXPECT_EQ(stored.lookAgainAtDemographics().more, 0U);
}

TEST(LedgerStored, SeesNoChangeInWhatItWasToldOf) {
  testing::MemoryStore store;
  LedgerStored stored(store);
  const Value list = Array{1, 2};
  stored.setList(Kind::kImpressions, list);
  stored.setDemographic(0, 30);
  store.set("fendoImpressionInfos", list);
  store.set(kAge, 30);
  EXPECT_EQ(stored.lookAgainAtList(Kind::kImpressions).more, 0U);
  EXPECT_EQ(stored.lookAgainAtDemographics().more, 0U);
}

TEST(LedgerStored, TellsInTheLightWhatTheFileHeldFromWhatThisProcessStored) {
  testing::MemoryStore store;
  LedgerStored stored(store);
  const Value begun = Array{"of this process"};
  stored.setList(Kind::kCommerceClicks, begun);
  stored.setDemographic(0, 30);
  store.set("commerceConversionInfos", Array{"of the file", "and another", "of this process"});
  store.set("fendoImpressionInfos", Array{"of the file"});
  store.set(kAge, 30);
  store.set(kUserId, "of the file");
  const LedgerAccounts::Found found = stored.lookAgainInTheLight();
  EXPECT_THAT(found.stored, ElementsAre(0, 1, 0, 2, 0, 1));
  EXPECT_EQ(found.demographics_set_since, 1U);
  EXPECT_FALSE(found.is_first);
  EXPECT_THAT(stored.counts(), ElementsAre(0, 1, 0, 3, 0, 2));
}

}  // namespace
}  // namespace morvik::runtime
