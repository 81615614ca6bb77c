// A YAML document as a tree in which everything knows its place. Smaller than YAML: one document, keys are texts and
// stand once, and nothing refers to another place, so that a few lines cannot stand for millions.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "apps/device/scenario/mistake.h"

namespace morvik_device::scenario {

/// A larger document is refused without reading it.
inline constexpr size_t kMaxScenarioBytes = size_t{1024} * 1024;
inline constexpr size_t kMaxYamlDepth = 24;
inline constexpr size_t kMaxYamlNodes = 100'000;

struct YamlMember;

struct YamlNode {
  enum class Kind { kNull, kScalar, kList, kMap };

  Kind kind = Kind::kNull;
  Place place;
  std::string text;     ///< of a scalar
  bool quoted = false;  ///< a quoted scalar or a block of text: always text
  std::vector<YamlNode> elements;
  std::vector<YamlMember> members;

  bool isNull() const { return kind == Kind::kNull; }
  bool isScalar() const { return kind == Kind::kScalar; }
  bool isList() const { return kind == Kind::kList; }
  bool isMap() const { return kind == Kind::kMap; }
};

struct YamlMember {
  std::string key;
  Place place;  ///< of the key
  YamlNode value;
};

/// Reads a document; throws Mistake.
YamlNode readYaml(std::string_view text);

}  // namespace morvik_device::scenario
