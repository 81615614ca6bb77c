// Unwinds a recorded stack with the modules' unwind tables; also works for code without frame pointers.
#pragma once

#include <cstdint>
#include <vector>

#include "host/linux/crash/crash_record.h"

namespace morvik::host {

/// The frames of the record's stack, innermost first, at most kMaxCrashFrames; as far as the tables and the kept part
/// of the stack reach, then those that the handler found. Blocks for reading files.
std::vector<uint64_t> unwoundFrames(const std::vector<LoadedModule>& modules, const SignalRecord& record);

}  // namespace morvik::host
