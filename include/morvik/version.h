// Version of Morvik Core.
#pragma once

#include <string_view>

namespace morvik {

/// Version of the kit that this header belongs to, as sent to the services and logged at start-up.
inline constexpr std::string_view kVersion = "0.1.0";

}  // namespace morvik
