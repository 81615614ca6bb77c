// Optional modules for tests, under any names. Each answers every operation and records every call.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/modules.h"
#include "testing/recording.h"

namespace morvik::testing {

/// Register modules before they are looked up. Lookups are safe from any thread; nothing blocks.
class FakeModules : public kit::ModuleRegistry {
 public:
  /// Adds a module that answers every operation; replaces an earlier one of that name. The test may empty slots of it.
  kit::Module& add(const std::string& class_name, std::optional<std::string> version = "1.0.0");
  /// The singleton of an added module; the test may empty slots of it.
  kit::ModuleObject& sharedOf(const std::string& class_name);
  void remove(const std::string& class_name) { modules_.erase(class_name); }

  const kit::Module* find(std::string_view class_name) const override;

  /// Every call, oldest first: "FendoLib resetRetainedConversionCache: {\"ck\":\"12\"}", "Fendo
  /// saveCommerceEventAndSend".
  std::vector<std::string> calls() const { return calls_->all(); }

 private:
  struct Entry {
    kit::Module module;
    std::shared_ptr<kit::ModuleObject> shared;
  };
  std::map<std::string, std::unique_ptr<Entry>, std::less<>> modules_;
  // The slots own what they write to: they may be called for as long as somebody holds a delegate.
  std::shared_ptr<Recording<std::string>> calls_ = std::make_shared<Recording<std::string>>();
};

}  // namespace morvik::testing
