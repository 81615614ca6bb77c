// One line of the input.
#pragma once

#include <istream>
#include <string>

namespace morvik_device {

enum class InputLine { kRead, kTooLong, kEnd };

/// Reads a line without its line feed, and without a carriage return before it; waits for it if necessary. The rest
/// of a line longer than kMaxLineBytes stays unread.
InputLine readInputLine(std::istream& stream, std::string& line);

/// Discards the rest of a line.
void skipInputLine(std::istream& stream);

}  // namespace morvik_device
