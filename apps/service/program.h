// The program from command line to exit status.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace morvik_service {

/// Streams and the wish to stop, from outside, so that the whole program runs in a test as well.
struct Surroundings {
  std::ostream& output;                 ///< one line of JSON when the service listens
  std::ostream& errors;                 ///< request lines and complaints
  std::function<void()> wait_for_stop;  ///< returns when the service shall end
};

/// Runs the service until `wait_for_stop` returns. The result is the exit status: 0, or 2 with one clear line in
/// `errors` when it could not start. With "expect" as the first argument, runs runExpect in its place.
int runProgram(std::vector<std::string> arguments, const Surroundings& surroundings);

}  // namespace morvik_service
