// What the app hands over: opened URLs, referral URLs, third-party conversions. Stored in a list of the kit until it is
// handled.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "kit/stop_request.h"
#include "kit/value.h"
#include "morvik/morvik.h"
#include "runtime/machine/machine.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/log.h"

namespace morvik::runtime {

/// The list's key in the store.
inline constexpr const char* kHandedOverKey = "host.handedOver";
/// One turn handles at most this many, and a later one goes on, so that a long list delays nobody. Before a session
/// starts all are handled; this is then the number between two checks for a stop.
inline constexpr size_t kMaxHandledAtOnce = 32;

class HandedOver {
 public:
  enum class Kind : uint8_t { kOpenedUrl, kFacebookUrl, kThirdPartyConversion };
  struct Entry {
    Kind kind = Kind::kOpenedUrl;
    std::string_view text;  ///< valid during the call that handles it
    kit::Date time;
    bool is_first_launch = false;  ///< at the time of the call
    /// An earlier process recorded its commerce click but did not finish handling it.
    bool is_commerce_recorded = false;
  };
  /// Called on the main queue, within a turn.
  using Handler = std::function<void(const Entry& entry)>;

  /// All outlive it.
  HandedOver(services::MorvikGVUserDefaults store, MachineLoop& main_loop, const kit::StopRequest& stop,
             const services::Logger& logger)
      : store_(store), main_loop_(main_loop), stop_(stop), logger_(logger) {}

  /// To be set before the main queue runs.
  void setHandler(Handler handler) { handler_ = std::move(handler); }
  /// Entries of an earlier process are handled first. Call before anything else is posted.
  void begin();
  /// Stores an entry (in the kernel's hands when this returns) and has it handled: at once on the main queue, else in a
  /// later turn of it. Refused if too many are waiting or the text is too long. Any thread.
  Recorded take(const Entry& entry);
  /// Handles everything that is waiting, before a session starts. What a stop leaves over, the next start handles. Main
  /// queue, within a turn.
  void handleAll();
  /// In later turns: the store recovered, with entries of an earlier process; or a doubt is settled. Any thread.
  void handleLater();
  /// The commerce click of the current entry was recorded: if another process handles the entry again, it does not
  /// record the click twice. Call within the handler, in the step that records the click.
  void commerceWasRecorded();
  /// While held, entries wait; after the release they are handled in a later turn. Any thread.
  void setHeld(bool held);
  /// Entries also wait while this returns true. Asked on the main queue; when it becomes false, call handleLater(). Set
  /// it before the main queue runs.
  void setInDoubt(std::function<bool()> in_doubt) { in_doubt_ = std::move(in_doubt); }

 private:
  void handleSome();
  bool handleUpTo(size_t count);
  bool handleFirst();
  size_t placeOfHandled(const kit::Array& entries) const;

  services::MorvikGVUserDefaults store_;
  MachineLoop& main_loop_;
  const kit::StopRequest& stop_;
  const services::Logger& logger_;
  Handler handler_;
  std::function<bool()> in_doubt_ = [] { return false; };
  std::atomic<bool> is_held_{false};
  // On the main queue.
  bool is_handling_ = false;
  kit::Value handled_;  ///< as stored in the list
};

}  // namespace morvik::runtime
