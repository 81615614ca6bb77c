// The ledger as it lies in a store that no kit has open here.
#pragma once

#include <functional>
#include <string_view>

#include "kit/value.h"
#include "morvik/ledger.h"

namespace morvik_device {

/// What the ledger of a store says of its latest commit. `entry` reads an entry by its name. What is under way stays
/// so: whoever holds the store may be waiting for the answer.
morvik::Ledger storedLedger(const std::function<morvik::kit::Value(std::string_view name)>& entry);

}  // namespace morvik_device
