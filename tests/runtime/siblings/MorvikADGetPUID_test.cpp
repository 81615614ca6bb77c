#include "runtime/siblings/MorvikADGetPUID.h"

#include <gtest/gtest.h>

#include "host/crypto/hmac.h"

namespace morvik::runtime {
namespace {

TEST(MorvikADGetPUID, HashesTheDeviceIdWithTheAppKey) {
  // HMAC-SHA-256 of RFC 4231, test case 2.
  const host::OpensslKeyedHash hash;
  const MorvikADGetPUID puid("what do ya want for nothing?", "Jefe", hash);
  EXPECT_EQ(puid.getAESHashedPUID(), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(puid.getAESHashedPUID(), puid.getAESHashedPUID());
}

TEST(MorvikADGetPUID, GivesAGivenTextAsItIsAndNothingWhenThereIsNone) {
  EXPECT_EQ(MorvikADGetPUID(std::string("given")).getAESHashedPUID(), "given");
  EXPECT_EQ(MorvikADGetPUID().getAESHashedPUID(), std::nullopt);
}

TEST(MorvikADGetPUID, HashesAnotherDeviceIdOnceItTurnsOutToBeThatOne) {
  const host::OpensslKeyedHash hash;
  MorvikADGetPUID puid("made for now", "Jefe", hash);
  EXPECT_NE(puid.getAESHashedPUID(), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  puid.replaceDeviceId("what do ya want for nothing?");
  EXPECT_EQ(puid.getAESHashedPUID(), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  MorvikADGetPUID none;
  none.replaceDeviceId("one");
  EXPECT_EQ(none.getAESHashedPUID(), std::nullopt);
}

}  // namespace
}  // namespace morvik::runtime
