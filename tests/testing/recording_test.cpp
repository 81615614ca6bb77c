#include "testing/recording.h"

#include <gtest/gtest.h>

namespace morvik::test {
namespace {

TEST(Recording, RemembersInOrder) {
  testing::Recording<int> recording;
  recording.add(3);
  recording.add(1);
  recording.add(2);
  EXPECT_EQ(recording.all(), (std::vector{3, 1, 2}));
  EXPECT_EQ(recording.matching([](int entry) { return entry > 1; }), (std::vector{3, 2}));
  EXPECT_EQ(recording.size(), 3u);
}

TEST(Recording, ForgetsTheOldestPastItsLimitAndSaysHowMany) {
  testing::Recording<int> recording(3);
  for (int i = 0; i < 5; ++i)
    recording.add(i);
  EXPECT_EQ(recording.all(), (std::vector{2, 3, 4}));
  EXPECT_EQ(recording.forgotten(), 2u);
  recording.clear();
  EXPECT_EQ(recording.size(), 0u);
  EXPECT_EQ(recording.forgotten(), 0u);
}

TEST(Recording, RemembersAHundredThousandEntriesWhenNotToldOtherwise) {
  testing::Recording<char> recording;
  for (size_t i = 0; i <= testing::kMaxRecordedEntries; ++i)
    recording.add('x');
  EXPECT_EQ(recording.size(), 100'000u);
  EXPECT_EQ(recording.forgotten(), 1u);
}

}  // namespace
}  // namespace morvik::test
