#include "host/store/wish_file.h"

#include <memory>
#include <optional>
#include <utility>

#include "host/store/wish_sectors.h"

namespace morvik::host {
namespace {

std::optional<kit::Error> asError(const StoreOutcome& failed) {
  return failed ? std::optional(kit::Error{failed->message}) : std::nullopt;
}

}  // namespace

WishFile::WishFile(const StorePlace& place)
    : files_(*place.files), folder_(place.folder), path_(pathFor(place)), new_path_(newPathFor(place)) {}

runtime::MachineWishFile::Reading WishFile::read() {
  std::optional<std::string> bytes;
  StoreOutcome failed;
  for (int attempt = 0; attempt < kWishReadAttempts; ++attempt) {
    failed = files_.readIfThere(path_, kWishFileBytes, bytes);
    if (!failed)
      break;
  }
  if (failed)
    return {State::kNotRead, true, failed->message};
  if (!bytes)
    return {State::kMissing, false, ""};
  const auto sector = newestWishSector(*bytes);
  if (!sector)
    return {State::kUnreadable, true, "neither of its two records is valid"};
  const bool is_whole = bytes->size() == kWishFileBytes;
  return {State::kRead, sector->is_forgotten, "", is_whole ? sector->sequence : 0};
}

runtime::MachineWishFile::Turn WishFile::takeTurn(std::chrono::milliseconds longest) {
  std::unique_ptr<FileLock> taken;
  const StoreOutcome held_up = files_.takeTurn(path_, longest, taken);
  return {.taken = std::move(taken), .held_up = asError(held_up)};
}

// Another process may write at the same time: a kit that runs without the lock of a newer version's store. So the file
// is read again once this process has its turn.
//
// A failed write may have left half a sector: the next one goes to the same place, and the other sector stays good.
std::optional<kit::Error> WishFile::write(bool is_forgotten, Word word, const Turn& turn) {
  const bool held_up = turn.held_up.has_value();
  if (held_up && !is_forgotten) {
    // What the file says by now was said earlier: a retry of this write supersedes it.
    const Reading now = word == Word::kNew ? read() : Reading();
    if (now.state == State::kRead)
      sequence_ = now.sequence;
    return turn.held_up;
  }
  if (held_up || turn.taken != nullptr) {
    const Reading now = read();
    const bool is_overtaken = now.state == State::kRead && now.sequence > sequence_ && now.is_forgotten;
    sequence_ = now.sequence;
    if (is_overtaken && !is_forgotten && word == Word::kAgain)
      return std::nullopt;
  }
  // A process that is stuck in its turn has the next number, and may still write it.
  const uint64_t steps = held_up ? 2 : 1;
  if (mayBeGoneOnWith(steps)) {
    const WishSector sector{sequence_ + steps, is_forgotten};
    if (StoreOutcome failed = files_.put(path_, sector.offset(), wishSectorBytes(sector)))
      return asError(failed);
    sequence_ = sector.sequence;
    return std::nullopt;
  }
  const StoreOutcome failed = files_.put(path_, 0, wishFileBytes(is_forgotten));
  is_name_synced_ = false;  // only now: a concurrent sync may have missed the name
  sequence_ = failed ? 0 : kFirstWishSequence;
  return asError(failed);
}

/// False for a file removed since, whose new name must reach the disk too, and after the last number.
bool WishFile::mayBeGoneOnWith(uint64_t steps) const {
  return sequence_ != 0 && sequence_ <= kLastWishSequence - steps && files_.exists(path_);
}

/// True if unknown.
bool WishFile::isThere() const {
  std::optional<FileIdentity> found;
  return files_.identify(path_, found).has_value() || found.has_value();
}

std::optional<kit::Error> WishFile::sync() {
  if (StoreOutcome failed = files_.syncFile(path_))
    return asError(failed);
  if (is_name_synced_.exchange(true))
    return std::nullopt;
  StoreOutcome failed = files_.syncFolder(folder_);
  if (failed)
    is_name_synced_ = false;
  return asError(failed);
}

std::optional<kit::Error> WishFile::prepare(bool is_forgotten) {
  return asError(files_.write(new_path_, wishFileBytes(is_forgotten)));
}

std::optional<kit::Error> WishFile::adopt() {
  if (StoreOutcome failed = files_.rename(new_path_, path_))
    return asError(failed);
  sequence_ = kFirstWishSequence;
  is_name_synced_ = false;
  return std::nullopt;
}

}  // namespace morvik::host
