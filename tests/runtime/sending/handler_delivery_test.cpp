#include "runtime/sending/handler_delivery.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <thread>

#include "tests/support/pumped_queue.h"

namespace morvik::runtime {
namespace {

constexpr double kLongWaitSeconds = 30;

TEST(HandlerDelivery, RunsTheHandlerOnceInALaterTurn) {
  test::PumpedQueue queue;
  HandlerDelivery delivery(queue);
  int calls = 0;
  ASSERT_TRUE(delivery.admit());
  EXPECT_EQ(delivery.unanswered(), 1u);
  delivery.deliver([&](const kit::TransportOutcome& outcome) { calls += outcome.error->message == "why" ? 1 : 100; },
                   {.response = {}, .error = kit::Error{"why"}});
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(delivery.unanswered(), 1u);
  queue.runAll();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(delivery.unanswered(), 0u);
}

TEST(HandlerDelivery, ARequestStartedByAHandlerCounts) {
  test::PumpedQueue queue;
  HandlerDelivery delivery(queue);
  ASSERT_TRUE(delivery.admit());
  delivery.deliver(
      [&](const kit::TransportOutcome&) {
        EXPECT_EQ(delivery.unanswered(), 0u);
        EXPECT_TRUE(delivery.admit());
      },
      {});
  queue.runAll();
  EXPECT_EQ(delivery.unanswered(), 1u);
}

TEST(HandlerDelivery, RunsNothingAfterTheEnd) {
  test::PumpedQueue queue;
  HandlerDelivery delivery(queue);
  bool called = false;
  ASSERT_TRUE(delivery.admit());
  delivery.deliver([&](const kit::TransportOutcome&) { called = true; }, {});
  delivery.close(kLongWaitSeconds);
  EXPECT_FALSE(delivery.admit());
  EXPECT_EQ(delivery.unanswered(), 0u);
  delivery.deliver([&](const kit::TransportOutcome&) { called = true; }, {});
  queue.runAll();
  EXPECT_FALSE(called);
}

TEST(HandlerDelivery, PostedBlocksMayOutliveIt) {
  test::PumpedQueue queue;
  bool called = false;
  {
    HandlerDelivery delivery(queue);
    ASSERT_TRUE(delivery.admit());
    delivery.deliver([&](const kit::TransportOutcome&) { called = true; }, {});
    delivery.close(kLongWaitSeconds);
  }
  queue.runAll();
  EXPECT_FALSE(called);
}

TEST(HandlerDelivery, EndsFromInsideAHandlerWithoutWaitingForIt) {
  test::PumpedQueue queue;
  HandlerDelivery delivery(queue);
  int calls = 0;
  for (int request = 0; request < 2; ++request) {
    ASSERT_TRUE(delivery.admit());
    delivery.deliver(
        [&](const kit::TransportOutcome&) {
          ++calls;
          delivery.close(kLongWaitSeconds);
        },
        {});
  }
  queue.runAll();
  EXPECT_EQ(calls, 1);
}

TEST(HandlerDelivery, WaitsForAHandlerThatRunsOnAnotherThread) {
  test::PumpedQueue queue;
  HandlerDelivery delivery(queue);
  std::promise<void> begun;
  std::promise<void> may_end;
  bool ended = false;
  ASSERT_TRUE(delivery.admit());
  delivery.deliver(
      [&](const kit::TransportOutcome&) {
        begun.set_value();
        may_end.get_future().wait();
        ended = true;
      },
      {});
  std::thread main_thread([&queue] { queue.runAll(); });
  begun.get_future().wait();
  delivery.close(0);  // its patience is bounded
  std::thread closer([&] {
    delivery.close(kLongWaitSeconds);
    EXPECT_TRUE(ended);
  });
  may_end.set_value();
  closer.join();
  main_thread.join();
}

TEST(HandlerDelivery, AHandlerThatThrowsIsOverAsWell) {
  test::PumpedQueue queue;
  HandlerDelivery delivery(queue);
  ASSERT_TRUE(delivery.admit());
  delivery.deliver([](const kit::TransportOutcome&) { throw 7; }, {});
  EXPECT_THROW(queue.runAll(), int);
  std::thread([&delivery] { delivery.close(kLongWaitSeconds); }).join();
}

}  // namespace
}  // namespace morvik::runtime
