#include "tests/kit/live_allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<size_t> live{0};

}  // namespace

namespace morvik::test {

size_t liveAllocations() {
  return live;
}

}  // namespace morvik::test

// The allocation functions of this program: those of the library, and a count.

void* operator new(size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr)
    throw std::bad_alloc();
  ++live;
  return block;
}

void operator delete(void* block) noexcept {
  if (block == nullptr)
    return;
  --live;
  std::free(block);
}

void operator delete(void* block, size_t) noexcept {
  ::operator delete(block);
}
