#include "runtime/machine/turn_gate.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace morvik::runtime {
namespace {

TEST(TurnGate, HoldsWhatATurnSendsUntilTheTurnHasEnded) {
  TurnGate gate;
  std::vector<std::string> events;
  {
    const TurnGate::Turn turn(gate);
    gate.leave([&events] { events.push_back("first"); });
    gate.leave([&events] { events.push_back("second"); });
    events.push_back("commit");
  }
  EXPECT_EQ(events, (std::vector<std::string>{"commit", "first", "second"}));
}

TEST(TurnGate, LetsGoAtOnceOutsideOfAnyTurn) {
  TurnGate gate;
  bool left = false;
  gate.leave([&left] { left = true; });
  EXPECT_TRUE(left);
}

TEST(TurnGate, ATurnOfAnotherThreadHoldsNothingBack) {
  TurnGate gate;
  const TurnGate::Turn turn(gate);
  bool left = false;
  std::thread([&] { gate.leave([&left] { left = true; }); }).join();
  EXPECT_TRUE(left);
}

TEST(TurnGate, ATurnInsideATurnIsPartOfIt) {
  TurnGate gate;
  bool left = false;
  {
    const TurnGate::Turn outer(gate);
    {
      const TurnGate::Turn inner(gate);
      gate.leave([&left] { left = true; });
    }
    EXPECT_FALSE(left);
  }
  EXPECT_TRUE(left);
}

TEST(TurnGate, ForgetsATurnThatEnded) {
  TurnGate gate;
  int left = 0;
  { const TurnGate::Turn turn(gate); }
  gate.leave([&left] { ++left; });
  {
    const TurnGate::Turn turn(gate);
    gate.leave([&left] { ++left; });
    EXPECT_EQ(left, 1);
  }
  EXPECT_EQ(left, 2);
}

TEST(TurnGate, KeepsTheTurnsOfManyThreadsApart) {
  TurnGate gate;
  std::vector<std::thread> threads;
  std::vector<int> left(4, 0);
  for (size_t thread = 0; thread < left.size(); ++thread) {
    threads.emplace_back([&gate, &own = left[thread]] {
      for (int round = 0; round < 500; ++round) {
        const int before = own;
        {
          const TurnGate::Turn turn(gate);
          gate.leave([&own] { ++own; });
          EXPECT_EQ(own, before);
        }
        EXPECT_EQ(own, before + 1);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

TEST(TurnGate, KnowsTheThreadThatIsInATurn) {
  TurnGate gate;
  EXPECT_FALSE(gate.isInTurn());
  {
    const TurnGate::Turn turn(gate);
    EXPECT_TRUE(gate.isInTurn());
    std::thread([&gate] { EXPECT_FALSE(gate.isInTurn()); }).join();
  }
  EXPECT_FALSE(gate.isInTurn());
}

}  // namespace
}  // namespace morvik::runtime
