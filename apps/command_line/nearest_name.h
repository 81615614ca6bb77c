// Finds the name that was probably meant by a mistyped one.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvik_command_line {

/// The name closest to `word`, or nothing when none is close: at most one edit for every three characters of the word,
/// and at least one. An edit adds, drops or replaces a character, or swaps two neighbours.
std::optional<std::string> nearestName(std::string_view word, const std::vector<std::string>& names);

}  // namespace morvik_command_line
