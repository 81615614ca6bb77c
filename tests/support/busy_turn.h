// A turn of the main queue that lasts until the test ends it.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <utility>

#include "runtime/instance.h"

namespace morvik::test {

/// Constructed once the turn runs: it has called `first`, and waits.
class BusyTurn {
 public:
  explicit BusyTurn(
      runtime::Instance& instance, std::function<void()> first = [] {}) {
    const auto started = std::make_shared<std::promise<void>>();
    instance.perform([started, first = std::move(first), go_on = go_on_.get_future().share()] {
      first();
      started->set_value();
      go_on.wait();
    });
    started->get_future().wait();
  }
  ~BusyTurn() { end(); }
  BusyTurn(const BusyTurn&) = delete;
  BusyTurn& operator=(const BusyTurn&) = delete;

  /// May be called again.
  void end() {
    if (!std::exchange(has_ended_, true))
      go_on_.set_value();
  }

 private:
  std::promise<void> go_on_;
  bool has_ended_ = false;
};

}  // namespace morvik::test
