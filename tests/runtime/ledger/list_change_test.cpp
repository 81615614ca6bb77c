#include "runtime/ledger/list_change.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::MutableArray;
using kit::Value;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

/// Distinct elements with equal content.
Array records(size_t count) {
  MutableArray list{Value(Array())};
  for (size_t i = 0; i < count; ++i)
    list.append(Dictionary{{"says", "the same"}});
  return Value(std::move(list)).array();
}

Array without(const Array& list, const std::vector<size_t>& gone) {
  MutableArray kept{Value(Array())};
  for (size_t i = 0; i < list.size(); ++i) {
    if (std::find(gone.begin(), gone.end(), i) == gone.end())
      kept.append(list[i]);
  }
  return Value(std::move(kept)).array();
}

Array with(const Array& list, size_t more) {
  MutableArray grown{Value(list)};
  for (size_t i = 0; i < more; ++i)
    grown.append(Dictionary{{"says", "the same"}});
  return Value(std::move(grown)).array();
}

std::vector<std::pair<size_t, size_t>> rangesOf(const ListChange& change) {
  std::vector<std::pair<size_t, size_t>> ranges;
  for (const ElementRange& range : change.removed)
    ranges.emplace_back(range.first, range.count);
  return ranges;
}

TEST(ListChange, OfAListAndItselfIsNone) {
  const Array list = records(5);
  const ListChange change = changeBetween(list, list);
  EXPECT_THAT(change.removed, IsEmpty());
  EXPECT_EQ(change.removedCount(), 0U);
  EXPECT_EQ(change.added, 0U);
}

TEST(ListChange, OfNothingAndNothingIsNone) {
  const ListChange change = changeBetween(Array(), Array());
  EXPECT_THAT(change.removed, IsEmpty());
  EXPECT_EQ(change.added, 0U);
}

TEST(ListChange, CountsWhatWasAppended) {
  const Array list = records(3);
  EXPECT_EQ(changeBetween(list, with(list, 2)).added, 2U);
  EXPECT_THAT(changeBetween(list, with(list, 2)).removed, IsEmpty());
  EXPECT_EQ(changeBetween(Array(), list).added, 3U);
}

TEST(ListChange, NamesWhatWentFromAnywhereInRangesThatDoNotTouch) {
  const Array list = records(8);
  const ListChange change = changeBetween(list, without(list, {0, 1, 4, 7}));
  EXPECT_THAT(rangesOf(change), ElementsAre(Pair(0U, 2U), Pair(4U, 1U), Pair(7U, 1U)));
  EXPECT_EQ(change.removedCount(), 4U);
  EXPECT_EQ(change.added, 0U);
}

TEST(ListChange, TellsWhatWentFromWhatCame) {
  const Array list = records(6);
  const ListChange change = changeBetween(list, with(without(list, {2, 5}), 3));
  EXPECT_THAT(rangesOf(change), ElementsAre(Pair(2U, 1U), Pair(5U, 1U)));
  EXPECT_EQ(change.added, 3U);
}

TEST(ListChange, OfAListThatWasEmptiedIsAllOfIt) {
  const ListChange change = changeBetween(records(4), Array());
  EXPECT_THAT(rangesOf(change), ElementsAre(Pair(0U, 4U)));
  EXPECT_EQ(change.added, 0U);
}

TEST(ListChange, TakesEqualRecordsThatWereRewrittenForOthers) {
  const ListChange change = changeBetween(records(3), records(3));
  EXPECT_THAT(rangesOf(change), ElementsAre(Pair(0U, 3U)));
  EXPECT_EQ(change.added, 3U);
}

TEST(ListChange, OfLongListsIsTheSameInEveryChunk) {
  const Array list = records(5'000);
  for (const size_t gone : {0U, 1U, 63U, 64U, 2'500U, 4'999U}) {
    const ListChange change = changeBetween(list, with(without(list, {gone}), 1));
    EXPECT_THAT(rangesOf(change), ElementsAre(Pair(gone, 1U)));
    EXPECT_EQ(change.added, 1U);
  }
}

}  // namespace
}  // namespace morvik::runtime
