#include "simulation/wild_disk.h"

#include <sqlite3.h>

#include <utility>

namespace morvik::simulation {

const char* nameOf(WildDiskFault fault) {
  static constexpr std::array<const char*, kWildDiskFaults> kNames = {"disk full", "sync error", "read error at start"};
  return kNames[static_cast<size_t>(fault)];
}

WildDisk::WildDisk(std::function<double()> now, std::function<void(const DiskCall&)> changed)
    : now_(std::move(now)), changed_(std::move(changed)) {
  disk.decide([this](const DiskCall& call) { return decide(call); });
}

void WildDisk::fail(WildDiskFault fault, uint64_t calls, double until) {
  troubles_[static_cast<size_t>(fault)] = {calls, until};
}

void WildDisk::isWellAgain() {
  troubles_ = {};
}

bool WildDisk::fails(WildDiskFault fault) {
  Trouble& trouble = troubles_[static_cast<size_t>(fault)];
  const bool by_count = trouble.calls > 0;
  if (by_count)
    --trouble.calls;
  const bool is_failing = by_count || now_() < trouble.until;
  if (is_failing)
    ++failed_[static_cast<size_t>(fault)];
  return is_failing;
}

void WildDisk::excuse() {
  if (!excused_since_)
    excused_since_ = unsynced_since_;
}

int WildDisk::decide(const DiskCall& call) {
  if (call.kind != DiskCall::Kind::kRead && changed_)
    changed_(call);
  switch (call.kind) {
    case DiskCall::Kind::kRead:
      return is_starting_ && fails(WildDiskFault::kReadErrorAtStart) ? SQLITE_IOERR_READ : SQLITE_OK;
    case DiskCall::Kind::kWrite:
    case DiskCall::Kind::kTruncate:
    case DiskCall::Kind::kCreate:
      if (fails(WildDiskFault::kFull))
        return SQLITE_FULL;
      if (!unsynced_since_)
        unsynced_since_ = now_();
      return SQLITE_OK;
    case DiskCall::Kind::kSync:
    case DiskCall::Kind::kSyncFolder:
      if (fails(WildDiskFault::kSyncError)) {
        excuse();
        return SQLITE_IOERR_FSYNC;
      }
      if (call.path.ends_with("-wal"))
        unsynced_since_ = excused_since_ = std::nullopt;
      return SQLITE_OK;
    default:
      return SQLITE_OK;
  }
}

}  // namespace morvik::simulation
