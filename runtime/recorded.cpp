#include "morvik/recorded.h"

namespace morvik {

std::string_view toText(Recorded recorded) {
  switch (recorded) {
    case Recorded::kKept:
      return "kept";
    case Recorded::kKeptInMemory:
      return "kept in memory only";
    case Recorded::kRefusedForgotten:
      return "refused: the user asked to be forgotten";
    case Recorded::kRefusedEmpty:
      return "refused: no group or no name";
    case Recorded::kRefusedTooLarge:
      return "refused: too large";
    case Recorded::kRefusedTooMany:
      return "refused: too many wait already";
    case Recorded::kRefusedNotRunning:
      return "refused: the kit is not running";
    case Recorded::kRefusedNoMemory:
      return "refused: out of memory";
  }
  return "";
}

}  // namespace morvik
