// Writing to a descriptor, all of it.
#pragma once

#include <string_view>

namespace morvik::host {

/// Writes until the system has taken all of `bytes`; false when it takes no more, and errno says why. Any thread;
/// blocks as write() does; allocates nothing.
bool writeAll(int descriptor, std::string_view bytes);

}  // namespace morvik::host
