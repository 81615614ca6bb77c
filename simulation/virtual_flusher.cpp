#include "simulation/virtual_flusher.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace morvik::simulation {

VirtualFlusher::VirtualFlusher(testing::VirtualLoop& loop, Flush flush, std::chrono::milliseconds delay)
    : loop_(loop), flush_(std::move(flush)), delay_(delay) {}

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

// A timer that is due cannot be taken back, so one that finds another flush done before it does nothing.
void VirtualFlusher::schedule(double delay_seconds) {
  is_wanted_ = true;
  loop_.schedule(delay_seconds, [this, alive = std::weak_ptr(alive_), number = flushes_] {
    if (alive.lock() && number == flushes_)
      run();
  });
}

void VirtualFlusher::run() {
  ++flushes_;
  is_wanted_ = is_wanted_now_ = false;
  flush_(std::exchange(urgency_, Urgency::kRoutine));
}

host::MakeStoreFlusher flushesOn(testing::VirtualLoop& loop) {
  return [&loop](host::StoreFlusher::Flush flush, std::chrono::milliseconds delay) {
    return std::make_unique<VirtualFlusher>(loop, std::move(flush), delay);
  };
}

}  // namespace morvik::simulation
