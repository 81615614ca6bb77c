#include "host/linux/device_numbers.h"

#include <sys/statvfs.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <limits>

namespace morvik::host {

std::optional<int64_t> freeDiskBytes(const std::string& path) {
  struct statvfs facts {};
  if (statvfs(path.c_str(), &facts) != 0)
    return std::nullopt;
  uint64_t bytes = 0;
  constexpr auto kMost = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  if (__builtin_mul_overflow(uint64_t{facts.f_bavail}, uint64_t{facts.f_frsize}, &bytes))
    bytes = kMost;
  return static_cast<int64_t>(std::min(bytes, kMost));
}

uint32_t freeMemoryKibibytes() {
  struct sysinfo facts {};
  if (sysinfo(&facts) != 0)
    return 0;
  constexpr uint64_t kBytesPerKibibyte = 1024;
  uint64_t bytes = 0;
  if (__builtin_mul_overflow(uint64_t{facts.freeram}, uint64_t{facts.mem_unit}, &bytes))
    bytes = std::numeric_limits<uint64_t>::max();
  return static_cast<uint32_t>(std::min<uint64_t>(bytes / kBytesPerKibibyte, std::numeric_limits<uint32_t>::max()));
}

}  // namespace morvik::host
