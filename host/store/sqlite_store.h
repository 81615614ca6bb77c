// The key-value store of a real machine: memory for readers, SQLite for durability.
//
// set() changes memory. synchronize() and commitTurn() write the changes in one transaction into SQLite's log, by a
// plain write: when they return, the data is in the kernel's hands and survives the death of the process. The store's
// own thread syncs the log to the disk within a second, writes it back into the file from time to time, and reopens a
// file that could not be opened or read, or that somebody removed while it was in use. So no caller waits for the disk,
// except as described at kMaxHeldTime.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/store/array_rows.h"
#include "host/store/store_database.h"
#include "host/store/store_files.h"
#include "host/store/store_flusher.h"
#include "kit/log.h"
#include "kit/mutex.h"
#include "runtime/machine/machine.h"
#include "runtime/store/take_over.h"
#include "services/format.h"

namespace morvik::host {

/// From a commit to the disk sync after which it survives a power cut. Including the sync it stays within a second.
inline constexpr std::chrono::milliseconds kFlushDelay{500};
/// The log is written back and restarted when it is longer than this. A start reads all of it, at about a millisecond
/// per MiB.
inline constexpr int64_t kLogRestartBytes = int64_t{4} << 20;
/// The same at the end of a session, when the app is idle and nobody is waiting.
inline constexpr int64_t kLogSessionEndBytes = int64_t{256} << 10;
/// Restarting the log takes a disk sync, during which commits are held off. So it is done at the end of a session, when
/// nobody is likely to wait; and while a session is open only on a fast disk: one whose latest write-back took no
/// longer than this. On any other the log grows.
inline constexpr std::chrono::milliseconds kMaxHeldTime{5};
/// While commits keep coming without a pause, there is always something left to write back. Beyond this length, on a
/// fast disk, the last part is written back with commits held off.
inline constexpr int64_t kLogHardBytes = int64_t{256} << 20;
/// Beyond this length, on any disk: the next commit waits for the write-back and its syncs. That takes a session with
/// some 700,000 commits on a slow disk.
inline constexpr int64_t kLogMostBytes = int64_t{1000} << 20;
/// Flushes in a row that find the file busy before that is reported like any other failure: about ten seconds.
inline constexpr int kMaxBusyFlushes = 20;
/// Write-backs in a row to catch up with a writer, before the rest is left to the next flush.
inline constexpr int kCatchUpRounds = 4;

struct SqliteStoreOptions {
  StorePlace place;
  /// For inspectors: loads what is committed now, even while another process uses the store. No lock is taken, no file
  /// is created or changed, and writes stay in memory.
  bool read_only = false;
  std::chrono::milliseconds flush_delay = kFlushDelay;
  /// For a file that could not be read at the opening and recovers later.
  runtime::TakeOverTable take_over = {};
  /// Empty: flushes run on a thread of the store.
  MakeStoreFlusher make_flusher = {};
  int64_t log_hard_bytes = kLogHardBytes;
  int64_t log_most_bytes = kLogMostBytes;
  /// For a test: called on a thread about to wait for another one's commit, under a lock of the store.
  std::function<void()> when_waiting = {};
};

class SqliteStore : public runtime::MachineStore {
 public:
  /// Opens the store and loads all of it; blocks for reading the file, not for a disk sync. A file that cannot be
  /// opened is opened again on the store's own thread, soon after each commit that needs it. Until then everything is
  /// kept in memory; the file's content joins it with the first commit after that. A problem is reported in one line,
  /// in `log` and by openingLine(); only by the latter if another process holds the store. `log` must outlive the
  /// store; it is called on any thread.
  SqliteStore(SqliteStoreOptions options, kit::LogSink& log);
  /// shutdown().
  ~SqliteStore() override;
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  runtime::StoreOpening opening() const override { return opening_; }
  /// The line about the opening's problem; empty if there was none.
  const std::string& openingLine() const override { return opening_line_; }

  void setWhenTakenOver(kit::Block hook) override;

  kit::Value get(std::string_view key) const override;
  void set(std::string_view key, kit::Value value) override;
  void append(std::string_view key, kit::Value element) override;
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override;
  void setTogether(std::span<runtime::StoreWrite> writes) override;
  /// Commits of several threads are combined: a thread that finds another one committing waits for that commit. Then,
  /// unless its own writes were included, it commits everything written by then. So it waits for at most one commit
  /// besides its own.
  bool synchronize() override;
  std::optional<kit::Value> tryGet(std::string_view key) const override;
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override;
  /// Commits what a turn of the main queue wrote without synchronize(); the same as synchronize(), and as cheap if
  /// there is nothing. A store that stays in memory for good has nothing to retry.
  bool commitTurn() override;
  bool synchronizeUntold() override;
  void tellWaiting() override;
  bool isKept() const override;

  /// All existing properties, in the order of their names. Any thread.
  std::vector<std::pair<std::string, kit::Value>> all() const override;

  /// The session has ended: syncs to the disk at once, on the store's own thread. Any thread; does not block.
  void flushNow() override;
  void flushSoon() override;
  void setWhenFlushed(kit::Block hook) override;
  /// Commits, syncs, and blocks until that is done. For tools and the end of a process, never for the main thread.
  void flushAndWait();
  void beginToEnd() override { is_ending_ = true; }
  /// beginToEnd(), flushAndWait(), then closes the file and releases the lock. Later writes stay in memory. May be
  /// called again, but not by two threads at a time.
  void shutdown() override;

 private:
  struct Property {
    std::string name;
    // Under memory_mutex_:
    kit::Value value;
    bool dirty = false;
    // Under commit_mutex_: the content of the file.
    int64_t id = 0;  ///< 0: none yet
    kit::Value stored;
    ArrayRows rows;
    std::vector<int64_t> left_out;  ///< of these rows, in order: elements that no store can keep, so they have none
    kit::Value lost;                ///< content of a file that was given up, until there is another one
    bool refusal_told = false;
    bool left_out_untold = false;
  };
  struct Pending {
    Property* property = nullptr;
    kit::Value value = {};
    RowChange change = {};
    std::optional<ArrayRows> rows = {};  ///< after the change, if making them takes memory
    std::vector<int64_t> left_out = {};  ///< after the change
    bool leaves_out_more = false;
  };
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  enum class Attempt : uint8_t { kFirst, kLater };
  struct Opened {
    runtime::StoreOpening state = runtime::StoreOpening::kOpened;
    StoreProblem problem = {};
    std::unique_ptr<StoreDatabase> database = nullptr;  ///< null: it could not be opened
    std::vector<StoredProperty> loaded = {};
    StoreOutcome unreadable = {};  ///< what is wrong with a file that could not be replaced
    StoreFileIdentities files = {};
  };

  /// Holds commit_mutex_; after releasing it, writes the log lines that are due.
  class Committing;
  class Round;

  bool isReopened() const;
  bool commitWrites(uint64_t up_to);
  bool commitAsRound();

  // These hold memory_mutex_.
  Property& propertyOf(std::string_view key);
  void exchange(std::string_view key, kit::Value& value);
  void setDirty(Property& property);
  void gatherDirty();
  void keepPending();

  // These open the file: called by the constructor, then by the flusher, one at a time.
  Opened lockAndOpen(std::optional<StoreProblem> unreadable);
  Opened openFile(std::optional<StoreProblem> unreadable);
  StoreOutcome openAndLoad(bool read_only, Opened& opened);
  Opened openInPlaceOf(StoreProblem unreadable);
  void openAgain();

  // These hold commit_mutex_, which is taken before memory_mutex_.
  void openReadOnly();
  runtime::StoreOpening openFirst();
  void opened(Opened& opened, Attempt attempt);
  void adopt(Opened& opened);
  void adoptReopened();
  bool knewAll() const { return loaded_once_ && !was_locked_out_; }
  void takeOver(std::vector<StoredProperty>& loaded);
  void takeOverRecord();
  void takeOverConfirmed();
  void giveUpFile(std::optional<StoreProblem> unreadable);
  void forgetStored();
  bool anythingDirty() const;
  bool commit();
  StoreOutcome applyPending();
  StoreOutcome applyChanges();
  void plan();
  bool planOne(Pending& pending);
  void planRows(Pending& pending);
  void setStored();
  void tellRefused();
  void tellLeftOut();
  void tellDamaged();
  void tellCannotOpen(const StoreProblem& problem);
  void tellLockedOut(const StoreProblem& problem);
  void tellCannotWrite(const StoreProblem& problem);
  void tellWritable();
  void tellRemoved();
  void tellRemovedAtTheEnd();
  void tell(std::string_view text, std::initializer_list<services::FormatArgument> arguments);

  // These run where the flusher runs them, one at a time, and hold nothing when called.
  void flush(StoreFlusher::Urgency urgency);
  bool replaceRemoved();
  StoreOutcome flushLog(StoreFlusher::Urgency urgency, uint64_t& generation);
  StoreOutcome renewKeeper(uint64_t generation);
  StoreOutcome restartLog(StoreFlusher::Urgency urgency, uint64_t generation);
  StoreOutcome writeBack();
  StoreOutcome restartWhileHeld(StoreFlusher::Urgency urgency, bool& is_over);
  StoreOutcome holdLog();
  StoreOutcome shortenLog(uint64_t generation);
  void letCommitGoFirst();
  [[nodiscard]] bool tolerateBusy(const StoreOutcome& failed);
  void tellFlushed(const StoreOutcome& failed);

  const SqliteStoreOptions options_;
  kit::LogSink& log_;
  std::atomic<bool> is_ending_{false};
  std::atomic<runtime::StoreOpening> opening_{runtime::StoreOpening::kOpened};
  std::string opening_line_;

  mutable kit::Mutex memory_mutex_;
  std::unordered_map<std::string, std::unique_ptr<Property>, TextHash, std::equal_to<>> properties_;
  std::vector<Property*> dirty_;
  uint64_t writes_ = 0;  ///< number of writes

  std::atomic<uint64_t> kept_writes_{0};    ///< how many of writes_ are in the file
  std::atomic<uint64_t> refused_up_to_{0};  ///< these include the latest that no store can keep
  std::mutex round_mutex_;
  std::condition_variable round_ended_;
  bool is_round_running_ = false;
  uint64_t round_ = 0;
  std::mutex telling_mutex_;
  std::vector<std::string> waiting_lines_;

  mutable kit::Mutex commit_mutex_;
  StoreLock lock_;                           ///< belongs to whoever opens the file
  std::unique_ptr<StoreDatabase> database_;  ///< null: in memory
  StoreFileIdentities files_;                ///< the open ones
  std::optional<Opened> reopened_;           ///< waits for the next commit, where readers see its content
  std::optional<StoreProblem> given_up_;     ///< why the file in use is to be set aside
  bool may_reopen_ = false;                  ///< in memory for now, not for good
  bool loaded_once_ = false;                 ///< memory has all that the file had
  bool was_locked_out_ = false;              ///< another process had it meanwhile; its lists are kept too
  kit::Block when_taken_over_;
  kit::Block when_flushed_;
  uint64_t generation_ = 0;  ///< counts opened files
  int64_t next_id_ = 1;
  std::vector<Pending> pending_;
  uint64_t pending_writes_ = 0;     ///< writes_ when pending_ was gathered
  std::vector<Property*> refused_;  ///< by the latest plan: what no store can keep
  StoreChanges changes_;
  bool left_out_untold_ = false;
  bool write_trouble_told_ = false;
  bool lock_trouble_told_ = false;
  bool sync_trouble_told_ = false;
  bool removal_at_the_end_told_ = false;
  uint64_t commits_ = 0;  ///< into the opened files

  std::unique_ptr<StoreLogKeeper> keeper_;  ///< used by the flusher only
  uint64_t keeper_generation_ = 0;
  bool is_checked_ = false;      ///< keeper_'s file was checked
  uint64_t synced_commits_ = 0;  ///< how many of commits_ are on the disk; used by the flusher only
  int busy_flushes_ = 0;         ///< in a row; used by the flusher only
  int written_back_ = 0;         ///< frames of the log; used by the flusher only
  bool is_disk_quick_ = true;    ///< by the latest write-back with something to write; used by the flusher only

  std::unique_ptr<StoreFlusher> flusher_;  ///< null: read only, or in use by another
};

}  // namespace morvik::host
