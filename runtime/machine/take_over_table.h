// What wins, for each property in the store, when its file comes to light late: see TakeOver.
#pragma once

#include "runtime/store/take_over.h"

namespace morvik::runtime {

/// The device stays the one that it was, with the user that the service knows; what was recorded and counted on either
/// side stays; of what an app set, the last word counts.
TakeOverTable takeOverTable();

}  // namespace morvik::runtime
