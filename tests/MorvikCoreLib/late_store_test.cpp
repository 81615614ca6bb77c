// A store that could not be read at first and is recovered in the middle of the core's work.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "services/endpoints.h"
#include "testing/ports_with.h"
#include "testing/world.h"

namespace morvik {
namespace {

using kit::Value;
using testing::Answer;
using testing::TestWorld;

constexpr const char* kLaunchCounter = "com.morvik.core.appLaunchCount";

/// After the next payload that it seals, the commit of another thread recovers the store.
class InterceptingServices final : public testing::FakeServicesLib {
 public:
  using FakeServicesLib::FakeServicesLib;
  Value makeJsonParameter(const Value& payload, const std::string& encryption_key) override {
    Value sealed = FakeServicesLib::makeJsonParameter(payload, encryption_key);
    if (after_sealing)
      std::exchange(after_sealing, nullptr)();
    return sealed;
  }
  kit::Block after_sealing;
};

/// Another thread does something once a value was read or set, under a lock: if that is taken it does nothing.
class InterceptingStore final : public kit::KeyValueStore {
 public:
  explicit InterceptingStore(kit::KeyValueStore& store) : store_(store) {}
  Value get(std::string_view key) const override {
    const Value read = store_.get(key);
    afterCallOf(key);
    return read;
  }
  void set(std::string_view key, Value value) override {
    store_.set(key, std::move(value));
    afterCallOf(key);
  }
  void append(std::string_view key, Value element) override { store_.append(key, std::move(element)); }
  void replace(std::string_view key, const Value& before, Value after) override {
    store_.replace(key, before, std::move(after));
  }
  bool synchronize() override { return store_.synchronize(); }
  std::optional<Value> tryGet(std::string_view key) const override { return store_.tryGet(key); }
  bool trySetAndSynchronize(std::string_view key, Value value) override {
    return store_.trySetAndSynchronize(key, std::move(value));
  }
  /// With the next call for this value, if the lock is free then.
  void actAfter(std::string_view key, kit::Mutex& lock, kit::Block act) {
    key_ = key;
    lock_ = &lock;
    act_ = std::move(act);
  }
  bool hasActed() const { return has_acted_; }

 private:
  void afterCallOf(std::string_view key) const {
    if (!act_ || key != key_)
      return;
    const kit::Block act = std::exchange(act_, nullptr);
    const std::unique_lock hold(*lock_, std::try_to_lock);
    has_acted_ = hold.owns_lock();
    if (has_acted_)
      act();
  }

  kit::KeyValueStore& store_;
  std::string key_;
  kit::Mutex* lock_ = nullptr;
  mutable kit::Block act_;
  mutable bool has_acted_ = false;
};

class LateStore : public ::testing::Test {
 protected:
  LateStore() {
    world_.transport.setDefaultAnswer(Answer::silence());
    services_.setCommonParameter("install_id", "of the process");
  }
  void recovers() {
    services_.setCommonParameter("install_id", "of the file");
    core_->storeRecovered();
  }
  /// An age was sent, and is accepted in a second.
  void sendAge() {
    world_.transport.on(services::kSetDemographicPath).then(Answer::json(kit::Dictionary{{"Result", true}}).after(1));
    world_.loop.perform([this] {
      core_->setAge(27);
      core_->sendUserDemoInfos(core_->makeDemoInfoParameter());
    });
  }
  std::string onlyInstall(const char* path) {
    const auto payloads = world_.payloads(path);
    EXPECT_EQ(payloads.size(), 1U);
    return payloads.empty() ? "" : std::string(payloads[0]["install_id"].string());
  }

  TestWorld world_;
  InterceptingServices services_{world_.userDefaults(), {world_.cipher, world_.compressor, world_.random}};
  kit::ListLock lock_;
  InterceptingStore store_{world_.store};
  const kit::Ports kit_ =
      testing::portsWith(world_.ports(), {.key_value_store = &store_, .list_lock = &lock_, .services = &services_});
  const std::shared_ptr<MorvikCoreLib> core_ = MorvikCoreLib::make(kit_);
};

TEST_F(LateStore, IsTheOneThatAConversionNamesWhoseParametersWereMadeBefore) {
  services_.after_sealing = [this] { recovers(); };
  world_.loop.perform([this] { core_->setReferralUrlForFacebook(kit::Url("https://f.example/?ck=12")); });
  ASSERT_FALSE(services_.after_sealing);
  EXPECT_EQ(onlyInstall(services::kThirdPartyConversionPath), "of the file");
}

TEST_F(LateStore, IsTheOneThatARepeatedConversionNames) {
  world_.transport.on(services::kConversionPath).then(Answer::error("no answer")).then(Answer::silence());
  world_.loop.perform([this] { core_->conversion(Value()); });
  world_.transport.clearRequests();
  recovers();
  world_.loop.advance(11);
  EXPECT_EQ(onlyInstall(services::kConversionPath), "of the file");
}

TEST_F(LateStore, CountsItsLaunchesOnAlthoughALaunchIsCountedAtThatMoment) {
  store_.actAfter(kLaunchCounter, lock_.mutex, [this] { world_.store.set(kLaunchCounter, 3); });
  core_->updateAppLaunchCount();
  EXPECT_EQ(world_.store.get(kLaunchCounter), Value(store_.hasActed() ? 4 : 1));
}

TEST_F(LateStore, KeepsADemographicThatWasNotSentAlthoughOthersAreAcceptedAtThatMoment) {
  sendAge();
  store_.actAfter(services::property::fendoUserDemoInfo_age, lock_.mutex, [this] {
    world_.store.set(services::property::fendoUserDemoInfo_gender, 2);
    core_->storeRecovered();
  });
  world_.loop.advance(2);
  EXPECT_EQ(world_.userDefaults().fendoUserDemoInfo_age(), -1);
  EXPECT_EQ(world_.userDefaults().fendoUserDemoInfo_gender(), store_.hasActed() ? 2 : -1);
}

}  // namespace
}  // namespace morvik
