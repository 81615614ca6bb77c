#include "runtime/siblings/common_parameters.h"

#include "kit/device.h"

namespace morvik::runtime {
namespace {

// Not constant: "sdk_version", "puid", "network".
constexpr size_t kChangingFields = 3;

}  // namespace

CommonParameters::CommonParameters(const Identity& identity) : util_(identity.util), puid_(identity.puid) {
  replace(identity);
}

void CommonParameters::replace(const Identity& identity) {
  const DeviceDescription& device = identity.device;
  const bool is_portrait = device.orientation == kit::kOrientationPortrait;
  constant_.set({
      {kit::Value::literal("appkey"), identity.app_key},
      {kit::Value::literal("os_type"), kit::Value::literal("ios")},
      {kit::Value::literal("os_version"), device.system_version},
      {kit::Value::literal("device_model"), device.model},
      {kit::Value::literal("language"), device.language},
      {kit::Value::literal("country"), device.country},
      {kit::Value::literal("timezone"), identity.zone_name},
      {kit::Value::literal("app_version_name"), device.app_version_name},
      {kit::Value::literal("app_version_code"), device.app_version_code},
      {kit::Value::literal("package_name"), device.package_name},
      {kit::Value::literal("idfa"), identity.util.IDFA().value_or("")},
      {kit::Value::literal("install_id"), identity.install_id},
      {kit::Value::literal("carrier"), device.carrier},
      {kit::Value::literal("portrait"), is_portrait ? kit::Value::literal("true") : kit::Value::literal("false")},
  });
}

kit::MutableDictionary CommonParameters::make(const std::string& sdk_version) const {
  const std::vector<kit::Entry> constant = constant_.get();
  kit::MutableDictionary parameters(constant.size() + kChangingFields);
  for (const kit::Entry& entry : constant)
    parameters.add(entry.key, entry.value);
  parameters.add(kit::Value::literal("sdk_version"), sdk_version);
  parameters.add(kit::Value::literal("puid"), puid_.getAESHashedPUID().value_or(""));
  parameters.add(kit::Value::literal("network"), util_.getNetworkStatus());
  return parameters;
}

}  // namespace morvik::runtime
