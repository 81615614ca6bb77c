// The book of the ledger: what was recorded, and what became of it.
//
//   recorded = delivered + stored + under way + given up [reason]
//
// for each kind. Every record that leaves a stored list leaves it into one of the other counts, in the same store
// transaction. Which one follows from who took it out: the handler of an exchange, whose answer and whose contents are
// known, or a rule of a session's end. What no rule explains is a broken invariant.
//
// Recorded activities are counted where they are recorded and not by the list, so that one that never reaches the list
// is missed. Recording one writes nothing but the list: the count is written with the next change of any other kind,
// and a start that comes first adds what the list grew by.
//
// Three sources tell the book what happens: the store (what comes and goes), the services object (what is batched, what
// is answered) and the transport (what leaves, and when its handler runs). Its rooms, each of which stands alone: the
// counts (ledger_accounts.h), what is stored (ledger_stored.h), what is under way (ledger_exchanges.h,
// ledger_unclaimed.h), why a record went (ledger_removal_reasons.h), and what is left of what somebody waits for
// (ledger_moments.h).
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

/// A setter's notes that wait for the book; past this many it waits for it.
inline constexpr size_t kMaxLedgerNotes = 1024;
/// Threads that read demographics and are told apart; the one that has read longest ago is forgotten first.
inline constexpr size_t kMaxReadersSeen = 8;

struct LedgerParts {
  MachineStore& store;       ///< outlives the book
  kit::ListLock& list_lock;  ///< the same
  kit::Endpoints endpoints;
  services::Logger logger;
  /// Whether demographics can say whose they are.
  bool has_hashed_identifier = true;
};

/// What an exchange carries, as far as others ask for it.
struct LedgerLoad {
  size_t activities = 0;
  kit::Value click;              ///< absent: none
  kit::Value too_large_id = {};  ///< of an activity that the service finds too large on its own; absent: none
};

/// Whether a request whose handler runs has left the device.
enum class LedgerDeparted : bool { kNo, kYes };

/// Any thread, each call by itself. A mutex of its own, taken after the house lock and before the door; nothing is
/// called out under it but the store. A call costs what the change does that it is told of: for one that was appended a
/// comparison of handles, for a list that was trimmed one walk over it.
///
/// A thread of the app's that records waits for no such walk: an activity or an impression is appended past the book,
/// which takes it in with its next look, and a demographic value that finds the book in use leaves a note.
class LedgerBook {
 public:
  /// Opens the book, or begins one over what is stored. What was under way when the last process ended is given up.
  explicit LedgerBook(const LedgerParts& parts);
  LedgerBook(const LedgerBook&) = delete;
  LedgerBook& operator=(const LedgerBook&) = delete;

  /// The account as of now. Any thread; some microseconds, whatever is stored.
  Ledger read();

  // Those who wait for the delivery of what was recorded so far.
  /// This moment. To be forgotten some time, in moments().
  LedgerMoments::Moment momentNow();
  /// What is left of what was recorded before it. Within the handler of an exchange, as that has ended.
  LedgerMoments::Left left(LedgerMoments::Moment moment);
  /// They may outlive the book.
  const std::shared_ptr<LedgerMoments>& moments() const { return moments_; }

  // The store's side.
  /// Sets the value in the store, with what changes in the book in the same transaction. Kinds that are not counted go
  /// straight through. What is appended to a list meanwhile stays behind the value.
  void set(std::string_view key, kit::Value value, LedgerWriter writer);
  /// The same for a list that was made of `before`: what was appended since stays behind it.
  void replace(std::string_view key, const kit::Value& before, kit::Value after, LedgerWriter writer);
  /// What get() of the store answers; of a demographic value it is noted which one this thread has seen.
  kit::Value get(std::string_view key);
  /// The store, which could not be read at its opening, can be now. Within the commit that takes over what it holds, so
  /// that what follows from it is committed along.
  void storeRecovered();
  /// The kit stops: what has not been worth writing by itself is written.
  void writeAtTheEnd();
  /// Says so when something was unexplained since the last call: see invariantBroken(). Not under a lock.
  void tellBroken();

  // The services object's side.
  /// The list of activities has one more. At the door, in the same step.
  void activityWasStored();
  /// Something that the app handed over was refused. Waits for nothing.
  void wasRefused(Recorded reason);
  /// The next payload of this thread is begun; it is sealed in the same block, if at all.
  void payloadIsBeingBuilt();
  /// `parameters`: what seals it; absent when that failed.
  void payloadWasSealed(const kit::Value& payload, const kit::Value& parameters);
  /// Of the exchange whose handler is about to run on this thread. What it carries.
  LedgerLoad exchangeDidEnd(const kit::ExchangeResult& result);

  // The transport's side.
  /// A name for the exchange; 0 when it is none of the book's business.
  uint64_t requestStarts(const kit::Request& request);
  /// How many activities the exchange carries, which has not ended; nothing when it is no batch.
  std::optional<size_t> activitiesOfBatch(uint64_t exchange);
  void handlerBegins(uint64_t exchange);
  /// `departed`: whether the request left at all.
  void handlerEnded(uint64_t exchange, LedgerDeparted departed = LedgerDeparted::kYes);

  // The background queue's: a click that is sent from there was sent before.
  void backgroundBlockBegins();
  void backgroundBlockEnded();

 private:
  /// A setter found the book in use.
  struct Note {
    size_t slot = 0;
    LedgerStored::Replaced replaced;
  };
  /// Which demographic values a thread has read last: those are in the payload that it builds.
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

  // These take it, or do without.
  bool leaveNote(std::string_view key, size_t slot, const kit::Value& value);
  void noteSeen(size_t slot);
  void setDemographic(std::string_view key, size_t slot, const kit::Value& value, LedgerWriter writer);

  MachineStore& store_;
  const std::array<std::string, kLedgerEndpoints> urls_;
  const services::Logger logger_;
  const bool has_hashed_identifier_;
  const std::shared_ptr<LedgerMoments> moments_ = std::make_shared<LedgerMoments>();
  std::atomic<uint32_t> broken_kinds_{0};                                 ///< bits
  std::array<std::atomic<uint64_t>, kLedgerRefusals.size()> refusals_{};  ///< not in the accounts yet
  std::atomic<std::thread::id> handler_thread_{};  ///< on which a handler runs; none else than it waits for the book
  std::atomic<bool> has_notes_{false};

  kit::Mutex& door_;  // guards these three, and of stored_ the demographics
  uint64_t announced_activities_ = 0;
  std::vector<Note> notes_;
  std::vector<SeenValues> seen_;

  kit::Mutex mutex_;  // guards what follows
  LedgerStored stored_;
  kit::Value written_;  ///< the accounts, as the store has them
  LedgerAccounts accounts_;
  /// The store could not be read at its opening, and did not come to light since.
  bool is_unavailable_ = false;
  LedgerExchanges exchanges_;
  LedgerUnclaimed unclaimed_;
  LedgerTraces traces_;
  size_t crash_reports_just_added_ = 0;
  kit::Value clicks_at_handler_;  ///< those that were stored when the handler that runs began
  std::thread::id background_thread_;
  bool is_session_ending_ = false;                ///< in the block of the background queue that runs
  bool has_session_ended_since_payload_ = false;  ///< or ends yet: since the main queue began to build its latest one
};

/// As long as a block of the background queue runs.
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
