// What the machine says of its disk and memory.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace morvik::host {

/// Bytes that an app may still write to the file system of `path`; nothing when the system does not tell. Any thread;
/// asks the kernel.
std::optional<int64_t> freeDiskBytes(const std::string& path);

/// Memory that nothing uses, in kibibytes; past 32 bits the largest number that they hold, 0 when the system does not
/// tell. Any thread; asks the kernel.
uint32_t freeMemoryKibibytes();

}  // namespace morvik::host
