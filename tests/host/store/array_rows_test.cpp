#include "host/store/array_rows.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace morvik::host {
namespace {

using kit::Array;
using kit::MutableArray;
using kit::Value;

Value record(int number) {
  return kit::Dictionary{{"id", number}};
}

Array records(int from, int to) {
  MutableArray all;
  for (int i = from; i < to; ++i)
    all.append(record(i));
  return Value(std::move(all)).array();
}

Array without(const Array& array, size_t from, size_t to) {
  size_t index = 0;
  MutableArray copy(array);
  copy.retainIf([&](const Value&) {
    const size_t at = index++;
    return at < from || at >= to;
  });
  return Value(std::move(copy)).array();
}

Array with(const Array& array, Value element) {
  MutableArray copy(array);
  copy.append(std::move(element));
  return Value(std::move(copy)).array();
}

/// The rows as the store holds them, kept by the changes alone.
struct Table {
  std::map<int64_t, Value> rows;

  void apply(const RowChange& change, const Array& after) {
    for (const RowRange& range : change.removed)
      rows.erase(rows.lower_bound(range.first), rows.lower_bound(range.first + range.count));
    int64_t order = change.first_new_row;
    for (size_t i = change.appended_from; i < after.size(); ++i, ++order)
      EXPECT_TRUE(rows.emplace(order, after[i]).second) << "row " << order << " is written twice";
  }
  Array array() const {
    MutableArray all;
    for (const auto& [order, value] : rows)
      all.append(value);
    return Value(std::move(all)).array();
  }
};

TEST(ArrayRows, AppendingWritesTheNewElementsAlone) {
  ArrayRows rows;
  const Array three = records(0, 3);
  rows.apply(rows.changeTo({}, three), 3);
  const RowChange change = rows.changeTo(three, with(three, record(3)));
  EXPECT_EQ(change, (RowChange{.appended_from = 3, .first_new_row = 3}));
  rows.apply(change, 4);
  EXPECT_EQ(rows.ranges(), (std::vector<RowRange>{{0, 4}}));
  EXPECT_EQ(rows.next(), 4);
}

TEST(ArrayRows, TrimmingTheFrontRemovesOneRange) {
  ArrayRows rows;
  const Array hundred = records(0, 100);
  rows.apply(rows.changeTo({}, hundred), 100);
  const Array rest = without(hundred, 0, 40);
  const RowChange change = rows.changeTo(hundred, rest);
  EXPECT_EQ(change.removed, (std::vector<RowRange>{{0, 40}}));
  EXPECT_EQ(change.appended_from, rest.size());
  rows.apply(change, rest.size());
  EXPECT_EQ(rows.ranges(), (std::vector<RowRange>{{40, 60}}));
}

TEST(ArrayRows, ARunOverEarlierGapsGoesAsOneRange) {
  ArrayRows rows;
  const Array ten = records(0, 10);
  rows.apply(rows.changeTo({}, ten), 10);
  const Array gap = without(ten, 3, 5);
  rows.apply(rows.changeTo(ten, gap), gap.size());
  const RowChange change = rows.changeTo(gap, without(gap, 1, 6));
  EXPECT_EQ(change.removed, (std::vector<RowRange>{{1, 7}}));
}

TEST(ArrayRows, ClearingRemovesAllAndGoesOnBehind) {
  ArrayRows rows;
  const Array five = records(0, 5);
  rows.apply(rows.changeTo({}, five), 5);
  const RowChange change = rows.changeTo(five, {});
  EXPECT_EQ(change.removed, (std::vector<RowRange>{{0, 5}}));
  rows.apply(change, 0);
  EXPECT_TRUE(rows.ranges().empty());
  EXPECT_EQ(rows.next(), 5);
}

TEST(ArrayRows, AnEqualButDifferentElementIsWrittenAnew) {
  ArrayRows rows;
  const Array before = records(0, 3);
  rows.apply(rows.changeTo({}, before), 3);
  const RowChange change = rows.changeTo(before, records(0, 3));
  EXPECT_EQ(change.removed, (std::vector<RowRange>{{0, 3}}));
  EXPECT_EQ(change.appended_from, 0u);
  EXPECT_EQ(change.first_new_row, 3);
}

TEST(ArrayRows, TheUtmostOrderIsUsedAndPastItTheArrayIsWrittenAnew) {
  ArrayRows rows;
  const Array one = records(0, 1);
  rows.add(kMaxRowOrder - 2);
  const Array two = with(one, record(1));
  rows.apply(rows.changeTo(one, two), 2);
  EXPECT_EQ(rows.next(), kMaxRowOrder);
  const RowChange change = rows.changeTo(two, with(two, record(2)));
  EXPECT_EQ(change.removed, (std::vector<RowRange>{{0, kMaxRowOrder}}));
  EXPECT_EQ(change.appended_from, 0u);
  rows.apply(change, 3);
  EXPECT_EQ(rows.ranges(), (std::vector<RowRange>{{0, 3}}));
}

TEST(ArrayRows, AnySequenceOfChangesLeavesExactlyTheArray) {
  std::mt19937 random(7);
  ArrayRows rows;
  Table table;
  Array current;
  int next = 0;
  for (int round = 0; round < 3000; ++round) {
    MutableArray changed(current);
    switch (random() % 6) {
      case 0:
      case 1:
        for (auto i = random() % 80; i > 0; --i)
          changed.append(random() % 4 == 0 ? Value(7) : record(next++));
        break;
      case 2:
        changed = MutableArray(without(current, 0, random() % (current.size() + 1)));
        break;
      case 3:
        changed.retainIf([&random](const Value&) { return random() % 5 != 0; });
        break;
      case 4:
        if (!changed.empty())
          changed.replaceAt(random() % changed.size(), record(next++));
        break;
      default:
        if (random() % 20 == 0)
          changed.removeAll();
    }
    const Array after = Value(std::move(changed)).array();
    const RowChange change = rows.changeTo(current, after);
    table.apply(change, after);
    rows.apply(change, after.size());
    current = after;
    ASSERT_EQ(Value(table.array()), Value(current)) << "round " << round;
    int64_t count = 0;
    for (const RowRange& range : rows.ranges())
      count += range.count;
    ASSERT_EQ(count, static_cast<int64_t>(current.size()));
  }
}

}  // namespace
}  // namespace morvik::host
