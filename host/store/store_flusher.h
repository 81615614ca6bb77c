// Who makes the store's flushes happen, and when.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "kit/error.h"

namespace morvik::host {

/// Runs one function, the flush, some time after a request, or at once; never twice at a time.
class StoreFlusher {
 public:
  enum class Urgency : uint8_t {
    kRoutine,     ///< the time since the first commit is up, or the log has grown long
    kSessionEnd,  ///< the app has come to rest
  };
  using Flush = std::function<void(Urgency)>;

  virtual ~StoreFlusher() = default;
  /// Why nothing can be flushed but by flushAndWait() for now; nothing where all is well. Each request tries anew.
  virtual std::optional<kit::Error> problem() const { return std::nullopt; }
  /// A flush within the delay. Requests until it starts are one. Any thread; does not block.
  virtual void flushSoon() = 0;
  /// A flush as soon as can be. Any thread; does not block, and does not run the flush itself.
  virtual void flushNow(Urgency urgency) = 0;
  /// Blocks until a flush that started after the call has ended. Not from within a flush.
  virtual void flushAndWait(Urgency urgency) = 0;
  /// By which a flush measures how long the disk takes.
  virtual std::chrono::steady_clock::time_point now() const { return std::chrono::steady_clock::now(); }
  /// Lets a flush that runs end; requests that wait are dropped, later ones do nothing.
  virtual void stop() = 0;
};

/// `delay` is that of flushSoon(). The flush must not call stop() or flushAndWait().
using MakeStoreFlusher =
    std::function<std::unique_ptr<StoreFlusher>(StoreFlusher::Flush flush, std::chrono::milliseconds delay)>;

}  // namespace morvik::host
