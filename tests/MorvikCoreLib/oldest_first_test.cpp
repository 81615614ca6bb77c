#include "MorvikCoreLib/oldest_first.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr size_t kAll = SIZE_MAX;

Value record(int64_t date, const std::string& name) {
  return Dictionary{{"date", kit::Date{date}}, {"name", name}};
}

class OldestFirstTest : public ::testing::Test {
 protected:
  std::vector<std::string> walked(const Array& list, size_t at_a_time = kAll) {
    OldestFirst oldest(list, order, at_a_time, stop);
    std::vector<std::string> names;
    while (const Value* next = oldest.next())
      names.emplace_back((*next)["name"].string());
    return names;
  }

  KnownOrder order{"date"};
  kit::StopRequest stop;
};

TEST_F(OldestFirstTest, WalksASortedListAsItIsAndAnyOtherByDate) {
  EXPECT_THAT(walked(Array()), IsEmpty());
  EXPECT_THAT(walked(Array{record(1, "a"), record(1, "b"), record(2, "c")}), ElementsAre("a", "b", "c"));
  EXPECT_THAT(walked(Array{record(2, "c"), record(1, "a"), record(1, "b")}), ElementsAre("a", "b", "c"));
}

TEST_F(OldestFirstTest, PutsAFewInOrderAtATimeWithTheSameResult) {
  kit::MutableArray list;
  for (int64_t i = 0; i < 100; ++i)
    list.append(record(i * 37 % 10, std::to_string(i)));
  const Array records = Value(std::move(list)).array();
  const std::vector<std::string> at_once = walked(records);
  ASSERT_EQ(at_once.size(), 100U);
  for (const size_t at_a_time : {0U, 1U, 7U, 99U, 100U})
    EXPECT_EQ(walked(records, at_a_time), at_once) << at_a_time;
}

TEST_F(OldestFirstTest, SaysWhetherThereIsAFurtherOne) {
  for (const Array& list : {Array{record(1, "a"), record(2, "b")}, Array{record(2, "b"), record(1, "a")}}) {
    OldestFirst oldest(list, order, 1, stop);
    oldest.next();
    EXPECT_FALSE(oldest.isAtEnd());
    oldest.next();
    EXPECT_TRUE(oldest.isAtEnd());
    EXPECT_EQ(oldest.next(), nullptr);
    EXPECT_FALSE(oldest.isStopping());
  }
}

TEST_F(OldestFirstTest, EndsWhereTheKitIsBeingStopped) {
  kit::MutableArray list;
  for (int64_t i = 0; i < 5000; ++i)
    list.append(record(i, "n"));
  const Array records = Value(std::move(list)).array();
  stop.make();
  OldestFirst oldest(records, order, kAll, stop);
  EXPECT_EQ(oldest.next(), nullptr);
  EXPECT_TRUE(oldest.isStopping());
}

TEST_F(OldestFirstTest, KnowsTheOrderOfAListThatWasTrimmedAndAppendedTo) {
  kit::MutableArray list;
  for (int64_t i = 0; i < 300; ++i)
    list.append(record(i, std::to_string(i)));
  const Value before(std::move(list));
  EXPECT_EQ(order.isSorted(before.array(), stop), true);
  kit::MutableArray trimmed(before);
  size_t place = 0;
  trimmed.retainIf([&place](const Value&) { return place++ % 3 == 1 || place > 200; });
  const Value after(std::move(trimmed));
  EXPECT_EQ(order.isSorted(after.array(), stop), true);
  kit::MutableArray grown(after);
  grown.append(record(300, "new"));
  EXPECT_EQ(order.isSorted(Value(kit::MutableArray(grown)).array(), stop), true);
  grown.append(record(299, "earlier"));
  EXPECT_EQ(order.isSorted(Value(kit::MutableArray(grown)).array(), stop), false);
  EXPECT_EQ(order.isSorted(after.array(), stop), true) << "it was forgotten and is checked again";
}

TEST_F(OldestFirstTest, NoticesWhatStandsBeforeAKnownListAndWithinIt) {
  const Value known_a = record(10, "a");
  const Value known_b = record(20, "b");
  EXPECT_EQ(order.isSorted(Array{known_a, known_b}, stop), true);
  EXPECT_EQ(order.isSorted(Array{record(15, "before"), known_a, known_b}, stop), false);
  EXPECT_EQ(order.isSorted(Array{known_a, known_b}, stop), true);
  EXPECT_EQ(order.isSorted(Array{known_a, record(5, "within"), known_b}, stop), false);
  EXPECT_EQ(order.isSorted(Array{known_a, known_b}, stop), true);
  EXPECT_EQ(order.isSorted(Array{known_b, known_a}, stop), false);
}

}  // namespace
}  // namespace morvik
