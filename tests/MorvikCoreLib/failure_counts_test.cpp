#include "MorvikCoreLib/failure_counts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "services/converters.h"
#include "services/describe.h"
#include "tests/MorvikCoreLib/clicks.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::arrayOf;
using testing::countOf;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

/// The rule as it is told, without an index: each record as the list was at the start.
CountedSessionEnd bySearch(const Array& counts) {
  CountedSessionEnd counted;
  kit::MutableArray list(counts);
  for (const Value& record : counts) {
    list.removeAllEqualTo(record);
    const int64_t key = conversionKeyOf(record);
    const int64_t failures = services::checkIntegerNilToZero(record["failure_cnt"]);
    if (failures > 5)
      counted.given_up.insert(key);
    else
      list.append(countOf(key, failures + 1));
  }
  counted.counts = Value(std::move(list));
  return counted;
}

TEST(FailureCounts, ReadAKeyAsAnInteger) {
  EXPECT_EQ(conversionKeyOf(countOf(12, 1)), 12);
  EXPECT_EQ(conversionKeyOf(Dictionary{{"conversion_key", "12 and more"}}), 12);
  EXPECT_EQ(conversionKeyOf(Dictionary{{"conversion_key", Value::null()}}), 0);
  EXPECT_EQ(conversionKeyOf(Dictionary{}), 0);
  EXPECT_EQ(conversionKeyOf(Value("text")), 0);
}

TEST(FailureCounts, HaveRecordsOfTwoEntries) {
  const Value record = failureCount(12, 3);
  EXPECT_EQ(record, countOf(12, 3));
  EXPECT_EQ(record.dictionary().begin()->key, Value("conversion_key"));
  EXPECT_EQ(record.size(), 2U);
}

TEST(FailureCounts, GoUpByOneToSixAndThenTheirKeyIsGivenUp) {
  Value counts = arrayOf({countOf(12, kFirstFailureCount)});
  for (int64_t expected = 2; expected <= 6; ++expected) {
    const CountedSessionEnd counted = countSessionEnd(counts.array());
    EXPECT_EQ(counted.counts, arrayOf({countOf(12, expected)}));
    EXPECT_THAT(counted.given_up, IsEmpty());
    counts = counted.counts;
  }
  const CountedSessionEnd last = countSessionEnd(counts.array());
  EXPECT_EQ(last.counts, Value(Array{}));
  EXPECT_THAT(last.given_up, UnorderedElementsAre(12));
}

TEST(FailureCounts, OfAnEmptyListStayEmpty) {
  const CountedSessionEnd counted = countSessionEnd({});
  EXPECT_EQ(counted.counts, Value(Array{}));
  EXPECT_THAT(counted.given_up, IsEmpty());
}

TEST(FailureCounts, ComeBackAtTheEndOfTheListInTheirOrder) {
  const Value counts = arrayOf({countOf(1, 3), countOf(2, 6), countOf(3, 1)});
  const CountedSessionEnd counted = countSessionEnd(counts.array());
  EXPECT_EQ(counted.counts, arrayOf({countOf(1, 4), countOf(3, 2)}));
  EXPECT_THAT(counted.given_up, UnorderedElementsAre(2));
}

TEST(FailureCounts, ThatBecomeEqualGoTogether) {
  EXPECT_EQ(countSessionEnd(arrayOf({countOf(1, 1), countOf(1, 2)}).array()).counts, arrayOf({countOf(1, 3)}));
  EXPECT_EQ(countSessionEnd(arrayOf({countOf(1, 2), countOf(1, 1)}).array()).counts,
            arrayOf({countOf(1, 3), countOf(1, 2)}));
  EXPECT_EQ(countSessionEnd(arrayOf({countOf(1, 1), countOf(1, 1)}).array()).counts,
            arrayOf({countOf(1, 2), countOf(1, 2)}));
}

TEST(FailureCounts, OfOneKeyAreGivenUpAndRaisedEachByItself) {
  const CountedSessionEnd counted = countSessionEnd(arrayOf({countOf(1, 6), countOf(1, 2)}).array());
  EXPECT_EQ(counted.counts, arrayOf({countOf(1, 3)}));
  EXPECT_THAT(counted.given_up, UnorderedElementsAre(1));
}

TEST(FailureCounts, ThatAreNoneAreReadAsZeroAndWrittenAnew) {
  const Value odd = arrayOf({"text", Dictionary{}, Dictionary{{"conversion_key", "7"}, {"failure_cnt", 2.9}},
                             Dictionary{{"conversion_key", 8}, {"failure_cnt", "6"}, {"more", 1}},
                             Dictionary{{"conversion_key", 9}, {"failure_cnt", -3}}});
  const CountedSessionEnd counted = countSessionEnd(odd.array());
  EXPECT_EQ(counted.counts, arrayOf({countOf(0, 1), countOf(0, 1), countOf(7, 3), countOf(9, -2)}));
  EXPECT_THAT(counted.given_up, UnorderedElementsAre(8));
}

TEST(FailureCounts, OfTheLargestNumbersAreGivenUpWithoutOverflow) {
  const CountedSessionEnd counted = countSessionEnd(
      arrayOf({countOf(1, std::numeric_limits<int64_t>::max()), countOf(2, std::numeric_limits<int64_t>::min())})
          .array());
  EXPECT_EQ(counted.counts, arrayOf({countOf(2, std::numeric_limits<int64_t>::min() + 1)}));
  EXPECT_THAT(counted.given_up, UnorderedElementsAre(1));
}

TEST(FailureCounts, AreThoseOfASearchWithoutAnIndex) {
  std::mt19937_64 random(7);
  for (int round = 0; round < 500; ++round) {
    kit::MutableArray counts;
    for (uint64_t size = random() % 12; counts.size() < size;) {
      const auto key = static_cast<int64_t>(random() % 3);
      const auto failures = static_cast<int64_t>(random() % 8);
      switch (random() % 5) {
        case 0:
          counts.append(Dictionary{{"conversion_key", static_cast<double>(key)}, {"failure_cnt", failures}});
          break;
        case 1:
          counts.append(Dictionary{{"conversion_key", key}, {"failure_cnt", failures}, {"more", 1}});
          break;
        default:
          counts.append(countOf(key, failures));
      }
    }
    const Array before = Value(std::move(counts)).array();
    const CountedSessionEnd counted = countSessionEnd(before);
    const CountedSessionEnd expected = bySearch(before);
    ASSERT_EQ(counted.counts, expected.counts) << services::describe(before);
    ASSERT_EQ(counted.given_up, expected.given_up) << services::describe(before);
  }
}

}  // namespace
}  // namespace morvik
