#include "services/conversion_cache.h"

#include <gtest/gtest.h>

#include "testing/memory_store.h"

namespace morvik::services {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using Texts = std::vector<std::string>;

Value time(const std::string& key, double milliseconds) {
  return Dictionary{{"conversion_key", key}, {"time", milliseconds}};
}

class ConversionCacheTest : public ::testing::Test {
 protected:
  Value keys() { return defaults.fendoConversionInfoForCaches(); }
  Value times() { return defaults.arrayForKey(kConversionTimesKey); }

  testing::MemoryStore store;
  kit::ListLock lock;
  MorvikGVUserDefaults defaults{store, lock};
  ConversionCache cache{defaults};
};

TEST_F(ConversionCacheTest, ReplacesTheKeysWhole) {
  cache.replace(Array{1, 2});
  EXPECT_EQ(keys(), Value(Array{1, 2}));
  cache.replace(Array{});
  EXPECT_EQ(keys(), Value(Array{}));
}

TEST_F(ConversionCacheTest, TakesNullAndContainersForNoKeys) {
  cache.replace(Array{Value::null(), 1, Array{2}, Dictionary{{"conversion_key", 3}}, "4"});
  EXPECT_EQ(keys(), Value(Array{1, "4"}));
  cache.add(0);
  EXPECT_EQ(keys(), Value(Array{1, "4", 0}));
}

TEST_F(ConversionCacheTest, AddsTheKeyZeroOnceToAListOfAnEarlierVersionThatHoldsNoKeys) {
  const Array earlier{Value::null(), 1, Array{2}};
  defaults.setFendoConversionInfoForCaches(earlier);
  cache.add(0);
  cache.add(0);
  cache.add(1);
  EXPECT_EQ(keys(), Value(Array{Value::null(), 1, Array{2}, 0}));
}

TEST_F(ConversionCacheTest, AddsAKeyOnce) {
  cache.add(5);
  cache.add(6);
  store.clearJournal();
  cache.add(5);
  EXPECT_EQ(keys(), Value(Array{5, 6}));
  EXPECT_EQ(store.journalTexts(), Texts{});
}

TEST_F(ConversionCacheTest, KnowsKeysThatWereReplacedMeanwhileHoweverTheyAreWritten) {
  cache.add(5);
  cache.replace(Array{"7", 8.0});
  cache.add(7);
  cache.add(8);
  cache.add(5);
  EXPECT_EQ(keys(), Value(Array{"7", 8.0, 5}));
}

TEST_F(ConversionCacheTest, NotesTheTimeOfAKeyInPlaceOfAnEarlierOneTheLatestLast) {
  cache.saveTime("5", 1000);
  cache.saveTime("6", 0);
  cache.saveTime("5", 2000.5);
  EXPECT_EQ(times(), Value(Array{time("6", 0), time("5", 2000.5)}));
  EXPECT_TRUE(keys().isAbsent());
}

TEST_F(ConversionCacheTest, WritesWithoutAFlush) {
  cache.replace(Array{1});
  cache.add(2);
  cache.saveTime("2", 1);
  EXPECT_EQ(store.journalTexts(),
            (Texts{"fendoConversionInfoForCaches", "fendoConversionInfoForCaches", "host.conversionTimes"}));
}

TEST_F(ConversionCacheTest, LetsTheOldestTimeGoBeyondTheLimit) {
  for (size_t key = 0; key < kMaxConversionTimes; ++key)
    cache.saveTime(std::to_string(key), 1);
  EXPECT_EQ(times().size(), kMaxConversionTimes);
  cache.saveTime("0", 2);
  EXPECT_EQ(times().size(), kMaxConversionTimes) << "one that is there takes no more room";
  cache.saveTime("new", 3);
  cache.saveTime("-1", 4);
  const Array stored = times().array();
  ASSERT_EQ(stored.size(), kMaxConversionTimes);
  EXPECT_EQ(stored[0]["conversion_key"], Value("2"));
  EXPECT_EQ(stored[kMaxConversionTimes - 1], time("-1", 4));
}

TEST_F(ConversionCacheTest, TakesWhatIsNoListForNone) {
  store.set(kConversionTimesKey, "text");
  store.set("fendoConversionInfoForCaches", 5);
  cache.saveTime("1", 1);
  cache.add(1);
  EXPECT_EQ(times(), Value(Array{time("1", 1)}));
  EXPECT_EQ(keys(), Value(Array{1}));
}

}  // namespace
}  // namespace morvik::services
