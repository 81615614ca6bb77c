// Small sibling components and ports for tests: identifier, bundle, threads, shelf.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kit/MorvikADGetPUID.h"
#include "kit/bundle.h"
#include "kit/crash.h"
#include "kit/threads.h"

namespace morvik::testing {

/// Any thread; nothing blocks.
class FakePuid : public kit::MorvikADGetPUID {
 public:
  /// Initially "hashed-puid".
  void setHashedPUID(std::optional<std::string> puid) {
    const std::lock_guard lock(mutex_);
    puid_ = std::move(puid);
  }
  std::optional<std::string> getAESHashedPUID() const override {
    const std::lock_guard lock(mutex_);
    return puid_;
  }

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> puid_ = "hashed-puid";
};

/// An information dictionary. Any thread; nothing blocks.
class FakeBundle : public kit::Bundle {
 public:
  /// Initially version "4.5.6", build "789", identifier "com.example.test". Without a text the key is removed.
  void set(const std::string& key, std::optional<std::string> text);
  std::optional<std::string> objectForInfoDictionaryKey(std::string_view key) const override;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string, std::less<>> texts_ = {{kit::kCFBundleShortVersionStringKey, "4.5.6"},
                                                            {kit::kCFBundleVersionKey, "789"},
                                                            {kit::kCFBundleIdentifierKey, "com.example.test"}};
};

/// Any thread; nothing blocks.
class FakeThreads : public kit::Threads {
 public:
  /// Initially "<Thread: 0x600000264c00>{number = 1, name = main}".
  void setDescription(std::string description) {
    const std::lock_guard lock(mutex_);
    description_ = std::move(description);
  }
  std::string currentThreadDescription() const override {
    const std::lock_guard lock(mutex_);
    return description_;
  }

 private:
  mutable std::mutex mutex_;
  std::string description_ = "<Thread: 0x600000264c00>{number = 1, name = main}";
};

/// A shelf in memory that outlives a test's processes. Any thread; nothing blocks.
class MemoryShelf : public kit::ReportShelf {
 public:
  std::optional<kit::Error> append(const kit::Value& report) override;
  kit::Array reports() override;
  void clear() override;

  /// Simulates a full disk: append() returns this error; nullopt: there is room again.
  void refuse(std::optional<std::string> error);

 private:
  std::mutex mutex_;
  kit::MutableArray reports_;
  std::optional<std::string> refusal_;
};

}  // namespace morvik::testing
