// The program from command line to exit status.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace morvik_service {

/// Streams and the request to stop, passed in so that the whole program runs in a test too.
struct Surroundings {
  std::ostream& output;                 ///< one line of JSON once the service listens
  std::ostream& errors;                 ///< request lines and errors
  std::function<void()> wait_for_stop;  ///< returns when the service should end
};

/// Runs the service until `wait_for_stop` returns. The result is the exit status: 0, or 2 with one clear line in
/// `errors` if it could not start. With "expect" as the first argument, runs runExpect instead.
int runProgram(std::vector<std::string> arguments, const Surroundings& surroundings);

}  // namespace morvik_service
