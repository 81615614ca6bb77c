// The ledger's book: what was recorded, and what became of it.
//
//   recorded = delivered + stored + under way + given up [reason]
//
// for each kind. Every record that leaves a stored list moves to one of the other counts, in the same store
// transaction. Which one depends on who removed it: the handler of an exchange, whose answer and content are known, or
// a rule at a session's end. A removal that no rule explains is a broken invariant.
//
// Recorded activities are counted where they are recorded, not by the list, so that one that never reaches the list is
// missed. Recording one writes nothing but the list: the count is written with the next change of any other kind, and a
// start that comes first adds what the list grew by.
//
// Three sources feed the book: the store (what comes and goes), the services object (what is batched and answered) and
// the transport (what leaves, and when its handler runs). Its parts, each independent of the others: the counts
// (ledger_accounts.h), what is stored (ledger_stored.h), what is under way (ledger_exchanges.h, ledger_unclaimed.h),
// why a record was removed (ledger_removal_reasons.h), and what is left of what somebody waits for (ledger_moments.h).
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kit/MorvikCoreServicesLib.h"
#include "kit/endpoints.h"
#include "kit/list_lock.h"
#include "kit/transport.h"
#include "kit/value.h"
#include "morvik/ledger.h"
#include "runtime/ledger/ledger_accounts.h"
#include "runtime/ledger/ledger_exchange.h"
#include "runtime/ledger/ledger_exchanges.h"
#include "runtime/ledger/ledger_moments.h"
#include "runtime/ledger/ledger_removal_reasons.h"
#include "runtime/ledger/ledger_stored.h"
#include "runtime/ledger/ledger_unclaimed.h"
#include "runtime/ledger/list_change.h"
#include "runtime/machine/machine.h"
#include "services/log.h"

namespace morvik::runtime {

/// Setters' notes that wait for the book; beyond this a setter waits for it.
inline constexpr size_t kMaxLedgerNotes = 1024;
/// Threads whose reads of demographics are tracked; the one that read longest ago is forgotten first.
inline constexpr size_t kMaxReadersSeen = 8;

struct LedgerParts {
  MachineStore& store;       ///< outlives the book
  kit::ListLock& list_lock;  ///< the same
  kit::Endpoints endpoints;
  services::Logger logger;
  /// Whether demographics can say whose they are.
  bool has_hashed_identifier = true;
};

/// What an exchange carries, as far as others need to know.
struct LedgerLoad {
  size_t activities = 0;
  kit::Value click;              ///< absent: none
  kit::Value too_large_id = {};  ///< an activity too large for the service on its own; absent: none
};

/// Whether the request of a running handler has left the device.
enum class LedgerDeparted : bool { kNo, kYes };

/// Any thread, each call atomic. Has its own mutex, taken after the list lock and before the door; under it only the
/// store is called. A call costs as much as the change it reports: a comparison of handles for an appended element, one
/// walk over the list for a trimmed one.
///
/// An app's thread that records waits for no such walk: an activity or an impression is appended without the book,
/// which takes it in with its next look, and a demographic value leaves a note if the book is in use.
class LedgerBook {
 public:
  /// Opens the book, or begins one for what is stored. What was under way when the last process ended is given up.
  explicit LedgerBook(const LedgerParts& parts);
  LedgerBook(const LedgerBook&) = delete;
  LedgerBook& operator=(const LedgerBook&) = delete;

  /// The current account. Any thread; some microseconds, whatever is stored.
  Ledger read();

  // For those who wait for the delivery of what was recorded so far.
  /// The current moment. Forget it some time, in moments().
  LedgerMoments::Moment momentNow();
  /// What is left of what was recorded before it. Within a handler, its exchange counts as ended.
  LedgerMoments::Left left(LedgerMoments::Moment moment);
  /// They may outlive the book.
  const std::shared_ptr<LedgerMoments>& moments() const { return moments_; }

  // For the store.
  /// Sets the value in the store and the resulting changes in the book, in one transaction. Uncounted kinds go straight
  /// through. What is appended to a list meanwhile stays behind the value.
  void set(std::string_view key, kit::Value value, LedgerWriter writer);
  /// The same for a list made from `before`: what was appended since stays behind it.
  void replace(std::string_view key, const kit::Value& before, kit::Value after, LedgerWriter writer);
  /// As get() of the store; remembers which demographic value this thread has seen.
  kit::Value get(std::string_view key);
  /// The store recovered. Call within the commit that takes over its file's content, so that the results are committed
  /// with it.
  void storeRecovered();
  /// The kit stops: writes what was not worth writing by itself.
  void writeAtTheEnd();
  /// Reports what was unexplained since the last call: see invariantBroken(). Not under a lock.
  void tellBroken();

  // For the services object.
  /// The list of activities has one more. Called at the door, in the same step.
  void activityWasStored();
  /// Something the app handed over was refused. Waits for nothing.
  void wasRefused(Recorded reason);
  /// This thread begins its next payload; it is sealed in the same block, if at all.
  void payloadIsBeingBuilt();
  /// `parameters`: the sealed text's; absent if sealing failed.
  void payloadWasSealed(const kit::Value& payload, const kit::Value& parameters);
  /// For the exchange whose handler is about to run on this thread. Returns what it carries.
  LedgerLoad exchangeDidEnd(const kit::ExchangeResult& result);

  // For the transport.
  /// A number for the exchange; 0 if the book does not follow it.
  uint64_t requestStarts(const kit::Request& request);
  /// How many activities the exchange carries while under way; nothing if it is no batch.
  std::optional<size_t> activitiesOfBatch(uint64_t exchange);
  void handlerBegins(uint64_t exchange);
  /// `departed`: whether the request left at all.
  void handlerEnded(uint64_t exchange, LedgerDeparted departed = LedgerDeparted::kYes);

  // For the background queue: a click sent from there was sent before.
  void backgroundBlockBegins();
  void backgroundBlockEnded();

 private:
  /// Left by a setter that found the book in use.
  struct Note {
    size_t slot = 0;
    LedgerStored::Replaced replaced;
  };
  /// The demographic values that a thread read last: the payload that it builds contains them.
  struct SeenValues {
    std::thread::id thread;
    std::array<uint64_t, kDemographicValues> versions{};
  };
  class Hold;

  // All hold the mutex.
  void takeNotes();
  void takeNotesAtTheDoor();
  void takeRefusals();
  void takeNote(const Note& note, const LedgerDeparture& gone);
  void setListKey(const LedgerKey& of, std::string_view key, const kit::Value* before, kit::Value value,
                  LedgerWriter writer);
  std::array<uint64_t, kDemographicValues> versionsSeen();
  void takeChangesFromElsewhere();
  void takeListFromElsewhere(LedgerKind kind);
  void takeInWhatRecovered();
  void setList(LedgerKind kind, const kit::Value& value, LedgerWriter writer);
  void noteSessionEnd();
  void noteSentKeys(const kit::Value& keys);
  LedgerDeparture departure(LedgerKind kind, LedgerWriter writer);
  bool wasRewritten(LedgerKind kind, const kit::Array& before, const kit::Array& after, LedgerWriter writer) const;
  bool wasTakenBack(LedgerKind kind, const kit::Array& before, const ListChange& change, LedgerWriter writer) const;
  void remove(LedgerDeparture departure, const kit::Array& before, const ListChange& change);
  void removeOne(const LedgerDeparture& departure, const kit::Value& record, size_t index, LedgerCarriers& carriers);
  void add(LedgerKind kind, const kit::Array& after, size_t added, LedgerWriter writer);
  void addClick(const kit::Value& click, LedgerWriter writer);
  void giveUp(LedgerKind kind, LedgerReason reason, LedgerMoments::Moment first_after,
              const std::vector<uint64_t>& carriers);
  void credit(LedgerKind kind, const LedgerExchange& exchange, uint64_t count);
  void noteWhetherBroken(LedgerKind kind, LedgerReason reason);
  bool isInBackground() const { return background_thread_ == std::this_thread::get_id(); }
  void write(std::string_view key, kit::Value value);
  void writeAtTheDoor(std::string_view key, kit::Value value);
  void writeBook();

  // These take it, or work without it.
  bool leaveNote(std::string_view key, size_t slot, const kit::Value& value);
  void noteSeen(size_t slot);
  void setDemographic(std::string_view key, size_t slot, const kit::Value& value, LedgerWriter writer);

  MachineStore& store_;
  const std::array<std::string, kLedgerEndpoints> urls_;
  const services::Logger logger_;
  const bool has_hashed_identifier_;
  const std::shared_ptr<LedgerMoments> moments_ = std::make_shared<LedgerMoments>();
  std::atomic<uint32_t> broken_kinds_{0};                                 ///< one bit per kind
  std::array<std::atomic<uint64_t>, kLedgerRefusals.size()> refusals_{};  ///< not in the accounts yet
  std::atomic<std::thread::id> handler_thread_{};  ///< on which a handler runs; only that thread waits for the book
  std::atomic<bool> has_notes_{false};

  kit::Mutex& door_;  // guards these three, and the demographics of stored_
  uint64_t announced_activities_ = 0;
  std::vector<Note> notes_;
  std::vector<SeenValues> seen_;

  kit::Mutex mutex_;  // guards what follows
  LedgerStored stored_;
  kit::Value written_;  ///< the accounts as stored
  LedgerAccounts accounts_;
  /// The store could not be read when it was opened, and has not recovered since.
  bool is_unavailable_ = false;
  LedgerExchanges exchanges_;
  LedgerUnclaimed unclaimed_;
  LedgerTraces traces_;
  size_t crash_reports_just_added_ = 0;
  kit::Value clicks_at_handler_;  ///< stored when the running handler began
  std::thread::id background_thread_;
  bool is_session_ending_ = false;                ///< in the running block of the background queue
  bool has_session_ended_since_payload_ = false;  ///< or is ending: since the main queue began its latest payload
};

/// Lives as long as a block of the background queue runs.
class LedgerBackgroundBlock {
 public:
  explicit LedgerBackgroundBlock(LedgerBook& book) : book_(book) { book_.backgroundBlockBegins(); }
  ~LedgerBackgroundBlock() { book_.backgroundBlockEnded(); }
  LedgerBackgroundBlock(const LedgerBackgroundBlock&) = delete;
  LedgerBackgroundBlock& operator=(const LedgerBackgroundBlock&) = delete;

 private:
  LedgerBook& book_;
};

}  // namespace morvik::runtime
