#include "morvik/status.h"

namespace morvik {

std::string_view toText(WishFileState state) {
  switch (state) {
    case WishFileState::kGood:
      return "good";
    case WishFileState::kNotWritten:
      return "not written";
    case WishFileState::kUnreadable:
      return "unreadable";
    case WishFileState::kNotRead:
      return "not read";
  }
  return "";
}

}  // namespace morvik
