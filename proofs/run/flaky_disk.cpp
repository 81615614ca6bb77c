#include "proofs/run/flaky_disk.h"

#include <sqlite3.h>

#include <limits>
#include <utility>

#include "host/store/store_files.h"

namespace morvik::proofs {

const char* nameOf(FlakyDiskFault fault) {
  static constexpr std::array<const char*, kFlakyDiskFaults> kNames = {"disk full", "sync error", "read error at start",
                                                                       "store not writable"};
  return kNames[static_cast<size_t>(fault)];
}

FlakyDisk::FlakyDisk(std::function<double()> now, std::function<void(const simulation::DiskCall&)> changed)
    : now_(std::move(now)), changed_(std::move(changed)) {
  disk.decide([this](const simulation::DiskCall& call) { return decide(call); });
}

void FlakyDisk::fail(FlakyDiskFault fault, uint64_t calls, double until) {
  troubles_[static_cast<size_t>(fault)] = {calls, until};
}

void FlakyDisk::recover() {
  troubles_ = {};
  planned_.reset();
}

bool FlakyDisk::isFailing(FlakyDiskFault fault) const {
  const Trouble& trouble = troubles_[static_cast<size_t>(fault)];
  return trouble.calls > 0 || now_() < trouble.until;
}

bool FlakyDisk::fails(FlakyDiskFault fault) {
  Trouble& trouble = troubles_[static_cast<size_t>(fault)];
  const bool by_count = trouble.calls > 0;
  if (by_count)
    --trouble.calls;
  const uint64_t point = ++points_[static_cast<size_t>(fault)];
  const bool is_failing = by_count || now_() < trouble.until || isPlanned(fault, point);
  if (is_failing)
    ++failed_[static_cast<size_t>(fault)];
  return is_failing;
}

bool FlakyDisk::isPlanned(FlakyDiskFault fault, uint64_t point) const {
  return planned_ && planned_->fault == fault && point >= planned_->first && point - planned_->first < planned_->calls;
}

void FlakyDisk::excuse() {
  for (Unsynced& each : unsynced_)
    each.for_a_reason = each.since.has_value();
}

void FlakyDisk::powerWasLost() {
  unsynced_ = {};
}

void FlakyDisk::storeWasSynced() {
  for (const Held held : {Held::kLog, Held::kNames, Held::kFreshFile})
    markSynced(held);
  is_file_fresh_ = false;
}

std::optional<double> FlakyDisk::unsyncedForAReasonSince() const {
  std::optional<double> earliest;
  for (const Unsynced& each : unsynced_) {
    if (each.for_a_reason && each.since < earliest.value_or(std::numeric_limits<double>::infinity()))
      earliest = each.since;
  }
  return earliest;
}

void FlakyDisk::markChanged(Held held) {
  std::optional<double>& since = unsynced_[static_cast<size_t>(held)].since;
  since = since.value_or(now_());
}

void FlakyDisk::markSynced(Held held) {
  unsynced_[static_cast<size_t>(held)] = {};
}

bool FlakyDisk::changesTheStore(const simulation::DiskCall& call) {
  const std::string path = disk.place().path();
  const bool is_change = call.kind != simulation::DiskCall::Kind::kRead &&
                         call.kind != simulation::DiskCall::Kind::kSync &&
                         call.kind != simulation::DiskCall::Kind::kSyncFolder;
  return is_change && (call.path == path || call.path == path + "-wal");
}

int FlakyDisk::decide(const simulation::DiskCall& call) {
  const int fault = faultOf(call);
  return fault == SQLITE_OK && answer_ ? answer_(call) : fault;
}

int FlakyDisk::faultOf(const simulation::DiskCall& call) {
  if (changesTheStore(call) && fails(FlakyDiskFault::kUnwritable)) {
    excuse();  // a store that is given up for now is not synced either
    return SQLITE_READONLY;
  }
  if (call.kind != simulation::DiskCall::Kind::kRead && changed_)
    changed_(call);
  const bool is_log = call.path.ends_with("-wal");
  const bool is_wish = call.path.ends_with(".wish");
  const bool is_wish_made = call.path.ends_with(".wish.new");  // which nothing needs until it has its name
  switch (call.kind) {
    case simulation::DiskCall::Kind::kRead:
      // A wish that cannot be read counts as made, which would silence the whole run.
      return is_starting_ && !is_wish && fails(FlakyDiskFault::kReadErrorAtStart) ? SQLITE_IOERR_READ : SQLITE_OK;
    case simulation::DiskCall::Kind::kWrite:
    case simulation::DiskCall::Kind::kTruncate:
    case simulation::DiskCall::Kind::kCreate:
      // What is written over has its room already.
      if (!(is_wish && call.kind == simulation::DiskCall::Kind::kWrite) && fails(FlakyDiskFault::kFull))
        return SQLITE_FULL;
      if (call.kind == simulation::DiskCall::Kind::kCreate) {
        markChanged(Held::kNames);
        is_file_fresh_ = is_file_fresh_ || !(is_log || is_wish || is_wish_made);
      }
      if (is_wish)
        markChanged(Held::kWish);
      else if (is_log)
        markChanged(Held::kLog);
      else if (is_file_fresh_ && !is_wish_made)
        markChanged(Held::kFreshFile);
      return SQLITE_OK;
    case simulation::DiskCall::Kind::kRename:
    case simulation::DiskCall::Kind::kRemove:
      markChanged(Held::kNames);
      return SQLITE_OK;
    case simulation::DiskCall::Kind::kSync:
    case simulation::DiskCall::Kind::kSyncFolder:
      if (fails(FlakyDiskFault::kSyncError)) {
        excuse();
        return SQLITE_IOERR_FSYNC;
      }
      if (call.kind == simulation::DiskCall::Kind::kSyncFolder) {
        markSynced(Held::kNames);
      } else if (is_wish) {
        markSynced(Held::kWish);
      } else if (is_log) {
        markSynced(Held::kLog);
      } else if (!is_wish_made) {
        markSynced(Held::kFreshFile);
        is_file_fresh_ = false;
      }
      return SQLITE_OK;
    default:
      return SQLITE_OK;
  }
}

}  // namespace morvik::proofs
