// Whose function a mangled name is.
#pragma once

#include <string_view>

namespace morvik::host {

/// Whose function a frame is in. Code in no module, or without a name in a non-system module, is the app's.
enum class FrameOwner {
  kApp,
  kKit,
  kSystem,  ///< system libraries and the runtime library, also the parts of it in the app's program
};

/// Not a C name.
inline bool isMangled(std::string_view name) {
  return name.starts_with("_Z");
}

/// Decided by what the function is a member of: an app function that only takes a kit type as argument is the app's. A
/// lambda, or anything else local to a function, belongs to that function. What the library generates to call or
/// destroy somebody's function or object (std::function, std::thread, std::shared_ptr, ...) belongs to that somebody:
/// the optimizer inlines the function into it.
FrameOwner ownerByName(std::string_view mangled);

/// Whether this is callApp(), in which the kit calls a function of the app.
bool isCallOfTheApp(std::string_view mangled);

}  // namespace morvik::host
