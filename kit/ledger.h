// The ledger: told of each record that comes, leaves in a request and goes, at the place where that happens.
//
// Nothing is asked of it and no decision depends on it. Its calls are short, throw nothing and call nothing back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kit/value.h"

namespace morvik::kit {

/// The kinds of records that the ledger counts.
enum class LedgerKind : uint8_t {
  kActivities,
  kImpressions,
  kReEngagementClicks,
  kCommerceClicks,
  kCrashReports,
  kDemographics
};

/// The demographic values. Each waits in a place of its own.
enum class DemographicValue : uint8_t { kAge, kGender, kUserId };

/// Why a record goes.
enum class LedgerReason : uint8_t {
  kKeptSession,
  kPlaceTaken,
  kTooLarge,
  kAddedDuringUpload,
  kNotAccepted,
  kForgotten,
  kNewerClick,
  kSameKey,
  kSessionEnded,
  kSixthSessionEnd,
  kOtherKeyAccepted,
  kEmptyAnswer,
  kReplaced,
  kTakenBack,
  kNoIdentifier,
  kProcessEnded,
  kByHand,
  kMissing,
  kUnexplained,
  // These two give nothing up.
  kAnswered,  ///< the request that carried it was accepted
  kNotKept    ///< the store could not keep it; it is recorded again later
};

/// Names a request that carries records. 0: of one that nobody follows.
using LedgerTicket = uint64_t;

/// What a request carries.
struct LedgerLoad {
  LedgerKind kind = LedgerKind::kActivities;  ///< kActivities: a batch
  /// Of a batch the event ids; of demographics what MorvikCoreLib::fetchDemos() returns; else the records as stored.
  Array records{};
  Array impressions{};  ///< of a batch, as stored
  /// Nothing but the request has them. They are recorded with it.
  bool is_only_copy = false;
};

/// What the service answered, by the rules of the endpoint.
enum class LedgerAnswer : uint8_t {
  kNotAccepted,
  kAccepted,
  kAcceptedEmpty,    ///< accepted by an answer that says nothing of the records
  kAcceptedNameless  ///< accepted in a payload that could not say whose the records are
};

/// How an exchange ended.
struct LedgerEnd {
  bool was_sent = true;  ///< false: the gate closed before it left
  int status_code = 0;   ///< 0: there was no answer
  std::string error{};   ///< why it failed; empty: it did not
};

/// A ticket ends once: with ended(), or with the process. One that is open when the kit stops is abandoned; one that is
/// open when the process is killed has an answer that nobody knows.
class Ledger {
 public:
  virtual ~Ledger() = default;

  /// So many records come into the list: the change follows at once, in the same step. Any thread that holds the list
  /// lock. Activities and impressions: right behind the change; any thread that holds the door.
  virtual void recorded(LedgerKind kind, size_t count) noexcept = 0;
  /// These records of the list, in its order, go: the change follows at once, in the same step. What an accepted
  /// request carries counts as delivered all the same, and what another request carries that is under way counts as
  /// given up only once none of them is accepted. Any thread that holds the list lock.
  virtual void removed(LedgerKind kind, const Array& which, LedgerReason reason) noexcept = 0;
  /// A value is set, and takes the place of one that may wait: the change follows at once, on this thread. Any thread;
  /// the door is free.
  virtual void recorded(DemographicValue value) noexcept = 0;
  /// The value no longer waits, if it did: the change follows at once, on this thread. Any thread; the door is free.
  virtual void removed(DemographicValue value, LedgerReason reason) noexcept = 0;

  /// A request is about to begin. The ticket is handed to the request operation, which ends it. Any thread that holds
  /// neither the list lock nor the door.
  virtual LedgerTicket carries(const LedgerLoad& load) noexcept = 0;
  /// The answer, before anything is removed for it; the first one counts. Main queue, within the handler.
  virtual void answered(LedgerTicket ticket, LedgerAnswer answer) noexcept = 0;
  /// Nothing but the request has what it carries: why that is given up, unless somebody has kept it when the request
  /// ends, or it was accepted. The latest reason counts. Main queue, within a handler.
  virtual void lost(LedgerTicket ticket, LedgerReason reason) noexcept = 0;

  // The request operation's.
  /// It goes to the network now, to the endpoint of what it carries. Any thread.
  virtual void departed(LedgerTicket ticket) noexcept = 0;
  /// Its handler is done: main queue. Or the gate was closed when it was to begin: the thread of carries().
  virtual void ended(LedgerTicket ticket, const LedgerEnd& end) noexcept = 0;
};

/// Keeps nothing.
class NoLedger final : public Ledger {
 public:
  void recorded(LedgerKind, size_t) noexcept override {}
  void removed(LedgerKind, const Array&, LedgerReason) noexcept override {}
  void recorded(DemographicValue) noexcept override {}
  void removed(DemographicValue, LedgerReason) noexcept override {}
  LedgerTicket carries(const LedgerLoad&) noexcept override { return 0; }
  void answered(LedgerTicket, LedgerAnswer) noexcept override {}
  void lost(LedgerTicket, LedgerReason) noexcept override {}
  void departed(LedgerTicket) noexcept override {}
  void ended(LedgerTicket, const LedgerEnd&) noexcept override {}
};

/// One that keeps nothing.
inline Ledger& noLedger() {
  static auto& ledger = *new NoLedger;  // an instance may outlive what is destroyed at the end
  return ledger;
}

}  // namespace morvik::kit
