// Call stacks as a dying process writes them: addresses and what they are an offset into, named by a later process.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/linux/crash/loaded_modules.h"

namespace morvik::host {

/// What is put between the frames of a stored trace, and behind the last.
inline constexpr std::string_view kFrameEnd = "<br>";

/// "2  my-app  0x000055d0c0a81234  + 0x1234 [0a1b2c3d]" with the build id of the module, for `frames` as namedFrames()
/// takes them. Reads no file.
std::vector<std::string> bareFrames(const std::vector<LoadedModule>& modules, const std::vector<uint64_t>& frames);

/// Whether one of the frames of a stored trace is bare: has a build id.
bool holdsBareFrames(std::string_view trace);

/// The trace with a name in each bare frame whose module is among `modules`, those of this process; the other bare
/// frames are left with the offset alone. Blocks for reading files.
std::string namedTrace(std::string_view trace, const std::vector<LoadedModule>& modules);
/// The same without any name.
std::string unnamedTrace(std::string_view trace);

}  // namespace morvik::host
