#include "services/uuid.h"

#include <array>

#include "services/text_codes.h"

namespace morvik::services {

std::string makeTimeOrderedUuid(kit::Date now, kit::Random& random) {
  std::array<uint8_t, 16> bytes{};
  random.fill(bytes);
  const auto milliseconds = static_cast<uint64_t>(now.microseconds < 0 ? 0 : now.microseconds / 1000);
  for (size_t i = 0; i < 6; ++i)
    bytes[i] = static_cast<uint8_t>(milliseconds >> (40 - 8 * i));
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x70);  // version 7
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);  // variant 2
  const std::string hex = hexText({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  std::string text;
  text.reserve(36);
  for (size_t i = 0; i < hex.size(); ++i) {
    if (i == 8 || i == 12 || i == 16 || i == 20)
      text += '-';
    text += hex[i];
  }
  return text;
}

}  // namespace morvik::services
