// The kit's sibling components that hold something for the app (facade, configuration, version), and an app that
// listens.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kit/MorvikCoreServicesLib.h"
#include "kit/config.h"
#include "kit/facade.h"
#include "testing/recording.h"

namespace morvik::testing {

/// Holds the app's delegate weakly. Any thread; nothing blocks.
class FakeFacade : public kit::Facade {
 public:
  void setDelegate(std::weak_ptr<const kit::FacadeDelegate> delegate) {
    const std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
  }
  std::shared_ptr<const kit::FacadeDelegate> delegate() const override {
    const std::lock_guard lock(mutex_);
    return delegate_.lock();
  }

 private:
  mutable std::mutex mutex_;
  std::weak_ptr<const kit::FacadeDelegate> delegate_;
};

/// An app that implements every slot of both delegates and records the calls. A test may empty slots.
class RecordingDelegate {
 public:
  RecordingDelegate();
  RecordingDelegate(const RecordingDelegate&) = delete;
  RecordingDelegate& operator=(const RecordingDelegate&) = delete;

  std::shared_ptr<kit::FacadeDelegate> of_facade = std::make_shared<kit::FacadeDelegate>();
  std::shared_ptr<kit::SaveFendoUserInfoDelegate> of_services = std::make_shared<kit::SaveFendoUserInfoDelegate>();

  /// The calls in order: the slot's name, a colon and the arguments ("didSaveConversionKey: 12, 34").
  std::vector<std::string> calls() const { return calls_->all(); }
  void clear() { calls_->clear(); }

 private:
  std::shared_ptr<Recording<std::string>> calls_ = std::make_shared<Recording<std::string>>();
};

/// The configuration objects of one app. The test owns the key and may change it between two reads. Any thread; nothing
/// blocks.
class FakeConfig : public kit::MorvkSDKConfig {
 public:
  explicit FakeConfig(std::string tracking_key) : tracking_key_(std::move(tracking_key)) {}
  void setTrackingKey(std::string tracking_key) {
    const std::lock_guard lock(mutex_);
    tracking_key_ = std::move(tracking_key);
  }
  std::string getTrackingSuperkey() const override {
    const std::lock_guard lock(mutex_);
    return tracking_key_;
  }

 private:
  mutable std::mutex mutex_;
  std::string tracking_key_;
};

/// A new object with the answers of `config`, which must outlive it.
std::unique_ptr<kit::MorvkSDKConfig> freshConfig(const kit::MorvkSDKConfig& config);

class FakeUpdateLog : public kit::MorvikCoreUpdateLog {
 public:
  std::string frameworkName() const override { return "MorvikCore"; }
  std::string getSDKVersion() const override { return "1.2.3"; }
};

}  // namespace morvik::testing
