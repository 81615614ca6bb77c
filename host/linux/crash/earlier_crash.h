// Turns the record of a fatal signal that ended an earlier process into a report.
#pragma once

#include <string>
#include <vector>

#include "kit/json_codec.h"
#include "runtime/crash/crash_reporting.h"
#include "services/log.h"

namespace morvik::host {

/// Where a crash record waits for the next start. Only the latest one is kept.
std::string waitingRecordPath(const std::string& record_path);
/// Where a record is while it is read and its stack is named.
std::string triedRecordPath(const std::string& record_path);
/// Where a file goes that is not a valid record, or that crashed a start. Only the latest one is kept.
std::string unreadableRecordPath(const std::string& record_path);

/// Every path at which a record may be, including the first.
std::vector<std::string> crashRecordPaths(const std::string& record_path);

/// Passes the crash of the waiting record, and that of the record at `record_path`, to `take`. A record is removed once
/// its crash is taken. One that cannot be taken or read is renamed, with a line at warning level, so that `record_path`
/// is free for this process. A record that crashed an earlier start is not tried again, but set aside with a log line.
/// Blocks for reading files.
void reportEarlierCrashes(const std::string& record_path, const kit::JsonCodec& json, const runtime::TakeCrash& take,
                          const services::Logger& logger);

}  // namespace morvik::host
