// The word that detects a fork of this process.
#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/life/own_process.h"

namespace morvik::host {

/// 0 in each forked child. One for the whole process, never destroyed. Any thread.
std::atomic<uint64_t>& processWord();

/// This process.
inline runtime::OwnProcess ownProcess() {
  return runtime::OwnProcess(processWord());
}

}  // namespace morvik::host
