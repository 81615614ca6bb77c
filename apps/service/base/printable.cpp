#include "apps/service/base/printable.h"

#include <algorithm>

namespace morvik_service {
namespace {

unsigned char byteAt(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

std::size_t lengthByLead(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF)
    return 2;
  if (lead >= 0xE0 && lead <= 0xEF)
    return 3;
  return lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
}

// The length of the first character of `text` if it may be printed as it is; else 0.
std::size_t printableCharacter(std::string_view text) {
  const unsigned char lead = byteAt(text, 0);
  if (lead < 0x80)
    return lead >= ' ' && lead <= '~' ? 1 : 0;
  const std::size_t length = lengthByLead(lead);
  if (length == 0 || length > text.size())
    return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byteAt(text, i) & 0xC0U) != 0x80U)
      return 0;
  }
  const bool is_upper_control = lead == 0xC2 && byteAt(text, 1) < 0xA0;
  return is_upper_control ? 0 : length;
}

}  // namespace

std::string printable(std::string_view text, std::size_t max_bytes) {
  std::string shown;
  while (!text.empty()) {
    const std::size_t length = printableCharacter(text);
    if (shown.size() + std::max<std::size_t>(length, 1) > max_bytes)
      return shown + "...";
    shown += length == 0 ? std::string_view("?") : text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return shown;
}

std::string printableWord(std::string_view text) {
  std::string word = printable(text);
  std::replace(word.begin(), word.end(), ' ', '?');
  return word;
}

}  // namespace morvik_service
