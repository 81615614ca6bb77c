#include "host/store/store_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "host/posix/process_word.h"

#include "host/posix/open_file.h"
#include "host/posix/system_message.h"
#include "host/posix/write_all.h"

namespace morvik::host {
namespace {

constexpr mode_t kOwnerOnlyFolder = 0700;
constexpr mode_t kOwnerOnlyFile = 0600;
/// Between two checks whether another process has finished its turn, which takes microseconds.
constexpr std::chrono::milliseconds kTurnSlice{1};
/// Names tried for a file that is set aside.
constexpr int kMaxSetAside = 10000;

/// A file opened through SQLite's file system, so that tests that replace it see these writes too.
class VfsFile {
 public:
  explicit VfsFile(const StorePlace& place) : vfs_(sqlite3_vfs_find(place.vfs.c_str())) {
    const std::string path = place.path();
    name_ = sqlite3_create_filename(path.c_str(), (path + "-journal").c_str(), (path + "-wal").c_str(), 0, nullptr);
  }
  VfsFile(const VfsFile&) = delete;
  VfsFile& operator=(const VfsFile&) = delete;
  ~VfsFile() {
    if (file() != nullptr && file()->pMethods != nullptr)
      file()->pMethods->xClose(file());
    sqlite3_free_filename(name_);
  }

  int open() {
    if (vfs_ == nullptr || name_ == nullptr)
      return SQLITE_CANTOPEN;
    room_ = std::make_unique<std::max_align_t[]>(static_cast<size_t>(vfs_->szOsFile) / sizeof(std::max_align_t) + 1);
    int granted = 0;
    const int code = vfs_->xOpen(vfs_, name_, file(), SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_READWRITE, &granted);
    if (code == SQLITE_OK && (granted & SQLITE_OPEN_READWRITE) == 0)
      return SQLITE_READONLY;
    return code;
  }
  int size(sqlite3_int64& out) { return file()->pMethods->xFileSize(file(), &out); }
  int read(char* bytes, size_t count) { return file()->pMethods->xRead(file(), bytes, static_cast<int>(count), 0); }
  int write(const char* bytes, size_t count) {
    return file()->pMethods->xWrite(file(), bytes, static_cast<int>(count), 0);
  }

 private:
  sqlite3_file* file() { return reinterpret_cast<sqlite3_file*>(room_.get()); }

  sqlite3_vfs* vfs_;
  const char* name_ = nullptr;
  std::unique_ptr<std::max_align_t[]> room_;
};

/// Page 1 of a database with a log and without tables. All non-zero bytes are in its first sector, so no power cut can
/// leave half of it.
bool emptyStorePage(std::array<char, kStorePageBytes>& page) {
  sqlite3* handle = nullptr;
  sqlite3_open_v2(":memory:", &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_MEMORY | SQLITE_OPEN_NOMUTEX, nullptr);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closer(handle, sqlite3_close_v2);
  // Setting a number in the header creates the page.
  static_assert(kStorePageBytes == 1024, "the text below names it");
  sqlite3_exec(handle, "PRAGMA page_size=1024; PRAGMA user_version=1; PRAGMA user_version=0", nullptr, nullptr,
               nullptr);
  sqlite3_int64 size = 0;
  const std::unique_ptr<unsigned char, void (*)(void*)> image(sqlite3_serialize(handle, "main", &size, 0),
                                                              sqlite3_free);
  if (image == nullptr || size != static_cast<sqlite3_int64>(kStorePageBytes))
    return false;
  std::copy_n(image.get(), kStorePageBytes, page.begin());
  page[18] = 2;  // written with a log
  page[19] = 2;  // read with a log
  return true;
}

/// Empty or all zeros, as a page that never reached the disk reads after a power cut.
int holdsNothing(VfsFile& file, bool& nothing) {
  sqlite3_int64 size = 0;
  if (const int code = file.size(size); code != SQLITE_OK)
    return code;
  nothing = size == 0;
  if (size == 0 || size > static_cast<sqlite3_int64>(kStorePageBytes))
    return SQLITE_OK;
  std::array<char, kStorePageBytes> bytes{};
  if (const int code = file.read(bytes.data(), static_cast<size_t>(size)); code != SQLITE_OK)
    return code;
  nothing = std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == 0; });
  return SQLITE_OK;
}

int fillIfEmpty(VfsFile& file) {
  if (const int code = file.open(); code != SQLITE_OK)
    return code;
  bool nothing = false;
  if (const int code = holdsNothing(file, nothing); code != SQLITE_OK || !nothing)
    return code;
  std::array<char, kStorePageBytes> page{};
  return emptyStorePage(page) ? file.write(page.data(), page.size()) : SQLITE_NOMEM;
}

/// The files locked by this process. A record lock belongs to the process: it keeps out no second store of the same
/// process, and is released when any descriptor of the file is closed. So nobody even opens a file listed here.
class LockedFiles {
 public:
  struct File {
    dev_t device;
    ino_t number;
    runtime::OwnProcess process;  ///< took the lock
  };

  static LockedFiles& list() {
    static auto& list = *new LockedFiles;  // stores may outlive everything that is destroyed at the end
    return list;
  }

  std::mutex mutex;
  std::vector<File> files;

  const File* find(const struct stat& file) const {
    const auto found = std::find_if(files.begin(), files.end(), [&file](const File& locked) {
      return locked.device == file.st_dev && locked.number == file.st_ino;
    });
    return found == files.end() ? nullptr : &*found;
  }
  void remove(const struct stat& file) {
    std::erase_if(files,
                  [&file](const File& locked) { return locked.device == file.st_dev && locked.number == file.st_ino; });
  }
};

class SystemFileLock final : public FileLock {
 public:
  SystemFileLock() = default;
  SystemFileLock(const SystemFileLock&) = delete;
  SystemFileLock& operator=(const SystemFileLock&) = delete;
  ~SystemFileLock() override {
    if (descriptor_ < 0)
      return;
    LockedFiles& locked = LockedFiles::list();
    const std::scoped_lock hold(locked.mutex);
    locked.remove(file_);
    ::close(descriptor_);
  }

  void take(int descriptor, const struct stat& file) {
    descriptor_ = descriptor;
    file_ = file;
  }

 private:
  int descriptor_ = -1;
  struct stat file_ {};
};

/// Locks the whole file.
bool lockWhole(int descriptor) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  return ::fcntl(descriptor, F_SETLK, &whole) == 0;
}

/// A lock of the descriptor, not of the process: a record lock would be released with any descriptor of the file.
class SystemFileTurn final : public FileLock {
 public:
  SystemFileTurn() = default;
  SystemFileTurn(const SystemFileTurn&) = delete;
  SystemFileTurn& operator=(const SystemFileTurn&) = delete;
  /// Explicit, since a child forked meanwhile has the descriptor too.
  ~SystemFileTurn() override {
    if (descriptor_ < 0)
      return;
    if (is_taken_)
      ::flock(descriptor_, LOCK_UN);
    ::close(descriptor_);
  }

  /// False: errno says why.
  bool open(const std::string& path) {
    descriptor_ = openFile(path.c_str(), O_RDONLY | O_NONBLOCK);
    return descriptor_ >= 0;
  }
  bool tryTake() {
    is_taken_ = ::flock(descriptor_, LOCK_EX | LOCK_NB) == 0;
    return is_taken_;
  }
  /// Not one that was removed or replaced since.
  bool isStillThe(const std::string& path) const {
    struct stat mine {};
    struct stat named {};
    return ::fstat(descriptor_, &mine) == 0 && ::stat(path.c_str(), &named) == 0 && mine.st_dev == named.st_dev &&
           mine.st_ino == named.st_ino;
  }

 private:
  int descriptor_ = -1;
  bool is_taken_ = false;
};

/// False if the system or the file system does not support it, or `to` is taken.
bool renameToFree(const std::string& from, const std::string& to) {
#ifdef RENAME_NOREPLACE
  return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
#else
  errno = ENOSYS;
  return false;
#endif
}

/// Syncs and closes it; a negative one means that it could not be opened.
StoreOutcome syncAndClose(int descriptor) {
  if (descriptor < 0)
    return StoreProblem::unavailable(systemMessage(errno));
  // A file system that cannot sync a folder returns EINVAL; its names are then as durable as it makes them.
  const bool is_done = ::fsync(descriptor) == 0 || errno == EINVAL;
  const int error = errno;
  ::close(descriptor);
  if (!is_done)
    return StoreProblem::unavailable(systemMessage(error));
  return std::nullopt;
}

/// Shortens `out` if the file ends. False: errno says why.
bool readUpTo(int descriptor, std::string& out) {
  size_t place = 0;
  while (place < out.size()) {
    const ssize_t count = ::read(descriptor, out.data() + place, out.size() - place);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      return false;
    if (count == 0)
      break;
    place += static_cast<size_t>(count);
  }
  out.resize(place);
  return true;
}

class SystemFiles final : public StoreFiles {
 public:
  StoreOutcome makeFolder(const std::string& folder) override {
    std::filesystem::path made;
    for (const std::filesystem::path& part : std::filesystem::path(folder)) {
      made /= part;
      if (::mkdir(made.c_str(), kOwnerOnlyFolder) == 0 || errno == EEXIST)
        continue;
      const int error = errno;
      std::error_code ignored;
      if (!std::filesystem::is_directory(made, ignored))
        return StoreProblem::unavailable(systemMessage(error));
    }
    std::error_code error;
    if (!std::filesystem::is_directory(folder, error))
      return StoreProblem::unavailable(systemMessage(error ? error.value() : ENOTDIR));
    return std::nullopt;
  }

  StoreOutcome makeFile(const std::string& path) override {
    const int descriptor = openFile(path.c_str(), O_RDWR | O_CREAT, kOwnerOnlyFile);
    if (descriptor < 0)
      return StoreProblem::unavailable(systemMessage(errno));
    // A file from elsewhere (a backup, say) may have been readable by all; its log inherits the mode.
    const bool closed_to_others = ::fchmod(descriptor, kOwnerOnlyFile) == 0;
    const int error = errno;
    ::close(descriptor);
    if (!closed_to_others)
      return StoreProblem::unavailable(systemMessage(error));
    return std::nullopt;
  }

  bool exists(const std::string& path) override {
    std::error_code ignored;
    return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
  }

  StoreOutcome identify(const std::string& path, std::optional<FileIdentity>& out) override {
    out.reset();
    struct stat file {};
    if (::stat(path.c_str(), &file) == 0)
      out = {file.st_dev, file.st_ino};
    else if (errno != ENOENT && errno != ENOTDIR)
      return StoreProblem::unavailable(systemMessage(errno));
    return std::nullopt;
  }

  StoreOutcome rename(const std::string& from, const std::string& to) override {
    if (renameToFree(from, to))
      return std::nullopt;
    if (errno != ENOSYS && errno != EINVAL)
      return StoreProblem::unavailable(systemMessage(errno));
    if (::rename(from.c_str(), to.c_str()) != 0)
      return StoreProblem::unavailable(systemMessage(errno));
    return std::nullopt;
  }

  std::vector<std::string> names(const std::string& folder) override {
    std::vector<std::string> found;
    // Not std::filesystem, whose iterator ends the process without memory.
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(folder.c_str()), ::closedir);
    while (const dirent* entry = entries != nullptr ? ::readdir(entries.get()) : nullptr) {
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..")
        found.emplace_back(name);
    }
    return found;
  }

  StoreOutcome remove(const std::string& path) override {
    if (::unlink(path.c_str()) == 0 || errno == ENOENT)
      return std::nullopt;
    return StoreProblem::unavailable(systemMessage(errno));
  }

  StoreOutcome write(const std::string& path, const std::string& bytes) override {
    const int descriptor = openFile(path.c_str(), O_WRONLY | O_CREAT, kOwnerOnlyFile);
    if (descriptor < 0)
      return StoreProblem::unavailable(systemMessage(errno));
    const bool is_done = writeAll(descriptor, bytes) && ::fsync(descriptor) == 0;
    const int error = errno;
    ::close(descriptor);
    if (!is_done)
      return StoreProblem::unavailable(systemMessage(error));
    return std::nullopt;
  }

  StoreOutcome read(const std::string& path, std::string& out) override {
    std::ifstream file(path, std::ios::binary);
    out.assign(std::istreambuf_iterator<char>(file), {});
    if (!file)
      return StoreProblem::unavailable("it cannot be read");
    return std::nullopt;
  }

  StoreOutcome readIfThere(const std::string& path, size_t limit, std::optional<std::string>& out) override {
    out.reset();
    // A pipe of that name must not make us wait for its writer.
    const int descriptor = openFile(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (descriptor < 0 && errno == ENOENT)
      return std::nullopt;
    if (descriptor < 0)
      return StoreProblem::unavailable(systemMessage(errno));
    std::string bytes(limit, '\0');
    const bool is_done = readUpTo(descriptor, bytes);
    const int error = errno;
    ::close(descriptor);
    if (!is_done)
      return StoreProblem::unavailable(systemMessage(error));
    out = std::move(bytes);
    return std::nullopt;
  }

  StoreOutcome put(const std::string& path, size_t offset, const std::string& bytes) override {
    const int descriptor = openFile(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK, kOwnerOnlyFile);
    if (descriptor < 0)
      return StoreProblem::unavailable(systemMessage(errno));
    const bool is_done = ::lseek(descriptor, static_cast<off_t>(offset), SEEK_SET) >= 0 && writeAll(descriptor, bytes);
    const int error = errno;
    ::close(descriptor);
    if (!is_done)
      return StoreProblem::unavailable(systemMessage(error));
    return std::nullopt;
  }

  StoreOutcome takeTurn(const std::string& path, std::chrono::milliseconds longest,
                        std::unique_ptr<FileLock>& out) override {
    out.reset();
    const auto deadline = std::chrono::steady_clock::now() + longest;
    for (;;) {
      auto turn = std::make_unique<SystemFileTurn>();
      if (!turn->open(path))
        return std::nullopt;  // the writer will be told why
      if (turn->tryTake()) {
        if (!turn->isStillThe(path))
          continue;
        out = std::move(turn);
        return std::nullopt;
      }
      if (errno != EWOULDBLOCK && errno != EINTR)
        return std::nullopt;  // a file system without such locks
      if (std::chrono::steady_clock::now() >= deadline)
        return StoreProblem{StoreProblem::Kind::kBusy, "another process is writing it"};
      std::this_thread::sleep_for(kTurnSlice);
    }
  }

  StoreOutcome syncFile(const std::string& path) override {
    return syncAndClose(openFile(path.c_str(), O_WRONLY | O_NONBLOCK));
  }

  StoreOutcome syncFolder(const std::string& folder) override {
    return syncAndClose(openFile(folder.c_str(), O_RDONLY | O_DIRECTORY));
  }

  LockResult lock(const std::string& path, std::unique_ptr<FileLock>& out, StoreProblem& problem) override {
    LockedFiles& locked = LockedFiles::list();
    const std::scoped_lock hold(locked.mutex);
    struct stat file {};
    if (::stat(path.c_str(), &file) == 0) {
      if (const LockedFiles::File* const held = locked.find(file); held != nullptr)
        return held->process.isHere() ? LockResult::kHeldHere : LockResult::kHeldBeforeTheFork;
    }
    // All memory first: a lock without a holder would stay for good.
    auto made = std::make_unique<SystemFileLock>();
    locked.files.reserve(locked.files.size() + 1);
    const int descriptor = openFile(path.c_str(), O_RDWR | O_CREAT, kOwnerOnlyFile);
    if (descriptor < 0) {
      problem = StoreProblem::unavailable(systemMessage(errno));
      return LockResult::kFailed;
    }
    // A record lock, since a forked child does not inherit it: with any other, a living child would keep its parent
    // from starting again.
    if (::fstat(descriptor, &file) == 0 && lockWhole(descriptor)) {
      locked.files.push_back({file.st_dev, file.st_ino, ownProcess()});
      made->take(descriptor, file);
      out = std::move(made);
      return LockResult::kTaken;
    }
    const int error = errno;
    ::close(descriptor);
    if (error == EACCES || error == EAGAIN)
      return LockResult::kHeldByAnother;
    problem = StoreProblem::unavailable(systemMessage(error));
    return LockResult::kFailed;
  }
};

}  // namespace

StoreFiles& systemFiles() {
  static auto& files = *new SystemFiles;  // stores may outlive everything that is destroyed at the end
  return files;
}

size_t maxFolderBytes(const StorePlace& place) {
  // SQLite derives the names of journal and log from it.
  constexpr size_t kLongestEnding = std::string_view("-journal").size();
  const sqlite3_vfs* const vfs = sqlite3_vfs_find(place.vfs.c_str());
  const size_t longest_path = vfs != nullptr ? static_cast<size_t>(vfs->mxPathname) : 0;
  const size_t below_folder = place.name.size() + 1 + kLongestEnding;
  return longest_path > below_folder ? longest_path - below_folder : 0;
}

// A new store is created without waiting for the disk, since that happens on the app's main thread at its first start.
// That is safe because this page is the only thing outside of the log until the first checkpoint, which syncs the log,
// then the file. After an earlier power cut the page is there, or reads as zeros and is written again at the next
// start; the log, as far as it reached the disk, has everything else.
StoreOutcome makeStoreFile(const StorePlace& place) {
  if (StoreOutcome failed = place.files->makeFile(place.path()))
    return failed;
  VfsFile file(place);
  if (const int code = fillIfEmpty(file); code != SQLITE_OK)
    return StoreProblem::unavailable(sqlite3_errstr(code));
  return std::nullopt;
}

namespace {

/// A store's files, the defining one first.
constexpr std::array<const char*, 4> kStoreEndings{"", "-wal", "-shm", "-journal"};

/// Those that exist; the store's own file last. Stops at the first failure.
StoreOutcome moveAll(const StorePlace& place, const std::string& from, const std::string& to) {
  for (auto ending = kStoreEndings.rbegin(); ending != kStoreEndings.rend(); ++ending) {
    if (!place.files->exists(from + *ending))
      continue;
    if (StoreOutcome failed = place.files->rename(from + *ending, to + *ending))
      return failed;
  }
  return std::nullopt;
}

}  // namespace

StoreOutcome setStoreAside(const StorePlace& place, std::string& new_path) {
  const std::string path = place.path();
  const auto taken = [&place](const std::string& name) { return place.files->exists(name); };
  for (int number = 1; number <= kMaxSetAside; ++number) {
    new_path = path + ".unreadable-" + std::to_string(number);
    if (std::any_of(kStoreEndings.begin(), kStoreEndings.end(),
                    [&](const char* ending) { return taken(new_path + ending); }))
      continue;
    // The file goes last: while it has its name, the next start finds it unreadable and finishes this.
    StoreOutcome failed = moveAll(place, path, new_path);
    if (failed)
      moveAll(place, new_path, path);  // the file without its log would be an older state
    return failed;
  }
  return StoreProblem::unavailable("every name for a file that is set aside is taken");
}

std::string nameOfSetAside(const StorePlace& place, const std::string& new_path) {
  for (const char* const ending : kStoreEndings) {
    if (place.files->exists(new_path + ending))
      return new_path + ending;
  }
  return new_path;
}

// What was created of a new store is removed first: a foreign log would harm the file that returns.
StoreOutcome putStoreBack(const StorePlace& place, const std::string& new_path) {
  for (const char* const ending : kStoreEndings) {
    if (StoreOutcome failed = place.files->remove(place.path() + ending))
      return failed;
  }
  return moveAll(place, new_path, place.path());
}

namespace {

std::string logPath(const StorePlace& place) {
  return place.path() + "-wal";
}

std::string lockPath(const StorePlace& place) {
  return place.path() + ".lock";
}

enum class NameState : unsigned char { kSame, kGone, kOther };

NameState stateOf(const StorePlace& place, const std::string& path, const std::optional<FileIdentity>& in_use) {
  std::optional<FileIdentity> now;
  if (!in_use || place.files->identify(path, now))
    return NameState::kSame;
  if (!now)
    return NameState::kGone;
  return *now == *in_use ? NameState::kSame : NameState::kOther;
}

}  // namespace

StoreFileIdentities identifyStoreFiles(const StorePlace& place) {
  const auto identify = [&place](const std::string& path) {
    std::optional<FileIdentity> found;
    static_cast<void>(place.files->identify(path, found));
    return found;
  };
  return {identify(place.path()), identify(logPath(place)), identify(lockPath(place))};
}

// A file next to a foreign log would be read together with it, and be harmed. Without its log it has the state of the
// last write-back, which is a whole store.
StoreLoss lossOfStoreFiles(const StorePlace& place, const StoreFileIdentities& in_use) {
  const NameState store = stateOf(place, place.path(), in_use.store);
  const NameState log = stateOf(place, logPath(place), in_use.log);
  const NameState lock = stateOf(place, lockPath(place), in_use.lock);
  if (store == NameState::kOther && log != NameState::kSame && lock == NameState::kOther)
    return StoreLoss::kTaken;
  if (store == NameState::kOther || log == NameState::kOther || (store == NameState::kGone && log == NameState::kSame))
    return StoreLoss::kMixed;
  const bool is_whole = store == NameState::kSame && log == NameState::kSame && lock == NameState::kSame;
  return is_whole ? StoreLoss::kNone : StoreLoss::kRemoved;
}

LockResult StoreLock::take(const StorePlace& place, StoreProblem& problem) {
  if (held())
    return LockResult::kTaken;
  return place.files->lock(lockPath(place), lock_, problem);
}

}  // namespace morvik::host
