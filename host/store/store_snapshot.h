// The state of a store at one moment, read by a process that does not own it and must not change it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "host/store/sqlite_connection.h"
#include "host/store/store_files.h"

namespace morvik::host {

/// A longer file or log is not read; some five million stored events.
inline constexpr uint64_t kMaxSnapshotBytes = uint64_t{1} << 30;
/// Attempts to read a store whose log is restarted meanwhile, which happens once in some thousand commits.
inline constexpr int kSnapshotAttempts = 10;

/// The whole database at its latest commit, as one file without a log. Opens file and log read-only, takes no lock and
/// creates no file, so it may be called while another process commits and writes back. Any thread; blocks for reading
/// both. Errors, for people: the system's message about the file, a file that is too long, a store that changes faster
/// than it can be read.
StoreOutcome readStoreSnapshot(const StorePlace& place, std::string& out);

/// Plays the commits of an SQLite log into the image of its file: whole ones in order, up to the first frame that does
/// not belong to the log. An invalid log changes nothing. Any bytes may be given. False, with an unusable image, if a
/// commit names more than kMaxSnapshotBytes.
[[nodiscard]] bool playLog(std::string_view log, std::string& image);

}  // namespace morvik::host
