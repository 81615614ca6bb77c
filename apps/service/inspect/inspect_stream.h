// Inspections that wait: a stream of changes, and a listing that is answered once it has an entry.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

#include "apps/service/http/body_stream.h"
#include "apps/service/inspect/inspected.h"

namespace morvik_service {

/// At most this many watchers; each holds a connection and its thread.
inline constexpr int kMaxWatchers = 24;
/// A watcher that is further behind is told to read the list again.
inline constexpr std::int64_t kMaxCatchUp = 1000;
/// Without news, a keep-alive is sent; it also shows whether the watcher is still there.
inline constexpr std::chrono::milliseconds kSignOfLife{15000};

/// Counts watchers. Any thread.
class Watchers {
 public:
  /// Destruction frees the seat.
  class Seat {
   public:
    explicit Seat(Watchers& watchers) : watchers_(watchers) {}
    Seat(const Seat&) = delete;
    Seat& operator=(const Seat&) = delete;
    ~Seat() { watchers_.taken_.fetch_sub(1); }

   private:
    Watchers& watchers_;
  };

  /// Throws Refusal 503 if all seats are taken. The seat must not outlive this.
  std::unique_ptr<Seat> take();

 private:
  std::atomic<int> taken_{0};
};

/// Server-sent events: "request" (a summary, its number as the event's id) for each request after number `after`,
/// "behaviours", "ledgers" (how many devices reported one, how often) and "totals" at the start and when they change,
/// "gap" (the newest number) instead of more requests than kMaxCatchUp, and for a number that no request has yet.
std::shared_ptr<BodyStream> makeEventStream(const Inspected& inspected, std::unique_ptr<Watchers::Seat> seat,
                                            std::int64_t after, std::chrono::milliseconds sign_of_life = kSignOfLife);

/// The listing of requests that `page` asks for, as soon as it has an entry, or empty after `patience`.
std::shared_ptr<BodyStream> makeWaitingListing(const Inspected& inspected, std::unique_ptr<Watchers::Seat> seat,
                                               const Page& page, std::chrono::milliseconds patience);

}  // namespace morvik_service
