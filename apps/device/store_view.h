// The stored properties by name, for looking at.
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

/// Stored properties and the two plain entries, as their readers see them: a number that was never stored shows its
/// unset value, what is absent is left out.
class StoreView {
 public:
  /// Reads an entry of the platform's store by its key.
  using ReadEntry = std::function<morvik::kit::Value(std::string_view key)>;

  StoreView(morvik::services::MorvikGVUserDefaults properties, ReadEntry read_entry)
      : properties_(properties), read_entry_(std::move(read_entry)) {}

  /// Those named, in that order, or all. Returns the first name that is none in `unknown`.
  morvik::kit::Value show(const std::vector<std::string>& names, std::optional<std::string>& unknown) const;

 private:
  bool showOne(std::string_view name, morvik::kit::MutableDictionary& shown) const;

  morvik::services::MorvikGVUserDefaults properties_;
  ReadEntry read_entry_;
};

}  // namespace morvik_device
