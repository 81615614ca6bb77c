#include "testing/fake_modules.h"

#include <utility>

#include "services/describe.h"

namespace morvik::testing {

kit::Module& FakeModules::add(const std::string& class_name, std::optional<std::string> version) {
  auto entry = std::make_unique<Entry>();
  entry->shared = std::make_shared<kit::ModuleObject>();
  const auto note = [calls = calls_, class_name](const std::string& call) { calls->add(class_name + " " + call); };

  kit::ModuleObject& shared = *entry->shared;
  shared.resetRetainedConversionCache = [note](const kit::Value& query) {
    note("resetRetainedConversionCache: " + services::describe(query));
  };
  shared.saveRetainedConversionKey = [note](int64_t conversion_key) {
    note("saveRetainedConversionKey: " + std::to_string(conversion_key));
  };
  shared.didGetSchedule = [note](const kit::Value& schedule) {
    note("didGetSchedule: " + services::describe(schedule));
  };

  kit::Module& module = entry->module;
  module.shared = [object = entry->shared] { return object; };
  module.saveCommerceEventAndSend = [note] { note("saveCommerceEventAndSend"); };
  module.setRemotePushEnable = [note](bool enable) {
    note(std::string("setRemotePushEnable: ") + (enable ? "1" : "0"));
  };
  module.getSDKVersion = [version = std::move(version)] { return version; };

  std::unique_ptr<Entry>& place = modules_[class_name];
  place = std::move(entry);
  return place->module;
}

kit::ModuleObject& FakeModules::sharedOf(const std::string& class_name) {
  return *modules_.at(class_name)->shared;
}

const kit::Module* FakeModules::find(std::string_view class_name) const {
  const auto entry = modules_.find(class_name);
  return entry == modules_.end() ? nullptr : &entry->second->module;
}

}  // namespace morvik::testing
