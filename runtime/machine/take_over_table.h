// Which value wins, for each property, when the store's file becomes available late: see TakeOver.
#pragma once

#include "runtime/store/take_over.h"

namespace morvik::runtime {

/// The device stays the one it was, with the user that the service knows; anything recorded or counted on either side
/// stays; of what an app set, the latest counts.
TakeOverTable takeOverTable();

}  // namespace morvik::runtime
