// What tests and demonstrations do to a machine while the kit runs on it.
#pragma once

#include <string_view>

#include "kit/queues.h"
#include "kit/value.h"

namespace morvik::simulation {

class Levers {
 public:
  virtual ~Levers() = default;
  /// Moves the wall clock forward, or back when negative, on top of earlier moves. Timers are not affected. The clock
  /// stops at the ends of what a date can hold; NaN moves nothing.
  virtual void moveClock(double seconds) = 0;
  /// Whether the network status says that there is no network. The network itself stays, and so does what is set here
  /// when another process starts on the machine.
  virtual void setOffline(bool offline) = 0;
  /// Runs `block` on the main queue after the delay. It does not count as pending. While a kit runs.
  virtual void after(double delay_seconds, kit::Block block) = 0;
  /// Changes a stored value by hand; the ledger counts what it removes. Does nothing while no kit runs.
  virtual void edit(std::string_view key, kit::Value value) = 0;
};

}  // namespace morvik::simulation
