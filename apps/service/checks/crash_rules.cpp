#include "apps/service/checks/crash_rules.h"

#include <array>

#include "apps/service/checks/member_rules.h"
#include "apps/service/checks/request_rules.h"

namespace morvik_service {
namespace {

constexpr std::string_view kDeviceInformation = "device_information";
constexpr std::array<MemberRule, 20> kReportMembers = {{{"idfa"},
                                                        {"os_type"},
                                                        {"os_version"},
                                                        {"appkey"},
                                                        {"app_version_name"},
                                                        {"app_version_code"},
                                                        {"install_datetime"},
                                                        {"package_name"},
                                                        {"common_sdk_version"},
                                                        {"kesmo_sdk_version"},
                                                        {"fendo_sdk_version"},
                                                        {"kesmo_display_ads"},
                                                        {"commerce_sdk_version"},
                                                        {"coupon_sdk_version"},
                                                        {"brisel_sdk_version"},
                                                        {"quint_sdk_version"},
                                                        {"local_kst_time"},
                                                        {"exception_reason"},
                                                        {"exception_log_trace"},
                                                        {kDeviceInformation, MemberType::kObject}}};
// The two free sizes are sent as the device's tools print them.
constexpr std::array<MemberRule, 5> kDeviceMembers = {{{"app_in_focus", MemberType::kBoolean},
                                                       {"root_device", MemberType::kBoolean},
                                                       {"device_model"},
                                                       {"free_device_storage", MemberType::kNumberOrString},
                                                       {"free_memory", MemberType::kNumberOrString}}};

}  // namespace

void checkCrashReports(const Json& payload) {
  requireEntries(payload, {}, [](const Json& report, const Place& place) {
    requireExactly(report, kReportMembers, place);
    requireExactly(report.at(std::string(kDeviceInformation)), kDeviceMembers, place.member(kDeviceInformation));
  });
}

void checkAppOfCrashReports(const Json& payload, const Keys& keys) {
  requireEntries(payload, {}, [&](const Json& report, const Place& place) {
    requireThisApp(report.at("appkey").get_ref<const std::string&>(), keys, "the payload, " + place.path("appkey"));
  });
}

}  // namespace morvik_service
