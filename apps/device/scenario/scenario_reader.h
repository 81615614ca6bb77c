// A scenario from the text of its file. All of it is checked before anything is played.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "apps/device/scenario/scenario.h"

namespace morvik_device::scenario {

/// The scenario, or "FILE:LINE:COLUMN: what is wrong, and what was expected there". `file` is a name for messages;
/// nothing is opened. Accepts any bytes.
std::variant<Scenario, std::string> readScenario(std::string_view text, const std::string& file);

}  // namespace morvik_device::scenario
