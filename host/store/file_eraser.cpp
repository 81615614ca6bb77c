#include "host/store/file_eraser.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "host/linux/crash/crash_record.h"
#include "host/linux/crash/earlier_crash.h"
#include "host/linux/crash/stored_traces.h"
#include "host/posix/report_file.h"
#include "host/store/wish_file.h"
#include "kit/list_lock.h"
#include "services/MorvikGVUserDefaults.h"

namespace morvik::host {
namespace {

constexpr std::string_view kBegun = "begun";
constexpr std::string_view kDecided = "decided";
constexpr std::string_view kForgotten = " forgotten";
constexpr std::string_view kSynced = " synced";
/// All texts have this length, so that one replaces another completely, within one sector.
constexpr size_t kMarkerBytes = 64;

constexpr std::array<std::string_view, 4> kEndings{"", "-wal", "-shm", "-journal"};
constexpr std::string_view kSetAside = ".unreadable-";

bool isNumber(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// The store's own files, and those of a store that was set aside.
bool isOfTheStore(std::string_view name, std::string_view store) {
  if (!name.starts_with(store))
    return false;
  name.remove_prefix(store.size());
  for (const std::string_view ending : kEndings) {
    if (name == ending)
      return true;
    if (!name.starts_with(kSetAside) || !name.ends_with(ending))
      continue;
    const std::string_view number = name.substr(kSetAside.size());
    if (isNumber(number.substr(0, number.size() - ending.size())))
      return true;
  }
  return false;
}

std::string lastPart(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

FileEraser::FileEraser(FileEraserParts parts)
    : parts_(std::move(parts)), files_(*parts_.place.files), marker_path_(markerPath(parts_.place)) {}

std::vector<std::string> FileEraser::namesOfTheKit(const StorePlace& place, const std::vector<std::string>& names) {
  std::vector<std::string> kept_next_to_it{
      lastPart(WishFile::newPathFor(place)), lastPart(reportFilePath(place.folder)),
      lastPart(unreadableReportFilePath(place.folder)), lastPart(namingMarkerPath(place.folder))};
  for (const std::string& path : crashRecordPaths(crashRecordPath(place.folder)))
    kept_next_to_it.push_back(lastPart(path));
  std::vector<std::string> found;
  std::copy_if(names.begin(), names.end(), std::back_inserter(found), [&](const std::string& name) {
    return isOfTheStore(name, place.name) ||
           std::find(kept_next_to_it.begin(), kept_next_to_it.end(), name) != kept_next_to_it.end();
  });
  std::sort(found.begin(), found.end());
  return found;
}

// ----------------------------------------------------------------------------------------------------------- the steps

std::optional<kit::Error> FileEraser::begin(runtime::KeptWish wish) {
  // Somebody may have removed it.
  StoreOutcome failed = files_.makeFolder(parts_.place.folder);
  if (!failed)
    failed = write({false, wish});
  // On a full disk the file exists without its text: that is enough while the store is whole.
  if (failed && files_.exists(marker_path_))
    failed = files_.syncFolder(parts_.place.folder);
  if (failed) {
    // Nothing has been erased, and nothing will be.
    static_cast<void>(files_.remove(marker_path_));
    return kit::Error{"no note of it can be made in \"" + parts_.place.folder + "\" (" + failed->message +
                      "), and without one a death would leave half of it: the kit goes on; make sure that this user "
                      "may make files there and that the disk takes them, and erase again"};
  }
  return std::nullopt;
}

std::optional<kit::Error> FileEraser::finish(runtime::KeptWish wish) {
  StoreLock lock;
  StoreProblem problem;
  switch (lock.take(parts_.place, problem)) {
    case LockResult::kTaken:
      return finishLocked(wish, lock);
    case LockResult::kHeldByAnother:
    case LockResult::kHeldHere:
    case LockResult::kHeldBeforeTheFork:
      return error({StoreProblem::Kind::kUnavailable, "it is still in use"});
    case LockResult::kFailed:
      break;
  }
  return error(problem);
}

std::optional<kit::Error> FileEraser::resume() {
  if (!files_.exists(marker_path_))
    return std::nullopt;
  StoreLock lock;
  StoreProblem problem;
  const LockResult taken = lock.take(parts_.place, problem);
  if (taken == LockResult::kFailed)
    return error(problem);
  // Whoever holds the lock is erasing too, or keeps this start from opening the store.
  if (taken != LockResult::kTaken || !files_.exists(marker_path_))
    return std::nullopt;
  const Marker marker = read();
  lock.release();
  return finish(marker.is_decided ? marker.wish : storedWish().value_or(marker.wish));
}

bool FileEraser::isDue() const {
  return files_.exists(marker_path_);
}

std::optional<kit::Error> FileEraser::finishLocked(runtime::KeptWish wish, StoreLock& lock) {
  StoreOutcome failed = write({true, wish});
  if (!failed)
    failed = removeFiles();
  if (!failed) {
    lock.release();
    failed = keep(wish);
  }
  if (!failed)
    failed = files_.remove(marker_path_);
  if (!failed)
    failed = files_.syncFolder(parts_.place.folder);
  if (failed)
    return error(*failed);
  return std::nullopt;
}

/// Removes all it can; reports the first problem.
StoreOutcome FileEraser::removeFiles() {
  StoreOutcome first;
  for (const std::string& name : namesOfTheKit(parts_.place, files_.names(parts_.place.folder))) {
    StoreOutcome failed = files_.remove(parts_.place.folder + "/" + name);
    if (failed && !first)
      first = StoreProblem{failed->kind, name + ": " + failed->message};
  }
  if (parts_.remove_more)
    parts_.remove_more();
  if (!first)
    first = files_.syncFolder(parts_.place.folder);
  return first;
}

/// Without a wish the next start begins with no store at all.
StoreOutcome FileEraser::keep(runtime::KeptWish wish) {
  if (!wish.is_forgotten && !wish.is_synced)
    return std::nullopt;
  const std::unique_ptr<runtime::MachineStore> store = parts_.open_store();
  kit::ListLock list_lock;
  const services::MorvikGVUserDefaults fresh(*store, list_lock);
  fresh.setMorvikCoreUserInfo_isGDPRForgetMe(wish.is_forgotten);
  fresh.setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(wish.is_synced);
  const bool is_kept = store->opening() == runtime::StoreOpening::kCreated && fresh.synchronize();
  store->shutdown();
  if (!is_kept)
    return StoreProblem{StoreProblem::Kind::kUnavailable, "the wish to be forgotten cannot be stored again"};
  return std::nullopt;
}

/// Nothing if the store cannot be read.
std::optional<runtime::KeptWish> FileEraser::storedWish() {
  const std::unique_ptr<runtime::MachineStore> store = parts_.open_store();
  kit::ListLock list_lock;
  const services::MorvikGVUserDefaults stored(*store, list_lock);
  const runtime::KeptWish wish{stored.MorvikCoreUserInfo_isGDPRForgetMe(),
                               stored.MorvikCoreUserInfo_isGDPRForgetMeServerSynced()};
  const bool is_read = store->opening() == runtime::StoreOpening::kOpened;
  store->shutdown();
  return is_read ? std::optional(wish) : std::nullopt;
}

// ---------------------------------------------------------------------------------------------------------- the marker

StoreOutcome FileEraser::write(const Marker& marker) {
  std::string text(marker.is_decided ? kDecided : kBegun);
  if (marker.wish.is_forgotten)
    text += kForgotten;
  if (marker.wish.is_synced)
    text += kSynced;
  text.resize(kMarkerBytes - 1, ' ');
  text += '\n';
  if (StoreOutcome failed = files_.write(marker_path_, text))
    return failed;
  return files_.syncFolder(parts_.place.folder);
}

/// An empty marker was cut off while it was being created.
FileEraser::Marker FileEraser::read() {
  std::string text;
  if (files_.read(marker_path_, text))
    return {};
  return {.is_decided = text.starts_with(kDecided),
          .wish = {.is_forgotten = text.find(kForgotten) != std::string::npos,
                   .is_synced = text.find(kSynced) != std::string::npos}};
}

kit::Error FileEraser::error(const StoreProblem& problem) const {
  return {"what is kept in \"" + parts_.place.folder + "\" cannot be erased (" + problem.message +
          "): make sure that this user may write there and that nobody else uses it, and start again"};
}

}  // namespace morvik::host
