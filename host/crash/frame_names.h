// Names for the addresses of a call stack.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/crash/loaded_modules.h"

namespace morvik::host {

/// Whose function a frame is in. What no module holds, or has no name in one that is not the system's, is the app's.
enum class FrameOwner {
  kApp,
  kKit,
  kSystem,  ///< the system's libraries and the runtime library, also what of it is in the app's program
};

/// One frame of a call stack.
struct NamedFrame {
  std::string text;  ///< "2  my-app  0x000055d0c0a81234  shop::buy() + 12"
  FrameOwner owner = FrameOwner::kApp;
};

/// Names the frames, innermost first, from the symbol tables of the modules that were loaded when the stack was
/// taken, the program first: in this process or in an earlier one. A module's file that is gone, or has another build
/// id by now, is not asked: its frames show the offset in it. `frames` are return addresses but for the first, which is
/// where the stack was taken. Blocks for reading files.
std::vector<NamedFrame> namedFrames(const std::vector<LoadedModule>& modules, const std::vector<uint64_t>& frames);

/// Whether the crash is the kit's own: the innermost frame that is not the system's decides. The kit's loop stands
/// below each callback of the app's, so that it tells nothing there. A jump to where no code is has its own frame,
/// which is nobody's.
bool isCrashOfTheKit(const std::vector<NamedFrame>& frames, bool is_jump_to_nowhere);

}  // namespace morvik::host
