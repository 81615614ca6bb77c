#include "runtime/siblings/app_modules.h"

#include "services/json_writer.h"

namespace morvik::runtime {
namespace {

std::map<std::string, std::string> textsOf(const kit::Value& query) {
  std::map<std::string, std::string> texts;
  for (const kit::Entry& entry : query.dictionary())
    texts.emplace(entry.key.string(), entry.value.string());
  return texts;
}

std::string jsonOf(const kit::Value& value) {
  std::string text;
  services::appendJsonDescription(value, text);
  return text;
}

/// Slots that are empty in the app's module are empty here.
std::shared_ptr<const kit::ModuleObject> singletonOf(const Module& module) {
  auto object = std::make_shared<kit::ModuleObject>();
  if (module.resetRetainedConversionCache) {
    object->resetRetainedConversionCache = [slot = module.resetRetainedConversionCache](const kit::Value& query) {
      slot(textsOf(query));
    };
  }
  object->saveRetainedConversionKey = module.saveRetainedConversionKey;
  if (module.didGetSchedule) {
    object->didGetSchedule = [slot = module.didGetSchedule](const kit::Value& schedule) { slot(jsonOf(schedule)); };
  }
  return object;
}

}  // namespace

AppModules::AppModules(const std::map<std::string, Module>& modules) {
  for (const auto& [class_name, module] : modules) {
    modules_[class_name] = {.shared = [object = singletonOf(module)] { return object; },
                            .saveCommerceEventAndSend = module.saveCommerceEventAndSend,
                            .setRemotePushEnable = module.setRemotePushEnable,
                            .getSDKVersion = module.getSDKVersion};
  }
}

const kit::Module* AppModules::find(std::string_view class_name) const {
  const auto found = modules_.find(class_name);
  return found == modules_.end() ? nullptr : &found->second;
}

}  // namespace morvik::runtime
