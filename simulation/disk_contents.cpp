#include "simulation/disk_contents.h"

#include <functional>
#include <utility>

namespace morvik::simulation {
namespace {

void write(std::string& content, int64_t offset, std::string_view bytes) {
  const auto begin = static_cast<size_t>(offset);
  if (content.size() < begin + bytes.size())
    content.resize(begin + bytes.size(), '\0');
  bytes.copy(content.data() + begin, bytes.size());
}

void makeIn(std::string& content, const DiskChange& change) {
  if (change.truncates)
    content.resize(static_cast<size_t>(change.offset), '\0');
  else
    write(content, change.offset, change.bytes);
}

/// Each sector of a write is there or not; likewise a truncation.
void makeSomeOf(std::string& content, const DiskChange& change, Dice& dice) {
  if (change.truncates) {
    if (dice.happens(0.5))
      makeIn(content, change);
    return;
  }
  int64_t offset = change.offset;
  std::string_view rest = change.bytes;
  while (!rest.empty()) {
    const std::string_view piece = rest.substr(0, static_cast<size_t>(kSectorBytes - offset % kSectorBytes));
    if (dice.happens(0.5))
      write(content, offset, piece);
    offset += static_cast<int64_t>(piece.size());
    rest.remove_prefix(piece.size());
  }
}

using MadeOf = std::function<DiskFile(const DiskFile&)>;

/// Names may share a file, before and after a rename; the names of the new folder share in the same way.
DiskContents::Names madeOf(const DiskContents::Names& names, const MadeOf& make,
                           std::map<const DiskFile*, std::shared_ptr<DiskFile>>& made) {
  DiskContents::Names all;
  for (const auto& [path, file] : names) {
    std::shared_ptr<DiskFile>& each = made[file.get()];
    if (!each)
      each = std::make_shared<DiskFile>(make(*file));
    all[path] = each;
  }
  return all;
}

}  // namespace

void DiskFile::change(DiskChange change) {
  makeIn(now_, change);
  unsynced_.push_back(std::move(change));
}

void DiskFile::sync(size_t changes) {
  const auto end = unsynced_.begin() + static_cast<std::ptrdiff_t>(changes);
  for (auto change = unsynced_.begin(); change != end; ++change)
    makeIn(synced_, *change);
  unsynced_.erase(unsynced_.begin(), end);
}

DiskFile DiskFile::afterPowerLoss(PowerLoss loss, const DiskChange* torn, Dice& dice) const {
  switch (loss) {
    case PowerLoss::kNothingUnsynced:
      return DiskFile(synced_);
    case PowerLoss::kTorn: {
      std::string left = now_;
      if (torn != nullptr)
        makeSomeOf(left, *torn, dice);
      return DiskFile(std::move(left));
    }
    case PowerLoss::kScattered:
      break;
  }
  std::string left = synced_;
  for (const DiskChange& change : unsynced_)
    makeSomeOf(left, change, dice);
  if (torn != nullptr)
    makeSomeOf(left, *torn, dice);
  return DiskFile(std::move(left));
}

std::shared_ptr<DiskFile> DiskContents::find(std::string_view path) const {
  const auto found = names_.find(path);
  return found == names_.end() ? nullptr : found->second;
}

std::shared_ptr<DiskFile> DiskContents::create(const std::string& path) {
  auto made = std::make_shared<DiskFile>();
  names_[path] = made;
  unsynced_names_.push_back(names_);
  return made;
}

void DiskContents::put(const std::string& path, std::string bytes) {
  names_[path] = std::make_shared<DiskFile>(std::move(bytes));
  syncNames();
}

void DiskContents::remove(const std::string& path) {
  names_.erase(path);
  unsynced_names_.push_back(names_);
}

void DiskContents::rename(const std::string& from, const std::string& to) {
  auto moved = names_.extract(from);
  if (moved.empty())
    return;
  names_[to] = std::move(moved.mapped());
  unsynced_names_.push_back(names_);
}

void DiskContents::syncNames() {
  synced_names_ = names_;
  unsynced_names_.clear();
}

DiskContents DiskContents::copy() const {
  std::map<const DiskFile*, std::shared_ptr<DiskFile>> made;
  const MadeOf same = [](const DiskFile& file) { return file; };
  DiskContents all;
  all.names_ = madeOf(names_, same, made);
  all.synced_names_ = madeOf(synced_names_, same, made);
  for (const Names& names : unsynced_names_)
    all.unsynced_names_.push_back(madeOf(names, same, made));
  return all;
}

DiskContents DiskContents::afterPowerLoss(PowerLoss loss, const std::string& torn_path, const DiskChange* torn,
                                          uint64_t seed) const {
  Dice dice(seed);
  const Names* names = &synced_names_;
  if (loss == PowerLoss::kTorn)
    names = &names_;
  else if (loss == PowerLoss::kScattered) {
    const uint64_t kept = dice.below(unsynced_names_.size() + 1);
    names = kept == 0 ? &synced_names_ : &unsynced_names_[kept - 1];
  }
  const DiskFile* const torn_file = find(torn_path).get();
  std::map<const DiskFile*, std::shared_ptr<DiskFile>> made;
  DiskContents left;
  left.names_ = madeOf(
      *names,
      [&](const DiskFile& file) { return file.afterPowerLoss(loss, &file == torn_file ? torn : nullptr, dice); }, made);
  left.syncNames();
  return left;
}

}  // namespace morvik::simulation
