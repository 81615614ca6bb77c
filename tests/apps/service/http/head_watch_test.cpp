#include "apps/service/http/head_watch.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace morvik_service {
namespace {

constexpr int kPatienceMilliseconds = 60000;

class Pair {
 public:
  Pair() { EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_.data())); }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
  ~Pair() {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }

  int served() const { return ends_[0]; }
  bool isShutWithin(int milliseconds) const {
    pollfd watched{ends_[1], POLLRDHUP, 0};
    return ::poll(&watched, 1, milliseconds) == 1 && (watched.revents & POLLRDHUP) != 0;
  }

 private:
  std::array<int, 2> ends_{-1, -1};
};

TEST(HeadWatch, ShutsDownWhatIsAwaitedForTooLong) {
  Pair one;
  Pair other;
  HeadWatch watch(std::chrono::seconds(0));
  const HeadWatch::Watched watched_one(watch, one.served());
  const HeadWatch::Watched watched_other(watch, other.served());
  EXPECT_TRUE(one.isShutWithin(kPatienceMilliseconds));
  EXPECT_TRUE(other.isShutWithin(kPatienceMilliseconds));
}

TEST(HeadWatch, LeavesAloneWhatHasArrivedUntilTheNextIsAwaited) {
  Pair late;
  Pair arrived;
  HeadWatch watch(std::chrono::seconds(1));
  HeadWatch::Watched watched(watch, arrived.served());
  watched.arrived();
  const HeadWatch::Watched watched_late(watch, late.served());
  EXPECT_TRUE(late.isShutWithin(kPatienceMilliseconds));
  EXPECT_FALSE(arrived.isShutWithin(0)) << "it was watched before the other";
  watched.awaitNext();
  EXPECT_TRUE(arrived.isShutWithin(kPatienceMilliseconds));
}

TEST(HeadWatch, EndsWithoutWaitingForItsBound) {
  Pair pair;
  {
    HeadWatch watch(std::chrono::hours(1));
    const HeadWatch::Watched watched(watch, pair.served());
  }
  EXPECT_FALSE(pair.isShutWithin(0));
}

}  // namespace
}  // namespace morvik_service
