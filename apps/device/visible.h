// Makes untrusted text safe for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace morvik_device {

/// One line: control characters and bytes that are not UTF-8 are written as \xNN, so that nothing in `text` can control
/// the terminal.
std::string visible(std::string_view text);

}  // namespace morvik_device
