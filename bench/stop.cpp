// How soon the building of a batch notices a stop, with a million events pending: the stop is requested at many moments
// from the beginning to the end of the building, and the time from each until the building has ended is measured. So
// the longest of them is at least the longest time between two checks. Times are processor time of the building thread,
// so that the machine's load does not count.
//
// bench_stop [EVENTS]

#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <new>
#include <thread>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "bench/support/batch_ports.h"
#include "bench/support/event_arguments.h"

namespace morvik::bench {
namespace {

constexpr int kEvents = 1'000'000;
constexpr int kMoments = 100;
constexpr double kMaxMilliseconds = 50;

double milliseconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

/// Of the building thread.
class Building {
 public:
  explicit Building(const kit::Ports& ports) : ports_(ports) { ::pthread_getcpuclockid(::pthread_self(), &clock_); }

  /// As a session's start does it: nothing is known of the list. Returns how long it took.
  double run() {
    const auto core = MorvikCoreLib::make(ports_);
    begun_ = milliseconds(clock_);
    has_begun_ = true;
    static_cast<void>(core->makeTrackingParameter(EndActivities::kSend));
    const double ended = milliseconds(clock_);
    has_begun_ = false;
    return ended - begun_;
  }

  /// The same, stopped after the thread has worked this long. Returns how long it went on.
  double runAndStopAfter(double after) {
    std::atomic<bool> is_over = false;
    double requested = 0;
    std::thread stopper([&] {
      while (!is_over && (!has_begun_ || milliseconds(clock_) < begun_ + after))
        std::this_thread::yield();
      requested = milliseconds(clock_);
      ports_.shared_state.stop_request.make();
    });
    const double took = run();
    is_over = true;
    stopper.join();
    const double worked_on = begun_ + took - requested;
    // A request is made only once; the next building has its own.
    kit::StopRequest& request = ports_.shared_state.stop_request;
    std::destroy_at(&request);
    new (&request) kit::StopRequest;
    return worked_on;
  }

 private:
  const kit::Ports& ports_;
  clockid_t clock_{};
  std::atomic<double> begun_ = 0;
  std::atomic<bool> has_begun_ = false;
};

double longestOf(const char* what, size_t events, BatchPorts::Order order) {
  BatchPorts ports(events, BatchPorts::Step::kEnvelope, order);
  Building building(ports.ports());
  const double whole = std::max(building.run(), building.run());
  double longest = 0;
  for (int moment = 0; moment < kMoments; ++moment)
    longest = std::max(longest, building.runAndStopAfter(whole * moment / kMoments));
  std::printf("%s: a batch takes %.1f ms; stopped at %d moments it ended within %.1f ms\n", what, whole, kMoments,
              longest);
  return longest;
}

}  // namespace
}  // namespace morvik::bench

int main(int argc, char** argv) {
  using morvik::bench::BatchPorts;
  const auto arguments = morvik::bench::eventArguments(argc, argv, morvik::bench::kEvents, {});
  if (!arguments) {
    std::fprintf(stderr,
                 "Usage: bench_stop [EVENTS]\n"
                 "EVENTS is a number from 1 on; without it there are %d.\n",
                 morvik::bench::kEvents);
    return 2;
  }
  const auto events = static_cast<size_t>(arguments->events);
  const double longest = std::max(morvik::bench::longestOf("in order", events, BatchPorts::Order::kByTime),
                                  morvik::bench::longestOf("shuffled", events, BatchPorts::Order::kShuffled));
  const bool holds = longest <= morvik::bench::kMaxMilliseconds;
  std::printf("%s: %.0f ms between two looks at a stop, with %zu events waiting\n", holds ? "holds" : "DOES NOT HOLD",
              morvik::bench::kMaxMilliseconds, events);
  return holds ? 0 : 1;
}
