// Writes all bytes to a descriptor.
#pragma once

#include <string_view>

namespace morvik::host {

/// Writes until the system has taken all of `bytes`; false if it takes no more: errno says why. Any thread; blocks as
/// write() does; allocates nothing.
bool writeAll(int descriptor, std::string_view bytes);

}  // namespace morvik::host
