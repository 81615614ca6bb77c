// The folder of a store: its file, its lock, and who may read them.
#pragma once

#include <string>

namespace morvik_service {

/// Locks the folder for one service during its lifetime.
class StoreFolder {
 public:
  /// Makes the folder and the files in it, for their owner alone; what an earlier version left open to others is closed
  /// to them. A folder that holds other files as well keeps its mode. Throws SetupError if the folder cannot be used
  /// or another service holds it.
  explicit StoreFolder(std::string path);
  StoreFolder(const StoreFolder&) = delete;
  StoreFolder& operator=(const StoreFolder&) = delete;
  ~StoreFolder();

  const std::string& path() const { return path_; }
  std::string databaseFile() const;
  /// The error for a second service.
  std::string inUseText() const;

 private:
  void lock();

  const std::string path_;
  int lock_file_ = -1;
};

}  // namespace morvik_service
