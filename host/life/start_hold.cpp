#include "host/life/start_hold.h"

#include <utility>

namespace morvik::host {
namespace {

constexpr int kTries = static_cast<int>(kStartHoldSeconds / kStartHoldTrySeconds);

}  // namespace

void StartHold::begin(kit::Block when_over) {
  if (store_.opening() != StoreOpening::kUnavailable)
    return;
  when_over_ = std::move(when_over);
  is_holding_ = true;
  tryAgain(kTries);
}

void StartHold::whenOver(kit::Block block) {
  if (is_holding_)
    waiting_ = std::move(block);
  else
    block();
}

void StartHold::end() {
  if (!is_holding_.exchange(false))
    return;
  when_over_();
  if (const kit::Block block = std::exchange(waiting_, nullptr))
    block();
}

/// The commit of each turn takes over what the try before it has opened.
void StartHold::tryAgain(int tries_left) {
  try {
    store_.flushNow();
    main_loop_.schedule(kStartHoldTrySeconds, [this, tries_left] {
      if (!is_holding_)
        return;
      if (tries_left == 1)
        end();
      else
        tryAgain(tries_left - 1);
    });
  } catch (...) {
    end();  // no timer would
    throw;
  }
}

}  // namespace morvik::host
