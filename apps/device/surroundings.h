// The streams of the program.
#pragma once

#include <cstdio>
#include <istream>
#include <ostream>
#include <string_view>

namespace morvik_device {

struct Surroundings {
  std::istream& input;
  std::FILE* output;     ///< standard output
  std::ostream& errors;  ///< mistakes, and progress on a terminal
  bool output_is_terminal = false;
  bool errors_are_terminal = false;
  bool input_is_terminal = false;
};

/// Writes the text to standard output. False if it could not be written.
[[nodiscard]] bool print(std::string_view text, const Surroundings& surroundings);

/// Reports that standard output cannot be written, and returns the exit status for that.
int tellUnwritable(const Surroundings& surroundings);

/// Whether text on standard output is coloured: on a terminal, unless NO_COLOR is set and not empty.
bool wantsColours(const Surroundings& surroundings);

}  // namespace morvik_device
