// Whose function a mangled name is.
#pragma once

#include <string_view>

namespace morvik::host {

/// Whose function a frame is in. What no module holds, or has no name in one that is not the system's, is the app's.
enum class FrameOwner {
  kApp,
  kKit,
  kSystem,  ///< the system's libraries and the runtime library, also what of it is in the app's program
};

/// Not one of C's.
inline bool isMangled(std::string_view name) {
  return name.starts_with("_Z");
}

/// By what the function is a member of: one of the app's that only takes an argument of the kit's is the app's. A
/// lambda, and what else is local to a function, is that function's. What the library makes of somebody's function or
/// object, so that it can be called or destroyed by who does not know it (std::function, std::thread, std::shared_ptr,
/// ...), is that somebody's: the optimiser puts the function right into it.
FrameOwner ownerByName(std::string_view mangled);

/// Whether this is callApp(), in which the kit calls a function of the app's.
bool isCallOfTheApp(std::string_view mangled);

}  // namespace morvik::host
