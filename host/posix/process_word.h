// The word by which a fork of this process is known.
#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/life/own_process.h"

namespace morvik::host {

/// 0 in each child that is forked. One for the whole process, never destroyed. Any thread.
std::atomic<uint64_t>& processWord();

/// This process.
inline runtime::OwnProcess ownProcess() {
  return runtime::OwnProcess(processWord());
}

}  // namespace morvik::host
