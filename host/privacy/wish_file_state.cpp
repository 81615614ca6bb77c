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
  }
  return "";
}

}  // namespace morvik
