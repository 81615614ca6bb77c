// How the kit stands: plain values that MorvikCore::status(), flush() and the delegate hand out.
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
  std::string reason;   ///< for people: what it was, and why
  /// The kit sends it again by itself: with a later session, batch, click or retry. By the rules, as things stand when
  /// it is told.
  bool is_tried_again = true;
};

/// The stored referral record: who brought this install.
struct Referral {
  int64_t conversion_key = 0;  ///< 0: no campaign did
  int64_t sub_conversion_key = 0;
  std::string campaign_data;     ///< what the campaign attached; "" for nothing
  std::string install_datetime;  ///< as the service wrote it: "yyyyMMddHHmmss"
};

/// How the file stands that keeps the wish to be forgotten beside the store.
enum class WishFileState : uint8_t {
  kGood,
  kNotWritten,  ///< it cannot be written or synced at present; tried again
  kUnreadable,  ///< it says nothing that is valid: the user counts as forgotten until gdprForgetMe() is called
  kNotRead,     ///< it cannot be read at present: the user counts as forgotten until it can be, or until gdprForgetMe()
                ///< is called; tried again
};

/// What MorvikCore::status() tells.
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
  std::optional<Referral> referral;  ///< nothing before the install is attributed
  std::vector<Waiting> waiting;      ///< in the store, for each kind of the ledger and in its order
  std::optional<Time> last_success;  ///< of this process: the latest answer that accepted something
  /// Of this process: the latest request that delivered nothing of what it carried; an erasure is one of them.
  std::optional<Failure> last_failure;
  bool is_sending_enabled = true;
  bool is_forgotten = false;
  WishFileState wish_file = WishFileState::kGood;
};

/// Why not all is delivered when flush() ends.
enum class FlushReason : uint8_t {
  kDelivered,      ///< nothing waits
  kNotAttributed,  ///< the install has no referral record, or the service gave it no user number
  kNoNetwork,
  kRefused,          ///< the service answered, and did not accept
  kNoAnswer,         ///< no connection, no certificate, or no answer in time
  kSendingOff,       ///< see MorvikCore::setSendingEnabled()
  kForgotten,        ///< the user asked to be forgotten
  kNoTrackingKey,    ///< an empty one: none is ever sent
  kNoActivity,       ///< impressions alone wait: they leave with the next activity
  kSlotHeld,         ///< an earlier attempt holds the place of the one batch until the next session starts
  kTimeout,          ///< the time was up first
  kTooMany,          ///< kMaxFlushes wait for their end already
  kStopped,          ///< the kit was stopped meanwhile
  kInsideACallback,  ///< waitUntilDelivered() alone: it cannot wait where the kit's own work would have to go on
  kGivenUp,          ///< nothing waits, but not all was accepted: see FlushResult::given_up
  kStaysStored,      ///< the service accepted several batches, and what waits stood in none of them
  kOutOfMemory,      ///< the process has no memory left for a flush: nothing was asked for, and the counts may be 0
};

/// Calls of flush() and waitUntilDelivered() that may wait for their end at a time.
inline constexpr size_t kMaxFlushes = 1000;

/// What flush() tells of the activities and impressions that were recorded before the call and had not been accepted
/// by then.
struct FlushResult {
  /// Nothing waits, and nothing was given up: the service has accepted each of them. Only the "end" of a session that
  /// went on within a minute need not have been: such an end is taken back, not sent.
  bool is_delivered = false;
  /// In the store, or in a batch alone whose answer has not come.
  uint64_t waiting = 0;
  /// Removed since the call by one of these rules, without having been accepted; not sent any more, and given up in the
  /// ledger: an impression that an accepted batch did not carry; an activity or an impression that the answer to
  /// another batch took out of the store, and whose own batch was not accepted; an activity of more than 1 MiB that the
  /// service found too large; one that was written over by hand. And what was no longer in the store, should that ever
  /// be.
  uint64_t given_up = 0;
  FlushReason reason = FlushReason::kDelivered;
};

/// For people and logs.
std::string_view toText(FlushReason reason);
std::string_view toText(WishFileState state);

}  // namespace morvik
