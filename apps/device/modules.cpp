#include "apps/device/modules.h"

#include <utility>
#include <variant>

#include "host/json/simdjson_codec.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

kit::Value dictionaryOf(const std::map<std::string, std::string>& texts) {
  kit::MutableDictionary dictionary(texts.size());
  for (const auto& [key, text] : texts)
    dictionary.add(key, text);
  return kit::Value(std::move(dictionary));
}

// The JSON value if it is JSON, else the text.
kit::Value fromJson(const std::string& text) {
  auto read = morvik::host::SimdjsonCodec().read(text);
  if (auto* value = std::get_if<kit::Value>(&read))
    return std::move(*value);
  return kit::Value(text);
}

morvik::Module makeModule(const std::string& name, const std::optional<std::string>& version, Output& output) {
  const auto told = [name, &output](const char* selector, const kit::Array& arguments) {
    output.callbackOfModule(selector, name, arguments);
  };
  morvik::Module module;
  module.getSDKVersion = [told, version] {
    told("getSDKVersion", {});
    return version;
  };
  module.saveCommerceEventAndSend = [told] { told("saveCommerceEventAndSend", {}); };
  module.setRemotePushEnable = [told](bool enable) { told("setRemotePushEnable:", {enable}); };
  module.resetRetainedConversionCache = [told](const std::map<std::string, std::string>& query) {
    told("resetRetainedConversionCache:", {dictionaryOf(query)});
  };
  module.saveRetainedConversionKey = [told](int64_t key) { told("saveRetainedConversionKey:", {key}); };
  module.didGetSchedule = [told](const std::string& json) { told("didGetSchedule:", {fromJson(json)}); };
  return module;
}

}  // namespace

std::map<std::string, morvik::Module> makeModules(const ModuleNames& names, Output& output) {
  std::map<std::string, morvik::Module> modules;
  for (const auto& [name, version] : names)
    modules[name] = makeModule(name, version, output);
  return modules;
}

}  // namespace morvik_device
