// Free disk space and memory of the machine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace morvik::host {

/// Bytes an app may still write to the file system of `path`; nothing if unknown. Any thread; asks the kernel.
std::optional<int64_t> freeDiskBytes(const std::string& path);

/// Unused memory in kibibytes, at most the largest 32-bit number; 0 if unknown. Any thread; asks the kernel.
uint32_t freeMemoryKibibytes();

}  // namespace morvik::host
