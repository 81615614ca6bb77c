// The result of a call that records something.
#pragma once

#include <cstdint>
#include <string_view>

namespace morvik {

/// The result of an operation that records something, known when the call returns.
enum class Recorded : uint8_t {
  kKept,               ///< handed to the kernel: survives the death of the process
  kKeptInMemory,       ///< the store or the wish file cannot be written now: kept while the process lives, stored later
  kRefusedForgotten,   ///< the user asked to be forgotten
  kRefusedEmpty,       ///< the group or the name is empty
  kRefusedTooLarge,    ///< longer than the operation accepts
  kRefusedTooMany,     ///< too many are already pending
  kRefusedNotRunning,  ///< the kit was stopped, or this process is a fork of the one that started it
  kRefusedNoMemory,    ///< out of memory
};

/// True unless it was refused.
constexpr bool isKept(Recorded recorded) {
  return recorded == Recorded::kKept || recorded == Recorded::kKeptInMemory;
}

/// Readable text for people and logs: "kept", "kept in memory only", "refused: the user asked to be forgotten", …
std::string_view toText(Recorded recorded);

}  // namespace morvik
