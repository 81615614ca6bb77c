// A machine's store that keeps the wish to be forgotten in a second home as well, so that no state of the store can
// hide or undo it.
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

/// So long a call that withdraws a wish waits while another process writes one, under no lock, and so long the store's
/// thread does. That takes microseconds unless that process is held up in the middle of it. Past that "not forgotten"
/// is tried again on the store's thread. "Forgotten" waits for nobody, with a number that the other one's does not
/// reach; nor does whoever merely commits.
inline constexpr std::chrono::milliseconds kMaxWishTurn{40};

/// Mirrors the stored flag that the gate follows, whoever sets it: true is in the file before it is in the store, false
/// after the store was asked to commit it, whether or not it could. So whatever lies between two of these steps says
/// forgotten, in the file or in the store: at a start the user is forgotten where either of the two says so. A file
/// that cannot be read at present counts as one that says forgotten, and is read again with each flush, on the store's
/// thread, until it can be read or the flag is set. The flag is set by one thread at a time (under the house lock);
/// everything else is for any thread.
class WishStore final : public PassingStore {
 public:
  using Reading = MachineWishFile::Reading;

  /// `store` was opened, and has its lock: what the file says is read only now, so that it is the last word of whoever
  /// had the lock before. `file` null: there is none. All outlive it.
  WishStore(MachineStore& store, MachineWishFile* file, const services::Logger& logger);
  ~WishStore() override;
  WishStore(const WishStore&) = delete;
  WishStore& operator=(const WishStore&) = delete;

  WishFileState fileState() const;
  /// What kept the file from being read, written or synced last; empty when nothing did.
  std::string problem() const;
  /// The death of the process would not lose the latest wish. `is_stored`: the store has it, as a commit said.
  bool isWishKept(bool is_stored) const;
  /// For the call that said it, once it is committed: tries again to write a wish that another process has kept out of
  /// the file, and waits kMaxWishTurn for that process at most. Under no lock.
  void writeOnceMore();
  /// The latest wish would outlive a power cut.
  bool isOnDisk() const;
  /// `hook` runs each time the latest wish has reached the disk, on the store's thread; it must be short and must not
  /// call back. Null: none any more, and none runs when this returns. Not from within the hook.
  void setWhenOnDisk(kit::Block hook);
  /// The file could not be read, and was not since.
  bool isToBeReadAgain() const;
  /// As setWhenOnDisk(), for when the file was read again: takeReadAgain() is due.
  void setWhenReadAgain(kit::Block hook);
  /// What was read again holds from here on, unless the flag was set meanwhile. Under the house lock.
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
  /// What there is to say, in the order in which it came about.
  enum class Line : uint8_t { kUnreadable, kNotRead, kReadAgain, kNotWritten, kHeldUp, kWritten };
  /// While there is one the user counts as forgotten.
  enum class Doubt : uint8_t {
    kNone,
    kUntilRead,  ///< the file cannot be read at present
    kUntilTold,  ///< it says nothing valid, and nobody has said since what the user wants
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
  std::atomic<bool> has_come_to_light_{false};
  /// The file lacks the latest wish.
  std::atomic<bool> is_behind_{false};
  std::atomic<bool> is_ending_{false};

  mutable std::mutex mutex_;  // guards what follows; callers take it, so nobody waits for a disk or a process under it
  std::optional<bool> wanted_;
  bool is_new_ = false;   ///< said just now, and its writing was not tried yet
  bool is_told_ = false;  ///< the flag was set by this process
  bool is_missing_ = false;
  uint64_t generation_ = 0;  ///< counts what was wanted
  uint64_t committed_ = 0;   ///< the store was asked to commit what was wanted up to here
  uint64_t written_ = 0;     ///< so far in the file
  uint64_t synced_ = 0;      ///< so far on the disk
  uint64_t readings_due_ = 0;
  uint64_t readings_done_ = 0;
  std::optional<Reading> read_again_;  ///< to be taken
  std::string problem_;
  bool is_trouble_told_ = false;
  std::vector<Line> waiting_lines_;

  std::mutex hook_mutex_;  ///< held while a hook runs
  kit::Block when_on_disk_;
  kit::Block when_read_again_;
};

}  // namespace morvik::runtime
