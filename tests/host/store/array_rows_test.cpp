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

/// What changeTo() returns, computed element by element and row by row.
RowChange plainChange(const ArrayRows& rows, const Array& before, const Array& after) {
  std::vector<int64_t> orders;
  for (const RowRange& range : rows.ranges()) {
    for (int64_t i = 0; i < range.count; ++i)
      orders.push_back(range.first + i);
  }
  RowChange change{.first_new_row = rows.next()};
  bool removing = false;
  for (size_t i = 0; i < before.size(); ++i) {
    if (change.appended_from < after.size() && before[i].identicalTo(after[change.appended_from])) {
      ++change.appended_from;
      removing = false;
      continue;
    }
    if (removing)
      change.removed.back().count = orders[i] + 1 - change.removed.back().first;
    else
      change.removed.push_back({orders[i], 1});
    removing = true;
  }
  return change;
}

/// The rows as the store has them, maintained by the changes only.
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

TEST(ArrayRows, RemovingOneSplitsItsRange) {
  ArrayRows rows;
  Array current = records(0, 300);
  rows.apply(rows.changeTo({}, current), 300);
  for (const size_t index : {150u, 0u, 100u}) {
    MutableArray copy(current);
    copy.removeAt(index);
    const Array after = Value(std::move(copy)).array();
    const RowChange change = rows.changeTo(current, after);
    EXPECT_EQ(change.removed.size(), 1u);
    EXPECT_EQ(change.appended_from, after.size());
    rows.apply(change, after.size());
    current = after;
  }
  EXPECT_EQ(rows.ranges(), (std::vector<RowRange>{{1, 100}, {102, 48}, {151, 149}}));
}

TEST(ArrayRows, RemovingManyAtOnceLeavesTheRowsBetween) {
  ArrayRows rows;
  const Array ten = records(0, 10);
  rows.apply(rows.changeTo({}, ten), 10);
  MutableArray copy(ten);
  copy.retainIf([](const Value& element) { return element["id"].integer() % 3 != 0; });
  const Array after = Value(std::move(copy)).array();
  const RowChange change = rows.changeTo(ten, after);
  EXPECT_EQ(change.removed, (std::vector<RowRange>{{0, 1}, {3, 1}, {6, 1}, {9, 1}}));
  rows.apply(change, after.size());
  EXPECT_EQ(rows.ranges(), (std::vector<RowRange>{{1, 2}, {4, 2}, {7, 2}}));
  EXPECT_EQ(rows.next(), 10);
}

std::vector<RowRange> rangesOf(const std::vector<int64_t>& orders) {
  std::vector<RowRange> ranges;
  for (const int64_t order : orders) {
    if (!ranges.empty() && ranges.back().first + ranges.back().count == order)
      ++ranges.back().count;
    else
      ranges.push_back({order, 1});
  }
  return ranges;
}

TEST(ArrayRows, OneRangeMayFallIntoManyBlocksAtOnce) {
  for (const int length : {255, 256, 257, 258, 20'000}) {
    ArrayRows rows;
    const Array before = records(0, length);
    rows.apply(rows.changeTo({}, before), before.size());
    MutableArray copy(before);
    copy.retainIf([](const Value& element) { return element["id"].integer() % 2 == 0; });
    const Array after = Value(std::move(copy)).array();
    rows.apply(rows.changeTo(before, after), after.size());
    std::vector<int64_t> expected;
    for (int order = 0; order < length; order += 2)
      expected.push_back(order);
    ASSERT_EQ(rows.ranges(), rangesOf(expected)) << "of " << length << " rows";
    const RowChange last = rows.changeTo(after, without(after, after.size() - 1, after.size()));
    EXPECT_EQ(last.removed, (std::vector<RowRange>{{expected.back(), 1}}));
    rows.apply(rows.changeTo(after, {}), 0);
    EXPECT_TRUE(rows.ranges().empty());
    EXPECT_EQ(rows.next(), length);
  }
}

TEST(ArrayRows, EachRowIsFoundAmongThousandsOfRanges) {
  static_assert(kRangesPerBlock * 8 < 2000, "so many elements fall into more than a few blocks");
  std::mt19937 random(31);
  ArrayRows rows;
  std::vector<int64_t> orders;
  MutableArray loaded;
  for (int64_t order = 0; orders.size() < 4000; order += static_cast<int64_t>(random() % 3) + 1) {
    rows.add(order);
    orders.push_back(order);
    loaded.append(record(static_cast<int>(order)));
  }
  Array current = Value(std::move(loaded)).array();
  while (!orders.empty()) {
    MutableArray copy(current);
    std::vector<RowRange> removed;
    if (random() % 500 == 0) {
      copy.append(record(0));
      orders.push_back(rows.next());
    } else {
      const size_t index = random() % orders.size();
      removed.push_back({orders[index], 1});
      copy.removeAt(index);
      orders.erase(orders.begin() + static_cast<std::ptrdiff_t>(index));
    }
    const Array after = Value(std::move(copy)).array();
    const RowChange change = rows.changeTo(current, after);
    ASSERT_EQ(change.removed, removed) << orders.size() << " are left";
    rows.apply(change, after.size());
    current = after;
    if (orders.size() % 100 == 0) {
      ASSERT_EQ(rows.ranges(), rangesOf(orders)) << orders.size() << " are left";
    }
  }
  EXPECT_TRUE(rows.ranges().empty());
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

TEST(ArrayRows, AnEqualButDifferentElementIsRewritten) {
  ArrayRows rows;
  const Array before = records(0, 3);
  rows.apply(rows.changeTo({}, before), 3);
  const RowChange change = rows.changeTo(before, records(0, 3));
  EXPECT_EQ(change.removed, (std::vector<RowRange>{{0, 3}}));
  EXPECT_EQ(change.appended_from, 0u);
  EXPECT_EQ(change.first_new_row, 3);
}

TEST(ArrayRows, TheLargestOrderIsUsedAndPastItTheArrayIsRewritten) {
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
    switch (random() % 8) {
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
      case 5:
      case 6:
        for (auto i = random() % 20; i > 0 && !changed.empty(); --i)
          changed.removeAt(random() % changed.size());
        break;
      default:
        if (random() % 20 == 0)
          changed.removeAll();
    }
    const Array after = Value(std::move(changed)).array();
    const RowChange change = rows.changeTo(current, after);
    ASSERT_EQ(change, plainChange(rows, current, after)) << "round " << round;
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

// Includes pairs that no store passes in sequence: elements moved, doubled, from elsewhere.
TEST(ArrayRows, AnyTwoArraysAreToldApartAsElementByElement) {
  std::mt19937 random(23);
  std::vector<Array> arrays = {Array(), records(0, 200), Array{1, 1, 1, 2, 1, 1}};
  for (int round = 0; round < 4000; ++round) {
    const Array before = arrays[random() % arrays.size()];
    MutableArray changed(before);
    for (auto i = random() % 4; i > 0; --i) {
      switch (random() % 5) {
        case 0:
          if (!changed.empty())
            changed.removeAt(random() % changed.size());
          break;
        case 1: {
          const auto every = random() % 70 + 1;
          changed.retainIf([&](const Value&) { return random() % every != 0; });
          break;
        }
        case 2:
          for (auto count = random() % 130; count > 0; --count)
            changed.append(static_cast<int>(random() % 3));
          break;
        case 3: {
          const Array other = arrays[random() % arrays.size()];
          for (const Value& element : other)
            changed.append(element);
          break;
        }
        default:
          if (!changed.empty())
            changed.replaceAt(random() % changed.size(), changed[random() % changed.size()]);
      }
    }
    ArrayRows rows;
    int64_t order = 0;
    for (size_t i = 0; i < before.size(); ++i)
      rows.add(order += random() % 5 == 0 ? 3 : 1);
    const Array after = Value(std::move(changed)).array();
    const Array other = arrays[random() % arrays.size()];
    ASSERT_EQ(rows.changeTo(before, after), plainChange(rows, before, after)) << "round " << round;
    ASSERT_EQ(rows.changeTo(before, other), plainChange(rows, before, other)) << "round " << round;
    if (after.size() < 600) {
      if (arrays.size() < 12)
        arrays.push_back(after);
      else
        arrays[random() % arrays.size()] = after;
    }
  }
}

}  // namespace
}  // namespace morvik::host
