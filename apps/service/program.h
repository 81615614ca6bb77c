// The program: picks the subcommand and runs it.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace morvik_service {

/// Streams and the request to stop, so that tests can run the whole program.
struct Surroundings {
  std::ostream& output;                 ///< one line of JSON when the service listens
  std::ostream& errors;                 ///< request lines and errors
  std::function<void()> wait_for_stop;  ///< returns when the service should end
};

/// Runs the subcommand and returns its exit status. `serve`, the default, runs until `wait_for_stop` returns, and ends
/// with 2 and one line in `errors` when it could not start.
int runProgram(std::vector<std::string> arguments, const Surroundings& surroundings);

}  // namespace morvik_service
