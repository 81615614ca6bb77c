// Waits for the delivery of what was recorded so far.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "kit/MorvikADUtil.h"
#include "kit/MorvikCoreServicesLib.h"
#include "kit/ports.h"
#include "morvik/status.h"
#include "runtime/ledger/ledger_book.h"
#include "runtime/life/instance_life.h"
#include "runtime/life/start_hold.h"
#include "runtime/log/posted_lines.h"
#include "runtime/machine/machine.h"
#include "runtime/machine/turn_gate.h"
#include "runtime/sending/sending_switch.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/log.h"

namespace morvik::runtime {

/// How long a stop lets the main queue call those that wait.
inline constexpr double kEndFlushesSeconds = 1;
/// A flush pushes again if an accepted batch did not carry all of it (a session started meanwhile and cleared the ids
/// noted by the batch); this many pushes in total.
inline constexpr size_t kMaxPushesOfAFlush = 3;

/// Only one batch is under way at a time, whoever requested it. A flush that finds one waits for its answer and then
/// has the rest pushed; so the sent-event keys of a batch are never touched. It ends early once it is clear that
/// nothing more can be delivered now.
class Flushes {
 public:
  using Done = std::function<void(const FlushResult&)>;

  /// All of them outlive it.
  struct Parts {
    MachineLoop& main_loop;
    const MachineClock& clock;
    const TurnGate& gate;
    services::MorvikGVUserDefaults store;
    LedgerBook& ledger;
    const kit::MorvikCoreServicesLib& services;
    SendingSwitch& sending;
    const kit::MorvikADUtil& util;
    const kit::SharedState& shared_state;
    PostedLines& lines;
    const services::Logger& logger;
    const InstanceLife& life;
    const StartHold& start_hold;
  };

  explicit Flushes(Parts parts);
  ~Flushes();
  Flushes(const Flushes&) = delete;
  Flushes& operator=(const Flushes&) = delete;

  /// The core whose batches are followed; `batch_leaves` is told, on any thread, how many activities leave in each.
  /// Before the first turn.
  void follow(MorvikCoreLib& core, std::function<void(size_t activities)> batch_leaves);

  /// The wait for the store is over, or its file has recovered; a flush covers the file's records too. Main queue.
  void storeMayBeKnown() { advance(); }

  /// As MorvikCore::flush(). Any thread; does not block. A refused flush (beyond kMaxFlushes, after endAll(), or
  /// without memory) is told at once.
  void begin(Done done, std::chrono::milliseconds timeout);
  /// Tells `done` at once that the kit is stopped.
  void refuse(const Done& done) { refuse(done, FlushReason::kStopped); }
  /// As MorvikCore::waitUntilDelivered(). Any thread.
  FlushResult wait(std::chrono::milliseconds timeout);
  /// True within a turn of the main queue or a block of the background queue, on its thread.
  bool isInsideACallback() const;
  /// Tells those that wait on a thread that the kit is stopped, and accepts no more. Any thread; allocates nothing.
  void endWaits();
  /// endWaits(), and tells the others on the main queue while that still runs turns. Any thread, outside of a turn;
  /// waits kEndFlushesSeconds at most. May be called again.
  void endAll();
  /// Tells, on this thread, those that the main queue did not get to. After endAll().
  void endRest();

 private:
  struct Flush;
  struct Waiter;
  class Withdrawal;
  using FlushPointer = std::shared_ptr<Flush>;

  /// Nothing if it waits now; else why not. An exception leaves no trace.
  std::optional<FlushReason> add(const FlushPointer& flush, std::chrono::milliseconds timeout);
  void postBlock();
  [[nodiscard]] bool tryPostBlock();
  void beginThoseThatWait();
  FlushPointer nextToBegin() const;
  void beginNow(const FlushPointer& flush);
  void timeIsUp(const FlushPointer& flush);
  bool remove(const FlushPointer& flush);
  std::list<FlushPointer> begun() const;
  std::list<FlushPointer> all() const;
  void advance();
  void push();
  void batchDidEnd(BatchEnd end);
  /// Why nothing can be delivered at present. Any thread.
  std::optional<FlushReason> obstacle() const;
  bool isAllButTheFileDelivered() const;
  void finishDelivered();
  void finishAll(FlushReason reason);
  void finish(const FlushPointer& flush, FlushReason reason);
  void tell(const Flush& flush, const FlushResult& result) const;
  void refuse(const Done& done, FlushReason reason);
  void tellNow(const Done& done, FlushReason reason) const;
  FlushResult resultOf(const LedgerMoments::Left& left, FlushReason reason) const;
  FlushResult resultNow(FlushReason reason) const;
  /// Of everything ever recorded.
  uint64_t waitingNow() const;

  const Parts parts_;
  MorvikCoreLib* core_ = nullptr;
  mutable std::mutex mutex_;  // guards what follows
  std::list<FlushPointer> flushes_;
  /// One block waits on the main queue for all flushes that have not begun: callers that wait on a blocked queue, give
  /// up and come again leave nothing there.
  bool is_block_posted_ = false;
  bool has_ended_ = false;
};

}  // namespace morvik::runtime
