#include "apps/service/checks/payload_rules.h"

#include <array>

#include "apps/service/checks/click_rules.h"
#include "apps/service/checks/member_rules.h"

namespace morvik_service {
namespace {

constexpr std::array<MemberRule, 17> kCommonMembers = {{{"appkey"},
                                                        {"sdk_version"},
                                                        {"os_type"},
                                                        {"os_version"},
                                                        {"device_model"},
                                                        {"language"},
                                                        {"country"},
                                                        {"timezone"},
                                                        {"app_version_name"},
                                                        {"app_version_code"},
                                                        {"package_name"},
                                                        {"idfa"},
                                                        {"puid"},
                                                        {"install_id"},
                                                        {"network"},
                                                        {"carrier"},
                                                        {"portrait"}}};
constexpr std::array<MemberRule, 6> kConversionActivityMembers = {
    {{"group"}, {"activity"}, {"param"}, {"created_at"}, {"prev_group"}, {"prev_activity"}}};
constexpr std::array<MemberRule, 7> kActivityMembers = {
    {{"group"}, {"activity"}, {"param"}, {"prev_group"}, {"prev_activity"}, {"created_at"}, {"event_id"}}};
constexpr std::array<MemberRule, 6> kImpressionMembers = {{{"campaign_key", MemberType::kInteger},
                                                           {"resource_key", MemberType::kInteger},
                                                           {"conversion_key", MemberType::kInteger},
                                                           {"space_key"},
                                                           {"created_at"},
                                                           {"isFirstTime", MemberType::kBoolean}}};
constexpr std::array<MemberRule, 2> kIadMembers = {{{"appPurchaseDate"}, {"iAdImpressionDate"}}};

void checkEntries(const Json& payload, std::string_view list, std::span<const MemberRule> rules) {
  const Json& entries = requireMember(payload, {list, MemberType::kArray}, {});
  requireEntries(entries, Place().member(list), [&](const Json& entry, const Place& place) {
    requireType(entry, MemberType::kObject, place);
    requireMembers(entry, rules, place);
  });
}

}  // namespace

void checkCommonParameters(const Json& payload) {
  requireMembers(payload, kCommonMembers, {});
}

void checkConversionPayload(const Json& payload) {
  checkCommonParameters(payload);
  checkEntries(payload, "activity_info", kConversionActivityMembers);
  if (payload.at("activity_info").size() != 1)
    throw badMember("does not hold exactly one entry", "activity_info");
  const auto details = payload.find("searchads_response");
  if (details == payload.end())
    throw badMember("is missing", "searchads_response");
  const bool is_blank = details->is_string() && details->get_ref<const std::string&>().empty();
  if (!details->is_object() && !is_blank)
    throw badMember("is neither an object nor \"\"", "searchads_response");
  checkDeepLink(payload);
}

void checkThirdPartyPayload(const Json& payload) {
  checkDeepLink(payload);
}

void checkIadPayload(const Json& payload) {
  checkCommonParameters(payload);
  const auto iad = payload.find("iAd");
  if (iad == payload.end())
    return;
  requireType(*iad, MemberType::kObject, Place("iAd"));
  requireMembers(*iad, kIadMembers, Place("iAd"));
}

void checkTrackingPayload(const Json& payload) {
  checkCommonParameters(payload);
  checkEntries(payload, "activity_info", kActivityMembers);
  checkEntries(payload, "impression_info", kImpressionMembers);
}

}  // namespace morvik_service
