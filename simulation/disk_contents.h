// The contents of a disk: the files as a process sees them, and what of them survives a power cut.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "simulation/dice.h"

namespace morvik::simulation {

/// A sector is written whole or not at all.
inline constexpr int64_t kSectorBytes = 512;

/// What becomes of unsynced writes when the power is lost. File names are synced with their folder, in the order of
/// their changes; a sector is written whole or not at all.
enum class PowerLoss : uint8_t {
  kNothingUnsynced,  ///< all of them are lost
  kTorn,             ///< all of them are there, and some sectors of the write that was cut
  kScattered,        ///< of every write some sectors are there, regardless of the order of writes
};

/// A write or a truncation.
struct DiskChange {
  int64_t offset = 0;
  std::string bytes;
  bool truncates = false;  ///< to `offset`
};

/// A file's bytes.
class DiskFile {
 public:
  DiskFile() = default;
  /// A file that was synced long ago.
  explicit DiskFile(std::string bytes) : now_(bytes), synced_(std::move(bytes)) {}

  const std::string& now() const { return now_; }
  void change(DiskChange change);
  /// Number of changes since the latest sync.
  size_t unsynced() const { return unsynced_.size(); }
  /// Syncs this many of them, oldest first.
  void sync(size_t changes);
  /// The file after a power cut. `torn` is the write that was cut; null: it was in another file, or there was none.
  DiskFile afterPowerLoss(PowerLoss loss, const DiskChange* torn, Dice& dice) const;

 private:
  std::string now_;
  std::string synced_;
  std::vector<DiskChange> unsynced_;  ///< oldest first
};

/// The files of one folder by their paths.
class DiskContents {
 public:
  using Names = std::map<std::string, std::shared_ptr<DiskFile>, std::less<>>;

  const Names& names() const { return names_; }
  /// Null if there is none.
  std::shared_ptr<DiskFile> find(std::string_view path) const;
  std::shared_ptr<DiskFile> create(const std::string& path);
  /// Adds a file that was synced long ago.
  void put(const std::string& path, std::string bytes);
  void remove(const std::string& path);
  void rename(const std::string& from, const std::string& to);
  void syncNames();

  /// A deep copy.
  DiskContents copy() const;
  /// The contents after a power cut. `torn` was being written to the file `torn_path`; null: nothing was.
  DiskContents afterPowerLoss(PowerLoss loss, const std::string& torn_path, const DiskChange* torn,
                              uint64_t seed) const;

 private:
  Names names_;
  Names synced_names_;
  std::vector<Names> unsynced_names_;  ///< the names after each change since the folder was synced, oldest first
};

}  // namespace morvik::simulation
