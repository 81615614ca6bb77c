// Optional modules that only print every call.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "apps/device/output.h"
#include "morvik/start_options.h"

namespace morvik_device {

/// The modules named with "--module": class name and reported version, if any.
using ModuleNames = std::map<std::string, std::optional<std::string>>;

/// A module for each name, which answers every operation. Each call is written at once to `output`, which outlives
/// them: {"callback":"saveRetainedConversionKey:","module":"FendoLib","args":[12]}.
std::map<std::string, morvik::Module> makeModules(const ModuleNames& names, Output& output);

}  // namespace morvik_device
