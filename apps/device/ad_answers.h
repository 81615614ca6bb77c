// The answers of the platform's advertising client, in the short forms of the command line.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "morvik/start_options.h"

namespace morvik_device {

/// How the details are written: "absent" (not offered), "none" (no details), "error", "error:JSON" (an error that comes
/// with details) or the details themselves, a JSON object. Returns what is wrong and how to fix it, or nothing.
std::optional<std::string> chooseSearchAds(std::string_view form, morvik::AdClient& client);

/// "none" (neither call is offered), "lookup:PURCHASE,IMPRESSION" (each an ISO 8601 date or "none"), "determine:yes" or
/// "determine:no". Returns what is wrong and how to fix it, or nothing.
std::optional<std::string> chooseIad(std::string_view form, morvik::AdClient& client);

}  // namespace morvik_device
