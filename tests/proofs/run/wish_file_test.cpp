#include "proofs/run/wish_file.h"

#include <gtest/gtest.h>

#include <string>

#include "host/store/wish_sectors.h"

namespace morvik::proofs {
namespace {

TEST(WishFileOfARememberedUser, IsSoundAndNamesNobodyForgotten) {
  const std::string bytes = wishFileOfARememberedUser();
  EXPECT_EQ(bytes.size(), host::kWishFileBytes);
  const auto sector = host::newestWishSector(bytes);
  ASSERT_TRUE(sector.has_value());
  EXPECT_FALSE(sector->is_forgotten);
  EXPECT_EQ(bytes, host::wishFileBytes(false)) << "both sectors are sound";
}

}  // namespace
}  // namespace morvik::proofs
