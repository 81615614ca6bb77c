// The device with the app on it: the kit as an app has it, and what a real device would do around it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <variant>

#include "apps/device/output.h"
#include "apps/device/store_view.h"
#include "kit/queues.h"
#include "morvik/host_options.h"
#include "morvik/morvik.h"

namespace morvik_device {

/// What is still under way.
struct Busy {
  size_t requests = 0;            ///< on their way, or waiting for a connection
  size_t main_blocks = 0;         ///< blocks of the main queue that wait for their turn
  size_t background_blocks = 0;   ///< blocks of the background queue that wait or run
  size_t session_end_blocks = 0;  ///< delayed by the half second of a session end
  // These do not keep a device from being settled.
  size_t background_tasks = 0;
  size_t retries = 0;

  bool settled() const { return requests + main_blocks + background_blocks + session_end_blocks == 0; }
};

/// Made on any thread; used on its main queue, but for perform() and stop().
class Phone {
 public:
  /// The kit on its store, or one line about why there is none. The calls of its delegates are written to `output`,
  /// which outlives the phone.
  static std::variant<std::unique_ptr<Phone>, std::string> start(const morvik::HostOptions& options, Output& output);
  virtual ~Phone() = default;

  virtual morvik::MorvikCore& app() = 0;
  virtual morvik::kit::MainQueue& mainQueue() = 0;
  virtual morvik::services::MorvikGVUserDefaults properties() = 0;
  virtual StoreView storeView() = 0;
  virtual bool forgetsMe() const = 0;
  /// Moves the wall clock, forward or back, for this process.
  virtual void moveClock(double seconds) = 0;
  virtual Busy busy() const = 0;
};

}  // namespace morvik_device
