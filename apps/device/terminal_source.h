// Verbs typed on a terminal, with a prompt and help. A mistake is only reported.
#pragma once

#include <istream>
#include <ostream>

#include "apps/device/line_source.h"

namespace morvik_device {

inline constexpr const char* kPrompt = "morvik> ";

/// Reads a command from the stream on each call. Answers `help` and `help VERB` in `people`, reports mistakes there,
/// and reads the next line. With `prompts`, it prints a prompt before each line. The streams outlive the source.
CommandSource commandsTyped(std::istream& stream, std::ostream& people, bool prompts);

}  // namespace morvik_device
