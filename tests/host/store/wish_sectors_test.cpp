#include "host/store/wish_sectors.h"

#include <gtest/gtest.h>

#include <string>

namespace morvik::host {
namespace {

std::string fileOf(const WishSector& even, const WishSector& odd) {
  return wishSectorBytes(even) + wishSectorBytes(odd);
}

// Fixed for ever: a program of any version must read these, and write no others.
TEST(WishSectors, HaveTheFormatThatIsFrozenForEver) {
  static constexpr const char kForgotten[] =
      "mrvkwish"
      "\x02\x00\x00\x00\x00\x00\x00\x00"
      "\x01\x00\x00\x00\x00\x00\x00\x00"
      "\x50\x85\x64\x68";
  static constexpr const char kNotForgotten[] =
      "mrvkwish"
      "\x39\x30\x00\x00\x00\x00\x00\x00"
      "\x00\x00\x00\x00\x00\x00\x00\x00"
      "\x41\x4a\xaa\xc3";
  const auto whole = [](const char* text, size_t size) {
    std::string bytes(text, size);
    bytes.resize(4096, '\0');
    return bytes;
  };
  EXPECT_EQ(wishSectorBytes({2, true}), whole(kForgotten, sizeof kForgotten - 1));
  EXPECT_EQ(wishSectorBytes({12345, false}), whole(kNotForgotten, sizeof kNotForgotten - 1));
  EXPECT_EQ(kWishFileBytes, 8192U);
}

TEST(WishSectors, TheNewestValidOneCounts) {
  EXPECT_EQ(newestWishSector(fileOf({2, true}, {1, false})), (WishSector{2, true}));
  EXPECT_EQ(newestWishSector(fileOf({2, true}, {3, false})), (WishSector{3, false}));
}

TEST(WishSectors, OneThatIsDamagedAnywhereLeavesTheOtherToCount) {
  constexpr size_t kCheckedBytes = 28;
  for (size_t byte = 0; byte < kCheckedBytes; ++byte) {
    std::string file = fileOf({2, true}, {3, false});
    file[kWishSectorBytes + byte] ^= 0x10;
    EXPECT_EQ(newestWishSector(file), (WishSector{2, true})) << byte;
    file[byte] ^= 0x10;
    EXPECT_EQ(newestWishSector(file), std::nullopt) << byte;
  }
}

TEST(WishSectors, OneInTheOthersPlaceIsNotValid) {
  EXPECT_EQ(newestWishSector(fileOf({3, true}, {2, true})), std::nullopt);
}

TEST(WishSectors, AnyOtherValueOrTheNumberZeroIsNotValid) {
  EXPECT_EQ(newestWishSector(wishSectorBytes({0, true})), std::nullopt);
  EXPECT_EQ(newestWishSector(std::string(kWishFileBytes, '\0')), std::nullopt);
}

TEST(WishSectors, AFileCutOffBehindOneSectorStillSaysSo) {
  const std::string file = fileOf({4, true}, {3, false});
  EXPECT_EQ(newestWishSector(file.substr(0, kWishSectorBytes)), (WishSector{4, true}));
  EXPECT_EQ(newestWishSector(file.substr(0, 27)), std::nullopt);
  EXPECT_EQ(newestWishSector(""), std::nullopt);
}

TEST(WishSectors, OfAWholeNewFileSayTheSame) {
  for (const bool is_forgotten : {false, true}) {
    const std::string file = wishFileBytes(is_forgotten);
    EXPECT_EQ(file.size(), kWishFileBytes);
    EXPECT_EQ(newestWishSector(file), (WishSector{kFirstWishSequence, is_forgotten}));
    EXPECT_EQ(newestWishSector(std::string(kWishSectorBytes, '\0') + file.substr(kWishSectorBytes)),
              (WishSector{kFirstWishSequence - 1, is_forgotten}));
  }
}

}  // namespace
}  // namespace morvik::host
