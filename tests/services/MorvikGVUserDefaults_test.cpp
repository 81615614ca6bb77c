#include "services/MorvikGVUserDefaults.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "testing/memory_store.h"
#include "tests/support/paths.h"

namespace morvik::services {
namespace {

using kit::Array;
using kit::Date;
using kit::Dictionary;
using kit::Value;
using testing::MemoryStore;

const char* nameOf(PropertyType type) {
  switch (type) {
    case PropertyType::kInt64:
      return "int64";
    case PropertyType::kInt32:
      return "int32";
    case PropertyType::kBool:
      return "bool";
    case PropertyType::kString:
      return "string";
    case PropertyType::kDate:
      return "date";
    case PropertyType::kArray:
      return "array";
  }
  return "?";
}

bool isInteger(PropertyType type) {
  return type == PropertyType::kInt64 || type == PropertyType::kInt32;
}

std::string unsetText(const StoreProperty& property) {
  if (isInteger(property.type))
    return std::to_string(property.unset);
  return property.type == PropertyType::kBool ? (property.unset != 0 ? "true" : "false") : "absent";
}

// A property by its accessors: what the getter gives, as a value, and the setter, taking one.
struct Accessors {
  std::string name;
  PropertyType type;
  std::string setter_name;
  std::function<Value(const MorvikGVUserDefaults&)> get;
  std::function<void(const MorvikGVUserDefaults&, const Value&)> set;
};

Value asValue(int64_t value) {
  return value;
}
Value asValue(int32_t value) {
  return int64_t{value};
}
Value asValue(bool value) {
  return value;
}
Value asValue(const std::optional<std::string>& value) {
  return value ? Value(*value) : Value();
}
Value asValue(const std::optional<Date>& value) {
  return value ? Value(*value) : Value();
}
Value asValue(const Value& value) {
  return value;
}

template <class Type>
Type fromValue(const Value& value);
template <>
int64_t fromValue(const Value& value) {
  return value.integer();
}
template <>
int32_t fromValue(const Value& value) {
  return static_cast<int32_t>(value.integer());
}
template <>
bool fromValue(const Value& value) {
  return value.boolean();
}
template <>
std::optional<std::string> fromValue(const Value& value) {
  return value.isString() ? std::optional<std::string>(value.string()) : std::nullopt;
}
template <>
std::optional<Date> fromValue(const Value& value) {
  return value.isDate() ? std::optional<Date>(value.date()) : std::nullopt;
}
template <>
Value fromValue(const Value& value) {
  return value;
}

std::vector<Accessors> allAccessors() {
  return {
#define MORVIK_STORE_PROPERTY(name, setter, type, unset)                                                            \
  Accessors{#name, PropertyType::k##type, #setter, [](const MorvikGVUserDefaults& d) { return asValue(d.name()); }, \
            [](const MorvikGVUserDefaults& d, const Value& v) { d.setter(fromValue<accessor::type>(v)); }},
#include "services/store_properties.inc"
#undef MORVIK_STORE_PROPERTY
  };
}

/// Values that a property of the type holds as they are; the extremes among them.
std::vector<Value> samples(PropertyType type) {
  switch (type) {
    case PropertyType::kInt64:
      return {0, -1, 42, std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()};
    case PropertyType::kInt32:
      return {0, -1, 42, std::numeric_limits<int32_t>::max(), std::numeric_limits<int32_t>::min()};
    case PropertyType::kBool:
      return {true, false};
    case PropertyType::kString:
      return {"", "true", "text with \xED\x95\x9C", Value(std::string(1000, 'x'))};
    case PropertyType::kDate:
      return {Date{0}, Date{-1}, Date{std::numeric_limits<int64_t>::max()}};
    case PropertyType::kArray:
      return {Array(), Array{1, "a"}, Array{Dictionary{{"activityName", "start"}}}};
  }
  return {};
}

Value unsetValue(const StoreProperty& property) {
  if (isInteger(property.type))
    return property.unset;
  return property.type == PropertyType::kBool ? Value(property.unset != 0) : Value();
}

class UserDefaults : public ::testing::Test {
 protected:
  MemoryStore store;
  kit::ListLock lock;
  MorvikGVUserDefaults defaults{store, lock};
};

TEST_F(UserDefaults, HaveTheApprovedPropertyTable) {
  std::string printed;
  for (const StoreProperty& property : storeProperties())
    printed += std::string(property.name) + ' ' + nameOf(property.type) + ' ' + unsetText(property) + '\n';
  std::ifstream file(test::sourceDir() + "/tests/services/approved/store_properties.txt");
  ASSERT_TRUE(file);
  const std::string approved((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  EXPECT_EQ(printed, approved);
}

TEST_F(UserDefaults, StoreEachPropertyUnderAKeyOfItsOwn) {
  std::set<std::string> names;
  for (const StoreProperty& property : storeProperties())
    names.insert(property.name);
  EXPECT_EQ(names.size(), storeProperties().size());
}

TEST_F(UserDefaults, NameEachSetterAfterItsProperty) {
  for (const Accessors& property : allAccessors()) {
    std::string expected = property.name;
    if (expected[0] >= 'a' && expected[0] <= 'z')
      expected[0] = static_cast<char>(expected[0] - 'a' + 'A');
    EXPECT_EQ(property.setter_name, "set" + expected);
  }
}

TEST_F(UserDefaults, ReadAsUnsetOnAFreshInstallation) {
  const auto accessors = allAccessors();
  ASSERT_EQ(accessors.size(), storeProperties().size());
  for (size_t i = 0; i < accessors.size(); ++i) {
    const Value expected = unsetValue(storeProperties()[i]);
    EXPECT_EQ(accessors[i].get(defaults).kind(), expected.kind()) << accessors[i].name;
    EXPECT_EQ(accessors[i].get(defaults), expected) << accessors[i].name;
  }
}

TEST_F(UserDefaults, AreMinusOneForTheUserAndReferralKeysAndTheDemographicsOnAFreshInstallation) {
  EXPECT_EQ(defaults.fendoUserInfo_fendoUserNo(), -1);
  EXPECT_EQ(defaults.fendoUserInfo_referralKey(), -1);
  EXPECT_EQ(defaults.fendoUserDemoInfo_age(), -1);
  EXPECT_EQ(defaults.fendoUserDemoInfo_gender(), -1);
  EXPECT_EQ(defaults.fendoUserDemoInfoForComplete_age(), -1);
  EXPECT_EQ(defaults.fendoUserDemoInfoForComplete_gender(), -1);
  EXPECT_EQ(defaults.fendoUserDemoInfo_userId(), std::nullopt);
  EXPECT_TRUE(defaults.fendoActivityInfos().isAbsent());
  EXPECT_FALSE(defaults.MorvikCoreUserInfo_isGDPRForgetMe());
  EXPECT_FALSE(defaults.MorvikCoreUserInfo_isGDPRForgetMeServerSynced());
}

TEST_F(UserDefaults, GiveBackWhatWasSetUnderThePropertysOwnName) {
  for (const Accessors& property : allAccessors()) {
    for (const Value& sample : samples(property.type)) {
      store.clearJournal();
      property.set(defaults, sample);
      EXPECT_EQ(property.get(defaults), sample) << property.name;
      EXPECT_EQ(store.get(property.name), sample) << property.name;
      EXPECT_EQ(store.journalTexts(), std::vector<std::string>{property.name});
    }
  }
}

TEST_F(UserDefaults, KeepPropertiesApart) {
  const auto accessors = allAccessors();
  for (size_t i = 0; i < accessors.size(); ++i)
    accessors[i].set(defaults, samples(accessors[i].type).back());
  for (const Accessors& property : accessors)
    EXPECT_EQ(property.get(defaults), samples(property.type).back()) << property.name;
}

TEST_F(UserDefaults, ForgetAnOptionalPropertyThatIsSetToNothing) {
  for (const Accessors& property : allAccessors()) {
    if (isInteger(property.type) || property.type == PropertyType::kBool)
      continue;
    property.set(defaults, samples(property.type).back());
    property.set(defaults, Value());
    EXPECT_TRUE(property.get(defaults).isAbsent()) << property.name;
    EXPECT_TRUE(store.get(property.name).isAbsent()) << property.name;
  }
}

TEST_F(UserDefaults, ReadAsUnsetWhatIsOfAnotherType) {
  const Value kinds[] = {Value::null(), true, 5, ~uint64_t{0}, 2.5, "12", Date{1}, Array{1}, Dictionary{{"a", 1}}};
  const auto accessors = allAccessors();
  for (size_t i = 0; i < accessors.size(); ++i) {
    const PropertyType type = accessors[i].type;
    for (const Value& stored : kinds) {
      const bool fits = (isInteger(type) && stored.isNumber()) || (type == PropertyType::kBool && stored.isBoolean()) ||
                        (type == PropertyType::kString && stored.isString()) ||
                        (type == PropertyType::kDate && stored.isDate()) ||
                        (type == PropertyType::kArray && stored.isArray());
      if (fits)
        continue;
      store.set(accessors[i].name, stored);
      EXPECT_EQ(accessors[i].get(defaults), unsetValue(storeProperties()[i])) << accessors[i].name;
    }
  }
}

TEST_F(UserDefaults, ReadANumberOfAnotherWidthByTheNumberConversions) {
  store.set("fendoUserInfo_referralKey", 2.9);
  EXPECT_EQ(defaults.fendoUserInfo_referralKey(), 2);
  store.set("fendoUserInfo_referralKey", ~uint64_t{0});
  EXPECT_EQ(defaults.fendoUserInfo_referralKey(), std::numeric_limits<int64_t>::max());
  store.set("fendoUserInfo_channelType", int64_t{4'294'967'303});
  EXPECT_EQ(defaults.fendoUserInfo_channelType(), 7);
}

TEST_F(UserDefaults, TakeWhatIsNoListForNoList) {
  defaults.setFendoActivityInfos(Array{1});
  defaults.setFendoActivityInfos(Dictionary{{"a", 1}});
  EXPECT_TRUE(defaults.fendoActivityInfos().isAbsent());
  EXPECT_TRUE(store.get("fendoActivityInfos").isAbsent());
}

TEST_F(UserDefaults, HandOutListsThatLaterWritesDoNotChange) {
  defaults.setFendoActivityInfos(Array{1, 2});
  const Value snapshot = defaults.fendoActivityInfos();
  kit::MutableArray copy(snapshot);
  copy.append(3);
  defaults.setFendoActivityInfos(Value(std::move(copy)));
  EXPECT_EQ(snapshot, Value(Array{1, 2}));
  EXPECT_EQ(defaults.fendoActivityInfos(), Value(Array{1, 2, 3}));
}

TEST_F(UserDefaults, KeepAnEmptyListApartFromNone) {
  defaults.setFendoActivityInfos(Array());
  EXPECT_TRUE(defaults.fendoActivityInfos().isArray());
  EXPECT_EQ(defaults.fendoActivityInfos().size(), 0U);
}

TEST_F(UserDefaults, MayLoseAWriteThatWasNotSynchronizedAndShowItMeanwhile) {
  defaults.setFendoUserInfo_referralKey(7);
  defaults.synchronize();
  defaults.setFendoUserInfo_referralKey(8);
  EXPECT_EQ(defaults.fendoUserInfo_referralKey(), 8);
  store.kill();
  EXPECT_EQ(defaults.fendoUserInfo_referralKey(), 7);
  EXPECT_EQ(store.synchronizeCount(), 1U);
}

TEST_F(UserDefaults, HoldTheListLockDuringAStepAndAfterwardsNoMore) {
  const int result = defaults.inOneStep([this] {
    EXPECT_TRUE(std::async(std::launch::async, [this] { return !lock.mutex.try_lock(); }).get());
    return 5;
  });
  EXPECT_EQ(result, 5);
  EXPECT_THROW(defaults.inOneStep([] { throw 1; }), int);
  ASSERT_TRUE(lock.mutex.try_lock());
  lock.mutex.unlock();
}

TEST_F(UserDefaults, NameEachPropertyByAConstant) {
  EXPECT_STREQ(property::MorvikCoreUserInfo_Crash, "MorvikCoreUserInfo_Crash");
  EXPECT_STREQ(property::fendoUserInfo_install_datetime, "fendoUserInfo_install_datetime");
}

TEST_F(UserDefaults, AppendForADyingThreadAndHaveItStored) {
  EXPECT_TRUE(defaults.tryAppendAndSynchronize("list", "first"));
  EXPECT_TRUE(defaults.tryAppendAndSynchronize("list", "second"));
  EXPECT_EQ(store.journalTexts(), (std::vector<std::string>{"list", "synchronize", "list", "synchronize"}));
  store.kill();
  EXPECT_EQ(store.get("list"), Value(Array{"first", "second"}));
  store.set("list", "damaged");
  EXPECT_TRUE(defaults.tryAppendAndSynchronize("list", "third"));
  EXPECT_EQ(store.get("list"), Value(Array{"third"}));
}

TEST_F(UserDefaults, AppendNothingWhileTheStoreIsInUseOrKeepsNothing) {
  store.setInUse(true);
  EXPECT_FALSE(defaults.tryAppendAndSynchronize("list", "lost"));
  store.setInUse(false);
  store.setKeepsNothing(true);
  EXPECT_FALSE(defaults.tryAppendAndSynchronize("list", "lost"));
  EXPECT_FALSE(defaults.synchronize());
  store.setKeepsNothing(false);
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_TRUE(store.get("list").isAbsent());
}

TEST_F(UserDefaults, AppendNothingWhileAnyThreadHoldsTheListLock) {
  defaults.inOneStep([this] { EXPECT_FALSE(defaults.tryAppendAndSynchronize("list", "own")); });
  lock.mutex.lock();
  EXPECT_FALSE(std::async(std::launch::async, [this] { return defaults.tryAppendAndSynchronize("list", "x"); }).get());
  lock.mutex.unlock();
  EXPECT_TRUE(store.get("list").isAbsent());
  EXPECT_TRUE(defaults.tryAppendAndSynchronize("list", "x"));
}

TEST_F(UserDefaults, GiveADyingThreadATextUnlessTheStoreIsInUse) {
  EXPECT_EQ(defaults.tryGetString("text"), std::nullopt);
  store.set("text", "here");
  EXPECT_EQ(defaults.tryGetString("text"), "here");
  store.setInUse(true);
  EXPECT_EQ(defaults.tryGetString("text"), std::nullopt);
  store.setInUse(false);
  store.set("text", 5);
  EXPECT_EQ(defaults.tryGetString("text"), std::nullopt);
}

TEST_F(UserDefaults, KeepPlainIntegersBesideTheProperties) {
  EXPECT_EQ(defaults.integerForKey("com.morvik.core.appLaunchCount"), 0);
  defaults.setInteger(1, "com.morvik.core.appLaunchCount");
  EXPECT_EQ(defaults.integerForKey("com.morvik.core.appLaunchCount"), 1);
  EXPECT_EQ(store.get("com.morvik.core.appLaunchCount"), Value(1));
  store.set("a", "12 of them");
  EXPECT_EQ(defaults.integerForKey("a"), 12);
  store.set("a", Array{1});
  EXPECT_EQ(defaults.integerForKey("a"), 0);
}

TEST_F(UserDefaults, KeepPlainUrlsBesideTheProperties) {
  constexpr const char* kKey = "com.morvik.reengagement.passopenurl";
  EXPECT_EQ(defaults.URLForKey(kKey), std::nullopt);
  defaults.setURL(kit::Url("app://x?ck=1"), kKey);
  EXPECT_EQ(defaults.URLForKey(kKey), kit::Url("app://x?ck=1"));
  EXPECT_EQ(store.get(kKey), Value("app://x?ck=1"));
  const kit::Url any_bytes(std::string("\xFF\0", 2));
  defaults.setURL(any_bytes, kKey);
  EXPECT_EQ(defaults.URLForKey(kKey), any_bytes);
  defaults.setURL(kit::Url(""), kKey);
  EXPECT_EQ(defaults.URLForKey(kKey), kit::Url("")) << "an empty one is one";
  defaults.setURL(std::nullopt, kKey);
  EXPECT_EQ(defaults.URLForKey(kKey), std::nullopt);
  EXPECT_TRUE(store.get(kKey).isAbsent());
  store.set(kKey, 5);
  EXPECT_EQ(defaults.URLForKey(kKey), std::nullopt);
}

TEST_F(UserDefaults, KeepPlainArraysBesideTheProperties) {
  EXPECT_TRUE(defaults.arrayForKey("a").isAbsent());
  defaults.setArray(Array{1}, "a");
  EXPECT_EQ(defaults.arrayForKey("a"), Value(Array{1}));
  defaults.setArray("no list", "a");
  EXPECT_TRUE(store.get("a").isAbsent());
  store.set("a", Dictionary{{"b", 1}});
  EXPECT_TRUE(defaults.arrayForKey("a").isAbsent());
}

}  // namespace
}  // namespace morvik::services
