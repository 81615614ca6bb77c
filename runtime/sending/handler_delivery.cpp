#include "runtime/sending/handler_delivery.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace morvik::runtime {

struct HandlerDelivery::State {
  std::mutex mutex;
  std::condition_variable handler_ended;
  bool closed = false;
  size_t unanswered = 0;
  bool running = false;
  std::thread::id runner;

  /// False if nothing may run any more.
  bool begin() {
    const std::lock_guard lock(mutex);
    if (closed)
      return false;
    --unanswered;
    running = true;
    runner = std::this_thread::get_id();
    return true;
  }
  void end() {
    const std::lock_guard lock(mutex);
    running = false;
    handler_ended.notify_all();
  }
};

namespace {

/// Ends what begin() began, even if the handler throws.
template <class State>
struct Running {
  State& state;
  ~Running() { state.end(); }
};

}  // namespace

HandlerDelivery::HandlerDelivery(kit::MainQueue& main_queue)
    : main_queue_(main_queue), state_(std::make_shared<State>()) {}

bool HandlerDelivery::admit() {
  const std::lock_guard lock(state_->mutex);
  if (!state_->closed)
    ++state_->unanswered;
  return !state_->closed;
}

void HandlerDelivery::deliver(TransportHandler handler, kit::TransportOutcome outcome) {
  main_queue_.async([state = state_, handler = std::move(handler), outcome = std::move(outcome)]() mutable {
    if (!state->begin())
      return;
    const Running<State> running{*state};
    handler(std::move(outcome));
  });
}

size_t HandlerDelivery::unanswered() const {
  const std::lock_guard lock(state_->mutex);
  return state_->unanswered;
}

void HandlerDelivery::close(double max_wait_seconds) {
  std::unique_lock lock(state_->mutex);
  state_->closed = true;
  state_->unanswered = 0;
  if (state_->running && state_->runner != std::this_thread::get_id()) {
    state_->handler_ended.wait_for(lock, std::chrono::duration<double>(max_wait_seconds),
                                   [this] { return !state_->running; });
  }
}

}  // namespace morvik::runtime
