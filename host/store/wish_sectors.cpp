#include "host/store/wish_sectors.h"

#include <zlib.h>

namespace morvik::host {
namespace {

constexpr std::string_view kWishMark = "mrvkwish";
constexpr size_t kSequenceAt = 8;
constexpr size_t kValueAt = 16;
constexpr size_t kCheckAt = 24;
constexpr size_t kNumberBytes = 8;
constexpr size_t kCheckBytes = 4;

void appendNumber(std::string& out, uint64_t number, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i)
    out.push_back(static_cast<char>(static_cast<uint8_t>(number >> (8 * i))));
}

uint64_t numberIn(std::string_view bytes, size_t at, size_t count) {
  uint64_t number = 0;
  for (size_t i = 0; i < count; ++i)
    number |= static_cast<uint64_t>(static_cast<uint8_t>(bytes[at + i])) << (8 * i);
  return number;
}

uint64_t checkOf(std::string_view checked) {
  return crc32(0, reinterpret_cast<const Bytef*>(checked.data()), static_cast<uInt>(checked.size()));
}

std::optional<WishSector> sectorAt(std::string_view file, size_t offset) {
  if (file.size() < offset + kCheckAt + kCheckBytes)
    return std::nullopt;
  const std::string_view bytes = file.substr(offset, kCheckAt + kCheckBytes);
  const uint64_t value = numberIn(bytes, kValueAt, kNumberBytes);
  const WishSector sector{numberIn(bytes, kSequenceAt, kNumberBytes), value == 1};
  const bool is_valid = bytes.starts_with(kWishMark) && value <= 1 && sector.sequence != 0 &&
                        sector.offset() == offset &&
                        numberIn(bytes, kCheckAt, kCheckBytes) == checkOf(bytes.substr(0, kCheckAt));
  return is_valid ? std::optional(sector) : std::nullopt;
}

}  // namespace

std::string wishSectorBytes(const WishSector& sector) {
  std::string bytes(kWishMark);
  appendNumber(bytes, sector.sequence, kNumberBytes);
  appendNumber(bytes, sector.is_forgotten ? 1 : 0, kNumberBytes);
  appendNumber(bytes, checkOf(bytes), kCheckBytes);
  bytes.resize(kWishSectorBytes, '\0');
  return bytes;
}

std::string wishFileBytes(bool is_forgotten) {
  return wishSectorBytes({kFirstWishSequence, is_forgotten}) + wishSectorBytes({kFirstWishSequence - 1, is_forgotten});
}

std::optional<WishSector> newestWishSector(std::string_view file) {
  const auto even = sectorAt(file, 0);
  const auto odd = sectorAt(file, kWishSectorBytes);
  if (!even || !odd)
    return even ? even : odd;
  return even->sequence > odd->sequence ? even : odd;
}

}  // namespace morvik::host
