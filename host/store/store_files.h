// The store's folder and files: making them, holding the lock, setting aside what cannot be read.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "host/store/sqlite_connection.h"

namespace morvik::host {

/// A commit writes whole pages, and a recorded event takes some 200 bytes: with pages of 4 KiB an event costs about a
/// fifth more.
inline constexpr size_t kStorePageBytes = 1024;

/// Where a store lies.
struct StorePlace {
  std::string folder;
  std::string name = "morvik.store";
  /// SQLite's name of the file system. The usual one locks the file once, for as long as it is open, and keeps the
  /// log's index in this process's memory: one process uses a store anyway, and a commit then takes no locks, which
  /// halves its cost.
  std::string vfs = "unix-excl";

  std::string path() const { return folder + "/" + name; }
};

/// Makes the folder, and those above it, readable by its owner alone. What exists stays as it is.
StoreOutcome makeStoreFolder(const std::string& folder);

/// Makes the file when it is missing, readable by its owner alone, and gives a missing or empty one the first page of
/// an empty store. Nothing is synced: see the .cpp file for why that is safe.
StoreOutcome makeStoreFile(const StorePlace& place);

/// Gives the store's file, its log and its index another name that is still free, so that a fresh store can begin.
/// `new_path` is the file's new path. Nothing is deleted, nothing is overwritten.
StoreOutcome setStoreAside(const StorePlace& place, std::string& new_path);

/// Held by the one process that uses a store. Let go when this object, or the process, goes.
class StoreLock {
 public:
  enum class Result : unsigned char { kTaken, kHeldByAnother, kFailed };

  StoreLock() = default;
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
  ~StoreLock();
  /// Does not wait; taking what is held already works. kFailed: `problem` says why the lock file cannot be used.
  Result take(const StorePlace& place, StoreProblem& problem);
  void release();
  bool held() const { return descriptor_ >= 0; }

 private:
  int descriptor_ = -1;
};

}  // namespace morvik::host
