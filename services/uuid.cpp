#include "services/uuid.h"

#include <algorithm>
#include <array>

#include "services/text_codes.h"

namespace morvik::services {
namespace {

using UuidBytes = std::array<uint8_t, 16>;

std::string uuidText(UuidBytes bytes, int version) {
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | (version << 4));
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

}  // namespace

std::string makeTimeOrderedUuid(kit::Date now, kit::Random& random) {
  UuidBytes bytes{};
  random.fill(bytes);
  const auto milliseconds = static_cast<uint64_t>(now.microseconds < 0 ? 0 : now.microseconds / 1000);
  for (size_t i = 0; i < 6; ++i)
    bytes[i] = static_cast<uint8_t>(milliseconds >> (40 - 8 * i));
  return uuidText(bytes, 7);
}

std::string makeRandomUuid(kit::Random& random) {
  UuidBytes bytes{};
  random.fill(bytes);
  return uuidText(bytes, 4);
}

bool isUuid(std::string_view text) {
  constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  return std::equal(text.begin(), text.end(), kForm.begin(), kForm.end(), [](char c, char form) {
    return form == 'x' ? std::string_view("0123456789abcdefABCDEF").find(c) != std::string_view::npos : c == form;
  });
}

}  // namespace morvik::services
