// The stacks of stored crash reports get their names at a start, not in the process that dies.
#pragma once

#include <functional>
#include <string>

#include "services/MorvikGVUserDefaults.h"
#include "services/log.h"

namespace morvik::host {

/// The file beside the store that is there as long as stored stacks are being named. Whoever finds it at a start knows
/// that the start before ended over it.
std::string namingMarkerPath(const std::string& store_folder);

/// What puts the names into a trace: namedTrace().
using NameTrace = std::function<std::string(const std::string& trace)>;

/// Names the bare frames of the stored reports, before any is sent. Tried once: when an earlier try ended its process,
/// the reports are left with offsets alone, with a line at warning level; so they are when the marker cannot be made.
/// Blocks for reading files and writing, not for a disk sync.
void nameStoredTraces(const services::MorvikGVUserDefaults& store, const std::string& marker_path,
                      const NameTrace& name, const services::Logger& logger);

}  // namespace morvik::host
