// Version of Morvik Core.
#pragma once

#include <string_view>

namespace morvik {

/// Version of the kit this header belongs to, as it is sent to the services and stands in the start-up log line.
inline constexpr std::string_view kVersion = "0.1.0";

}  // namespace morvik
