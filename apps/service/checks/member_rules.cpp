#include "apps/service/checks/member_rules.h"

#include <algorithm>
#include <cstdint>

#include "apps/service/base/printable.h"

namespace morvik_service {
namespace {

bool fits64Bits(const Json& value) {
  return value.is_number_integer() && !(value.is_number_unsigned() && value.get<std::uint64_t>() > INT64_MAX);
}

bool isOfType(const Json& value, MemberType type) {
  switch (type) {
    case MemberType::kString:
      return value.is_string();
    case MemberType::kInteger:
      return fits64Bits(value);
    case MemberType::kNumber:
      return value.is_number();
    case MemberType::kNumberOrString:
      return value.is_number() || value.is_string();
    case MemberType::kBoolean:
      return value.is_boolean();
    case MemberType::kArray:
      return value.is_array();
    case MemberType::kObject:
      break;
  }
  return value.is_object();
}

const char* notOfType(MemberType type) {
  switch (type) {
    case MemberType::kString:
      return "is not a string";
    case MemberType::kInteger:
      return "is not a 64-bit integer";
    case MemberType::kNumber:
      return "is not a number";
    case MemberType::kNumberOrString:
      return "is neither a number nor a string";
    case MemberType::kBoolean:
      return "is not a boolean";
    case MemberType::kArray:
      return "is not an array";
    case MemberType::kObject:
      break;
  }
  return "is not an object";
}

}  // namespace

Refusal badMember(const std::string& problem, const std::string& path) {
  return Refusal(400, path + " " + problem, "the payload, " + path, "send the members that the protocol lists");
}

void requireType(const Json& value, MemberType type, const Place& place) {
  if (!isOfType(value, type))
    throw badMember(notOfType(type), place.path());
}

const Json& requireMember(const Json& object, const MemberRule& rule, const Place& place) {
  const auto found = object.find(rule.name);
  if (found == object.end())
    throw badMember("is missing", place.path(rule.name));
  // The member's path is built only if something is wrong with it: a batch has many members.
  if (!isOfType(*found, rule.type))
    throw badMember(notOfType(rule.type), place.path(rule.name));
  return *found;
}

void requireMembers(const Json& object, std::span<const MemberRule> rules, const Place& place) {
  for (const MemberRule& rule : rules)
    requireMember(object, rule, place);
}

void requireExactly(const Json& value, std::span<const MemberRule> rules, const Place& place) {
  requireType(value, MemberType::kObject, place);
  requireMembers(value, rules, place);
  for (const auto& member : value.items()) {
    const std::string& name = member.key();
    const bool known =
        std::any_of(rules.begin(), rules.end(), [&](const MemberRule& rule) { return rule.name == name; });
    if (!known)
      throw badMember("does not belong there", place.path(printable(name)));
  }
}

}  // namespace morvik_service
