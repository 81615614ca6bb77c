// Identifiers that are made once and stored.
#pragma once

#include <string>
#include <string_view>

#include "kit/crypto.h"
#include "kit/key_value_store.h"

namespace morvik::runtime {

// Names of the kit's own values in the store.
inline constexpr std::string_view kDeviceIdKey = "host.deviceId";
inline constexpr std::string_view kInstallIdKey = "host.installId";
inline constexpr std::string_view kAdvertisingIdKey = "host.advertisingId";

/// The identifier stored under `key`; made (UUID version 4, lower case) and stored if there is none. Main queue, or
/// before it runs.
std::string keptIdentifier(kit::KeyValueStore& store, std::string_view key, kit::Random& random);

}  // namespace morvik::runtime
