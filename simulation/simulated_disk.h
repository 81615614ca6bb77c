// A disk in memory under the real store. It can be cut off at any of its changes: the process is killed, or the power
// is lost, and with it whatever was not synced.
//
//   SimulatedDisk disk;
//   host::SqliteStore store({.place = disk.place(), .make_flusher = flushesOn(loop)}, log);
//   disk.cutAt(117);                                                // its 117th change and all later ones are lost
//   ...                                                             // the process runs on and does not notice
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

/// One call to the disk. All but reads are changes, and are numbered.
struct DiskCall {
  enum class Kind : uint8_t { kRead, kWrite, kSync, kTruncate, kCreate, kRename, kRemove, kSyncFolder };
  static constexpr size_t kKinds = 8;
  Kind kind = Kind::kRead;
  std::string_view path;
  int64_t offset = 0;   ///< of a read or write; the new size of a truncation
  int64_t size = 0;     ///< of a read or write
  uint64_t number = 0;  ///< of a change, from 1
};

/// How the process dies at the cut.
struct DiskCut {
  bool power_lost = false;  ///< otherwise the process is killed, and what was written stays
  PowerLoss loss = PowerLoss::kNothingUnsynced;
  uint64_t seed = 0;

  static DiskCut killed() { return {}; }
  static DiskCut powerLost(PowerLoss loss, uint64_t seed) { return {true, loss, seed}; }
};

/// Use from one thread, like every store on it. Must outlive them.
class SimulatedDisk {
 public:
  SimulatedDisk();
  ~SimulatedDisk();
  SimulatedDisk(const SimulatedDisk&) = delete;
  SimulatedDisk& operator=(const SimulatedDisk&) = delete;

  /// The store's location on it.
  host::StorePlace place();

  /// Changes so far, of all processes; those after a cut do not count.
  uint64_t changes() const;
  /// Calls of that kind so far, counted like changes().
  uint64_t count(DiskCall::Kind kind) const;
  /// Cuts the disk off before the change with this number: later changes seem to work, and are lost at the restart.
  void cutAt(uint64_t number);
  /// Cuts the disk off at once, unless it is cut off already.
  void cutNow();
  bool isCut() const;
  /// After a cut, once the process is gone: the disk then holds what survived the cut.
  void restart(const DiskCut& cut);

  /// SQLITE_OK lets a call through; another code fails it and changes nothing; kDropped reports success and changes
  /// nothing either. Not called after a cut.
  using Decider = std::function<int(const DiskCall&)>;
  static constexpr int kDropped = -1;
  /// Empty: every call works.
  void decide(Decider decider);

  /// Paths of all files, sorted.
  std::vector<std::string> paths() const;
  /// Empty if there is no such file.
  std::string bytesOf(const std::string& path) const;
  /// Adds a file with these bytes, as if synced long ago. Between processes only.
  void put(const std::string& path, std::string bytes);
  /// Removes a file, between processes only. Does not count as a change.
  void remove(const std::string& path);

 private:
  struct Parts;
  const std::unique_ptr<Parts> parts_;
};

}  // namespace morvik::simulation
