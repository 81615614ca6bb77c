#include "services/memory_text.h"

namespace morvik::services {

std::string memoryText(uint32_t kibibytes) {
  constexpr uint64_t kKibibytesPerMegabyte = 1024;
  const uint64_t tenths = (uint64_t{kibibytes} * 10 + kKibibytesPerMegabyte / 2) / kKibibytesPerMegabyte;
  return std::to_string(tenths / 10) + '.' + std::to_string(tenths % 10) + " MB";
}

}  // namespace morvik::services
