// The state of the kit: plain values that MorvikCore::status(), flush() and the delegate provide.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvik {

/// A request that did not deliver what it carried.
struct DeliveryFailure {
  int http_status = 0;  ///< 0: there was no answer
  std::string reason;   ///< readable text: which request, and why
  /// The kit sends it again by itself: with a later session, batch, click or retry. By the rules, as of the moment of
  /// the report.
  bool is_tried_again = true;
};

/// The stored referral record: who brought this install.
struct Referral {
  int64_t conversion_key = 0;  ///< 0: no campaign
  int64_t sub_conversion_key = 0;
  std::string campaign_data;     ///< what the campaign attached; "" for nothing
  std::string install_datetime;  ///< as the service sent it: "yyyyMMddHHmmss"
};

/// State of the file that keeps the wish to be forgotten next to the store.
enum class WishFileState : uint8_t {
  kGood,
  kNotWritten,  ///< it cannot be written or synced at present; retried
  kUnreadable,  ///< it has no valid content: the user counts as forgotten until gdprForgetMe() is called
  kNotRead,     ///< it cannot be read at present; retried. Until then, or gdprForgetMe(), the user counts as forgotten
};

/// What MorvikCore::status() returns.
struct Status {
  using Time = std::chrono::system_clock::time_point;
  struct Waiting {
    std::string kind;  ///< as in the ledger
    uint64_t count = 0;
  };
  struct Failure {
    Time when{};
    DeliveryFailure failure;
  };

  bool is_running = false;  ///< not stopped, and not in a forked child
  bool is_session_open = false;
  bool is_attributed = false;        ///< there is a referral record
  std::optional<Referral> referral;  ///< empty until the install is attributed
  std::vector<Waiting> waiting;      ///< in the store, for each kind of the ledger and in its order
  std::optional<Time> last_success;  ///< in this process: the latest answer that accepted something
  /// In this process: the latest request that delivered nothing of what it carried, an erasure included.
  std::optional<Failure> last_failure;
  bool is_sending_enabled = true;
  bool is_forgotten = false;
  WishFileState wish_file = WishFileState::kGood;
};

/// Why flush() ended, delivered or not.
enum class FlushReason : uint8_t {
  kDelivered,      ///< nothing is pending
  kNotAttributed,  ///< the install has no referral record, or the service gave it no user number
  kNoNetwork,
  kRefused,          ///< the service answered, and did not accept
  kNoAnswer,         ///< no connection, no certificate, or no answer in time
  kSendingOff,       ///< see MorvikCore::setSendingEnabled()
  kForgotten,        ///< the user asked to be forgotten
  kNoTrackingKey,    ///< the tracking key is empty: sessions and events are never sent
  kNoActivity,       ///< only impressions are pending: they are sent with the next activity
  kSlotHeld,         ///< an earlier attempt holds the slot of the only batch until the next session starts
  kTimeout,          ///< the timeout passed first
  kTooMany,          ///< kMaxFlushes are already pending
  kStopped,          ///< the kit was stopped meanwhile
  kInsideACallback,  ///< only waitUntilDelivered(): it cannot wait on a thread that the kit's own work needs
  kGivenUp,          ///< nothing is pending, but not everything was accepted: see FlushResult::given_up
  kStaysStored,      ///< the service accepted several batches, and what is still pending was in none of them
  kOutOfMemory,      ///< out of memory: nothing was requested, and the counts may be 0
};

/// How many calls of flush() and waitUntilDelivered() may be pending at a time.
inline constexpr size_t kMaxFlushes = 1000;

/// What flush() reports about the activities and impressions that were recorded before the call and not accepted by
/// then.
struct FlushResult {
  /// Nothing is pending and nothing was given up: the service has accepted each of them. The only exception is the
  /// "end" of a session that went on within a minute: such an end is withdrawn, not sent.
  bool is_delivered = false;
  /// In the store, or only in a batch that is not answered yet.
  uint64_t waiting = 0;
  /// Removed since the call by one of these rules without having been accepted; no longer sent, and given up in the
  /// ledger: an impression that an accepted batch did not carry; an activity or an impression that the answer to
  /// another batch removed from the store, and whose own batch was not accepted; an activity of more than 1 MiB that
  /// the service found too large; one that was overwritten by hand. Also anything that was no longer in the store,
  /// should that ever happen.
  uint64_t given_up = 0;
  FlushReason reason = FlushReason::kDelivered;
};

/// Readable text for people and logs.
std::string_view toText(FlushReason reason);
std::string_view toText(WishFileState state);

}  // namespace morvik
