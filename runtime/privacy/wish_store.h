// A machine's store that keeps a second copy of the wish to be forgotten, so that no state of the store can hide or
// undo the wish.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "morvik/status.h"
#include "runtime/machine/machine.h"
#include "runtime/machine/passing_store.h"
#include "services/log.h"

namespace morvik::runtime {

/// How long a call that withdraws a wish (holding no lock), or the store's thread, waits while another process writes
/// one. That takes microseconds unless the other process is stuck in the middle. After that, "not forgotten" is retried
/// on the store's thread. "Forgotten" never waits: its number is one that the other process does not reach. Neither
/// does a mere commit.
inline constexpr std::chrono::milliseconds kMaxWishTurn{40};

/// Mirrors the stored flag that the gate follows, whoever sets it. True is written to the file before the store; false
/// after the store was asked to commit it, successfully or not. So between any two of these steps the file or the store
/// says forgotten, and at a start the user is forgotten if either says so. A file that cannot be read at present counts
/// as "forgotten"; the store's thread reads it again with each flush until it can be read or the flag is set. One
/// thread at a time sets the flag (under the list lock); everything else is for any thread.
class WishStore final : public PassingStore {
 public:
  using Reading = MachineWishFile::Reading;

  /// `store` was opened and has its lock: the file is read only now, so that it holds the last word of whoever had the
  /// lock before. `file` null: there is none. All outlive it.
  WishStore(MachineStore& store, MachineWishFile* file, const services::Logger& logger);
  ~WishStore() override;
  WishStore(const WishStore&) = delete;
  WishStore& operator=(const WishStore&) = delete;

  WishFileState fileState() const;
  /// Why the file could not be read, written or synced last; empty if it could.
  std::string problem() const;
  /// The latest wish would survive the death of the process. `is_stored`: a commit said that the store has it.
  bool isWishKept(bool is_stored) const;
  /// For the call that set the wish, after the commit: retries a wish that another process kept out of the file, and
  /// waits at most kMaxWishTurn for that process. Under no lock.
  void writeOnceMore();
  /// The latest wish would survive a power cut.
  bool isOnDisk() const;
  /// `hook` runs on the store's thread each time the latest wish has reached the disk; it must be short and must not
  /// call back. Null: no hook, and none is running when this returns. Not from within the hook.
  void setWhenOnDisk(kit::Block hook);
  /// The file could not be read, and has not been since.
  bool isToBeReadAgain() const;
  /// As setWhenOnDisk(), for a file that was read again: takeReadAgain() is due.
  void setWhenReadAgain(kit::Block hook);
  /// Applies what was read again, unless the flag was set meanwhile. Under the list lock.
  void takeReadAgain();

  kit::Value get(std::string_view key) const override;
  void set(std::string_view key, kit::Value value) override;
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override;
  void setTogether(std::span<StoreWrite> writes) override;
  bool synchronize() override;
  std::optional<kit::Value> tryGet(std::string_view key) const override;
  /// Never the flag: a dying thread waits for no file.
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override;

  void setWhenTakenOver(kit::Block hook) override;
  bool commitTurn() override;
  bool synchronizeUntold() override;
  void tellWaiting() override;
  void setWhenFlushed(kit::Block hook) override;
  void beginToEnd() override;
  void shutdown() override;

 private:
  /// What to log, in the order of its occurrence.
  enum class Line : uint8_t { kUnreadable, kNotRead, kReadAgain, kNotWritten, kHeldUp, kWritten };
  /// While there is one, the user counts as forgotten.
  enum class Doubt : uint8_t {
    kNone,
    kUntilRead,  ///< the file cannot be read at present
    kUntilTold,  ///< its content is invalid, and nobody has said since what the user wants
  };

  std::optional<kit::Value> inDoubt(std::string_view key) const;
  bool knowsTheStore() const;
  void takeReading(const Reading& reading);
  void readAgain();
  void setForgotten();
  template <class Set>
  void setting(bool is_forgotten, Set set);
  std::optional<bool> wanted() const;
  void beforeSet(bool is_forgotten);
  void afterSet(bool is_forgotten);
  template <class Commit>
  bool committing(Commit commit);
  bool writeIfDue(std::chrono::milliseconds longest_wait);
  bool isToBeTriedAgain() const;
  void storeRecovered();
  void flushed();
  void noticeRemoval();
  bool sync();
  std::optional<kit::Error> make(bool is_forgotten, uint64_t generation);

  // These hold mutex_.
  Doubt startFrom(const Reading& reading, bool is_stored);
  void noteRemoval();
  void want(bool is_forgotten);
  void wantAgain(bool is_forgotten);
  bool mayBeWritten() const;
  bool isToBeWritten() const;
  void noteProblem(const std::optional<kit::Error>& error, Line line = Line::kNotWritten);

  MachineWishFile* const file_;
  const services::Logger logger_;
  std::atomic<Doubt> doubt_{Doubt::kNone};
  std::atomic<bool> has_recovered_{false};
  /// The file lacks the latest wish.
  std::atomic<bool> is_behind_{false};
  std::atomic<bool> is_ending_{false};

  mutable std::mutex mutex_;  // guards what follows; app calls take it: wait for no disk or process under it
  std::optional<bool> wanted_;
  bool is_new_ = false;   ///< said just now, not written yet
  bool is_told_ = false;  ///< this process set the flag
  bool is_missing_ = false;
  uint64_t generation_ = 0;  ///< counts wishes
  uint64_t committed_ = 0;   ///< up to here the store was asked to commit
  uint64_t written_ = 0;     ///< up to here in the file
  uint64_t synced_ = 0;      ///< up to here on the disk
  uint64_t readings_due_ = 0;
  uint64_t readings_done_ = 0;
  std::optional<Reading> read_again_;  ///< to be applied
  std::string problem_;
  bool is_trouble_told_ = false;
  std::vector<Line> waiting_lines_;

  std::mutex hook_mutex_;  ///< held while a hook runs
  kit::Block when_on_disk_;
  kit::Block when_read_again_;
};

}  // namespace morvik::runtime
