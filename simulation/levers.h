// What tests and demonstrations can do to a machine while the kit runs on it.
#pragma once

#include <string_view>

#include "kit/queues.h"
#include "kit/value.h"

namespace morvik::simulation {

class Levers {
 public:
  virtual ~Levers() = default;
  /// Moves the wall clock forward, or back if negative, in addition to earlier moves. Timers are not affected. The
  /// clock is clamped to the range of a date; NaN moves nothing.
  virtual void moveClock(double seconds) = 0;
  /// Whether the network status says that there is no network. The network itself is unaffected. The setting stays when
  /// another process starts on the machine.
  virtual void setOffline(bool offline) = 0;
  /// Runs `block` on the main queue after the delay. It does not count as pending. Only while an instance runs.
  virtual void after(double delay_seconds, kit::Block block) = 0;
  /// Changes a stored value by hand; the ledger counts what that removes. No effect while no instance runs.
  virtual void edit(std::string_view key, kit::Value value) = 0;
};

}  // namespace morvik::simulation
