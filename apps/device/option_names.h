// The host speaks of its own options; whoever reads it wrote those of this program.
#pragma once

#include <string>

namespace morvik_device {

/// The message with the host's name of an option at its start replaced by the program's.
std::string inTermsOfTheProgram(std::string message);

}  // namespace morvik_device
