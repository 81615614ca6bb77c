// The store's flushes on a virtual loop: at their own virtual time, on the single thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "host/store/store_flusher.h"
#include "testing/virtual_loop.h"

namespace morvik::simulation {

/// How long the disk takes for a flush that starts now. Empty: no time.
using SyncSeconds = std::function<double()>;

/// A flush is a turn of the loop, so nothing is committed while it runs. On a slow disk it is the turn at its end: what
/// becomes due before that waits. Use on the loop's thread. `loop` must outlive it.
class VirtualFlusher final : public host::StoreFlusher {
 public:
  VirtualFlusher(testing::VirtualLoop& loop, Flush flush, std::chrono::milliseconds delay,
                 SyncSeconds sync_seconds = {});
  VirtualFlusher(const VirtualFlusher&) = delete;
  VirtualFlusher& operator=(const VirtualFlusher&) = delete;
  ~VirtualFlusher() override;

  void flushSoon() override;
  /// In the next free turn.
  void flushNow(Urgency urgency) override;
  /// Flushes at once, before anything that waits.
  void flushAndWait(Urgency urgency) override;
  /// A flush takes no virtual time.
  std::chrono::steady_clock::time_point now() const override { return {}; }
  void stop() override;

 private:
  void schedule(double delay_seconds);
  void begin();
  void end(Urgency urgency);
  void restart();
  void run();

  testing::VirtualLoop& loop_;
  const Flush flush_;
  const std::chrono::milliseconds delay_;
  const SyncSeconds sync_seconds_;
  std::shared_ptr<int> alive_ = std::make_shared<int>();  ///< expired: a pending timer does nothing
  uint64_t flushes_ = 0;                                  ///< started so far
  bool is_wanted_ = false;
  bool is_wanted_now_ = false;
  bool is_under_way_ = false;  ///< on a slow disk
  bool is_due_ = false;        ///< another one was requested in the meantime
  Urgency urgency_ = Urgency::kRoutine;
  bool stopped_ = false;
};

/// For SqliteStoreOptions::make_flusher.
host::MakeStoreFlusher flushesOn(testing::VirtualLoop& loop, SyncSeconds sync_seconds = {});

}  // namespace morvik::simulation
