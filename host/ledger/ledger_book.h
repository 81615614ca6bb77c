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
// is answered) and the transport (what leaves, and when its handler runs).
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "host/ledger/ledger_accounts.h"
#include "host/ledger/ledger_exchange.h"
#include "host/ledger/list_change.h"
#include "host/machine/machine.h"
#include "kit/MorvikCoreServicesLib.h"
#include "kit/endpoints.h"
#include "kit/transport.h"
#include "kit/value.h"
#include "morvik/ledger.h"
#include "services/log.h"

namespace morvik::host {

/// Payloads that were sealed and whose request has not left. Each leaves at once or never; past this many the oldest is
/// forgotten.
inline constexpr size_t kMaxUnsentPayloads = 4;

struct LedgerParts {
  MachineStore& store;  ///< outlives the book
  kit::Endpoints endpoints;
  services::Logger logger;
  /// Whether demographics can say whose they are.
  bool has_hashed_identifier = true;
};

/// Any thread, each call by itself. A mutex of its own, taken after the house lock and before the store's; nothing is
/// called out under it but the store. A call costs what the change does that it is told of: for one that was appended a
/// comparison of handles, for a list that was trimmed one walk over it.
class LedgerBook {
 public:
  /// Opens the book, or begins one over what is stored. What was under way when the last process ended is given up.
  explicit LedgerBook(LedgerParts parts);
  LedgerBook(const LedgerBook&) = delete;
  LedgerBook& operator=(const LedgerBook&) = delete;

  /// The account as of now. Any thread; some microseconds, whatever is stored.
  Ledger read();

  // The store's side.
  enum class Writer : uint8_t { kKit, kHand };
  /// Sets the value in the store, with what changes in the book in the same transaction. Kinds that are not counted go
  /// straight through.
  void set(std::string_view key, kit::Value value, Writer writer);
  /// The store, which could not be read at its opening, can be now. Within the commit that takes over what it holds, so
  /// that what follows from it is committed along.
  void storeCameToLight();
  /// Says so when something was unexplained since the last call: see invariantBroken(). Not under a lock.
  void tellBroken();

  // The services object's side.
  /// The list of activities is about to be set with one more; called in the same step.
  void activityIsBeingStored();
  /// `parameters`: what seals it; absent when that failed.
  void payloadWasSealed(const kit::Value& payload, const kit::Value& parameters);
  /// Of the exchange whose handler is about to run on this thread.
  void exchangeDidEnd(const kit::ExchangeResult& result);

  // The transport's side.
  /// A name for the exchange; 0 when it is none of the book's business.
  uint64_t requestStarts(const kit::Request& request);
  void handlerBegins(uint64_t exchange);
  void handlerEnded(uint64_t exchange);

  // The background queue's: a click that is sent from there was sent before.
  void backgroundBlockBegins();
  void backgroundBlockEnded();

 private:
  using Exchanges = std::map<uint64_t, LedgerExchange>;
  /// What a stored list lost while requests were under way that carry it.
  struct Orphans {
    LedgerKind kind;
    LedgerReason reason;  ///< counts if none of them is accepted
    std::vector<uint64_t> carriers;
    uint64_t count = 0;
  };
  struct Unsent {
    std::string mark;  ///< of the sealed text
    LedgerExchange exchange;
  };
  /// A change of one list, as it is worked through.
  struct Removal {
    LedgerKind kind;
    Writer writer;
    LedgerExchange* ended = nullptr;  ///< the exchange whose handler does it
    bool is_accepted = false;
    bool others_known = false;
    std::vector<std::pair<uint64_t, LedgerExchange*>> others;  ///< under way to the same endpoint
    std::vector<uint64_t> carriers;                            ///< of the record at hand
  };

  // All hold the mutex.
  void open();
  uint64_t storedCount(LedgerKind kind) const;
  LedgerCounts storedCounts() const;
  void takeInWhatCameToLight();
  void takeChangesFromElsewhere();
  void takeListFromElsewhere(LedgerKind kind);
  void setList(LedgerKind kind, const kit::Value& value, Writer writer);
  void setDemographic(size_t slot, const kit::Value& value, Writer writer);
  void noteSentKeys(const kit::Value& keys);
  Removal removal(LedgerKind kind, Writer writer);
  void removeAll(Removal& removal, const kit::Array& before, const ListChange& change);
  void removeOne(Removal& removal, const kit::Value& record, size_t index);
  void findCarriers(Removal& removal, const kit::Value& record, size_t index);
  LedgerReason whyGone(const Removal& removal, const kit::Value& record);
  LedgerReason whyActivityGone(const Removal& removal, const kit::Value& record);
  bool isLeftOut(const kit::Value& id) const;
  bool isInUnsentBatch(const kit::Value& id);
  bool wasTakenBack(LedgerKind kind, const kit::Array& before, const ListChange& change, Writer writer) const;
  void shrinkLeading(LedgerKind kind, const ListChange& change);
  void add(LedgerKind kind, const kit::Array& after, size_t added, Writer writer);
  void addClick(const kit::Value& click, Writer writer);
  LedgerReason whyClickLost(const LedgerExchange& exchange);
  LedgerExchange takeUnsent(LedgerEndpoint endpoint, std::string_view body);
  void settleOrphans(uint64_t ended, const LedgerExchange& exchange);
  void credit(LedgerKind kind, const LedgerExchange& exchange, uint64_t count);
  bool isInBackground() const { return background_thread_ == std::this_thread::get_id(); }
  void write(std::string_view key, kit::Value value);
  void writeBook();

  MachineStore& store_;
  const std::array<std::string, kLedgerEndpoints> urls_;
  const services::Logger logger_;
  const bool has_hashed_identifier_;
  std::atomic<uint32_t> broken_kinds_{0};  ///< bits

  std::mutex mutex_;  // guards what follows
  LedgerAccounts accounts_;
  kit::Value written_;  ///< the accounts, as the store has them
  /// The store could not be read yet.
  bool is_dark_ = false;
  std::array<bool, kDemographicValues> was_set_{};  ///< in this process
  std::array<kit::Value, kLedgerKinds> known_;      ///< the lists, as they were last seen
  std::array<uint64_t, kDemographicValues> versions_{};
  uint64_t last_version_ = 0;
  uint64_t announced_activities_ = 0;
  size_t crash_reports_just_added_ = 0;
  kit::Value last_sent_key_;
  size_t sent_keys_ = 0;
  kit::Value newest_click_;
  bool is_newest_click_let_go_ = false;
  Exchanges exchanges_;
  uint64_t last_exchange_ = 0;
  std::set<uint64_t> holding_click_;
  std::vector<Unsent> unsent_;
  std::vector<Orphans> orphans_;
  uint64_t running_ = 0;  ///< the exchange whose handler runs
  std::thread::id running_thread_;
  std::thread::id background_thread_;
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

}  // namespace morvik::host
