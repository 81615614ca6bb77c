// How the proofs print a figure.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace morvik::proofs {

/// Adds one line: what was counted, and in a column of its own how many.
void addFigureLine(std::string& text, std::string_view what, uint64_t number);

}  // namespace morvik::proofs
