// Lists that go into themselves. The address sanitizer's leak check sees whether all of them go again.

#include <gtest/gtest.h>

#include "kit/value.h"

namespace morvik::kit {
namespace {

Value listOf(int count) {
  MutableArray list;
  for (int i = 0; i < count; ++i)
    list.append(i);
  return Value(std::move(list));
}

TEST(ValueNesting, AListAppendedToItsOwnCopyIsAnElementAndNoCircle) {
  for (const int count : {1, 3, 5, 63, 64, 65, 200}) {
    const Value list = listOf(count);
    MutableArray copy(list);
    copy.append(list);
    copy.append("after");
    const Value longer(std::move(copy));
    EXPECT_EQ(longer.size(), static_cast<size_t>(count) + 2);
    EXPECT_EQ(longer.array()[static_cast<size_t>(count)], list);
    EXPECT_EQ(longer.array().sharedPrefix(list.array()), static_cast<size_t>(count));
    EXPECT_EQ(list.size(), static_cast<size_t>(count));
  }
}

TEST(ValueNesting, ARecordThatHoldsAnOlderViewOfTheListIsNoCircle) {
  Value list = listOf(5);
  for (int i = 0; i < 100; ++i) {
    MutableArray copy(list);
    copy.append(Dictionary{{"inner", Dictionary{{"before", list}}}});
    list = Value(std::move(copy));
  }
  EXPECT_EQ(list.size(), 105U);
  EXPECT_EQ(list.array()[104]["inner"]["before"].size(), 104U);
}

}  // namespace
}  // namespace morvik::kit
