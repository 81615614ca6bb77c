#include "apps/service/store/store_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "apps/service/base/files.h"
#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr std::string_view kDatabase = "service.sqlite3";
constexpr std::string_view kLock = "service.lock";
// The database creates the last two itself, with the mode of its own file.
constexpr std::array<std::string_view, 4> kStoreFiles = {kDatabase, kLock, "service.sqlite3-wal",
                                                         "service.sqlite3-shm"};

// Keeps the mode of a folder that holds other things too, such as a home or a system folder.
bool holdsNothingElse(const std::string& folder) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (std::find(kStoreFiles.begin(), kStoreFiles.end(), entry->path().filename().string()) == kStoreFiles.end())
      return false;
  }
  return !error;
}

// Only the owner can change modes.
void closeToOthers(const std::string& folder) {
  if (holdsNothingElse(folder))
    ::chmod(folder.c_str(), kPrivateFolderMode);
  for (const std::string_view name : kStoreFiles)
    ::chmod((folder + "/" + std::string(name)).c_str(), kPrivateMode);
}

int openPrivate(const std::string& file) {
  const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kPrivateMode);
  if (descriptor < 0)
    throw SetupError("cannot open the store's file " + file + ": " + std::system_category().message(errno));
  return descriptor;
}

}  // namespace

StoreFolder::StoreFolder(std::string path) : path_(std::move(path)) {
  makePrivateFolder(path_);
  lock();
  ::close(openPrivate(databaseFile()));
  closeToOthers(path_);
}

StoreFolder::~StoreFolder() {
  ::close(lock_file_);
}

std::string StoreFolder::databaseFile() const {
  return path_ + "/" + std::string(kDatabase);
}

std::string StoreFolder::inUseText() const {
  return "the store in " + path_ + " is in use by another service; stop that one or choose another folder with --store";
}

// Locks the open file, so that a second store of the same process is refused too.
void StoreFolder::lock() {
  lock_file_ = openPrivate(path_ + "/" + std::string(kLock));
  if (::flock(lock_file_, LOCK_EX | LOCK_NB) == 0)
    return;
  ::close(lock_file_);
  throw SetupError(inUseText());
}

}  // namespace morvik_service
