// How much the program under test holds.
#pragma once

#include <cstddef>
#include <functional>

namespace morvik::test {

/// Blocks that were allocated with new and not deleted yet, in all threads of this test program.
size_t liveAllocations();

/// Whether `act` ran out of memory, of which it got so many allocations.
bool runsOutOfMemory(size_t allocations, const std::function<void()>& act);

}  // namespace morvik::test
