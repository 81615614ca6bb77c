// What the app hands over to be handled: opened URLs, referral URLs, third party conversions. Kept in a list of the
// host's own until it is handled.
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

/// Where the list lies in the store.
inline constexpr const char* kHandedOverKey = "host.handedOver";
/// One turn handles so many, and a later one goes on, so that a long list holds nobody up. Before a session starts all
/// are handled; then so many are between two looks at whether the kit is being stopped.
inline constexpr size_t kMaxHandledAtOnce = 32;

class HandedOver {
 public:
  enum class Kind : uint8_t { kOpenedUrl, kFacebookUrl, kThirdPartyConversion };
  struct Entry {
    Kind kind = Kind::kOpenedUrl;
    std::string_view text;  ///< valid during the call that handles it
    kit::Date time;
    bool is_first_launch = false;  ///< as it was when it was handed over
    /// An earlier process, which did not end handling it, has recorded its commerce click.
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
  /// What an earlier process left is handled first. Before anything else is posted.
  void begin();
  /// Keeps one more, in the kernel's hands when this returns, and has it handled: before this returns when called on
  /// the main queue, else in a later turn of it. Refused where too many wait, or the text is too long. Any thread.
  Recorded take(const Entry& entry);
  /// What waits, now: before a session starts. What a stop leaves of it, the next start handles. Main queue, within a
  /// turn.
  void handleAll();
  /// In later turns: the store has come to light, and with it what an earlier process left; or there is no doubt any
  /// more. Any thread.
  void handleLater();
  /// The commerce click of the entry that is being handled was recorded: another process that handles it again does not
  /// record it twice. In the step that records it, within the handler.
  void commerceWasRecorded();
  /// While held, entries wait. What waited is handled in a later turn once it is let go. Any thread.
  void setHeld(bool held);
  /// Entries wait also as long as this says so, which is asked on the main queue; handleLater() is called when it does
  /// no longer. To be set before the main queue runs.
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
  kit::Value handled_;  ///< the entry, as it stands in the list
};

}  // namespace morvik::runtime
