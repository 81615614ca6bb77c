// Optional modules that do nothing but tell of every call.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "apps/device/output.h"
#include "morvik/start_options.h"

namespace morvik_device {

/// What "--module" named: the version that each says it has, if any, by class name.
using ModuleNames = std::map<std::string, std::optional<std::string>>;

/// A module for each name, which answers every operation. Each call is written to `output`, which outlives them, at the
/// moment it happens: {"callback":"saveRetainedConversionKey:","module":"FendoLib","args":[12]}.
std::map<std::string, morvik::Module> makeModules(const ModuleNames& names, Output& output);

}  // namespace morvik_device
