#include "proofs/run/wish_file.h"

#include <cstddef>
#include <string_view>

namespace morvik::proofs {
namespace {

using namespace std::string_view_literals;

constexpr size_t kSectorBytes = 4096;
// Mark, sequence number, value, checksum.
constexpr std::string_view kEvenSector = "mrvkwish\2\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\xce\x85\xce\xa4"sv;
constexpr std::string_view kOddSector = "mrvkwish\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x3c\x31\x06\x8d"sv;

}  // namespace

std::string wishFileNextTo(const host::StorePlace& place) {
  return place.path() + ".wish";
}

std::string wishFileOfARememberedUser() {
  std::string bytes(kEvenSector);
  bytes.resize(kSectorBytes, '\0');
  bytes += kOddSector;
  bytes.resize(2 * kSectorBytes, '\0');
  return bytes;
}

}  // namespace morvik::proofs
