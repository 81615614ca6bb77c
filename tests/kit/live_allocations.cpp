#include "tests/kit/live_allocations.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

std::atomic<size_t> live{0};
thread_local size_t left = SIZE_MAX;

}  // namespace

namespace morvik::test {

size_t liveAllocations() {
  return live;
}

bool runsOutOfMemory(size_t allocations, const std::function<void()>& act) {
  bool is_out = false;
  left = allocations;
  try {
    act();
  } catch (const std::bad_alloc&) {
    is_out = true;
  }
  left = SIZE_MAX;
  return is_out;
}

}  // namespace morvik::test

// The allocation functions of this program: those of the library, a count, and a limit.

void* operator new(size_t size) {
  if (left != SIZE_MAX && left-- == 0) {
    left = 0;
    throw std::bad_alloc();
  }
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
