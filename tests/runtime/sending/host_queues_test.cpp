#include "runtime/sending/host_queues.h"

#include <gtest/gtest.h>

#include <vector>

namespace morvik::runtime {
namespace {

std::vector<int> takeAll(HostQueues<int>& queues) {
  std::vector<int> taken;
  while (const auto item = queues.takeReady())
    taken.push_back(*item);
  return taken;
}

TEST(HostQueues, LetSixBeginAndTheRestWaitInOrder) {
  HostQueues<int> queues;
  for (int item = 1; item <= 9; ++item)
    queues.add("a", item);
  EXPECT_EQ(takeAll(queues), (std::vector<int>{1, 2, 3, 4, 5, 6}));
  queues.ended("a");
  EXPECT_EQ(takeAll(queues), (std::vector<int>{7}));
  queues.ended("a");
  queues.ended("a");
  EXPECT_EQ(takeAll(queues), (std::vector<int>{8, 9}));
}

TEST(HostQueues, AnEndedOneMakesRoomForOne) {
  HostQueues<int> queues;
  for (int item = 1; item <= 6; ++item)
    queues.add("a", item);
  takeAll(queues);
  queues.ended("a");
  queues.add("a", 7);
  queues.add("a", 8);
  EXPECT_EQ(takeAll(queues), (std::vector<int>{7}));
}

TEST(HostQueues, AFullHostHoldsNobodyElseUp) {
  HostQueues<int> queues;
  for (int item = 1; item <= 7; ++item)
    queues.add("a", item);
  takeAll(queues);
  queues.add("b", 8);
  EXPECT_EQ(takeAll(queues), (std::vector<int>{8}));
}

TEST(HostQueues, AHostThatWasForgottenStartsAfresh) {
  HostQueues<int> queues;
  for (int round = 0; round < 3; ++round) {
    for (int item = 1; item <= 6; ++item)
      queues.add("a", item);
    EXPECT_EQ(takeAll(queues).size(), 6u);
    for (int item = 1; item <= 6; ++item)
      queues.ended("a");
  }
}

TEST(HostQueues, HeldLetWaitAllButThoseThatPassAHold) {
  HostQueues<int> queues;
  for (int item = 1; item <= 8; ++item)
    queues.add("a", item, item == 7);
  EXPECT_EQ(queues.takeReady(true), 7);
  EXPECT_EQ(queues.takeReady(true), std::nullopt);
  EXPECT_EQ(takeAll(queues), (std::vector<int>{1, 2, 3, 4, 5})) << "seven holds a place";
  queues.ended("a");
  EXPECT_EQ(queues.takeReady(true), std::nullopt);
  EXPECT_EQ(takeAll(queues), (std::vector<int>{6}));
}

TEST(HostQueues, LetThoseThatPassAHoldGoAheadOfAllOthersInTheirOwnOrder) {
  HostQueues<int> queues;
  queues.add("a", 1);
  queues.add("b", 2, true);
  queues.add("a", 3, true);
  queues.add("b", 4);
  EXPECT_EQ(takeAll(queues), (std::vector<int>{2, 3, 1, 4}));
}

TEST(HostQueues, GiveBackWhatWaitsInOrderButWhatPassesAHold) {
  HostQueues<int> queues;
  queues.add("a", 1);
  queues.add("b", 2, true);
  queues.add("c", 3);
  queues.add("a", 4);
  EXPECT_EQ(queues.takeWaitingIf([](int item) { return item != 1; }), (std::vector<int>{3, 4}));
  EXPECT_EQ(takeAll(queues), (std::vector<int>{2, 1}));
}

}  // namespace
}  // namespace morvik::runtime
