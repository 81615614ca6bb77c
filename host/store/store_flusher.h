// Triggers the store's flushes.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "kit/error.h"

namespace morvik::host {

/// Runs the flush at once or some time after a request; never two at a time.
class StoreFlusher {
 public:
  enum class Urgency : uint8_t {
    kRoutine,     ///< the time since the first commit is up, or the log has grown long
    kSessionEnd,  ///< the app is idle
  };
  using Flush = std::function<void(Urgency)>;

  virtual ~StoreFlusher() = default;
  /// Why only flushAndWait() can flush at present; nothing if all is well. Each request tries again.
  virtual std::optional<kit::Error> problem() const { return std::nullopt; }
  /// A flush within the delay. Requests until it starts are merged. Any thread; does not block.
  virtual void flushSoon() = 0;
  /// A flush as soon as possible. Any thread; does not block, and does not run the flush itself.
  virtual void flushNow(Urgency urgency) = 0;
  /// Blocks until a flush that started after the call has ended. Not from within a flush.
  virtual void flushAndWait(Urgency urgency) = 0;
  /// The clock for measuring how long the disk takes.
  virtual std::chrono::steady_clock::time_point now() const { return std::chrono::steady_clock::now(); }
  /// Lets a running flush end; waiting requests are dropped, later ones do nothing.
  virtual void stop() = 0;
};

/// `delay` is flushSoon()'s. The flush must not call stop() or flushAndWait().
using MakeStoreFlusher =
    std::function<std::unique_ptr<StoreFlusher>(StoreFlusher::Flush flush, std::chrono::milliseconds delay)>;

}  // namespace morvik::host
