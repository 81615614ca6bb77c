#include "host/privacy/wish_file.h"

#include <optional>
#include <utility>

#include "host/privacy/wish_sectors.h"

namespace morvik::host {
namespace {

std::optional<kit::Error> asError(const StoreOutcome& failed) {
  return failed ? std::optional(kit::Error{failed->message}) : std::nullopt;
}

}  // namespace

WishFile::WishFile(const StorePlace& place)
    : files_(*place.files), folder_(place.folder), path_(pathBeside(place)), new_path_(newPathBeside(place)) {}

MachineWishFile::Reading WishFile::read() {
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

// A write that fails may have left half a sector: the next one goes to the same place, and the other sector stays good.
std::optional<kit::Error> WishFile::write(bool is_forgotten) {
  if (sequence_ != 0) {
    const WishSector sector{sequence_ + 1, is_forgotten};
    if (StoreOutcome failed = files_.put(path_, sector.offset(), wishSectorBytes(sector)))
      return asError(failed);
    sequence_ = sector.sequence;
    return std::nullopt;
  }
  is_name_synced_ = false;
  if (StoreOutcome failed = files_.put(path_, 0, wishFileBytes(is_forgotten)))
    return asError(failed);
  sequence_ = kFirstWishSequence;
  return std::nullopt;
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
