// The store's folder and files: creates them, holds the lock, sets aside what cannot be read.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/store/sqlite_connection.h"

namespace morvik::host {

/// A commit writes whole pages, and a recorded event takes some 200 bytes: with pages of 4 KiB an event costs about a
/// fifth more.
inline constexpr size_t kStorePageBytes = 1024;

/// Held until destroyed, or until the process ends.
class FileLock {
 public:
  virtual ~FileLock() = default;
};

enum class LockResult : unsigned char {
  kTaken,
  kHeldByAnother,      ///< by another process
  kHeldHere,           ///< by this process, which has another store on it
  kHeldBeforeTheFork,  ///< this process is a fork of the one that held it, and has that one's state of the file in
                       ///< memory
  kFailed
};

/// Identifies a file as long as somebody has it open.
struct FileIdentity {
  uint64_t device = 0;
  uint64_t number = 0;

  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

/// What the store needs from the file system in addition to what SQLite needs. Any thread; only syncFolder(),
/// syncFile() and write() wait for the disk.
class StoreFiles {
 public:
  virtual ~StoreFiles() = default;
  /// Creates the folder and its parents, readable by the owner only. Existing ones stay as they are.
  virtual StoreOutcome makeFolder(const std::string& folder) = 0;
  /// Creates an empty file if it is missing. Readable by the owner only afterwards, even if it existed.
  virtual StoreOutcome makeFile(const std::string& path) = 0;
  /// Whether anything has this name.
  virtual bool exists(const std::string& path) = 0;
  /// `out`: the identity of the file with this name; none if there is none. A problem: it is unknown.
  virtual StoreOutcome identify(const std::string& path, std::optional<FileIdentity>& out) = 0;
  /// `to` is free.
  virtual StoreOutcome rename(const std::string& from, const std::string& to) = 0;
  /// The names in the folder, in no order; none if it cannot be read.
  virtual std::vector<std::string> names(const std::string& folder) = 0;
  /// Removes the file; a missing one is no problem.
  virtual StoreOutcome remove(const std::string& path) = 0;
  /// Writes these few bytes at the beginning of the file, creating it if missing, and waits for the disk.
  virtual StoreOutcome write(const std::string& path, const std::string& bytes) = 0;
  /// All of a small file.
  virtual StoreOutcome read(const std::string& path, std::string& out) = 0;
  /// The first bytes of the file, at most `limit`; none if there is no such file. A problem: its existence or content
  /// is unknown.
  virtual StoreOutcome readIfThere(const std::string& path, size_t limit, std::optional<std::string>& out) = 0;
  /// Passes these few bytes to the kernel, for that offset of the file, creating it if missing.
  virtual StoreOutcome put(const std::string& path, size_t offset, const std::string& bytes) = 0;
  /// Waits, up to the given time, until no other process has its turn with the file, and takes the turn: `out` holds it
  /// until destroyed, or until the process ends. None if there is no file, or no other process could interfere. A
  /// problem: another process still has it.
  virtual StoreOutcome takeTurn(const std::string& /*path*/, std::chrono::milliseconds /*longest*/,
                                std::unique_ptr<FileLock>& out) {
    out.reset();
    return std::nullopt;
  }
  /// Makes the file's content durable; waits for the disk.
  virtual StoreOutcome syncFile(const std::string& path) = 0;
  /// Makes the names of the folder's files durable; waits for the disk.
  virtual StoreOutcome syncFolder(const std::string& folder) = 0;
  /// Does not wait. kTaken: `out` holds the lock. kFailed: `problem` says why the lock file cannot be used.
  /// No other code of this process may open the file: closing it would release the lock.
  virtual LockResult lock(const std::string& path, std::unique_ptr<FileLock>& out, StoreProblem& problem) = 0;
};

/// The system's.
StoreFiles& systemFiles();

/// Where a store is.
struct StorePlace {
  std::string folder;
  std::string name = "morvik.store";
  /// SQLite's name of the file system. The default locks the file once, while it is open, and keeps the log's index in
  /// this process's memory: only one process uses a store anyway, and a commit then takes no locks, which halves its
  /// cost.
  std::string vfs = "unix-excl";
  /// Of the same file system. Outlives the store.
  StoreFiles* files = &systemFiles();

  std::string path() const { return folder + "/" + name; }
};

/// The longest absolute path of such a store's folder, in bytes: its file system takes no longer file path.
size_t maxFolderBytes(const StorePlace& place);

/// Creates the file if it is missing, readable by its owner only, and writes the first page of an empty store to a new
/// or empty one. Nothing is synced: see the .cpp file for why that is safe.
StoreOutcome makeStoreFile(const StorePlace& place);

/// Renames the store's file, log and index to a free name, so that a new store can begin. `new_path` is the file's new
/// path. Deletes and overwrites nothing. All of them or, if that fails and can be undone, none.
StoreOutcome setStoreAside(const StorePlace& place, std::string& new_path);
/// What was set aside, for the user: the file or, if that was missing, its log.
std::string nameOfSetAside(const StorePlace& place, const std::string& new_path);
/// Undoes that, with the path that it returned, if no new store could be made; deletes what there is of one.
StoreOutcome putStoreBack(const StorePlace& place, const std::string& new_path);

/// The files that a store has open. None: unknown.
struct StoreFileIdentities {
  std::optional<FileIdentity> store, log, lock;
};

/// The files that have the store's names now.
StoreFileIdentities identifyStoreFiles(const StorePlace& place);

/// What happened to the names of files in use.
enum class StoreLoss : unsigned char {
  kNone,     ///< or unknown
  kRemoved,  ///< the file, its log or the lock lost its name: what is left is good
  kMixed,    ///< what is left does not belong together: nobody may read it as one store
  kTaken,    ///< another process has begun its own store there
};
StoreLoss lossOfStoreFiles(const StorePlace& place, const StoreFileIdentities& in_use);

/// Held by the one store object that uses a store. Released when this object, or the process that took it, ends; a
/// child forked meanwhile does not have it.
class StoreLock {
 public:
  StoreLock() = default;
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

  /// Does not wait; taking a held lock succeeds. kFailed: `problem` says why the lock file cannot be used.
  LockResult take(const StorePlace& place, StoreProblem& problem);
  void release() { lock_.reset(); }
  bool held() const { return lock_ != nullptr; }

 private:
  std::unique_ptr<FileLock> lock_;
};

}  // namespace morvik::host
