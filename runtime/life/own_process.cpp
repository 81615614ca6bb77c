#include "runtime/life/own_process.h"

namespace morvik::runtime {
namespace {

/// Counts processes along a line of forks, so that no child is taken for one of its ancestors.
std::atomic<uint64_t> processes{0};

}  // namespace

OwnProcess::OwnProcess(std::atomic<uint64_t>& word) : word_(&word) {
  uint64_t number = word.load();
  if (number == 0) {
    const uint64_t fresh = ++processes;
    if (word.compare_exchange_strong(number, fresh))
      number = fresh;
  }
  number_ = number;
}

}  // namespace morvik::runtime
