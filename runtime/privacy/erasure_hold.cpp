#include "runtime/privacy/erasure_hold.h"

#include <vector>

namespace morvik::runtime {

ErasureHold::ErasureHold(WishStore& wish, MachineLoop& main_loop, const services::Logger& logger)
    : wish_(wish), main_loop_(main_loop), logger_(logger) {
  wish_.setWhenOnDisk([this] {
    if (waiting() == 0)
      return;
    main_loop_.async([this, alive = std::weak_ptr(alive_)] {
      if (alive.lock())
        open();
    });
  });
}

ErasureHold::~ErasureHold() {
  wish_.setWhenOnDisk(nullptr);
}

void ErasureHold::whenOpen(kit::Block leave) {
  if (!holdBack(leave))
    return leave();
  // Always: a wish that could not be written is retried.
  wish_.flushNow();
}

/// True: `leave` is held, and was moved from. False: it may leave now.
bool ErasureHold::holdBack(kit::Block& leave) {
  const std::scoped_lock hold(mutex_);
  // Later ones do not overtake.
  if (waiting_.empty() && isOpen())
    return false;
  const uint64_t number = ++last_number_;
  const auto timer = main_loop_.schedule(kErasureHoldSeconds, [this, number, alive = std::weak_ptr(alive_)] {
    if (alive.lock())
      timeIsUp(number);
  });
  waiting_.emplace(number, Waiting{std::move(leave), timer});
  return true;
}

size_t ErasureHold::waiting() const {
  const std::scoped_lock hold(mutex_);
  return waiting_.size();
}

void ErasureHold::drop() {
  std::map<uint64_t, Waiting> dropped;
  const std::scoped_lock hold(mutex_);
  dropped.swap(waiting_);
}

/// On the main queue.
void ErasureHold::open() {
  // A newer wish has its own way to the disk, and with it the erasures of both.
  if (!isOpen())
    return;
  std::map<uint64_t, Waiting> open;
  {
    const std::scoped_lock hold(mutex_);
    open.swap(waiting_);
  }
  for (auto& [number, waiting] : open) {
    main_loop_.cancel(waiting.timer);
    waiting.leave();
  }
}

/// On the main queue.
void ErasureHold::timeIsUp(uint64_t number) {
  std::map<uint64_t, Waiting> due;
  {
    const std::scoped_lock hold(mutex_);
    const auto end = waiting_.upper_bound(number);
    while (waiting_.begin() != end)
      due.insert(waiting_.extract(waiting_.begin()));
  }
  if (due.empty())
    return;
  MORVIK_LOG(
      logger_, kit::lcl_vError, "-[MorvikCore gdprForgetMe:]",
      "Morvik host: what the user said about being forgotten did not reach the disk within %ld s (%@): the service is "
      "told all the same; make the store folder writable, or check the disk",
      static_cast<int64_t>(kErasureHoldSeconds), wish_.problem().empty() ? "the disk is slow" : wish_.problem());
  for (auto& [held, waiting] : due)
    waiting.leave();
}

// ------------------------------------------------------------------------------------------------------- the transport

void ErasureHoldTransport::start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) {
  if (request.when_held != kit::WhenHeld::kPasses)
    return transport_.start(std::move(request), std::move(handler));
  auto ended = [this, body = request.body, handler = std::move(handler)](kit::TransportOutcome outcome) {
    when_ended_(body);
    handler(std::move(outcome));
  };
  hold_.whenOpen([this, request = std::move(request), ended = std::move(ended)]() mutable {
    transport_.start(std::move(request), std::move(ended));
  });
}

void ErasureHoldTransport::shutdown() {
  hold_.drop();
  transport_.shutdown();
}

}  // namespace morvik::runtime
