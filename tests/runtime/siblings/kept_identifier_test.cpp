#include "runtime/siblings/kept_identifier.h"

#include <gtest/gtest.h>

#include "testing/fake_crypto.h"
#include "testing/memory_store.h"

namespace morvik::runtime {
namespace {

TEST(KeptIdentifier, IsMadeOnceAndKept) {
  testing::MemoryStore store;
  testing::SeededRandom random(1);
  const std::string made = keptIdentifier(store, kDeviceIdKey, random);
  EXPECT_EQ(made.size(), 36U);
  EXPECT_EQ(made[14], '4');
  EXPECT_EQ(store.get("host.deviceId"), kit::Value(made));
  EXPECT_EQ(keptIdentifier(store, kDeviceIdKey, random), made);
  EXPECT_NE(keptIdentifier(store, kInstallIdKey, random), made);
}

TEST(KeptIdentifier, IsMadeAgainWhereTheStoreHoldsNoText) {
  testing::MemoryStore store;
  testing::SeededRandom random(1);
  store.set(kDeviceIdKey, 5);
  const std::string made = keptIdentifier(store, kDeviceIdKey, random);
  EXPECT_EQ(store.get(kDeviceIdKey), kit::Value(made));
}

}  // namespace
}  // namespace morvik::runtime
