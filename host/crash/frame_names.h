// Names for the addresses of a call stack.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/crash/loaded_modules.h"

namespace morvik::host {

/// One frame of a call stack.
struct NamedFrame {
  std::string text;      ///< "2  my-app  0x000055d0c0a81234  shop::buy() + 12"
  bool is_ours = false;  ///< in a function of the kit
};

/// Names the frames, innermost first, from the symbol tables of the modules that were loaded when the stack was
/// taken: in this process or in an earlier one. A module's file that is gone, or has another build id by now, is not
/// asked: its frames show the offset in it. `frames` are return addresses but for the first, which is where the stack
/// was taken. Blocks for reading files.
std::vector<NamedFrame> namedFrames(const std::vector<LoadedModule>& modules, const std::vector<uint64_t>& frames);

/// Whether a function of the kit is among them.
bool holdsFrameOfOurs(const std::vector<NamedFrame>& frames);

}  // namespace morvik::host
