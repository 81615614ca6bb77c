#include "apps/device/store_view.h"

#include <algorithm>
#include <utility>

#include "services/endpoints.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;
namespace services = morvik::services;

template <class Type>
kit::Value asValue(const Type& value) {
  return kit::Value(value);
}
kit::Value asValue(int32_t value) {
  return kit::Value(int64_t{value});
}
template <class Type>
kit::Value asValue(const std::optional<Type>& value) {
  return value ? kit::Value(*value) : kit::Value();
}

struct Property {
  std::string_view name;
  kit::Value (*read)(const services::MorvikGVUserDefaults& properties);
};

constexpr Property kProperties[] = {
#define MORVIK_STORE_PROPERTY(name, setter, type, unset) \
  {#name, [](const services::MorvikGVUserDefaults& properties) { return asValue(properties.name()); }},
#include "services/store_properties.inc"
#undef MORVIK_STORE_PROPERTY
};

std::string launchCounterKey() {
  return std::string(services::kMorvikNSUserDefaultsDomainName) + "." + services::kAppLaunchCountSaveKey;
}

bool namesPlainEntry(std::string_view name) {
  return name == services::kPassOpenUrlKey || name == launchCounterKey();
}

const Property* propertyNamed(std::string_view name) {
  const auto* property =
      std::find_if(std::begin(kProperties), std::end(kProperties), [&](const Property& p) { return p.name == name; });
  return property == std::end(kProperties) ? nullptr : property;
}

std::vector<std::string> allNames() {
  std::vector<std::string> names;
  for (const Property& property : kProperties)
    names.emplace_back(property.name);
  names.emplace_back(services::kPassOpenUrlKey);
  names.push_back(launchCounterKey());
  return names;
}

}  // namespace

bool isStoredProperty(std::string_view name) {
  return namesPlainEntry(name) || propertyNamed(name) != nullptr;
}

kit::Value StoreView::show(const std::vector<std::string>& names, std::optional<std::string>& unknown) const {
  kit::MutableDictionary shown;
  for (const std::string& name : names.empty() ? allNames() : names) {
    if (!showOne(name, shown)) {
      unknown = name;
      break;
    }
  }
  return kit::Value(std::move(shown));
}

bool StoreView::showOne(std::string_view name, kit::MutableDictionary& shown) const {
  if (namesPlainEntry(name)) {
    shown.set(name, read_entry_(name));
    return true;
  }
  const Property* property = propertyNamed(name);
  if (property == nullptr)
    return false;
  shown.set(name, property->read(properties_));
  return true;
}

}  // namespace morvik_device
