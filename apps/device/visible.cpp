#include "apps/device/visible.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

#include "services/json_writer.h"

namespace morvik_device {
namespace {

/// Bytes of the well-formed character at the beginning of `text`, if it is one that is seen; else 0.
size_t visibleCharacter(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80)
    return first >= 0x20 && first != 0x7F ? 1 : 0;
  size_t size = 1;
  while (size < text.size() && size < 4 && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U)
    ++size;
  // The control characters of the upper half.
  const bool is_control = first == 0xC2 && size > 1 && static_cast<unsigned char>(text[1]) < 0xA0;
  return size > 1 && !is_control && morvik::services::isUtf8(text.substr(0, size)) ? size : 0;
}

}  // namespace

std::string visible(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const size_t size = visibleCharacter(text);
    if (size > 0) {
      shown.append(text.substr(0, size));
    } else {
      std::array<char, 8> escaped{};
      std::snprintf(escaped.data(), escaped.size(), "\\x%02x",
                    static_cast<unsigned>(static_cast<unsigned char>(text.front())));
      shown += escaped.data();
    }
    text.remove_prefix(std::max<size_t>(size, 1));
  }
  return shown;
}

}  // namespace morvik_device
