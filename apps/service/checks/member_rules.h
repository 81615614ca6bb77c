// Rules for the members of a payload, as tables of names and types. A wrong member is named by its path
// ("activity_info[3].event_id").
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "apps/service/base/json.h"
#include "apps/service/base/refusal.h"

namespace morvik_service {

/// The place of a value in the payload.
class Place {
 public:
  /// The payload itself.
  Place() = default;
  explicit Place(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  /// The path of a member of the object at this place.
  std::string path(std::string_view member) const {
    return path_.empty() ? std::string(member) : path_ + "." + std::string(member);
  }
  Place member(std::string_view name) const { return Place(path(name)); }
  /// The place of an entry of the array at this place.
  Place entry(std::size_t index) const { return Place(path_ + "[" + std::to_string(index) + "]"); }

 private:
  std::string path_;
};

enum class MemberType { kString, kInteger, kNumber, kNumberOrString, kBoolean, kArray, kObject };

struct MemberRule {
  std::string_view name;
  MemberType type = MemberType::kString;
};

/// The refusal (400) that says "<path> <problem>".
Refusal badMember(const std::string& problem, const std::string& path);

/// Each of these throws badMember. A value is of type kInteger if it fits a signed 64-bit integer.
void requireType(const Json& value, MemberType type, const Place& place);
const Json& requireMember(const Json& object, const MemberRule& rule, const Place& place);

/// At least these members.
void requireMembers(const Json& object, std::span<const MemberRule> rules, const Place& place);

/// An object with exactly these members.
void requireExactly(const Json& value, std::span<const MemberRule> rules, const Place& place);

/// Checks every entry of the array `list`: `check_entry(entry, place of the entry)`.
template <typename CheckEntry>
void requireEntries(const Json& list, const Place& place, CheckEntry check_entry) {
  std::size_t index = 0;
  for (const Json& entry : list)
    check_entry(entry, place.entry(index++));
}

}  // namespace morvik_service
