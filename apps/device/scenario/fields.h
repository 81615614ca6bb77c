// Typed fields of a map of the scenario file. Everything throws Mistake: what is wrong there, and what was expected.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/device/scenario/times.h"
#include "apps/device/scenario/yaml_tree.h"
#include "kit/value.h"

namespace morvik_device::scenario {

/// "a, b, c".
std::string listed(const std::vector<std::string_view>& names);
/// "one of: a, b, c"; "a" if there is only one.
std::string oneOf(const std::vector<std::string_view>& names);

/// A map whose keys are all known. The node must outlive it.
class Fields {
 public:
  /// `what` names the map in messages: "a step".
  Fields(const YamlNode& node, std::string what, std::vector<std::string_view> known_keys);

  /// The value; null if the key is missing.
  const YamlNode* find(std::string_view key) const;
  /// The place of the key; that of the map if the key is missing.
  Place placeOf(std::string_view key) const;
  /// The one of these keys that is present; a mistake if there is none, or several.
  std::string_view exactlyOne(const std::vector<std::string_view>& keys) const;
  /// Throws a mistake for the first of these that is present.
  void refuse(const std::vector<std::string_view>& keys, const std::string& why) const;

 private:
  const YamlNode& node_;
  std::string what_;
};

// What a node holds. `what` names it in messages.
std::string textOf(const YamlNode& node, const std::string& what);
bool booleanOf(const YamlNode& node, const std::string& what);
int64_t wholeNumberOf(const YamlNode& node, const std::string& what, int64_t least, int64_t most);
/// "10%" as 0.1.
double chanceOf(const YamlNode& node, const std::string& what);
int64_t timeOf(const YamlNode& node, const std::string& what);
TimeRange timeRangeOf(const YamlNode& node, const std::string& what);
/// The elements of a list; any other node but null, as the only element.
std::vector<const YamlNode*> oneOrMore(const YamlNode& node, const std::string& what);
const std::vector<YamlNode>& listOf(const YamlNode& node, const std::string& what);

/// As JSON: a plain scalar is null, true, false, a number or else text; one in quotes is text.
morvik::kit::Value valueOf(const YamlNode& node);
/// The same for a map; anything else is a mistake.
morvik::kit::Value objectOf(const YamlNode& node, const std::string& what);
/// Its compact JSON text.
std::string jsonTextOf(const YamlNode& node);

}  // namespace morvik_device::scenario
