// Lets memory run out when a test says so.
#pragma once

#include <cstdint>
#include <limits>

namespace morvik::test {

/// While it lives, this many allocations of this thread succeed and each later one throws std::bad_alloc, until over().
class FailingAllocations {
 public:
  explicit FailingAllocations(uint64_t succeeding);
  ~FailingAllocations() { over(); }
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  void over();
  /// Whether one of them failed.
  bool hasFailed() const;
};

}  // namespace morvik::test
