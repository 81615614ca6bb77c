// What a disk holds: the files as a process sees them, and what of them would be there after a power cut.
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

/// Written whole or not at all.
inline constexpr int64_t kSectorBytes = 512;

/// What becomes of what was written and not synced when the power goes. Names of files are synced with their folder,
/// in the order of their changes; a sector is written whole or not at all.
enum class PowerLoss : uint8_t {
  kNothingUnsynced,  ///< all of it is gone
  kTorn,             ///< all of it is there, and of the write that was cut some sectors are
  kScattered,        ///< of every write some sectors are there, whatever was written before or after it
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
  /// One that has been there for long.
  explicit DiskFile(std::string bytes) : now_(bytes), synced_(std::move(bytes)) {}

  const std::string& now() const { return now_; }
  void change(DiskChange change);
  /// Changes since the latest sync.
  size_t unsynced() const { return unsynced_.size(); }
  /// The oldest of them, so many.
  void sync(size_t changes);
  /// The file after a power cut. `torn` is the write that was cut; null: it was another file's, or none.
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
  /// Null when there is none.
  std::shared_ptr<DiskFile> find(std::string_view path) const;
  std::shared_ptr<DiskFile> create(const std::string& path);
  /// A file that has been there for long.
  void put(const std::string& path, std::string bytes);
  void remove(const std::string& path);
  void rename(const std::string& from, const std::string& to);
  void syncNames();

  /// Shares nothing with this.
  DiskContents copy() const;
  /// What is there after a power cut. `torn` is what was being written to the file `torn_path`; null: nothing.
  DiskContents afterPowerLoss(PowerLoss loss, const std::string& torn_path, const DiskChange* torn,
                              uint64_t seed) const;

 private:
  Names names_;
  Names synced_names_;
  std::vector<Names> unsynced_names_;  ///< what they were after each change since the folder was synced, oldest first
};

}  // namespace morvik::simulation
