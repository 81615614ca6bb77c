// What becomes of what an app hands over.
#pragma once

#include <cstdint>
#include <string_view>

namespace morvik {

/// The answer of an operation that records something: known when the call returns.
enum class Recorded : uint8_t {
  kKept,               ///< in the kernel's hands: the death of the process does not lose it
  kKeptInMemory,       ///< the store, or the file of the wish to be forgotten, cannot be written now: kept while the
                       ///< process lives, and stored once it can be
  kRefusedForgotten,   ///< the user asked to be forgotten
  kRefusedEmpty,       ///< it needs a group and a name, and one of them is empty
  kRefusedTooLarge,    ///< longer than the operation takes
  kRefusedTooMany,     ///< too many wait to be handled already
  kRefusedNotRunning,  ///< the kit was stopped, or this process is a fork of the one that started it
  kRefusedNoMemory,    ///< the process has no memory left for it
};

/// Not refused.
constexpr bool isKept(Recorded recorded) {
  return recorded == Recorded::kKept || recorded == Recorded::kKeptInMemory;
}

/// For people and logs: "kept", "kept in memory only", "refused: the user asked to be forgotten", …
std::string_view toText(Recorded recorded);

}  // namespace morvik
