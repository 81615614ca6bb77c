#include "apps/service/inspect/feed.h"

#include <gtest/gtest.h>

#include <future>

namespace morvik_service {
namespace {

constexpr std::chrono::hours kForever{1};

TEST(Feed, WhatWasPublishedBeforeIsNotWaitedFor) {
  Feed feed;
  const std::uint64_t seen = feed.version();
  feed.publish();
  EXPECT_TRUE(feed.waitBeyond(seen, kForever, {}));
  EXPECT_EQ(seen + 1, feed.version());
}

TEST(Feed, AChangeWakesWhoWaits) {
  Feed feed;
  auto waited = std::async(std::launch::async, [&] { return feed.waitBeyond(0, kForever, {}); });
  feed.publish();
  EXPECT_TRUE(waited.get());
}

TEST(Feed, PatienceEnds) {
  EXPECT_FALSE(Feed().waitBeyond(0, std::chrono::milliseconds(1), {}));
}

TEST(Feed, AStopEndsTheWait) {
  Feed feed;
  std::stop_source stop;
  auto waited = std::async(std::launch::async, [&] { return feed.waitBeyond(0, kForever, stop.get_token()); });
  stop.request_stop();
  EXPECT_FALSE(waited.get());
}

}  // namespace
}  // namespace morvik_service
