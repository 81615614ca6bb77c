#include "services/list_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "services/converters.h"
#include "services/describe.h"

namespace morvik::services {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;

int64_t keyOf(const Value& record) {
  return checkIntegerNilToZero(record["key"]);
}

Value record(int64_t key, int64_t mark = 0) {
  return Dictionary{{"key", key}, {"mark", mark}};
}

Value listOf(const std::vector<Value>& records) {
  kit::MutableArray list;
  for (const Value& element : records)
    list.append(element);
  return Value(std::move(list));
}

TEST(ListIndex, OfAnAbsentListFindsNothingAndStartsOne) {
  ListIndex index(keyOf);
  EXPECT_FALSE(index.contains(Value(), 0));
  EXPECT_TRUE(index.without(Value(), 0).isAbsent());
  EXPECT_EQ(index.appended(Value(), record(5)), listOf({record(5)}));
}

TEST(ListIndex, OfWhatIsNoListStartsOneToo) {
  ListIndex index(keyOf);
  EXPECT_FALSE(index.contains("text", 0));
  EXPECT_EQ(index.appended("text", record(5)), listOf({record(5)}));
}

TEST(ListIndex, RemovesAllRecordsOfAKeyAndKeepsTheOrderOfTheRest) {
  ListIndex index(keyOf);
  const Value list = listOf({record(1), record(2, 1), record(3), record(2, 2), record(4)});
  EXPECT_EQ(index.without(list, 2), listOf({record(1), record(3), record(4)}));
}

TEST(ListIndex, GivesTheVeryListWhereNothingIsRemoved) {
  ListIndex index(keyOf);
  const Value list = listOf({record(1)});
  EXPECT_TRUE(index.without(list, 2).identicalTo(list));
}

TEST(ListIndex, RemovesTheFirstTheLastAndTheOnlyOne) {
  ListIndex index(keyOf);
  Value list = listOf({record(1), record(2), record(3)});
  list = index.without(list, 1);
  EXPECT_EQ(list, listOf({record(2), record(3)}));
  list = index.without(list, 3);
  EXPECT_EQ(list, listOf({record(2)}));
  list = index.without(list, 2);
  EXPECT_EQ(list, listOf({}));
  EXPECT_FALSE(index.contains(list, 2));
  list = index.appended(list, record(2));
  EXPECT_TRUE(index.contains(list, 2));
}

TEST(ListIndex, IsThatOfWhateverListIsHandedIn) {
  ListIndex index(keyOf);
  const Value first = listOf({record(1), record(2)});
  const Value second = listOf({record(3)});
  EXPECT_TRUE(index.contains(first, 1));
  EXPECT_FALSE(index.contains(second, 1));
  EXPECT_TRUE(index.contains(second, 3));
  const Value longer = index.appended(first, record(4));
  EXPECT_EQ(longer, listOf({record(1), record(2), record(4)}));
  EXPECT_FALSE(index.contains(first, 4)) << "the result was not stored: the old list counts";
  EXPECT_TRUE(index.contains(longer, 4));
  EXPECT_EQ(index.without(second, 3), listOf({}));
  EXPECT_EQ(index.without(longer, 2), listOf({record(1), record(4)}));
}

TEST(ListIndex, KnowsAListThatWasChangedBehindItsBack) {
  ListIndex index(keyOf);
  Value list = index.appended(listOf({record(1)}), record(2));
  kit::MutableArray changed(list);
  changed.append(record(3));
  list = Value(std::move(changed));
  EXPECT_TRUE(index.contains(list, 3));
  EXPECT_EQ(index.without(list, 1), listOf({record(2), record(3)}));
}

/// What the index promises, by looking at every record.
class NaiveList {
 public:
  bool contains(int64_t key) const {
    return std::any_of(records_.begin(), records_.end(), [key](const Value& each) { return keyOf(each) == key; });
  }
  void remove(int64_t key) {
    std::erase_if(records_, [key](const Value& each) { return keyOf(each) == key; });
  }
  void append(const Value& element) { records_.push_back(element); }
  Value list() const { return listOf(records_); }

 private:
  std::vector<Value> records_;
};

class RandomOperations : public ::testing::TestWithParam<int64_t> {};

TEST_P(RandomOperations, GiveWhatASearchGives) {
  std::mt19937_64 random(static_cast<uint64_t>(GetParam()));
  const auto anyKey = [&random] { return static_cast<int64_t>(random() % static_cast<uint64_t>(GetParam())) - 3; };
  ListIndex index(keyOf);
  // Two lists in turn, so that the index is now and then handed the other one.
  NaiveList naive[2];
  Value lists[2];
  size_t at = 0;
  for (int step = 0; step < 4'000; ++step) {
    if (random() % 50 == 0)
      at = 1 - at;
    const int64_t key = anyKey();
    switch (random() % 4) {
      case 0:
        ASSERT_EQ(index.contains(lists[at], key), naive[at].contains(key)) << step;
        break;
      case 1:
        lists[at] = index.without(lists[at], key);
        naive[at].remove(key);
        break;
      case 2:
        (void)index.appended(lists[at], record(key, step));  // a result that is thrown away
        break;
      default:
        lists[at] = index.appended(lists[at], record(key, step));
        naive[at].append(record(key, step));
    }
    ASSERT_EQ(Value(lists[at].array()), naive[at].list()) << step << ": " << describe(lists[at]);
  }
}

INSTANTIATE_TEST_SUITE_P(Keys, RandomOperations, ::testing::Values(1, 4, 30, 1'000, 1'000'000),
                         [](const auto& row) { return "Of" + std::to_string(row.param); });

TEST(ListIndex, RemovesTenThousandUniqueKeysInAnyOrder) {
  constexpr int64_t kCount = 10'000;
  std::vector<int64_t> keys;
  kit::MutableArray records;
  for (int64_t key = 0; key < kCount; ++key) {
    records.append(record(key));
    keys.push_back(key);
  }
  Value list(std::move(records));
  std::mt19937_64 random(3);
  std::shuffle(keys.begin(), keys.end(), random);
  ListIndex index(keyOf);
  for (const int64_t key : keys) {
    const size_t before = list.size();
    list = index.without(list, key);
    ASSERT_EQ(list.size(), before - 1) << key;
  }
}

}  // namespace
}  // namespace morvik::services
