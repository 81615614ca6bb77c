// A store as it is at one moment, read by somebody who is not its owner and must not touch it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "host/store/sqlite_connection.h"
#include "host/store/store_files.h"

namespace morvik::host {

/// A file or log longer than this is not read; some five million stored events.
inline constexpr uint64_t kMaxSnapshotBytes = uint64_t{1} << 30;
/// Readings of a store whose log is begun anew meanwhile. That happens once in some thousand commits.
inline constexpr int kSnapshotAttempts = 10;

/// The whole database at its latest commit, as one file that has no log. Opens file and log for reading alone, takes no
/// lock and makes no file, so that it may be called while another process commits and writes back. Any thread; blocks
/// for reading both. Errors, in words for people: what the system says about the file, a file that is too long, a store
/// that changes faster than it can be read.
StoreOutcome readStoreSnapshot(const StorePlace& place, std::string& out);

/// Plays the commits of an SQLite log into the image of the file that it belongs to: whole ones in their order, up to
/// the first frame that is not the log's. A log that is none changes nothing. Any bytes may be given; false, and the
/// image is of no use, when a commit names more than kMaxSnapshotBytes.
[[nodiscard]] bool playLog(std::string_view log, std::string& image);

}  // namespace morvik::host
