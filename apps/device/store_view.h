// The stored properties by name, for looking at.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/key_value_store.h"
#include "services/MorvikGVUserDefaults.h"

namespace morvik_device {

/// Stored properties and the two plain entries, as their readers see them: a number that was never stored shows its
/// unset value, what is absent is left out.
class StoreView {
 public:
  StoreView(morvik::services::MorvikGVUserDefaults properties, const morvik::kit::KeyValueStore& entries)
      : properties_(properties), entries_(entries) {}

  /// Those named, in that order, or all. Returns the first name that is none in `unknown`.
  morvik::kit::Value show(const std::vector<std::string>& names, std::optional<std::string>& unknown) const;

 private:
  bool showOne(std::string_view name, morvik::kit::MutableDictionary& shown) const;

  morvik::services::MorvikGVUserDefaults properties_;
  const morvik::kit::KeyValueStore& entries_;
};

}  // namespace morvik_device
