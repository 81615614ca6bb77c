// The file that keeps the wish to be forgotten next to a store, as its frozen format has it.
#pragma once

#include <string>

#include "host/store/store_files.h"

namespace morvik::proofs {

std::string wishFileNextTo(const host::StorePlace& place);

/// The bytes of a sound file of a user who is not forgotten.
std::string wishFileOfARememberedUser();

}  // namespace morvik::proofs
