#include "apps/device/scenario/fields.h"

#include <algorithm>
#include <cmath>
#include <variant>

#include "apps/device/scenario/numbers.h"
#include "services/json_writer.h"

namespace morvik_device::scenario {
namespace {

namespace kit = morvik::kit;

/// Longer scalars are cut in messages.
constexpr size_t kShownTextBytes = 60;

std::string kindName(const YamlNode& node) {
  switch (node.kind) {
    case YamlNode::Kind::kNull:
      return "nothing";
    case YamlNode::Kind::kScalar:
      return "\"" + (node.text.size() > kShownTextBytes ? node.text.substr(0, kShownTextBytes) + "…" : node.text) +
             "\"";
    case YamlNode::Kind::kList:
      return "a list";
    case YamlNode::Kind::kMap:
      return "a map";
  }
  return "";
}

[[noreturn]] void refuseNode(const YamlNode& node, const std::string& what, const std::string& expected) {
  throw Mistake(node.place, what + " is " + kindName(node) + "; expected " + expected);
}

kit::Value scalarValue(const YamlNode& node) {
  if (node.quoted)
    return node.text;
  if (node.text == "true" || node.text == "false")
    return node.text == "true";
  if (const auto integer = wholeText<int64_t>(node.text))
    return *integer;
  // "nan", "inf" and the like are text: JSON has no such numbers.
  const bool begins_like_a_number = node.text.find_first_of("0123456789") == (node.text.starts_with('-') ? 1 : 0);
  const auto number = begins_like_a_number ? wholeText<double>(node.text) : std::nullopt;
  if (number && std::isfinite(*number))
    return *number;
  return node.text;
}

}  // namespace

std::string listed(const std::vector<std::string_view>& names) {
  std::string text;
  for (const std::string_view name : names)
    text += (text.empty() ? "" : ", ") + std::string(name);
  return text;
}

std::string oneOf(const std::vector<std::string_view>& names) {
  return (names.size() == 1 ? "" : "one of: ") + listed(names);
}

Fields::Fields(const YamlNode& node, std::string what, std::vector<std::string_view> known_keys)
    : node_(node), what_(std::move(what)) {
  if (!node.isMap())
    refuseNode(node, what_, "a map with keys of these: " + listed(known_keys));
  for (const YamlMember& member : node.members) {
    if (std::find(known_keys.begin(), known_keys.end(), member.key) == known_keys.end()) {
      throw Mistake(member.place,
                    "\"" + member.key + "\" is not a key of " + what_ + "; expected " + oneOf(known_keys));
    }
  }
}

const YamlNode* Fields::find(std::string_view key) const {
  const auto found =
      std::find_if(node_.members.begin(), node_.members.end(), [key](const YamlMember& m) { return m.key == key; });
  return found == node_.members.end() ? nullptr : &found->value;
}

Place Fields::placeOf(std::string_view key) const {
  const auto found =
      std::find_if(node_.members.begin(), node_.members.end(), [key](const YamlMember& m) { return m.key == key; });
  return found == node_.members.end() ? node_.place : found->place;
}

std::string_view Fields::exactlyOne(const std::vector<std::string_view>& keys) const {
  std::string_view only;
  for (const std::string_view key : keys) {
    if (find(key) == nullptr)
      continue;
    if (!only.empty()) {
      throw Mistake(placeOf(key), "\"" + std::string(key) + "\" cannot be combined with \"" + std::string(only) +
                                      "\" in " + what_ + "; expected only " + oneOf(keys));
    }
    only = key;
  }
  if (only.empty())
    throw Mistake(node_.place, what_ + " does not say what it is about; expected " + oneOf(keys));
  return only;
}

void Fields::refuse(const std::vector<std::string_view>& keys, const std::string& why) const {
  for (const std::string_view key : keys) {
    if (find(key) != nullptr)
      throw Mistake(placeOf(key), "\"" + std::string(key) + "\" has no place here; " + why);
  }
}

std::string textOf(const YamlNode& node, const std::string& what) {
  if (!node.isScalar())
    refuseNode(node, what, "a text");
  return node.text;
}

bool booleanOf(const YamlNode& node, const std::string& what) {
  if (!node.isScalar() || (node.text != "true" && node.text != "false"))
    refuseNode(node, what, "true or false");
  return node.text == "true";
}

int64_t wholeNumberOf(const YamlNode& node, const std::string& what, int64_t least, int64_t most) {
  const auto number = node.isScalar() ? wholeText<int64_t>(node.text) : std::nullopt;
  if (!number || *number < least || *number > most)
    refuseNode(node, what, "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
  return *number;
}

double chanceOf(const YamlNode& node, const std::string& what) {
  constexpr int kWhole = 100;
  const bool has_sign = node.isScalar() && !node.text.empty() && node.text.back() == '%';
  const auto parts =
      has_sign ? wholeText<int>(std::string_view(node.text).substr(0, node.text.size() - 1)) : std::nullopt;
  if (!parts || *parts < 0 || *parts > kWhole)
    refuseNode(node, what, "a chance from 0% to 100%, whole numbers only");
  return *parts / static_cast<double>(kWhole);
}

int64_t timeOf(const YamlNode& node, const std::string& what) {
  const auto time = node.isScalar() ? readDuration(node.text) : std::nullopt;
  if (!time)
    refuseNode(node, what, kTimeForms);
  return *time;
}

TimeRange timeRangeOf(const YamlNode& node, const std::string& what) {
  const auto range = node.isScalar() ? readTimeRange(node.text) : std::nullopt;
  if (!range)
    refuseNode(node, what, std::string(kTimeForms) + ", or two of them like 0s..20s");
  return *range;
}

std::vector<const YamlNode*> oneOrMore(const YamlNode& node, const std::string& what) {
  if (node.isNull())
    refuseNode(node, what, "at least one");
  if (!node.isList())
    return {&node};
  std::vector<const YamlNode*> all;
  for (const YamlNode& element : node.elements)
    all.push_back(&element);
  return all;
}

const std::vector<YamlNode>& listOf(const YamlNode& node, const std::string& what) {
  if (!node.isList())
    refuseNode(node, what, "a list");
  return node.elements;
}

kit::Value valueOf(const YamlNode& node) {
  switch (node.kind) {
    case YamlNode::Kind::kNull:
      break;
    case YamlNode::Kind::kScalar:
      return scalarValue(node);
    case YamlNode::Kind::kList: {
      kit::MutableArray list;
      for (const YamlNode& element : node.elements)
        list.append(valueOf(element));
      // An array without any element is an empty array, not null.
      return node.elements.empty() ? kit::Value(kit::Array{}) : kit::Value(std::move(list));
    }
    case YamlNode::Kind::kMap: {
      kit::MutableDictionary map;
      for (const YamlMember& member : node.members)
        map.set(member.key, valueOf(member.value));
      return kit::Value(std::move(map));
    }
  }
  return kit::Value::null();
}

kit::Value objectOf(const YamlNode& node, const std::string& what) {
  if (!node.isMap())
    refuseNode(node, what, "a map");
  return valueOf(node);
}

std::string jsonTextOf(const YamlNode& node) {
  // Everything in a scenario has a JSON form except text that is not UTF-8, which is repaired.
  auto text = morvik::services::writeJson(valueOf(node));
  return std::holds_alternative<std::string>(text) ? std::get<std::string>(std::move(text)) : "";
}

}  // namespace morvik_device::scenario
