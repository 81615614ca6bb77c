// Where the program lives.
#pragma once

#include <cstdio>
#include <istream>
#include <ostream>

namespace morvik_device {

struct Surroundings {
  std::istream& input;
  std::FILE* output;     ///< standard output; the help and JSON lines
  std::ostream& errors;  ///< one line about what is wrong, and progress where somebody watches
  bool output_is_terminal = false;
  bool errors_are_terminal = false;
  bool input_is_terminal = false;
};

/// The exit status of a program whose output nobody took; says so first, and how to mend it.
int tellUnwritable(const Surroundings& surroundings);

/// Whether text on standard output is coloured: on a terminal, unless NO_COLOR is set and not empty.
bool wantsColours(const Surroundings& surroundings);

}  // namespace morvik_device
