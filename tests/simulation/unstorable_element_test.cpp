// An element that no store can hold, in each list that an app, the core or a service may fill.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <utility>

#include "runtime/store/value_codec.h"
#include "services/MorvikGVUserDefaults.h"
#include "simulation/simulated_disk.h"
#include "simulation/virtual_machine.h"

namespace morvik::simulation {
namespace {

using kit::Array;
using kit::Value;

/// Nested one level deeper than a store accepts.
Value tooDeep() {
  Value deep = 1;
  for (size_t i = 0; i <= runtime::kMaxStoredDepth; ++i)
    deep = Array{deep};
  return deep;
}

class UnstorableElement : public ::testing::Test {
 protected:
  UnstorableElement() : machine_({.disk = &disk_}) { phone_ = machine_.start(simulatedApp()); }
  void dieAndStart() {
    machine_.kill(std::move(phone_));
    phone_ = machine_.start(simulatedApp());
  }

  SimulatedDisk disk_;
  VirtualMachine machine_;
  std::unique_ptr<runtime::Instance> phone_;
};

TEST_F(UnstorableElement, OfTheActivitiesKeepsNoneThatIsRecordedAfterItFromSurvivingAKill) {
  constexpr int kRecorded = 8;
  machine_.edit(services::property::fendoActivityInfos, Array{tooDeep()});
  for (int i = 0; i < kRecorded; ++i)
    phone_->addActivity("shop", "look", std::to_string(i));
  EXPECT_EQ(phone_->properties().fendoActivityInfos().size(), kRecorded + 1U);
  dieAndStart();
  const Value left = phone_->properties().fendoActivityInfos();
  ASSERT_EQ(left.size(), static_cast<size_t>(kRecorded));
  for (int i = 0; i < kRecorded; ++i)
    EXPECT_EQ(left.array()[static_cast<size_t>(i)]["activityParam"], Value(std::to_string(i)));
}

TEST_F(UnstorableElement, OfAnyStoredListKeepsNoNeighbourFromSurvivingAKill) {
  for (const services::StoreProperty& property : services::storeProperties()) {
    if (property.type != services::PropertyType::kArray)
      continue;
    machine_.edit(property.name, Array{"before", tooDeep(), "after"});
    EXPECT_FALSE(phone_->properties().synchronize()) << property.name;
    kit::MutableArray list(phone_->storedValue(property.name));
    list.append("later");
    machine_.edit(property.name, Value(std::move(list)));
    EXPECT_TRUE(phone_->properties().synchronize()) << property.name;
    dieAndStart();
    EXPECT_EQ(phone_->storedValue(property.name), Value(Array{"before", "after", "later"})) << property.name;
    machine_.edit(property.name, Value());
  }
}

TEST_F(UnstorableElement, OfAListThatJoinsALateStoreKeepsNoNeighbourFromSurvivingAKill) {
  const char* const list = services::property::commerceConversionInfos;
  machine_.edit(list, Array{"of the file"});
  EXPECT_TRUE(phone_->properties().synchronize());
  disk_.decide([](const DiskCall& call) {
    return call.kind == DiskCall::Kind::kRead && !call.path.ends_with(".wish") ? SQLITE_IOERR_READ : SQLITE_OK;
  });
  dieAndStart();
  machine_.edit(list, Array{"before", tooDeep(), "after"});
  disk_.decide({});
  machine_.loop.advance(1);
  phone_->addActivity("shop", "look", std::nullopt);
  EXPECT_EQ(phone_->storedValue(list).size(), 4U);
  dieAndStart();
  EXPECT_EQ(phone_->storedValue(list), Value(Array{"of the file", "before", "after"}));
  EXPECT_EQ(phone_->properties().fendoActivityInfos().size(), 1U);
}

}  // namespace
}  // namespace morvik::simulation
