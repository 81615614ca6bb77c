#include "simulation/virtual_flusher.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace morvik::simulation {

VirtualFlusher::VirtualFlusher(testing::VirtualLoop& loop, Flush flush, std::chrono::milliseconds delay,
                               SyncSeconds sync_seconds)
    : loop_(loop), flush_(std::move(flush)), delay_(delay), sync_seconds_(std::move(sync_seconds)) {}

VirtualFlusher::~VirtualFlusher() {
  stop();
}

void VirtualFlusher::flushSoon() {
  if (!is_wanted_)
    schedule(std::chrono::duration<double>(delay_).count());
}

void VirtualFlusher::flushNow(Urgency urgency) {
  urgency_ = std::max(urgency_, urgency);
  if (!std::exchange(is_wanted_now_, true))
    schedule(0);
}

void VirtualFlusher::flushAndWait(Urgency urgency) {
  urgency_ = std::max(urgency_, urgency);
  if (!stopped_)
    run();
}

void VirtualFlusher::stop() {
  stopped_ = true;
  alive_.reset();
}

// A due timer cannot be cancelled; if another flush came first, it does nothing.
void VirtualFlusher::schedule(double delay_seconds) {
  is_wanted_ = true;
  loop_.schedule(delay_seconds, [this, alive = std::weak_ptr(alive_), number = flushes_] {
    if (alive.lock() && number == flushes_)
      begin();
  });
}

void VirtualFlusher::begin() {
  const double seconds = sync_seconds_ ? sync_seconds_() : 0;
  if (is_under_way_) {
    is_due_ = true;
  } else if (seconds <= 0) {
    run();
  } else {
    is_under_way_ = true;
    restart();
    const Urgency urgency = std::exchange(urgency_, Urgency::kRoutine);
    loop_.schedule(seconds, [this, alive = std::weak_ptr(alive_), urgency] {
      if (alive.lock() && is_under_way_)
        end(urgency);
    });
  }
}

void VirtualFlusher::end(Urgency urgency) {
  is_under_way_ = false;
  flush_(urgency);
  if (std::exchange(is_due_, false))
    begin();
}

/// A flush requested from here on is a separate one.
void VirtualFlusher::restart() {
  ++flushes_;
  is_wanted_ = is_wanted_now_ = false;
}

void VirtualFlusher::run() {
  is_under_way_ = is_due_ = false;
  restart();
  flush_(std::exchange(urgency_, Urgency::kRoutine));
}

host::MakeStoreFlusher flushesOn(testing::VirtualLoop& loop, SyncSeconds sync_seconds) {
  return [&loop, sync_seconds = std::move(sync_seconds)](host::StoreFlusher::Flush flush,
                                                         std::chrono::milliseconds delay) {
    return std::make_unique<VirtualFlusher>(loop, std::move(flush), delay, sync_seconds);
  };
}

}  // namespace morvik::simulation
