// The key-value store of a real machine: memory for its readers, SQLite for what survives.
//
// set() changes memory. synchronize() and commitTurn() write what changed in one transaction into SQLite's log, by a
// plain write: when they return it is in the kernel's hands, and the death of the process loses nothing. A thread of
// the store's own syncs the log to the disk within a second, writes it back into the file from time to time, and opens
// a file again that could not be opened or read, or that somebody has removed while it was in use. So no caller waits
// for the disk, but for what stands at kMaxHeldTime.
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

/// From a commit to the disk sync that makes it outlive a power cut. With the sync itself it stays within a second.
inline constexpr std::chrono::milliseconds kFlushDelay{500};
/// The log is written back and begun anew when it is longer than this. A start reads all of it, at about a millisecond
/// for each MiB.
inline constexpr int64_t kLogRestartBytes = int64_t{4} << 20;
/// The same at the end of a session, when the app has come to rest and nobody is waiting.
inline constexpr int64_t kLogSessionEndBytes = int64_t{256} << 10;
/// To begin the log anew takes a disk sync, during which commits are held off, and wait. So it is done at the end of a
/// session, when nobody is likely to wait, and while one is open only on a disk that is quick: where the write-back
/// just before took no longer than this. On any other the log grows on.
inline constexpr std::chrono::milliseconds kMaxHeldTime{5};
/// While commits keep coming without a pause, there is always something left to write back. Past this length the last
/// of it is written back with commits held off, on a quick disk.
inline constexpr int64_t kLogHardBytes = int64_t{256} << 20;
/// Past this length on any disk: the next commit waits for the write-back, and for its syncs. It takes a session with
/// some 700,000 commits on a slow disk to get there.
inline constexpr int64_t kLogMostBytes = int64_t{1000} << 20;
/// Flushes in a row that find the file busy, before that is told as any other failure: about ten seconds.
inline constexpr int kMaxBusyFlushes = 20;
/// Write-backs in a row to catch up with a writer; before the rest is left to the next flush.
inline constexpr int kCatchUpRounds = 4;

struct SqliteStoreOptions {
  StorePlace place;
  /// For inspectors: what is committed at this moment is loaded, also while another process uses the store; no lock is
  /// taken, no file is made or changed, and writes stay in memory.
  bool read_only = false;
  std::chrono::milliseconds flush_delay = kFlushDelay;
  /// For a file that could not be read at the opening and comes to light later.
  runtime::TakeOverTable take_over = {};
  /// Empty: flushes run on a thread of the store's own.
  MakeStoreFlusher make_flusher = {};
  int64_t log_hard_bytes = kLogHardBytes;
  int64_t log_most_bytes = kLogMostBytes;
  /// For a test: on a thread that is going to wait for another one's commit, under a lock of the store's.
  std::function<void()> when_waiting = {};
};

class SqliteStore : public runtime::MachineStore {
 public:
  /// Opens the store and loads all of it; blocks for reading the file, not for a disk sync. A file that cannot be
  /// opened now is opened again on the store's own thread, soon after each commit that needs it; until then everything
  /// is kept in memory, and what the file holds joins it with the first commit after that. What went wrong is told in
  /// one line, in `log` and by openingLine(); by the latter alone when another process holds the store. `log` must
  /// outlive the store; it is called on any thread.
  SqliteStore(SqliteStoreOptions options, kit::LogSink& log);
  /// shutdown().
  ~SqliteStore() override;
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  runtime::StoreOpening opening() const override { return opening_; }
  /// The line that told what went wrong; empty when nothing did.
  const std::string& openingLine() const override { return opening_line_; }

  void setWhenTakenOver(kit::Block hook) override;

  kit::Value get(std::string_view key) const override;
  void set(std::string_view key, kit::Value value) override;
  void append(std::string_view key, kit::Value element) override;
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override;
  void setTogether(std::span<runtime::StoreWrite> writes) override;
  /// Commits of several threads go together: a thread that finds another one committing waits for that commit and
  /// then, unless the other has taken its writes along, commits all that was written by then. So it waits for one
  /// commit besides its own at most.
  bool synchronize() override;
  std::optional<kit::Value> tryGet(std::string_view key) const override;
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override;
  /// What a turn of the main queue wrote without synchronize(); the same as synchronize(), and as cheap when there is
  /// nothing. A store that lives in memory for good has nothing to try again.
  bool commitTurn() override;
  bool synchronizeUntold() override;
  void tellWaiting() override;
  bool isKept() const override;

  /// All properties that are there, in the order of their names. Any thread.
  std::vector<std::pair<std::string, kit::Value>> all() const override;

  /// The session has ended: syncs to the disk at once, on the store's own thread. Any thread; does not block.
  void flushNow() override;
  void flushSoon() override;
  void setWhenFlushed(kit::Block hook) override;
  /// Commits, syncs, and blocks until that is done. For tools and the end of a process, never for the main thread.
  void flushAndWait();
  void beginToEnd() override { is_ending_ = true; }
  /// beginToEnd(), flushAndWait(), then closes the file and lets the lock go. Later writes stay in memory. May be
  /// called again, but not by two threads at a time.
  void shutdown() override;

 private:
  struct Property {
    std::string name;
    // Under memory_mutex_:
    kit::Value value;
    bool dirty = false;
    // Under commit_mutex_: what lies in the file.
    int64_t id = 0;  ///< 0: none yet
    kit::Value stored;
    ArrayRows rows;
    std::vector<int64_t> left_out;  ///< of these rows, in order: elements that no store can keep, so they have none
    kit::Value lost;                ///< what lay in a file that was given up, until another one is there
    bool refusal_told = false;
    bool left_out_untold = false;
  };
  struct Pending {
    Property* property = nullptr;
    kit::Value value = {};
    RowChange change = {};
    std::optional<ArrayRows> rows = {};  ///< as they are afterwards, where to make them takes memory
    std::vector<int64_t> left_out = {};  ///< as they are afterwards
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

  /// Holds commit_mutex_; once it is let go, tells what there was to tell.
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

  // These open the file: the constructor's, and then the flusher's, one at a time.
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

  // These run where the flusher runs them, one at a time, and hold nothing when they are called.
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
  uint64_t writes_ = 0;  ///< counts them

  std::atomic<uint64_t> kept_writes_{0};    ///< so many of writes_ are in the file
  std::atomic<uint64_t> refused_up_to_{0};  ///< among these was the latest that no store can keep
  std::mutex round_mutex_;
  std::condition_variable round_ended_;
  bool is_round_running_ = false;
  uint64_t round_ = 0;
  std::mutex telling_mutex_;
  std::vector<std::string> waiting_lines_;

  mutable kit::Mutex commit_mutex_;
  StoreLock lock_;                           ///< belongs to what opens the file
  std::unique_ptr<StoreDatabase> database_;  ///< null: in memory
  StoreFileIdentities files_;                ///< those that it has open
  std::optional<Opened> reopened_;           ///< waits for the next commit, where readers see what it brings to light
  std::optional<StoreProblem> given_up_;     ///< why the file that was in use is to be set aside
  bool may_reopen_ = false;                  ///< in memory for now, not for good
  bool loaded_once_ = false;                 ///< memory holds all that the file held
  bool was_locked_out_ = false;              ///< another process had it meanwhile; its lists are kept, too
  kit::Block when_taken_over_;
  kit::Block when_flushed_;
  uint64_t generation_ = 0;  ///< counts the files opened
  int64_t next_id_ = 1;
  std::vector<Pending> pending_;
  uint64_t pending_writes_ = 0;     ///< writes_, when pending_ was gathered
  std::vector<Property*> refused_;  ///< of the latest plan: what no store can keep
  StoreChanges changes_;
  bool left_out_untold_ = false;
  bool write_trouble_told_ = false;
  bool lock_trouble_told_ = false;
  bool sync_trouble_told_ = false;
  bool removal_at_the_end_told_ = false;
  uint64_t commits_ = 0;  ///< into the files opened

  std::unique_ptr<StoreLogKeeper> keeper_;  ///< the flusher's alone
  uint64_t keeper_generation_ = 0;
  bool is_checked_ = false;      ///< the file that it keeps
  uint64_t synced_commits_ = 0;  ///< of commits_: so many are on the disk; the flusher's alone
  int busy_flushes_ = 0;         ///< in a row; the flusher's alone
  int written_back_ = 0;         ///< frames of the log; the flusher's alone
  bool is_disk_quick_ = true;    ///< by the latest write-back that had something to write; the flusher's alone

  std::unique_ptr<StoreFlusher> flusher_;  ///< null: read only, or in use by another
};

}  // namespace morvik::host
