#include "testing/ports_with.h"

#include <gtest/gtest.h>

#include "testing/world.h"

namespace morvik::testing {
namespace {

TEST(PortsWith, NothingOfOnesOwnIsACopy) {
  TestWorld world;
  const kit::Ports copy = portsWith(world.ports(), {});
  EXPECT_EQ(&copy.background_tasks, &world.ports().background_tasks);
  EXPECT_EQ(&copy.key_value_store, &world.ports().key_value_store);
  EXPECT_EQ(&copy.list_lock, &world.ports().list_lock);
  EXPECT_EQ(&copy.transport, &world.ports().transport);
  EXPECT_EQ(&copy.services_lib, &world.ports().services_lib);
  EXPECT_EQ(copy.ad_client, world.ports().ad_client);
  EXPECT_EQ(copy.make_config()->getTrackingSuperkey(), "test-tracking");
}

TEST(PortsWith, PartsOfOnesOwnTakeThePlaceOfTheKits) {
  TestWorld world;
  TestWorld other;
  kit::ListLock lock;
  const kit::Ports changed = portsWith(world.ports(), {.background_tasks = &other.faulty.background_tasks,
                                                       .key_value_store = &other.store,
                                                       .list_lock = &lock,
                                                       .transport = &other.transport,
                                                       .services = &other.services()});
  EXPECT_EQ(&changed.background_tasks, &other.faulty.background_tasks);
  EXPECT_EQ(&changed.key_value_store, &other.store);
  EXPECT_EQ(&changed.list_lock, &lock);
  EXPECT_EQ(&changed.services_lib, &other.services());
  EXPECT_EQ(&changed.clock, &world.ports().clock);
  EXPECT_EQ(&changed.transport, &other.transport);
}

}  // namespace
}  // namespace morvik::testing
