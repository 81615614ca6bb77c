// A file system under SQLite that counts the calls to the real one and fails those that a test selects. For targets
// that link SQLite.
#pragma once

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace morvik::test {

/// One call from SQLite to the file system.
struct VfsCall {
  enum class Kind : uint8_t { kOpen, kRead, kWrite, kSync, kTruncate, kDelete };
  static constexpr size_t kKinds = 6;
  Kind kind;
  std::string_view path;
  int64_t offset = 0;  ///< of a read or write; the new size of a truncation
  int64_t size = 0;    ///< of a read or write

  bool isOfLog() const { return path.ends_with("-wal"); }
};

/// Must outlive every connection that uses it.
class FaultyVfs {
 public:
  /// Returns SQLITE_OK to let the call through, or the code with which it fails; the file is then unchanged. Called on
  /// any thread that uses the store; it may block, to see who waits.
  using Decider = std::function<int(const VfsCall&)>;

  explicit FaultyVfs(const char* real_name = "unix-excl") : real_(sqlite3_vfs_find(real_name)) {
    static std::atomic<int> made{0};
    name_ = "faulty-" + std::to_string(++made);
    vfs_ = *real_;
    vfs_.pNext = nullptr;
    vfs_.zName = name_.c_str();
    vfs_.pAppData = this;
    vfs_.szOsFile = static_cast<int>(sizeof(File)) + real_->szOsFile;
    vfs_.xOpen = &FaultyVfs::open;
    vfs_.xDelete = &FaultyVfs::remove;
    vfs_.xAccess = [](sqlite3_vfs* vfs, const char* name, int flags, int* out) {
      return self(vfs).real_->xAccess(self(vfs).real_, name, flags, out);
    };
    vfs_.xFullPathname = [](sqlite3_vfs* vfs, const char* name, int size, char* out) {
      return self(vfs).real_->xFullPathname(self(vfs).real_, name, size, out);
    };
    sqlite3_vfs_register(&vfs_, 0);
  }
  FaultyVfs(const FaultyVfs&) = delete;
  FaultyVfs& operator=(const FaultyVfs&) = delete;
  ~FaultyVfs() { sqlite3_vfs_unregister(&vfs_); }

  const std::string& name() const { return name_; }

  void decide(Decider decider) {
    const std::lock_guard lock(mutex_);
    decider_ = std::make_shared<Decider>(std::move(decider));
  }
  /// Every call of that kind fails from now on.
  void failAll(VfsCall::Kind kind, int code) {
    decide([kind, code](const VfsCall& call) { return call.kind == kind ? code : SQLITE_OK; });
  }
  /// Every call works again.
  void heal() {
    const std::lock_guard lock(mutex_);
    decider_.reset();
  }
  /// Calls of that kind so far, including failed ones.
  uint64_t count(VfsCall::Kind kind) const {
    const std::lock_guard lock(mutex_);
    return counts_[static_cast<size_t>(kind)];
  }
  /// Blocks until there have been that many calls of that kind.
  void waitForCount(VfsCall::Kind kind, uint64_t wanted) {
    std::unique_lock lock(mutex_);
    counted_.wait(lock, [&] { return counts_[static_cast<size_t>(kind)] >= wanted; });
  }

 private:
  struct File {
    sqlite3_file base;
    FaultyVfs* owner;
    const char* path;  ///< valid while the file is open
  };

  static FaultyVfs& self(sqlite3_vfs* vfs) { return *static_cast<FaultyVfs*>(vfs->pAppData); }
  static File& wrapped(sqlite3_file* file) { return *reinterpret_cast<File*>(file); }
  static sqlite3_file* real(sqlite3_file* file) { return reinterpret_cast<sqlite3_file*>(&wrapped(file) + 1); }
  static const sqlite3_io_methods& methods(sqlite3_file* file) { return *real(file)->pMethods; }

  int ask(const VfsCall& call) {
    std::shared_ptr<Decider> decider;
    {
      const std::lock_guard lock(mutex_);
      ++counts_[static_cast<size_t>(call.kind)];
      decider = decider_;
    }
    counted_.notify_all();
    return decider == nullptr ? SQLITE_OK : (*decider)(call);
  }
  static int ask(sqlite3_file* file, VfsCall::Kind kind, int64_t offset, int64_t size) {
    const File& target = wrapped(file);
    return target.owner->ask({kind, target.path == nullptr ? "" : target.path, offset, size});
  }

  static int open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* out_flags) {
    FaultyVfs& owner = self(vfs);
    file->pMethods = nullptr;
    if (const int code = owner.ask({VfsCall::Kind::kOpen, name == nullptr ? "" : name, 0, 0}); code != SQLITE_OK)
      return code;
    wrapped(file).owner = &owner;
    wrapped(file).path = name;
    const int code = owner.real_->xOpen(owner.real_, name, real(file), flags, out_flags);
    if (code == SQLITE_OK)
      file->pMethods = &kMethods;
    return code;
  }
  static int remove(sqlite3_vfs* vfs, const char* name, int sync_folder) {
    FaultyVfs& owner = self(vfs);
    if (const int code = owner.ask({VfsCall::Kind::kDelete, name, 0, 0}); code != SQLITE_OK)
      return code;
    return owner.real_->xDelete(owner.real_, name, sync_folder);
  }
  static int read(sqlite3_file* file, void* bytes, int size, sqlite3_int64 offset) {
    const int code = ask(file, VfsCall::Kind::kRead, offset, size);
    return code != SQLITE_OK ? code : methods(file).xRead(real(file), bytes, size, offset);
  }
  static int write(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset) {
    const int code = ask(file, VfsCall::Kind::kWrite, offset, size);
    return code != SQLITE_OK ? code : methods(file).xWrite(real(file), bytes, size, offset);
  }
  static int truncate(sqlite3_file* file, sqlite3_int64 size) {
    const int code = ask(file, VfsCall::Kind::kTruncate, size, 0);
    return code != SQLITE_OK ? code : methods(file).xTruncate(real(file), size);
  }
  static int sync(sqlite3_file* file, int flags) {
    const int code = ask(file, VfsCall::Kind::kSync, 0, 0);
    return code != SQLITE_OK ? code : methods(file).xSync(real(file), flags);
  }

  static inline const sqlite3_io_methods kMethods = {
      3,
      [](sqlite3_file* file) { return methods(file).xClose(real(file)); },
      &FaultyVfs::read,
      &FaultyVfs::write,
      &FaultyVfs::truncate,
      &FaultyVfs::sync,
      [](sqlite3_file* file, sqlite3_int64* size) { return methods(file).xFileSize(real(file), size); },
      [](sqlite3_file* file, int level) { return methods(file).xLock(real(file), level); },
      [](sqlite3_file* file, int level) { return methods(file).xUnlock(real(file), level); },
      [](sqlite3_file* file, int* out) { return methods(file).xCheckReservedLock(real(file), out); },
      [](sqlite3_file* file, int what, void* argument) {
        return methods(file).xFileControl(real(file), what, argument);
      },
      [](sqlite3_file* file) { return methods(file).xSectorSize(real(file)); },
      [](sqlite3_file* file) { return methods(file).xDeviceCharacteristics(real(file)); },
      [](sqlite3_file* file, int page, int size, int extend, void volatile** out) {
        return methods(file).xShmMap(real(file), page, size, extend, out);
      },
      [](sqlite3_file* file, int offset, int count, int flags) {
        return methods(file).xShmLock(real(file), offset, count, flags);
      },
      [](sqlite3_file* file) { methods(file).xShmBarrier(real(file)); },
      [](sqlite3_file* file, int remove_file) { return methods(file).xShmUnmap(real(file), remove_file); },
      [](sqlite3_file* file, sqlite3_int64 offset, int size, void** out) {
        return methods(file).xFetch(real(file), offset, size, out);
      },
      [](sqlite3_file* file, sqlite3_int64 offset, void* bytes) {
        return methods(file).xUnfetch(real(file), offset, bytes);
      },
  };

  sqlite3_vfs* const real_;
  std::string name_;
  sqlite3_vfs vfs_{};
  mutable std::mutex mutex_;
  std::condition_variable counted_;
  std::shared_ptr<Decider> decider_;
  std::array<uint64_t, VfsCall::kKinds> counts_{};
};

}  // namespace morvik::test
