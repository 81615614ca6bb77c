#include "runtime/life/start_hold.h"

#include <utility>

namespace morvik::runtime {
namespace {

constexpr int kTries = static_cast<int>(kStartHoldSeconds / kStartHoldTrySeconds);

}  // namespace

void StartHold::begin(Hooks hooks) {
  hooks_ = std::move(hooks);
  if (store_.opening() != StoreOpening::kUnavailable)
    return;
  waiting_.reserve(kMaxHeldNotifications);
  is_unavailable_ = true;
  is_holding_ = true;
  tryAgain(kTries);
}

void StartHold::pass(kit::Notification notification) {
  if (!is_holding_ && waiting_.empty())
    return hooks_.deliver(notification);
  if (!waiting_.empty() && waiting_.back() == notification)
    return;
  // The two kinds alternate: without the last one, the one before it is of this kind.
  if (waiting_.size() == kMaxHeldNotifications)
    waiting_.pop_back();
  else
    waiting_.push_back(notification);
}

void StartHold::storeRecovered() {
  is_unavailable_ = false;
  end();
}

/// True: nothing is left to wait for. A file of a newer version ends the wait, and is not asked again.
bool StartHold::settle() {
  if (!is_unavailable_ || store_.opening() == StoreOpening::kUnavailable)
    return !is_unavailable_;
  is_unavailable_ = false;
  end();
  hooks_.when_settled();
  return true;
}

void StartHold::end() {
  if (!is_holding_.exchange(false))
    return;
  hooks_.when_over();
  if (is_unavailable_)
    tryLater();
  deliverWaiting();
}

/// A notification that a callback posts meanwhile is delivered after those that wait.
void StartHold::deliverWaiting() {
  try {
    for (size_t delivered = 0; delivered < waiting_.size(); ++delivered)
      hooks_.deliver(waiting_[delivered]);
  } catch (...) {
    waiting_.clear();
    throw;
  }
  waiting_.clear();
}

/// Each turn's commit takes over what the previous attempt opened.
void StartHold::tryAgain(int tries_left) {
  try {
    store_.flushNow();
    main_loop_.schedule(kStartHoldTrySeconds, [this, tries_left] {
      if (!is_holding_ || settle())
        return;
      if (tries_left == 1)
        end();
      else
        tryAgain(tries_left - 1);
    });
  } catch (...) {
    end();  // there would be no timer to do it
    throw;
  }
}

/// Without memory for a timer, CommitRetry remains.
void StartHold::tryLater() {
  main_loop_.schedule(kStoreReopenSeconds, [this] {
    if (settle())
      return;
    store_.flushNow();
    // An empty turn: its commit takes over what was opened.
    main_loop_.schedule(kStartHoldTrySeconds, [] {});
    tryLater();
  });
}

}  // namespace morvik::runtime
