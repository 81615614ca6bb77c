// The app's switch: whether the kit may send.
#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <utility>

#include "kit/queues.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

class MorvikCoreServicesLib;

/// Two gates, one behind the other. The transport's closes at once, whoever switches off: requests that have not left
/// wait there, or end and are made again later. The services object's, which the core's operations ask, closes and
/// opens between two turns of the main queue (or in the turn that switches), and for a block of the background queue
/// before it begins. So an operation that has asked finishes as it began, and what it starts meets the transport's
/// gate. Any thread.
class SendingSwitch {
 public:
  /// All of them outlive it.
  struct Parts {
    MachineLoop& main_loop;
    MachineTransport& transport;
    MorvikCoreServicesLib& services;
  };

  SendingSwitch(Parts parts, bool is_on);
  SendingSwitch(const SendingSwitch&) = delete;
  SendingSwitch& operator=(const SendingSwitch&) = delete;

  /// Runs on the main queue, in a turn of its own, each time sending is on again. Set it before the first turn.
  void setWhenResumed(kit::Block resumed) { resumed_ = std::move(resumed); }
  /// What else is held while sending is off: called at once when it is switched off, and after `resumed` when it is on
  /// again. Called on any thread; must neither wait nor call back. Set it before the first turn.
  void setAlsoHeld(std::function<void(bool held)> hold);
  /// Runs on the main queue each time isResuming() becomes false. Set it before the first turn.
  void setWhenNotResuming(kit::Block not_resuming) { not_resuming_ = std::move(not_resuming); }
  /// The latest setting.
  bool isOn() const;
  /// Sending is on again, but `resumed` has not finished: what it will request is not under way yet. On the main queue.
  bool isResuming() const { return resumes_ > 0; }
  /// Does not block.
  void set(bool is_on);

 private:
  class Resuming;

  void apply();
  void resume();
  void resumeNow();

  const Parts parts_;
  kit::Block resumed_;
  kit::Block not_resuming_;
  size_t resumes_ = 0;  ///< turns that wait or run; on the main queue
  std::function<void(bool held)> hold_ = [](bool) {};
  mutable std::mutex mutex_;  // guards what follows
  bool is_on_;
  bool was_switched_off_ = false;  ///< since the last apply()
  bool is_posted_ = false;
};

}  // namespace morvik::runtime
