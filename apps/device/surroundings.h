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
};

}  // namespace morvik_device
