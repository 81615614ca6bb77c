#include "tests/host/failing_allocations.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr uint64_t kAll = std::numeric_limits<uint64_t>::max();
thread_local uint64_t succeeding_allocations = kAll;
thread_local bool has_failed = false;

}  // namespace

namespace morvik::test {

FailingAllocations::FailingAllocations(uint64_t succeeding) {
  succeeding_allocations = succeeding;
  has_failed = false;
}

bool FailingAllocations::hasFailed() const {
  return has_failed;
}

void FailingAllocations::over() {
  succeeding_allocations = kAll;
}

}  // namespace morvik::test

// The allocation functions of this program: the library's, except for what a test makes fail.

void* operator new(size_t size) {
  if (succeeding_allocations != kAll && succeeding_allocations-- == 0) {
    succeeding_allocations = 0;
    has_failed = true;
    throw std::bad_alloc();
  }
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr)
    throw std::bad_alloc();
  return block;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void operator delete(void* block) noexcept {
  std::free(block);
}

void operator delete(void* block, size_t) noexcept {
  std::free(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}
