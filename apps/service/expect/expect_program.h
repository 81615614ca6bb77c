// `morvik-service expect` from command line to exit status.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace morvik_service {

inline constexpr int kExitMet = 0;
inline constexpr int kExitNotMet = 1;

/// `arguments` are those after "expect". Blocks while the expectation is pending. The result is the exit status: 0 met,
/// 1 not met, 2 the expectation could not be checked (options, expression, no service).
int runExpect(std::vector<std::string> arguments, std::ostream& output, std::ostream& errors);

}  // namespace morvik_service
