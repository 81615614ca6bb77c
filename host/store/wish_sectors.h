// The bytes of the file that keeps the wish to be forgotten. The format is frozen: every version of this program, older
// or newer than the one that wrote a file, must understand it.
//
// Two sectors of 4,096 bytes each, written in turn. A sector begins as follows, with little-endian numbers; the rest is
// zero and ignored:
//   0   8 bytes  "mrvkwish"
//   8   8 bytes  sequence number, from 1; even numbers in the first sector, odd ones in the second
//   16  8 bytes  value: 0 not forgotten, 1 forgotten
//   24  4 bytes  CRC-32 (as in zip files) of the 24 bytes before it
// The valid sector with the highest number counts. If none is valid, the user counts as forgotten.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace morvik::host {

/// A sector covers a page of the system's cache and a sector of any disk, so that writing one does not affect the
/// other.
inline constexpr size_t kWishSectorBytes = 4096;
inline constexpr size_t kWishFileBytes = 2 * kWishSectorBytes;

/// What one sector says.
struct WishSector {
  uint64_t sequence = 0;
  bool is_forgotten = false;

  /// Its offset in the file.
  size_t offset() const { return sequence % 2 == 0 ? 0 : kWishSectorBytes; }
  friend bool operator==(const WishSector&, const WishSector&) = default;
};

/// kWishSectorBytes long.
std::string wishSectorBytes(const WishSector& sector);

/// A whole file with two equal sectors. The next sequence number is kFirstWishSequence + 1.
std::string wishFileBytes(bool is_forgotten);
inline constexpr uint64_t kFirstWishSequence = 2;
/// The last number: the next wish writes a whole file again.
inline constexpr uint64_t kLastWishSequence = UINT64_MAX;

/// The valid sector that counts in the file with these bytes; nothing if none is valid.
std::optional<WishSector> newestWishSector(std::string_view file);

}  // namespace morvik::host
