// The fatal signal that ended an earlier process: its record becomes a report at this start.
#pragma once

#include <string>
#include <vector>

#include "kit/json_codec.h"
#include "runtime/crash/crash_reporting.h"
#include "services/log.h"

namespace morvik::host {

/// Where the record of such a crash waits for the next start. There is room for one, the latest.
std::string waitingRecordPath(const std::string& record_path);
/// Where a record lies while it is read and its stack is named.
std::string triedRecordPath(const std::string& record_path);
/// Where a file goes that cannot be read as a record, or of which a start died. The latest.
std::string unreadableRecordPath(const std::string& record_path);

/// Every place where a record may lie, the first included.
std::vector<std::string> crashRecordPaths(const std::string& record_path);

/// Hands the crash of the waiting record, and that of the record at `record_path`, to `take`. A record goes once its
/// crash is taken; what cannot be taken or read has another name afterwards, with a line at warning level, so that the
/// place is free for this process's own. A record of which an earlier start died is not tried again, but set aside with
/// a line. Blocks for reading files.
void reportEarlierCrashes(const std::string& record_path, const kit::JsonCodec& json, const runtime::TakeCrash& take,
                          const services::Logger& logger);

}  // namespace morvik::host
