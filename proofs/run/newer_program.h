// A newer version of this program, as far as a store can tell.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "simulation/simulated_disk.h"

namespace morvik::proofs {

/// One that knows stores of the next version.
inline constexpr int64_t kNewerStoreVersion = 2;

/// It uses the store and leaves it with that version and all that it held, on the disk; and so it takes the store back.
/// Between processes. Its calls of the disk are not counted and cannot be cut off. False: the file is no store, or not
/// yet, and stays as it is.
bool useWithNewerProgram(simulation::SimulatedDisk& disk, int64_t version);

/// What the store's own files hold, by path: nothing for one that is not there.
std::map<std::string, std::string> storeFilesOn(simulation::SimulatedDisk& disk);

}  // namespace morvik::proofs
