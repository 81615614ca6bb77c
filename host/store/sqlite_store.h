// The key-value store of a real machine: memory for its readers, SQLite for what survives.
//
// set() changes memory. synchronize() and commitTurn() write what changed in one transaction into SQLite's log, by a
// plain write: when they return it is in the kernel's hands, and the death of the process loses nothing. A thread of
// the store's own syncs the log to the disk within a second and writes it back into the file from time to time, so no
// caller ever waits for the disk, with two exceptions that are stated at kLogHardBytes.
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

#include "host/machine/machine.h"
#include "host/store/array_rows.h"
#include "host/store/store_database.h"
#include "host/store/store_files.h"
#include "host/store/store_flusher.h"
#include "host/store/take_over.h"
#include "kit/log.h"
#include "kit/mutex.h"
#include "services/format.h"

namespace morvik::host {

/// From a commit to the disk sync that makes it outlive a power cut. With the sync itself it stays within a second.
inline constexpr std::chrono::milliseconds kFlushDelay{500};
/// The log is written back and begun anew when it is longer than this. A start reads all of it, at about a millisecond
/// for each MiB.
inline constexpr int64_t kLogRestartBytes = int64_t{4} << 20;
/// The same at the end of a session, when the app has come to rest and nobody is waiting.
inline constexpr int64_t kLogSessionEndBytes = int64_t{256} << 10;
/// While commits keep coming without a pause the log cannot be begun anew between two of them, and grows. Past this
/// length the next commit waits, once, until it is. It takes about 16,000 commits within one write-back to get there.
/// (The other exception: beginning the log anew takes one disk sync, and a commit that falls into it waits for it.)
inline constexpr int64_t kLogHardBytes = int64_t{64} << 20;
/// Flushes in a row that find the file busy, before that is told as any other failure: about ten seconds.
inline constexpr int kMaxBusyFlushes = 20;
/// Write-backs in a row to catch up with a writer, before the rest is left to the next flush.
inline constexpr int kCatchUpRounds = 4;

struct SqliteStoreOptions {
  StorePlace place;
  /// For inspectors: what is committed at this moment is loaded, also while another process uses the store; no lock is
  /// taken, no file is made or changed, and writes stay in memory.
  bool read_only = false;
  std::chrono::milliseconds flush_delay = kFlushDelay;
  /// For a file that could not be read at the opening and comes to light later.
  TakeOverTable take_over = {};
  /// Empty: flushes run on a thread of the store's own.
  MakeStoreFlusher make_flusher = {};
};

class SqliteStore : public MachineStore {
 public:
  /// Opens the store and loads all of it; blocks for reading the file, not for a disk sync. What went wrong is told in
  /// one line, in `log` and by openingLine(); by the latter alone when another process holds the store. `log` must
  /// outlive the store; it is called on any thread.
  SqliteStore(SqliteStoreOptions options, kit::LogSink& log);
  /// shutdown().
  ~SqliteStore() override;
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  StoreOpening opening() const override { return opening_; }
  /// The line that told what went wrong; empty when nothing did.
  const std::string& openingLine() const override { return opening_line_; }

  void setWhenTakenOver(kit::Block hook) override;

  kit::Value get(std::string_view key) const override;
  void set(std::string_view key, kit::Value value) override;
  void append(std::string_view key, kit::Value element) override;
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override;
  void setTogether(std::span<StoreWrite> writes) override;
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
  void setWhenFlushed(kit::Block hook) override;
  /// Commits, syncs, and blocks until that is done. For tools and the end of a process, never for the main thread.
  void flushAndWait();
  /// flushAndWait(), then closes the file and lets the lock go. Later writes stay in memory. May be called again, but
  /// not by two threads at a time.
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
    bool refusal_told = false;
  };
  struct Pending {
    Property* property;
    kit::Value value;
    RowChange change;
    std::optional<ArrayRows> rows;  ///< as they are afterwards, where to make them takes memory
  };
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  enum class Attempt : uint8_t { kFirst, kLater };
  struct Opened {
    StoreOpening state = StoreOpening::kOpened;
    StoreProblem problem;
  };

  /// Holds commit_mutex_; once it is let go, tells what there was to tell.
  class Committing;
  class Round;

  bool commitWrites(uint64_t up_to);
  bool commitAsRound();

  // These hold memory_mutex_.
  Property& propertyOf(std::string_view key);
  void exchange(std::string_view key, kit::Value& value);
  void setDirty(Property& property);
  void gatherDirty();
  void keepPending();

  // These hold commit_mutex_, which is taken before memory_mutex_.
  void openReadOnly();
  StoreOpening openWritable(Attempt attempt);
  Opened lockAndOpen();
  Opened openFile();
  StoreOutcome openAndLoad(bool read_only);
  StoreOutcome setAside(const std::string& reason);
  bool reopen();
  void takeOver(std::vector<StoredProperty>& loaded);
  void takeOverRecord();
  void forgetStored();
  StoreOutcome startAfresh(const std::string& reason);
  bool anythingDirty() const;
  bool commit();
  StoreOutcome applyPending();
  void plan();
  bool planOne(Pending& pending);
  void setStored();
  void tellRefused();
  void tellDamaged();
  void tellCannotOpen(const StoreProblem& problem);
  void tellLockedOut(const StoreProblem& problem);
  void tellCannotWrite(const StoreProblem& problem);
  void tellWritable();
  void tell(std::string_view text, std::initializer_list<services::FormatArgument> arguments);

  // These run where the flusher runs them, one at a time, and hold nothing when they are called.
  void flush(StoreFlusher::Urgency urgency);
  StoreOutcome flushLog(StoreFlusher::Urgency urgency, uint64_t& generation);
  StoreOutcome renewKeeper(uint64_t generation);
  StoreOutcome restartLog(uint64_t generation);
  bool isToBeTriedAgainUntold(const StoreOutcome& failed);
  void tellFlushed(const StoreOutcome& failed);

  const SqliteStoreOptions options_;
  kit::LogSink& log_;
  StoreOpening opening_ = StoreOpening::kOpened;
  std::string opening_line_;

  mutable kit::Mutex memory_mutex_;
  std::unordered_map<std::string, std::unique_ptr<Property>, TextHash, std::equal_to<>> properties_;
  std::vector<Property*> dirty_;
  uint64_t writes_ = 0;  ///< counts them

  std::atomic<uint64_t> kept_writes_{0};  ///< so many of writes_ are in the file
  std::mutex round_mutex_;
  std::condition_variable round_ended_;
  bool is_round_running_ = false;
  uint64_t round_ = 0;
  std::mutex telling_mutex_;
  std::vector<std::string> waiting_lines_;

  kit::Mutex commit_mutex_;
  StoreLock lock_;
  std::unique_ptr<StoreDatabase> database_;  ///< null: in memory
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
  bool write_trouble_told_ = false;
  bool lock_trouble_told_ = false;
  bool sync_trouble_told_ = false;

  std::unique_ptr<StoreLogKeeper> keeper_;  ///< the flusher's alone
  uint64_t keeper_generation_ = 0;
  bool is_checked_ = false;  ///< the file that it keeps
  int busy_flushes_ = 0;     ///< in a row; the flusher's alone

  std::unique_ptr<StoreFlusher> flusher_;  ///< null: read only, or in use by another
};

}  // namespace morvik::host
