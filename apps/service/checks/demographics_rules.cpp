#include "apps/service/checks/demographics_rules.h"

#include <algorithm>
#include <array>

#include "apps/service/checks/member_rules.h"

namespace morvik_service {
namespace {

constexpr std::array<MemberRule, 2> kDemographicsMembers = {{{"puid"}, {"user_demo_info", MemberType::kArray}}};
// The demographics of a user, in the order in which they are sent.
constexpr std::array<MemberRule, 3> kDemographicKinds = {
    {{"age", MemberType::kInteger}, {"gender", MemberType::kInteger}, {"userId"}}};

const MemberRule* findKind(std::string_view name) {
  const auto* const found = std::find_if(kDemographicKinds.begin(), kDemographicKinds.end(),
                                         [&](const MemberRule& kind) { return kind.name == name; });
  return found == kDemographicKinds.end() ? nullptr : found;
}

const MemberRule* checkEntry(const Json& entry, const Place& place) {
  requireType(entry, MemberType::kObject, place);
  const Json& key = requireMember(entry, {"demo_key"}, place);
  const MemberRule* kind = findKind(key.get_ref<const std::string&>());
  if (kind == nullptr)
    throw badMember("is none of age, gender and userId", place.path("demo_key"));
  requireExactly(entry, std::array<MemberRule, 2>{{{"demo_key"}, {"demo_value", kind->type}}}, place);
  return kind;
}

}  // namespace

void checkDemographicsPayload(const Json& payload) {
  if (payload.empty())
    return;
  requireExactly(payload, kDemographicsMembers, {});
  const MemberRule* last = nullptr;
  requireEntries(payload.at("user_demo_info"), Place("user_demo_info"), [&](const Json& entry, const Place& place) {
    const MemberRule* kind = checkEntry(entry, place);
    if (last != nullptr && kind <= last)
      throw badMember("does not follow the order age, gender, userId", place.path("demo_key"));
    last = kind;
  });
}

}  // namespace morvik_service
