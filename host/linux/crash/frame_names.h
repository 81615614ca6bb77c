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

/// A function, and an address's offset in it.
struct NamedFunction {
  std::string mangled;  ///< "" where the file has no name for it
  std::string text;     ///< "shop::buy() + 12", or "" as well
};

// Parts of a frame's text.
/// Null if none contains the address.
const LoadedModule* moduleAt(const std::vector<LoadedModule>& modules, uint64_t address);
/// "2  my-app  0x000055d0c0a81234  ", or "2  ?  0x000055d0c0a81234" without a module.
std::string frameBeginning(size_t index, const LoadedModule* module, uint64_t address);
/// "+ 0x1234"
std::string offsetText(const LoadedModule& module, uint64_t address);
/// The function of frame `index` at `address`. Blocks for reading files.
NamedFunction functionAt(ModuleFiles& files, const LoadedModule& module, size_t index, uint64_t address);

/// Names the frames, innermost first, from the symbol tables of the modules loaded when the stack was taken (program
/// first), in this process or an earlier one. A module file that is gone or has another build id is not used: its
/// frames show an offset. `frames` are return addresses, except the first, which is where the stack was taken. Blocks
/// for reading files.
std::vector<NamedFrame> namedFrames(const std::vector<LoadedModule>& modules, const std::vector<uint64_t>& frames);

/// Whether the crash is the kit's own: the innermost non-system frame decides. The kit's loop is below every callback
/// of the app, so it means nothing there: callApp(), through which the kit calls the app, counts as the app's, unless
/// the crash is in callApp() itself. A jump to an address without code has its own frame, which belongs to nobody.
bool isCrashOfTheKit(const std::vector<NamedFrame>& frames, bool is_jump_to_nowhere);

}  // namespace morvik::host
