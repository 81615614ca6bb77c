#include "testing/kit_with.h"

#include <gtest/gtest.h>

#include "testing/world.h"

namespace morvik::testing {
namespace {

TEST(KitWith, NothingOfOnesOwnIsACopy) {
  TestWorld world;
  const kit::Kit copy = kitWith(world.kit(), {});
  EXPECT_EQ(&copy.background_tasks, &world.kit().background_tasks);
  EXPECT_EQ(&copy.key_value_store, &world.kit().key_value_store);
  EXPECT_EQ(&copy.house_lock, &world.kit().house_lock);
  EXPECT_EQ(&copy.transport, &world.kit().transport);
  EXPECT_EQ(&copy.services, &world.kit().services);
  EXPECT_EQ(copy.ad_client, world.kit().ad_client);
  EXPECT_EQ(copy.make_config()->getTrackingSuperkey(), "test-tracking");
}

TEST(KitWith, PartsOfOnesOwnTakeThePlaceOfTheKits) {
  TestWorld world;
  TestWorld other;
  kit::HouseLock lock;
  const kit::Kit changed = kitWith(world.kit(), {.background_tasks = &other.faulty.background_tasks,
                                                 .key_value_store = &other.store,
                                                 .house_lock = &lock,
                                                 .transport = &other.transport,
                                                 .services = &other.services()});
  EXPECT_EQ(&changed.background_tasks, &other.faulty.background_tasks);
  EXPECT_EQ(&changed.key_value_store, &other.store);
  EXPECT_EQ(&changed.house_lock, &lock);
  EXPECT_EQ(&changed.services, &other.services());
  EXPECT_EQ(&changed.clock, &world.kit().clock);
  EXPECT_EQ(&changed.transport, &other.transport);
}

}  // namespace
}  // namespace morvik::testing
