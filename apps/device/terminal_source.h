// Verbs as somebody types them: with a prompt and help, and a mistake is told and forgiven.
#pragma once

#include <istream>
#include <ostream>

#include "apps/device/line_source.h"

namespace morvik_device {

inline constexpr const char* kPrompt = "morvik> ";

/// Reads a command from the stream whenever asked. `help` and `help VERB` are answered in `people`, where mistakes are
/// told as well; then the next line is read. With `prompts`, each line is asked for. Streams outlive the source.
CommandSource commandsTyped(std::istream& stream, std::ostream& people, bool prompts);

}  // namespace morvik_device
