// How much the program under test holds.
#pragma once

#include <cstddef>

namespace morvik::test {

/// Blocks that were allocated with new and not deleted yet, in all threads of this test program.
size_t liveAllocations();

}  // namespace morvik::test
