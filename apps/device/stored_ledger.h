// The ledger as it lies in a store that no kit has open here.
#pragma once

#include "kit/key_value_store.h"
#include "morvik/ledger.h"

namespace morvik_device {

/// What the ledger of a store says of its latest commit. What is under way stays so: whoever holds the store may be
/// waiting for the answer. Reads alone.
morvik::Ledger storedLedger(const morvik::kit::KeyValueStore& store);

}  // namespace morvik_device
