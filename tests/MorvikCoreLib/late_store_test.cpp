// A store that could not be read at first and comes to light in the middle of the core's work.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "services/endpoints.h"
#include "testing/kit_with.h"
#include "testing/world.h"

namespace morvik {
namespace {

using kit::Value;
using testing::Answer;
using testing::TestWorld;

constexpr const char* kLaunchCounter = "com.morvik.core.appLaunchCount";

/// After the next payload that it seals, another thread's commit brings the store to light.
class MeddledServices final : public testing::FakeServices {
 public:
  using FakeServices::FakeServices;
  Value makeJsonParameter(const Value& payload, const std::string& encryption_key) override {
    Value sealed = FakeServices::makeJsonParameter(payload, encryption_key);
    if (after_sealing)
      std::exchange(after_sealing, nullptr)();
    return sealed;
  }
  kit::Block after_sealing;
};

/// Another thread's commit brings the store to light once the launch counter was read: under the house lock, so where
/// that is taken it does not come.
class MeddledStore final : public kit::KeyValueStore {
 public:
  MeddledStore(kit::KeyValueStore& store, kit::HouseLock& lock) : store_(store), lock_(lock) {}
  Value get(std::string_view key) const override {
    const Value read = store_.get(key);
    const std::unique_lock hold(lock_.mutex, std::try_to_lock);
    if (key == kLaunchCounter && hold.owns_lock() && !std::exchange(has_come_to_light, true))
      store_.set(key, 3);
    return read;
  }
  void set(std::string_view key, Value value) override { store_.set(key, std::move(value)); }
  void append(std::string_view key, Value element) override { store_.append(key, std::move(element)); }
  void replace(std::string_view key, const Value& before, Value after) override {
    store_.replace(key, before, std::move(after));
  }
  bool synchronize() override { return store_.synchronize(); }
  std::optional<Value> tryGet(std::string_view key) const override { return store_.tryGet(key); }
  bool trySetAndSynchronize(std::string_view key, Value value) override {
    return store_.trySetAndSynchronize(key, std::move(value));
  }
  mutable bool has_come_to_light = false;

 private:
  kit::KeyValueStore& store_;
  kit::HouseLock& lock_;
};

class LateStore : public ::testing::Test {
 protected:
  LateStore() {
    world_.transport.setDefaultAnswer(Answer::silence());
    services_.setCommonParameter("install_id", "of the dark");
  }
  void comesToLight() {
    services_.setCommonParameter("install_id", "of the file");
    core_->storeCameToLight();
  }
  std::string onlyInstall(const char* path) {
    const auto payloads = world_.payloads(path);
    EXPECT_EQ(payloads.size(), 1U);
    return payloads.empty() ? "" : std::string(payloads[0]["install_id"].string());
  }

  TestWorld world_;
  MeddledServices services_{world_.userDefaults(), {world_.cipher, world_.compressor, world_.random}};
  kit::HouseLock lock_;
  MeddledStore store_{world_.store, lock_};
  const kit::Kit kit_ =
      testing::kitWith(world_.kit(), {.key_value_store = &store_, .house_lock = &lock_, .services = &services_});
  const std::shared_ptr<MorvikCoreLib> core_ = MorvikCoreLib::make(kit_);
};

TEST_F(LateStore, IsTheOneThatAConversionNamesWhoseParametersWereMadeBefore) {
  services_.after_sealing = [this] { comesToLight(); };
  world_.loop.perform([this] { core_->setReferralUrlForFacebook(kit::Url("https://f.example/?ck=12")); });
  ASSERT_FALSE(services_.after_sealing);
  EXPECT_EQ(onlyInstall(services::kThirdPartyConversionPath), "of the file");
}

TEST_F(LateStore, IsTheOneThatARepeatedConversionNames) {
  world_.transport.on(services::kConversionPath).then(Answer::error("no answer")).then(Answer::silence());
  world_.loop.perform([this] { core_->conversion(Value()); });
  world_.transport.clearRequests();
  comesToLight();
  world_.loop.advance(11);
  EXPECT_EQ(onlyInstall(services::kConversionPath), "of the file");
}

TEST_F(LateStore, CountsItsLaunchesOnAlthoughALaunchIsCountedAtThatMoment) {
  core_->updateAppLaunchCount();
  EXPECT_EQ(world_.store.get(kLaunchCounter), Value(store_.has_come_to_light ? 4 : 1));
}

}  // namespace
}  // namespace morvik
