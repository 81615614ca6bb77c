// The ledger's book: what was recorded, and what became of it.
//
//   recorded = delivered + stored + under way + given up [reason]
//
// for each kind. Every record that leaves a stored list moves to one of the other counts, in the same store
// transaction. The core and the services object tell what comes, what leaves in a request and why something goes
// (kit/ledger.h). The store is the check: what a change takes from a list, or adds to it, is told with it. What nobody
// told is a broken invariant, except for impressions that are added: the app's other modules write them too.
//
// Recorded activities are counted where they are recorded, not by the list, so that one that never reaches the list is
// missed. Recording one writes nothing but the list: the count is written with the next change of any other kind, and a
// start that comes first adds what the list grew by.
//
// Its parts, each independent of the others: the counts (ledger_accounts.h), what is stored (ledger_stored.h), what is
// under way (ledger_tickets.h, ledger_unclaimed.h), what was told of the next change (ledger_told.h), and what is left
// of what somebody waits for (ledger_moments.h).
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/clock.h"
#include "kit/ledger.h"
#include "kit/list_lock.h"
#include "kit/value.h"
#include "morvik/ledger.h"
#include "runtime/ledger/ledger_accounts.h"
#include "runtime/ledger/ledger_moments.h"
#include "runtime/ledger/ledger_stored.h"
#include "runtime/ledger/ledger_tickets.h"
#include "runtime/ledger/ledger_told.h"
#include "runtime/ledger/ledger_trail.h"
#include "runtime/ledger/ledger_unclaimed.h"
#include "runtime/ledger/list_change.h"
#include "runtime/machine/machine.h"
#include "services/log.h"

namespace morvik::runtime {

/// Setters' notes that wait for the book; beyond this a setter waits for it.
inline constexpr size_t kMaxLedgerNotes = 1024;
struct LedgerParts {
  MachineStore& store;       ///< outlives the book
  kit::ListLock& list_lock;  ///< the same
  services::Logger logger;
  const kit::Clock& clock;  ///< outlives the book
};

/// What a request carries, as far as others need to know.
struct CarriedLoad {
  size_t activities = 0;
  kit::Value first_event_id = {};  ///< of a batch
  kit::Value click = {};           ///< absent: none
};

enum class LedgerWriter : uint8_t { kKit, kHand };

/// Any thread, each call atomic. Has its own mutex, taken after the list lock and before the door; under it only the
/// store is called. A call costs as much as the change it reports: a comparison of handles for an appended element, one
/// walk over the list for a trimmed one.
///
/// An app's thread that records waits for no such walk: an activity or an impression is appended without the book,
/// which takes it in with its next look, and a demographic value leaves a note if the book is in use.
class LedgerBook final : public kit::Ledger {
 public:
  /// Opens the book, or begins one for what is stored. What was under way when the last process ended is given up.
  explicit LedgerBook(const LedgerParts& parts);
  LedgerBook(const LedgerBook&) = delete;
  LedgerBook& operator=(const LedgerBook&) = delete;

  /// The current account. Any thread; some microseconds, whatever is stored.
  morvik::Ledger read();

  // For those who wait for the delivery of what was recorded so far.
  /// The current moment. Forget it some time, in moments().
  LedgerMoments::Moment momentNow();
  /// What is left of what was recorded before it.
  LedgerMoments::Left left(LedgerMoments::Moment moment);
  /// They may outlive the book.
  const std::shared_ptr<LedgerMoments>& moments() const { return moments_; }

  // For the store.
  /// Sets the value in the store and the resulting changes in the book, in one transaction. Uncounted kinds go straight
  /// through. What is appended to a list meanwhile stays behind the value.
  void set(std::string_view key, kit::Value value, LedgerWriter writer);
  /// The same for a list made from `before`: what was appended since stays behind it.
  void replace(std::string_view key, const kit::Value& before, kit::Value after, LedgerWriter writer);
  /// The store recovered. Call within the commit that takes over its file's content, so that the results are committed
  /// with it.
  void storeRecovered();
  /// The kit stops: writes what was not worth writing by itself, and abandons the requests that are under way. What
  /// they alone have stays under way until the next start gives it up.
  void writeAtTheEnd();
  /// Reports what was unexplained since the last call: see invariantBroken(), and what was damaged. Not under a lock.
  void tellBroken();

  /// As long as it lives, what is set in the place of this list are the same records in another form, in their order.
  class Rewriting {
   public:
    Rewriting(LedgerBook& book, LedgerKind kind);
    ~Rewriting();
    Rewriting(const Rewriting&) = delete;
    Rewriting& operator=(const Rewriting&) = delete;

   private:
    LedgerBook& book_;
  };

  // The core's and the services object's side: see kit::Ledger.
  void recorded(LedgerKind kind, size_t count) noexcept override;
  void removed(LedgerKind kind, const kit::Array& which, LedgerReason reason) noexcept override;
  void recorded(kit::DemographicValue value) noexcept override;
  void removed(kit::DemographicValue value, LedgerReason reason) noexcept override;
  kit::LedgerTicket carries(const kit::LedgerLoad& load) noexcept override;
  void answered(kit::LedgerTicket ticket, kit::LedgerAnswer answer) noexcept override;
  void lost(kit::LedgerTicket ticket, LedgerReason reason) noexcept override;
  void departed(kit::LedgerTicket ticket) noexcept override;
  void ended(kit::LedgerTicket ticket, const kit::LedgerEnd& end) noexcept override;

  /// Something the app handed over was refused. Waits for nothing.
  void wasRefused(Recorded reason);
  /// Of a request that has not ended; nothing of another one.
  CarriedLoad loadOf(kit::LedgerTicket ticket);
  /// What became of an event. Any thread; looks at all stored activities.
  Explanation explain(std::string_view event_id);

 private:
  /// Left by a setter that found the book in use.
  struct Note {
    size_t slot = 0;
    LedgerStored::Replaced replaced;
    LedgerReason reason = LedgerReason::kUnexplained;
  };
  class Hold;

  // All hold the mutex.
  void takeNotes();
  void takeNotesAtTheDoor();
  void takeRefusals();
  void takeNote(const Note& note);
  void setListKey(const LedgerKey& of, std::string_view key, const kit::Value* before, kit::Value value,
                  LedgerWriter writer);
  std::array<uint64_t, kDemographicValues> versionsOf(const kit::Array& demos);
  void takeChangesFromElsewhere();
  void takeListFromElsewhere(LedgerKind kind);
  void takeInWhatRecovered();
  void setList(LedgerKind kind, const kit::Value& value, LedgerWriter writer);
  void remove(LedgerKind kind, const kit::Array& before, const ListChange& change, LedgerWriter writer);
  void removeOne(LedgerKind kind, const kit::Value& record, size_t index, LedgerReason told);
  void add(LedgerKind kind, const kit::Array& after, size_t added, LedgerWriter writer);
  void addClick(const kit::Value& click, LedgerWriter writer);
  void recordUntold(LedgerKind kind, uint64_t count);
  void forgetTrailBy(std::string_view key) noexcept;
  void noteGivenUp(LedgerReason reason, const kit::Value& event_id) noexcept;
  void leaveTrailOfGivenUp() noexcept;
  void leaveTrail(const LedgerTicketState& state, const kit::LedgerEnd& end) noexcept;
  void settle(kit::LedgerTicket ticket, LedgerTicketState& state) noexcept;
  void giveUp(LedgerKind kind, LedgerReason reason, LedgerMoments::Moment first_after,
              const std::vector<kit::LedgerTicket>& carriers);
  void credit(LedgerKind kind, const LedgerTicketState& state, uint64_t count);
  void noteWhetherBroken(LedgerKind kind, LedgerReason reason);
  void writeAtTheDoor(std::string_view key, kit::Value value);
  void writeBook();
  void writeBookIfItCan() noexcept;

  // These take it, or work without it.
  void tellBroken(std::atomic<uint32_t>& which, const char* what);
  bool leaveNote(std::string_view key, size_t slot, const kit::Value& value, LedgerReason reason);
  LedgerReason takeTold(size_t slot, const kit::Value& value, LedgerWriter writer);
  void setDemographic(std::string_view key, size_t slot, const kit::Value& value, LedgerWriter writer);

  MachineStore& store_;
  const services::Logger logger_;
  const std::shared_ptr<LedgerMoments> moments_ = std::make_shared<LedgerMoments>();
  // One bit per kind: records went, or came, that nobody told of.
  std::atomic<uint32_t> kinds_gone_untold_{0};
  std::atomic<uint32_t> kinds_come_untold_{0};
  std::array<std::atomic<uint64_t>, kLedgerRefusals.size()> refusals_{};  ///< not in the accounts yet
  std::atomic<bool> has_notes_{false};

  kit::Mutex& door_;                                // guards these, and the demographics of stored_
  std::array<uint64_t, kLedgerKinds> announced_{};  ///< activities and impressions
  std::vector<Note> notes_;
  LedgerToldValues told_values_;

  kit::Mutex mutex_;  // guards what follows
  LedgerStored stored_;
  kit::Value written_;  ///< the accounts as stored
  LedgerAccounts accounts_;
  /// The store could not be read when it was opened, and has not recovered since.
  bool is_unavailable_ = false;
  LedgerTickets tickets_;
  LedgerTrail trail_;
  std::map<LedgerReason, kit::MutableArray> given_up_ids_;  ///< of the activities that the running change removes
  bool has_lost_tickets_ = false;                           ///< not followed: what they carried is not known
  LedgerUnclaimed unclaimed_;
  std::array<LedgerTold, kLedgerKinds> told_;
  std::optional<LedgerKind> rewritten_;
};

}  // namespace morvik::runtime
