// Names for the addresses of a call stack.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/linux/crash/frame_owner.h"
#include "host/linux/crash/loaded_modules.h"

namespace morvik::host {

class ModuleFiles;

/// One frame of a call stack.
struct NamedFrame {
  std::string text;  ///< "2  my-app  0x000055d0c0a81234  shop::buy() + 12"
  FrameOwner owner = FrameOwner::kApp;
};

/// A function, and how far into it an address is.
struct NamedFunction {
  std::string mangled;  ///< "" where the file has no name for it
  std::string text;     ///< "shop::buy() + 12", or "" as well
};

// Of which the texts of frames are made.
/// Null where none holds the address.
const LoadedModule* moduleAt(const std::vector<LoadedModule>& modules, uint64_t address);
/// "2  my-app  0x000055d0c0a81234  ", or "2  ?  0x000055d0c0a81234" without a module.
std::string frameBeginning(size_t index, const LoadedModule* module, uint64_t address);
/// "+ 0x1234"
std::string offsetText(const LoadedModule& module, uint64_t address);
/// The frame `index` of a stack is at `address`. Blocks for reading files.
NamedFunction functionAt(ModuleFiles& files, const LoadedModule& module, size_t index, uint64_t address);

/// Names the frames, innermost first, from the symbol tables of the modules that were loaded when the stack was
/// taken, the program first: in this process or in an earlier one. A module's file that is gone, or has another build
/// id by now, is not asked: its frames show the offset in it. `frames` are return addresses but for the first, which is
/// where the stack was taken. Blocks for reading files.
std::vector<NamedFrame> namedFrames(const std::vector<LoadedModule>& modules, const std::vector<uint64_t>& frames);

/// Whether the crash is the kit's own: the innermost frame that is not the system's decides. The kit's loop stands
/// below each callback of the app's, so that it tells nothing there; callApp(), through which it calls that, stands for
/// the app, unless the crash is in callApp() itself. A jump to where no code is has its own frame,
/// which is nobody's.
bool isCrashOfTheKit(const std::vector<NamedFrame>& frames, bool is_jump_to_nowhere);

}  // namespace morvik::host
