// One line of the input.
#pragma once

#include <istream>
#include <string>

namespace morvik_device {

enum class InputLine { kRead, kTooLong, kEnd };

/// Reads a line without its line feed, and without a carriage return before it; waits for it if need be. Of a line
/// longer than kMaxLineBytes the rest stays unread.
InputLine readInputLine(std::istream& stream, std::string& line);

/// Reads the rest of a line and drops it.
void skipInputLine(std::istream& stream);

}  // namespace morvik_device
