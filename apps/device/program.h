// The program: options, then verbs one after the other until the input ends.
#pragma once

#include <cstdio>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace morvik_device {

/// Where the program lives.
struct Surroundings {
  std::istream& input;
  std::FILE* output;     ///< standard output; the help and JSON lines
  std::ostream& errors;  ///< one line about what is wrong
};

/// Runs the program and returns its exit status: 0 after `quit` or the end of the input, 1 when its output could not be
/// written, 2 for what the one who called it has to mend. Blocks until then.
int runProgram(std::vector<std::string> arguments, const Surroundings& surroundings);

}  // namespace morvik_device
