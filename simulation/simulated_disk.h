// A disk in memory under the host's real store, that can be cut off at any of its changes: the process is killed, or
// the power is lost and with it what was not synced.
//
//   SimulatedDisk disk;
//   host::SqliteStore store({.place = disk.place(), .make_flusher = flushesOn(loop)}, log);
//   disk.cutAt(117);                                                // its 117th change counts no more, nor the next
//   ...                                                             // the process lives on and does not know
//   disk.restart(DiskCut::powerLost(PowerLoss::kScattered, seed));  // what the next process finds
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "simulation/disk_contents.h"

namespace morvik::host {
struct StorePlace;
}

namespace morvik::simulation {

/// One thing that is asked of the disk. All but reads are changes, and are numbered.
struct DiskCall {
  enum class Kind : uint8_t { kRead, kWrite, kSync, kTruncate, kCreate, kRename, kRemove, kSyncFolder };
  static constexpr size_t kKinds = 8;
  Kind kind = Kind::kRead;
  std::string_view path;
  int64_t offset = 0;   ///< of a read or write; the new size of a truncation
  int64_t size = 0;     ///< of a read or write
  uint64_t number = 0;  ///< of a change, from 1
};

/// How what is cut off dies.
struct DiskCut {
  bool power_lost = false;  ///< else the process is killed, and what was written stays
  PowerLoss loss = PowerLoss::kNothingUnsynced;
  uint64_t seed = 0;

  static DiskCut killed() { return {}; }
  static DiskCut powerLost(PowerLoss loss, uint64_t seed) { return {true, loss, seed}; }
};

/// Of one thread, as is every store that stands on it. Outlives them.
class SimulatedDisk {
 public:
  SimulatedDisk();
  ~SimulatedDisk();
  SimulatedDisk(const SimulatedDisk&) = delete;
  SimulatedDisk& operator=(const SimulatedDisk&) = delete;

  /// Where the store lies on it.
  host::StorePlace place();

  /// Changes so far, all processes together; those after a cut do not count.
  uint64_t changes() const;
  /// Calls of that kind so far; as changes().
  uint64_t count(DiskCall::Kind kind) const;
  /// Before the change with this number the disk is cut off: what comes then is taken, and lost at the restart.
  void cutAt(uint64_t number);
  /// Cut off at once, unless it is.
  void cutNow();
  bool isCut() const;
  /// After a cut, when the process that was cut off is gone: the disk holds what was left of it.
  void restart(const DiskCut& cut);

  /// SQLITE_OK lets a call through, another code fails it and nothing is changed; kDropped says that it worked, and
  /// changes nothing all the same. Not asked after a cut.
  using Decider = std::function<int(const DiskCall&)>;
  static constexpr int kDropped = -1;
  /// Empty: everything works.
  void decide(Decider decider);

  /// Paths of all files, in order.
  std::vector<std::string> paths() const;
  /// Empty for a file that is not there.
  std::string bytesOf(const std::string& path) const;
  /// A file with these bytes that has been there for long. Between processes.
  void put(const std::string& path, std::string bytes);
  /// Removes a file between processes. Does not count as a change.
  void remove(const std::string& path);

 private:
  struct Parts;
  const std::unique_ptr<Parts> parts_;
};

}  // namespace morvik::simulation
