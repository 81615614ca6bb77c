// Shows the stored properties by name.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kit/value.h"
#include "services/MorvikGVUserDefaults.h"

namespace morvik_device {

/// Whether show() knows the name.
bool isStoredProperty(std::string_view name);

/// Stored properties and the two plain entries, as the kit reads them: a number that was never stored has its unset
/// value, absent properties are left out.
class StoreView {
 public:
  /// Reads an entry of the platform's store by its key.
  using ReadEntry = std::function<morvik::kit::Value(std::string_view key)>;

  StoreView(morvik::services::MorvikGVUserDefaults properties, ReadEntry read_entry)
      : properties_(properties), read_entry_(std::move(read_entry)) {}

  /// Those named, in that order, or all. `unknown` gets the first name that does not exist.
  morvik::kit::Value show(const std::vector<std::string>& names, std::optional<std::string>& unknown) const;

 private:
  bool showOne(std::string_view name, morvik::kit::MutableDictionary& shown) const;

  morvik::services::MorvikGVUserDefaults properties_;
  ReadEntry read_entry_;
};

}  // namespace morvik_device
