// The call stack of a record by the unwind tables of the modules' files: those of code without frame pointers too.
#pragma once

#include <cstdint>
#include <vector>

#include "host/linux/crash/crash_record.h"

namespace morvik::host {

/// The frames of the record's stack, innermost first, at most kMaxCrashFrames; as far as the tables and the kept part
/// of the stack go, and from there on those that the handler found. Blocks for reading files.
std::vector<uint64_t> unwoundFrames(const std::vector<LoadedModule>& modules, const SignalRecord& record);

}  // namespace morvik::host
