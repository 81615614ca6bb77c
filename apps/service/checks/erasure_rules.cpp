#include "apps/service/checks/erasure_rules.h"

#include <algorithm>
#include <array>

#include "apps/service/checks/member_rules.h"
#include "apps/service/checks/request_rules.h"

namespace morvik_service {
namespace {

constexpr std::string_view kDomain = "erasure.morvik.example";
constexpr std::array<MemberRule, 7> kErasureMembers = {{{"subject_request_id"},
                                                        {"subject_request_type"},
                                                        {"subject_identities", MemberType::kArray},
                                                        {"extensions", MemberType::kObject},
                                                        {"submitted_time"},
                                                        {"api_version"},
                                                        {"status_callback_urls"}}};
constexpr std::size_t kMembersWithoutTime = 4;
constexpr std::array<MemberRule, 3> kIdentityMembers = {{{"identity_type"}, {"identity_value"}, {"identity_format"}}};
constexpr std::size_t kIdentityMembersWithoutValue = 1;
constexpr std::array<MemberRule, 1> kExtensions = {{{kDomain, MemberType::kObject}}};
constexpr std::array<MemberRule, 2> kAppMembers = {{{"appkey"}, {"type"}}};

bool isOfPattern(char c, char pattern) {
  if (pattern == '0')
    return c >= '0' && c <= '9';
  if (pattern == 'X')
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
  return c == pattern;
}

// In a pattern, 0 stands for a digit, X for an upper-case hexadecimal one, all else for itself.
void requirePattern(const Json& object, std::string_view name, std::string_view pattern, const Place& place) {
  const auto& text = object.at(std::string(name)).get_ref<const std::string&>();
  if (!std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(), isOfPattern))
    throw badMember("is not of the form " + std::string(pattern), place.path(name));
}

void requireText(const Json& object, std::string_view name, std::string_view text, const Place& place) {
  if (object.at(std::string(name)).get_ref<const std::string&>() != text)
    throw badMember("is not \"" + std::string(text) + "\"", place.path(name));
}

// The first `least` members, or all when `decisive`, which the device may not know, is there.
bool requireAllOrLeast(const Json& object, std::span<const MemberRule> rules, std::size_t least, const char* decisive,
                       const Place& place) {
  const bool all = object.contains(decisive);
  requireExactly(object, all ? rules : rules.first(least), place);
  return all;
}

void checkIdentities(const Json& identities) {
  if (identities.size() != 1)
    throw badMember("does not hold exactly one entry", "subject_identities");
  const Json& identity = identities.front();
  const Place place("subject_identities[0]");
  requireType(identity, MemberType::kObject, place);
  const bool known =
      requireAllOrLeast(identity, kIdentityMembers, kIdentityMembersWithoutValue, "identity_value", place);
  requireText(identity, "identity_type", "ios_advertising_id", place);
  if (known)
    requireText(identity, "identity_format", "raw", place);
}

void checkExtensions(const Json& extensions) {
  const Place place("extensions");
  requireExactly(extensions, kExtensions, place);
  const Json& app = extensions.at(std::string(kDomain));
  if (app.empty())
    return;
  requireExactly(app, kAppMembers, place.member(kDomain));
  requireText(app, "type", "classic", place.member(kDomain));
}

}  // namespace

void checkErasureRequest(const Json& payload) {
  const bool has_time = requireAllOrLeast(payload, kErasureMembers, kMembersWithoutTime, "submitted_time", {});
  requirePattern(payload, "subject_request_id", "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", {});
  requireText(payload, "subject_request_type", "erasure", {});
  if (has_time) {
    requirePattern(payload, "submitted_time", "0000-00-00T00:00:00Z", {});
    requireText(payload, "api_version", "1.0", {});
    requireText(payload, "status_callback_urls", "", {});
  }
  checkIdentities(payload.at("subject_identities"));
  checkExtensions(payload.at("extensions"));
}

void checkAppOfErasureRequest(const Json& payload, const Keys& keys) {
  const Json& app = payload.at("extensions").at(std::string(kDomain));
  if (const auto key = app.find("appkey"); key != app.end())
    requireThisApp(key->get_ref<const std::string&>(), keys, "the payload, extensions");
}

}  // namespace morvik_service
