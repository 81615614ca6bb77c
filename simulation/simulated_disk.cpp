#include "simulation/simulated_disk.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <optional>
#include <utility>

#include "host/store/store_files.h"

namespace morvik::simulation {
/// The parts of SimulatedDisk::Parts. That type has external linkage, so these need it too.
namespace simulated_disk {

struct OpenFile;

/// What a process's connections share of one file.
struct FileInUse {
  std::vector<OpenFile*> open;
  std::vector<std::unique_ptr<std::vector<char>>> index;  ///< regions of the log's index
  size_t index_users = 0;
};

struct OpenFile {
  std::string path;
  std::shared_ptr<DiskFile> file;
  std::shared_ptr<FileInUse> in_use;
  int level = SQLITE_LOCK_NONE;
  bool is_temporary = false;
  bool uses_index = false;
  bool syncs_folder = false;  ///< a log created when it was opened: its first sync also syncs the name
  unsigned index_shared = 0;  ///< locks of the index, one bit each
  unsigned index_alone = 0;
};

struct Handle {
  sqlite3_file base;
  OpenFile* open;
};

}  // namespace simulated_disk

namespace {

using namespace simulated_disk;

constexpr const char* kFolder = "/disk";
constexpr int kLongestPath = 512;
constexpr int kPageSizedSector = 4096;  // SQLite's assumed unit of writing, as on a real file system
/// Some date, in milliseconds of the Julian calendar: the store does not ask a file system for the time.
constexpr sqlite3_int64 kSomeTime = 212'575'924'800'000;

OpenFile& openOf(sqlite3_file* file) {
  return *reinterpret_cast<Handle*>(file)->open;
}

host::StoreProblem problemOf(int code) {
  return {host::StoreProblem::Kind::kUnavailable, sqlite3_errstr(code)};
}

/// A file lock known only to this process; it cannot fail.
class LockOfDisk final : public host::FileLock {
 public:
  explicit LockOfDisk(std::shared_ptr<bool> locked) : locked_(std::move(locked)) { *locked_ = true; }
  LockOfDisk(const LockOfDisk&) = delete;
  LockOfDisk& operator=(const LockOfDisk&) = delete;
  ~LockOfDisk() override { *locked_ = false; }

 private:
  const std::shared_ptr<bool> locked_;
};

bool othersHold(const OpenFile& own, int level) {
  return std::any_of(own.in_use->open.begin(), own.in_use->open.end(),
                     [&](const OpenFile* other) { return other != &own && other->level >= level; });
}

int lock(sqlite3_file* file, int level) {
  OpenFile& own = openOf(file);
  if (own.level >= level)
    return SQLITE_OK;
  if (othersHold(own, level == SQLITE_LOCK_SHARED ? SQLITE_LOCK_PENDING : SQLITE_LOCK_RESERVED))
    return SQLITE_BUSY;
  if (level == SQLITE_LOCK_EXCLUSIVE && othersHold(own, SQLITE_LOCK_SHARED)) {
    own.level = SQLITE_LOCK_PENDING;
    return SQLITE_BUSY;
  }
  own.level = level;
  return SQLITE_OK;
}

int unlock(sqlite3_file* file, int level) {
  openOf(file).level = std::min(openOf(file).level, level);
  return SQLITE_OK;
}

int checkReservedLock(sqlite3_file* file, int* out) {
  const OpenFile& own = openOf(file);
  *out = own.level >= SQLITE_LOCK_RESERVED || othersHold(own, SQLITE_LOCK_RESERVED) ? 1 : 0;
  return SQLITE_OK;
}

int mapIndex(sqlite3_file* file, int region, int size, int extend, void volatile** out) {
  OpenFile& own = openOf(file);
  if (!std::exchange(own.uses_index, true))
    ++own.in_use->index_users;
  auto& regions = own.in_use->index;
  *out = nullptr;
  while (extend != 0 && regions.size() <= static_cast<size_t>(region))
    regions.push_back(std::make_unique<std::vector<char>>(static_cast<size_t>(size)));
  if (static_cast<size_t>(region) < regions.size())
    *out = regions[static_cast<size_t>(region)]->data();
  return SQLITE_OK;
}

int lockIndex(sqlite3_file* file, int offset, int count, int flags) {
  OpenFile& own = openOf(file);
  const unsigned mask = ((1u << static_cast<unsigned>(count)) - 1) << static_cast<unsigned>(offset);
  if ((flags & SQLITE_SHM_UNLOCK) != 0) {
    own.index_shared &= ~mask;
    own.index_alone &= ~mask;
    return SQLITE_OK;
  }
  const bool alone = (flags & SQLITE_SHM_EXCLUSIVE) != 0;
  for (const OpenFile* other : own.in_use->open) {
    if (other != &own && ((other->index_alone | (alone ? other->index_shared : 0)) & mask) != 0)
      return SQLITE_BUSY;
  }
  (alone ? own.index_alone : own.index_shared) |= mask;
  return SQLITE_OK;
}

/// The index is in the process's memory, and is freed with the last connection.
int unmapIndex(sqlite3_file* file, int) {
  OpenFile& own = openOf(file);
  own.index_shared = own.index_alone = 0;
  if (std::exchange(own.uses_index, false) && --own.in_use->index_users == 0)
    own.in_use->index.clear();
  return SQLITE_OK;
}

int close(sqlite3_file* file) {
  unmapIndex(file, 0);
  const std::unique_ptr<OpenFile> closed(&openOf(file));
  std::erase(closed->in_use->open, closed.get());
  return SQLITE_OK;
}

int sizeOf(sqlite3_file* file, sqlite3_int64* out) {
  *out = static_cast<sqlite3_int64>(openOf(file).file->now().size());
  return SQLITE_OK;
}

}  // namespace

struct SimulatedDisk::Parts final : public host::StoreFiles {
  /// The contents at the cut, and what was being written.
  struct Left {
    DiskContents contents;
    std::string torn_path;
    DiskChange torn;
    bool is_torn = false;
  };
  struct FileHandle : Handle {
    Parts* disk;
  };

  Parts();
  ~Parts() override { sqlite3_vfs_unregister(&vfs_); }
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  host::StoreOutcome makeFolder(const std::string&) override { return std::nullopt; }
  host::StoreOutcome makeFile(const std::string& path) override {
    std::shared_ptr<DiskFile> ignored;
    if (const int code = create(path, ignored); code != SQLITE_OK)
      return problemOf(code);
    return std::nullopt;
  }
  bool exists(const std::string& path) override { return contents_.find(path) != nullptr; }
  host::StoreOutcome identify(const std::string& path, std::optional<host::FileIdentity>& out) override {
    const std::shared_ptr<DiskFile> file = contents_.find(path);
    out = file ? std::optional(host::FileIdentity{.number = reinterpret_cast<uintptr_t>(file.get())}) : std::nullopt;
    return std::nullopt;
  }
  host::StoreOutcome rename(const std::string& from, const std::string& to) override {
    const int code = ask(DiskCall::Kind::kRename, from);
    if (code == SQLITE_OK)
      contents_.rename(from, to);
    if (code != SQLITE_OK && code != kDropped)
      return problemOf(code);
    return std::nullopt;
  }
  std::vector<std::string> names(const std::string& folder) override {
    std::vector<std::string> found;
    for (const auto& [path, file] : contents_.names()) {
      if (path.starts_with(folder + "/"))
        found.push_back(path.substr(folder.size() + 1));
    }
    return found;
  }
  host::StoreOutcome remove(const std::string& path) override {
    const int code = removeFile(&vfs_, path.c_str(), 0);
    if (code != SQLITE_OK && code != SQLITE_IOERR_DELETE_NOENT)
      return problemOf(code);
    return std::nullopt;
  }
  host::StoreOutcome write(const std::string& path, const std::string& bytes) override {
    OpenFile open;
    open.path = path;
    int code = create(path, open.file);
    if (code == SQLITE_OK)
      code = change(open, {.offset = 0, .bytes = bytes});
    if (code == SQLITE_OK)
      code = syncFile(open);
    if (code != SQLITE_OK)
      return problemOf(code);
    return std::nullopt;
  }
  host::StoreOutcome read(const std::string& path, std::string& out) override {
    const std::shared_ptr<DiskFile> file = contents_.find(path);
    const int code = file ? ask(DiskCall::Kind::kRead, path) : SQLITE_CANTOPEN;
    if (code != SQLITE_OK)
      return problemOf(code);
    out = file->now();
    return std::nullopt;
  }
  host::StoreOutcome readIfThere(const std::string& path, size_t limit, std::optional<std::string>& out) override {
    out.reset();
    const std::shared_ptr<DiskFile> file = contents_.find(path);
    if (!file)
      return std::nullopt;
    if (const int code = ask(DiskCall::Kind::kRead, path, 0, static_cast<int64_t>(limit)); code != SQLITE_OK)
      return problemOf(code);
    out = file->now().substr(0, limit);
    return std::nullopt;
  }
  host::StoreOutcome put(const std::string& path, size_t offset, const std::string& bytes) override {
    OpenFile open;
    open.path = path;
    int code = create(path, open.file);
    if (code == SQLITE_OK)
      code = change(open, {.offset = static_cast<int64_t>(offset), .bytes = bytes});
    if (code != SQLITE_OK)
      return problemOf(code);
    return std::nullopt;
  }
  host::StoreOutcome syncFile(const std::string& path) override {
    OpenFile open;
    open.path = path;
    open.file = contents_.find(path);
    const int code = open.file ? syncFile(open) : SQLITE_CANTOPEN;
    if (code != SQLITE_OK)
      return problemOf(code);
    return std::nullopt;
  }
  host::StoreOutcome syncFolder(const std::string& folder) override {
    if (const int code = syncNames(folder); code != SQLITE_OK)
      return problemOf(code);
    return std::nullopt;
  }
  host::LockResult lock(const std::string&, std::unique_ptr<host::FileLock>& out, host::StoreProblem&) override {
    if (*locked_)
      return host::LockResult::kHeldByAnother;
    out = std::make_unique<LockOfDisk>(locked_);
    return host::LockResult::kTaken;
  }

  /// Counts a call and asks the decider; cuts the disk off before the change at which a cut is planned.
  int ask(DiskCall::Kind kind, std::string_view path, int64_t offset = 0, int64_t size = 0);
  int askToWrite(const OpenFile& open, const DiskChange& change);
  void cut();
  /// The existing file, or a new one.
  int create(const std::string& path, std::shared_ptr<DiskFile>& out);
  int open(const char* name, FileHandle& handle, int flags);
  int syncNames(const std::string& path);
  int change(OpenFile& open, DiskChange change);
  int syncFile(OpenFile& open);

  static Parts& self(sqlite3_vfs* vfs) { return *static_cast<Parts*>(vfs->pAppData); }
  static Parts& self(sqlite3_file* file) { return *reinterpret_cast<FileHandle*>(file)->disk; }
  static int openFile(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* out_flags);
  static int removeFile(sqlite3_vfs* vfs, const char* name, int sync_folder);
  static int access(sqlite3_vfs* vfs, const char* name, int flags, int* out);
  static int fillRandom(sqlite3_vfs* vfs, int size, char* out);
  static int read(sqlite3_file* file, void* bytes, int size, sqlite3_int64 offset);
  static int write(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset);
  static int truncate(sqlite3_file* file, sqlite3_int64 size);
  static int sync(sqlite3_file* file, int flags);
  static const sqlite3_io_methods kMethods;

  std::string name_;
  sqlite3_vfs vfs_{};
  DiskContents contents_;
  std::map<const DiskFile*, std::weak_ptr<FileInUse>> in_use_;
  std::optional<Left> left_;
  uint64_t changes_ = 0;
  uint64_t cut_at_ = 0;  ///< 0: never
  std::array<uint64_t, DiskCall::kKinds> counts_{};
  Decider decider_;
  std::shared_ptr<bool> locked_ = std::make_shared<bool>(false);
  Dice random_{1};
};

const sqlite3_io_methods SimulatedDisk::Parts::kMethods = {
    2,
    close,
    &Parts::read,
    &Parts::write,
    &Parts::truncate,
    &Parts::sync,
    sizeOf,
    simulation::lock,
    unlock,
    checkReservedLock,
    [](sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; },
    [](sqlite3_file*) { return kPageSizedSector; },
    [](sqlite3_file*) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; },
    mapIndex,
    lockIndex,
    [](sqlite3_file*) {},
    unmapIndex,
    nullptr,
    nullptr,
};

SimulatedDisk::Parts::Parts() {
  static std::atomic<int> made{0};
  name_ = "simulated-disk-" + std::to_string(++made);
  vfs_.iVersion = 2;
  vfs_.szOsFile = static_cast<int>(sizeof(FileHandle));
  vfs_.mxPathname = kLongestPath;
  vfs_.zName = name_.c_str();
  vfs_.pAppData = this;
  vfs_.xOpen = &Parts::openFile;
  vfs_.xDelete = &Parts::removeFile;
  vfs_.xAccess = &Parts::access;
  vfs_.xFullPathname = [](sqlite3_vfs*, const char* name, int size, char* out) {
    sqlite3_snprintf(size, out, "%s", name);
    return SQLITE_OK;
  };
  vfs_.xRandomness = &Parts::fillRandom;
  vfs_.xSleep = [](sqlite3_vfs*, int microseconds) { return microseconds; };  // there is nobody to wait for
  vfs_.xGetLastError = [](sqlite3_vfs*, int, char*) { return 0; };
  vfs_.xCurrentTimeInt64 = [](sqlite3_vfs*, sqlite3_int64* out) {
    *out = kSomeTime;
    return SQLITE_OK;
  };
  sqlite3_vfs_register(&vfs_, 0);
}

// ------------------------------------------------------------------------------------------------------------ changes

int SimulatedDisk::Parts::ask(DiskCall::Kind kind, std::string_view path, int64_t offset, int64_t size) {
  if (left_)
    return SQLITE_OK;
  if (kind != DiskCall::Kind::kRead) {
    if (changes_ + 1 == cut_at_) {
      cut_at_ = 0;
      cut();
      return SQLITE_OK;
    }
    ++changes_;
  }
  ++counts_[static_cast<size_t>(kind)];
  return decider_ ? decider_({kind, path, offset, size, changes_}) : SQLITE_OK;
}

int SimulatedDisk::Parts::askToWrite(const OpenFile& open, const DiskChange& change) {
  const bool was_cut = left_.has_value();
  const int code = ask(DiskCall::Kind::kWrite, open.path, change.offset, static_cast<int64_t>(change.bytes.size()));
  if (left_ && !was_cut) {
    left_->torn_path = open.path;
    left_->torn = change;
    left_->is_torn = true;
  }
  return code;
}

void SimulatedDisk::Parts::cut() {
  if (!left_)
    left_ = Left{contents_.copy(), {}, {}, false};
}

int SimulatedDisk::Parts::create(const std::string& path, std::shared_ptr<DiskFile>& out) {
  out = contents_.find(path);
  if (out)
    return SQLITE_OK;
  const int code = ask(DiskCall::Kind::kCreate, path);
  if (code == SQLITE_OK)
    out = contents_.create(path);
  return code == kDropped ? SQLITE_CANTOPEN : code;
}

int SimulatedDisk::Parts::change(OpenFile& open, DiskChange change) {
  int code = SQLITE_OK;
  if (change.truncates && !open.is_temporary)
    code = ask(DiskCall::Kind::kTruncate, open.path, change.offset);
  else if (!open.is_temporary)
    code = askToWrite(open, change);
  if (code == SQLITE_OK)
    open.file->change(std::move(change));
  return code == kDropped ? SQLITE_OK : code;
}

int SimulatedDisk::Parts::syncNames(const std::string& path) {
  const int code = ask(DiskCall::Kind::kSyncFolder, path);
  if (code == SQLITE_OK)
    contents_.syncNames();
  return code == kDropped ? SQLITE_OK : code;
}

int SimulatedDisk::Parts::openFile(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* out_flags) {
  file->pMethods = nullptr;
  const int code = self(vfs).open(name, *reinterpret_cast<FileHandle*>(file), flags);
  if (code == SQLITE_OK) {
    file->pMethods = &kMethods;
    if (out_flags != nullptr)
      *out_flags = flags;
  }
  return code;
}

int SimulatedDisk::Parts::open(const char* name, FileHandle& handle, int flags) {
  auto made = std::make_unique<OpenFile>();
  made->is_temporary = name == nullptr;
  made->path = name == nullptr ? "" : name;
  if (made->is_temporary) {
    made->file = std::make_shared<DiskFile>();
  } else if ((flags & SQLITE_OPEN_CREATE) != 0) {
    const bool is_new = !exists(made->path);
    if (const int code = create(made->path, made->file); code != SQLITE_OK)
      return code;
    made->syncs_folder = is_new && (flags & (SQLITE_OPEN_WAL | SQLITE_OPEN_MAIN_JOURNAL)) != 0;
  } else {
    made->file = contents_.find(made->path);
    if (!made->file)
      return SQLITE_CANTOPEN;
  }
  std::weak_ptr<FileInUse>& in_use = in_use_[made->file.get()];
  made->in_use = in_use.lock();
  if (!made->in_use)
    in_use = made->in_use = std::make_shared<FileInUse>();
  made->in_use->open.push_back(made.get());
  handle.disk = this;
  handle.open = made.release();
  return SQLITE_OK;
}

int SimulatedDisk::Parts::removeFile(sqlite3_vfs* vfs, const char* name, int sync_folder) {
  Parts& disk = self(vfs);
  if (!disk.exists(name))
    return SQLITE_IOERR_DELETE_NOENT;
  const int code = disk.ask(DiskCall::Kind::kRemove, name);
  if (code == SQLITE_OK)
    disk.contents_.remove(name);
  if (code != SQLITE_OK && code != kDropped)
    return code;
  return sync_folder != 0 ? disk.syncNames(name) : SQLITE_OK;
}

int SimulatedDisk::Parts::access(sqlite3_vfs* vfs, const char* name, int flags, int* out) {
  const std::shared_ptr<DiskFile> found = self(vfs).contents_.find(name);
  // An empty file counts as missing, as in SQLite's own file systems.
  *out = found && (flags != SQLITE_ACCESS_EXISTS || !found->now().empty()) ? 1 : 0;
  return SQLITE_OK;
}

int SimulatedDisk::Parts::fillRandom(sqlite3_vfs* vfs, int size, char* out) {
  for (int i = 0; i < size; ++i)
    out[i] = static_cast<char>(self(vfs).random_.below(256));
  return size;
}

int SimulatedDisk::Parts::read(sqlite3_file* file, void* bytes, int size, sqlite3_int64 offset) {
  const OpenFile& open = openOf(file);
  if (!open.is_temporary) {
    if (const int code = self(file).ask(DiskCall::Kind::kRead, open.path, offset, size); code != SQLITE_OK)
      return code;
  }
  auto* const out = static_cast<char*>(bytes);
  const std::string& content = open.file->now();
  const size_t begin = std::min(static_cast<size_t>(offset), content.size());
  const size_t there = content.copy(out, static_cast<size_t>(size), begin);
  std::fill(out + there, out + size, '\0');
  return there == static_cast<size_t>(size) ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

int SimulatedDisk::Parts::write(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset) {
  std::string written(static_cast<const char*>(bytes), static_cast<size_t>(size));
  return self(file).change(openOf(file), {.offset = offset, .bytes = std::move(written)});
}

int SimulatedDisk::Parts::truncate(sqlite3_file* file, sqlite3_int64 size) {
  return self(file).change(openOf(file), {.offset = size, .bytes = {}, .truncates = true});
}

int SimulatedDisk::Parts::sync(sqlite3_file* file, int) {
  OpenFile& open = openOf(file);
  if (open.is_temporary)
    return SQLITE_OK;
  return self(file).syncFile(open);
}

int SimulatedDisk::Parts::syncFile(OpenFile& open) {
  // What is written during a sync is not synced with it.
  const size_t changes = open.file->unsynced();
  const int code = ask(DiskCall::Kind::kSync, open.path);
  if (code == SQLITE_OK)
    open.file->sync(changes);
  if (code != SQLITE_OK && code != kDropped)
    return code;
  return std::exchange(open.syncs_folder, false) ? syncNames(open.path) : SQLITE_OK;
}

// ------------------------------------------------------------------------------------------------------- SimulatedDisk

SimulatedDisk::SimulatedDisk() : parts_(std::make_unique<Parts>()) {}
SimulatedDisk::~SimulatedDisk() = default;

host::StorePlace SimulatedDisk::place() {
  return {.folder = kFolder, .vfs = parts_->name_, .files = parts_.get()};
}

uint64_t SimulatedDisk::changes() const {
  return parts_->changes_;
}

uint64_t SimulatedDisk::count(DiskCall::Kind kind) const {
  return parts_->counts_[static_cast<size_t>(kind)];
}

void SimulatedDisk::cutAt(uint64_t number) {
  parts_->cut_at_ = number;
}

void SimulatedDisk::cutNow() {
  parts_->cut();
}

bool SimulatedDisk::isCut() const {
  return parts_->left_.has_value();
}

void SimulatedDisk::restart(const DiskCut& cut) {
  if (!parts_->left_)
    return;
  const Parts::Left left = *std::exchange(parts_->left_, std::nullopt);
  parts_->in_use_.clear();
  parts_->locked_ = std::make_shared<bool>(false);
  parts_->contents_ = cut.power_lost ? left.contents.afterPowerLoss(cut.loss, left.torn_path,
                                                                    left.is_torn ? &left.torn : nullptr, cut.seed)
                                     : left.contents.copy();
}

void SimulatedDisk::decide(Decider decider) {
  parts_->decider_ = std::move(decider);
}

std::vector<std::string> SimulatedDisk::paths() const {
  std::vector<std::string> all;
  for (const auto& [path, file] : parts_->contents_.names())
    all.push_back(path);
  return all;
}

std::string SimulatedDisk::bytesOf(const std::string& path) const {
  const std::shared_ptr<DiskFile> found = parts_->contents_.find(path);
  return found ? found->now() : std::string();
}

void SimulatedDisk::put(const std::string& path, std::string bytes) {
  parts_->contents_.put(path, std::move(bytes));
}

void SimulatedDisk::remove(const std::string& path) {
  parts_->contents_.remove(path);
}

}  // namespace morvik::simulation
