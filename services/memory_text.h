// Sizes of memory as text.
#pragma once

#include <cstdint>
#include <string>

namespace morvik::services {

/// A number of kibibytes in megabytes (of 1,024 kibibytes) with one decimal, rounded half up: "812.4 MB", "0.0 MB".
std::string memoryText(uint32_t kibibytes);

}  // namespace morvik::services
