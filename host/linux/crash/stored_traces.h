// Adds names to the stacks of stored crash reports at a start, not in the dying process.
#pragma once

#include <functional>
#include <string>

#include "services/MorvikGVUserDefaults.h"
#include "services/log.h"

namespace morvik::host {

/// A file next to the store that exists while stored stacks are being named. A start that finds it knows that the
/// previous start crashed doing so.
std::string namingMarkerPath(const std::string& store_folder);

/// Adds the names to a trace: namedTrace().
using NameTrace = std::function<std::string(const std::string& trace)>;

/// Names the bare frames of the stored reports, before any is sent. Tried once: if an earlier attempt ended its
/// process, or the marker cannot be made, the reports keep only offsets, with a line at warning level. Blocks for
/// reading and writing files, not for a disk sync.
void nameStoredTraces(const services::MorvikGVUserDefaults& store, const std::string& marker_path,
                      const NameTrace& name, const services::Logger& logger);

}  // namespace morvik::host
