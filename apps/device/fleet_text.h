// The result of a fleet as text, for people and for machines.
#pragma once

#include <string>

#include "simulation/fleet.h"

namespace morvik_device {

/// A few lines; the last says whether the account balances, and those above it what is missing.
std::string describe(const morvik::simulation::FleetOptions& options, const morvik::simulation::FleetResult& result);

/// One line of JSON.
std::string describeAsJson(const morvik::simulation::FleetOptions& options,
                           const morvik::simulation::FleetResult& result);

}  // namespace morvik_device
