#include "apps/service/store/summary.h"

#include <algorithm>

namespace morvik_service {
namespace {

constexpr std::size_t kEntriesNamed = 4;

// The member if the value is an object that has it, else null.
const Json& memberOf(const Json& value, std::string_view name) {
  static const Json kNothing;
  if (!value.is_object())
    return kNothing;
  const auto found = value.find(name);
  return found == value.end() ? kNothing : *found;
}

std::string cut(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; }, ' ');
  if (text.size() <= kMaxSummaryBytes)
    return text;
  constexpr std::string_view kMore = "...";
  std::size_t end = kMaxSummaryBytes - kMore.size();
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
    --end;
  return text.substr(0, end) + std::string(kMore);
}

template <typename Name>
std::string nameEntries(const Json& list, Name name) {
  std::string text;
  std::size_t named = 0;
  if (!list.is_array())
    return text;
  for (const Json& entry : list) {
    if (named == kEntriesNamed)
      return text + " and " + std::to_string(list.size() - named) + " more";
    text += (named++ == 0 ? "" : ", ") + name(entry);
  }
  return text;
}

std::string aboutTracking(const Json& payload) {
  std::string text = nameEntries(memberOf(payload, "activity_info"), [](const Json& entry) {
    return memberText(entry, "group") + "/" + memberText(entry, "activity");
  });
  const Json& impressions = memberOf(payload, "impression_info");
  if (impressions.is_array() && !impressions.empty())
    text += (text.empty() ? "" : "; ") + std::to_string(impressions.size()) + " impressions";
  return text;
}

std::string aboutCrash(const Json& payload) {
  return nameEntries(payload, [](const Json& entry) { return memberText(entry, "exception_reason"); });
}

std::string aboutCommerce(const Json& payload) {
  return nameEntries(payload, [](const Json& entry) { return memberText(entry, "clickId"); });
}

std::string aboutDemographics(const Json& payload) {
  return nameEntries(memberOf(payload, "user_demo_info"), [](const Json& entry) {
    return memberText(entry, "demo_key") + " " + memberText(entry, "demo_value");
  });
}

std::string aboutConversion(const Json& payload) {
  const std::string link = memberText(memberOf(payload, "deeplink_info"), "deeplink_uri");
  if (!link.empty())
    return link;
  return memberOf(payload, "searchads_response").is_object() ? "with search ads details" : "";
}

void addIdentity(std::vector<std::string>& identities, const char* kind, const std::string& value) {
  if (value.find_first_not_of("0-") != std::string::npos)
    identities.push_back(kind + value);
}

const Json& firstEntry(const Json& list) {
  static const Json kNothing;
  return list.is_array() && !list.empty() ? list.front() : kNothing;
}

}  // namespace

std::string aboutPayload(std::string_view endpoint, const Json& payload) {
  if (endpoint == "tracking")
    return cut(aboutTracking(payload));
  if (endpoint == "crash")
    return cut(aboutCrash(payload));
  if (endpoint == "commerce-conversion")
    return cut(aboutCommerce(payload));
  if (endpoint == "demographics")
    return cut(aboutDemographics(payload));
  if (endpoint == "schedule")
    return cut("checksum " + memberText(payload, "checksum"));
  if (endpoint == "erasure")
    return cut(memberText(payload, "subject_request_id"));
  return cut(aboutConversion(payload));
}

std::string installOf(const Json& payload) {
  return memberText(payload, "install_id");
}

std::vector<std::string> identitiesOf(const Json& payload) {
  std::vector<std::string> identities;
  const Json& holder = payload.is_array() ? firstEntry(payload) : payload;
  addIdentity(identities, "idfa:", memberText(holder, "idfa"));
  addIdentity(identities, "puid:", memberText(holder, "puid"));
  addIdentity(identities, "idfa:", memberText(firstEntry(memberOf(holder, "subject_identities")), "identity_value"));
  return identities;
}

}  // namespace morvik_service
