// Reads the ledger of a store that this process has not opened.
#pragma once

#include "kit/key_value_store.h"
#include "morvik/ledger.h"

namespace morvik_device {

/// The ledger of a store as of its latest commit. What is under way stays so: the process that uses the store may be
/// waiting for the answer. Only reads.
morvik::Ledger storedLedger(const morvik::kit::KeyValueStore& store);

}  // namespace morvik_device
