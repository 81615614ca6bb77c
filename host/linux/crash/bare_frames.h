// Call stacks as a dying process writes them: addresses with module offsets. A later process adds the names.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/linux/crash/loaded_modules.h"

namespace morvik::host {

/// Follows each frame of a stored trace.
inline constexpr std::string_view kFrameEnd = "<br>";

/// For example "2  my-app  0x000055d0c0a81234  + 0x1234 [0a1b2c3d]", with the module's build id. `frames` as in
/// namedFrames(). Reads no file.
std::vector<std::string> bareFrames(const std::vector<LoadedModule>& modules, const std::vector<uint64_t>& frames);

/// Whether a stored trace has a bare frame: one with a build id.
bool holdsBareFrames(std::string_view trace);

/// The trace with a name in each bare frame whose module is among this process's `modules`; other bare frames keep only
/// the offset. Blocks for reading files.
std::string namedTrace(std::string_view trace, const std::vector<LoadedModule>& modules);
/// The same without any names.
std::string unnamedTrace(std::string_view trace);

}  // namespace morvik::host
