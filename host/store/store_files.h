// The store's folder and files: making them, holding the lock, setting aside what cannot be read.
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

/// Held until it goes, or the process does.
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

/// Tells a file from every other one, as long as somebody has it open.
struct FileIdentity {
  uint64_t device = 0;
  uint64_t number = 0;

  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

/// What the store asks of the file system beside what SQLite asks of it. Any thread; nothing waits for the disk but
/// syncFolder(), syncFile() and write().
class StoreFiles {
 public:
  virtual ~StoreFiles() = default;
  /// Makes the folder, and those above it, readable by its owner alone. What exists stays as it is.
  virtual StoreOutcome makeFolder(const std::string& folder) = 0;
  /// Makes an empty file when it is missing. Readable by its owner alone afterwards, also when it was there.
  virtual StoreOutcome makeFile(const std::string& path) = 0;
  /// Whether anything has this name.
  virtual bool exists(const std::string& path) = 0;
  /// `out`: of the file that has this name; none when there is none. A problem: it cannot be told.
  virtual StoreOutcome identify(const std::string& path, std::optional<FileIdentity>& out) = 0;
  /// `to` is free.
  virtual StoreOutcome rename(const std::string& from, const std::string& to) = 0;
  /// The names in the folder, in no order; none when it cannot be read.
  virtual std::vector<std::string> names(const std::string& folder) = 0;
  /// Removes the file; one that is not there is no problem.
  virtual StoreOutcome remove(const std::string& path) = 0;
  /// Writes these few bytes at the beginning of the file, which is made when it is missing, and waits for the disk.
  virtual StoreOutcome write(const std::string& path, const std::string& bytes) = 0;
  /// All of a small file.
  virtual StoreOutcome read(const std::string& path, std::string& out) = 0;
  /// The first bytes of the file, at most `limit` of them; none when there is no such file. A problem: it cannot be
  /// told whether there is one, or what is in it.
  virtual StoreOutcome readIfThere(const std::string& path, size_t limit, std::optional<std::string>& out) = 0;
  /// Hands these few bytes to the kernel, for that place of the file, which is made when it is missing.
  virtual StoreOutcome put(const std::string& path, size_t offset, const std::string& bytes) = 0;
  /// Waits, at most so long, until no other process has its turn with the file, and takes it: `out` is the turn, which
  /// goes with this object or with the process. None where there is no file, or no other process that could come
  /// between. A problem: another one has it still.
  virtual StoreOutcome takeTurn(const std::string& /*path*/, std::chrono::milliseconds /*longest*/,
                                std::unique_ptr<FileLock>& out) {
    out.reset();
    return std::nullopt;
  }
  /// Makes what the file holds last; waits for the disk.
  virtual StoreOutcome syncFile(const std::string& path) = 0;
  /// Makes the names of the folder's files last; waits for the disk.
  virtual StoreOutcome syncFolder(const std::string& folder) = 0;
  /// Does not wait. kTaken: `out` holds the lock. kFailed: `problem` says why the lock file cannot be used.
  /// No other code of this process may open the file: closing it there would let the lock go.
  virtual LockResult lock(const std::string& path, std::unique_ptr<FileLock>& out, StoreProblem& problem) = 0;
};

/// Those of the system.
StoreFiles& systemFiles();

/// Where a store lies.
struct StorePlace {
  std::string folder;
  std::string name = "morvik.store";
  /// SQLite's name of the file system. The usual one locks the file once, for as long as it is open, and keeps the
  /// log's index in this process's memory: one process uses a store anyway, and a commit then takes no locks, which
  /// halves its cost.
  std::string vfs = "unix-excl";
  /// Of the same file system. Outlives the store.
  StoreFiles* files = &systemFiles();

  std::string path() const { return folder + "/" + name; }
};

/// The longest absolute path that the folder of such a store may have, in bytes: its file system takes no longer one of
/// a file.
size_t maxFolderBytes(const StorePlace& place);

/// Makes the file when it is missing, readable by its owner alone, and gives a missing or empty one the first page of
/// an empty store. Nothing is synced: see the .cpp file for why that is safe.
StoreOutcome makeStoreFile(const StorePlace& place);

/// Gives the store's file, its log and its index another name that is still free, so that a fresh store can begin.
/// `new_path` is the file's new path. Nothing is deleted, nothing is overwritten. All of them or, where that fails and
/// can be undone, none.
StoreOutcome setStoreAside(const StorePlace& place, std::string& new_path);
/// What there is of it, for the user: the file or, where that was missing, its log.
std::string nameOfSetAside(const StorePlace& place, const std::string& new_path);
/// Undoes that, with the path that it gave, where no fresh store could be made: what there is of one is deleted.
StoreOutcome putStoreBack(const StorePlace& place, const std::string& new_path);

/// The files that a store has open. None: it could not be told.
struct StoreFileIdentities {
  std::optional<FileIdentity> store, log, lock;
};

/// Of those that have the store's names now.
StoreFileIdentities identifyStoreFiles(const StorePlace& place);

/// What became of the names of files that are in use.
enum class StoreLoss : unsigned char {
  kNone,     ///< or it cannot be told
  kRemoved,  ///< the file, its log or the lock has its name no more: what is left under these names is good
  kMixed,    ///< what is left does not belong together: nobody may read it as one store
  kTaken,    ///< another process has begun a store of its own there
};
StoreLoss lossOfStoreFiles(const StorePlace& place, const StoreFileIdentities& in_use);

/// Held by the one store object that uses a store. Let go when this object, or the process that took it, goes: a child
/// that was forked meanwhile does not have it.
class StoreLock {
 public:
  StoreLock() = default;
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

  /// Does not wait; taking what is held already works. kFailed: `problem` says why the lock file cannot be used.
  LockResult take(const StorePlace& place, StoreProblem& problem);
  void release() { lock_.reset(); }
  bool held() const { return lock_ != nullptr; }

 private:
  std::unique_ptr<FileLock> lock_;
};

}  // namespace morvik::host
