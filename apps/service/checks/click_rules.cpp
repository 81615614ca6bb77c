#include "apps/service/checks/click_rules.h"

#include <array>

#include "apps/service/checks/member_rules.h"
#include "apps/service/checks/payload_rules.h"

namespace morvik_service {
namespace {

constexpr std::string_view kDeepLink = "deeplink_info";
constexpr std::array<MemberRule, 5> kReEngagementMembers = {{{"session_no", MemberType::kInteger},
                                                             {"conversion_key", MemberType::kInteger},
                                                             {"deeplink_uri"},
                                                             {"sub_conversion_key"},
                                                             {"is_first_launch", MemberType::kBoolean}}};
constexpr std::array<MemberRule, 3> kDeepLinkMembers = {
    {{"conversion_key", MemberType::kInteger}, {"deeplink_uri"}, {"sub_conversion_key"}}};
constexpr std::array<MemberRule, 3> kCommerceMembers = {{{"clickId"}, {"idfa"}, {"mtime", MemberType::kNumber}}};

}  // namespace

void checkReEngagementPayload(const Json& payload) {
  checkCommonParameters(payload);
  const Json& click = requireMember(payload, {kDeepLink, MemberType::kObject}, {});
  requireExactly(click, kReEngagementMembers, Place().member(kDeepLink));
}

void checkDeepLink(const Json& payload) {
  const auto click = payload.find(kDeepLink);
  if (click != payload.end())
    requireExactly(*click, kDeepLinkMembers, Place().member(kDeepLink));
}

void checkCommerceClicks(const Json& payload) {
  requireEntries(payload, {},
                 [](const Json& click, const Place& place) { requireExactly(click, kCommerceMembers, place); });
}

}  // namespace morvik_service
