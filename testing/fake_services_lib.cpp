#include "testing/fake_services_lib.h"

#include <variant>

#include "services/describe.h"
#include "services/endpoints.h"

namespace morvik::testing {
namespace {

/// The names in the order in which they are sent.
constexpr const char* kCommonParameterNames[] = {
    "appkey",  "sdk_version", "os_type",          "os_version",       "device_model", "language",
    "country", "timezone",    "app_version_name", "app_version_code", "package_name", "idfa",
    "puid",    "install_id",  "network",          "carrier",          "portrait",
};

std::string asText(const kit::Value& value) {
  return value.isString() ? std::string(value.string()) : "(none)";
}

}  // namespace

FakeServicesLib::FakeServicesLib(services::MorvikGVUserDefaults store, services::SealingTools sealing,
                                 FakeServicesLibOptions options)
    : options_(std::move(options)),
      store_(store),
      sealing_(sealing),
      conversions_(store_),
      is_gdpr_forget_me_(store_.MorvikCoreUserInfo_isGDPRForgetMe()),
      is_gdpr_forget_me_server_synced_(store_.MorvikCoreUserInfo_isGDPRForgetMeServerSynced()),
      next_event_number_(options_.first_event_number),
      advertising_identifier_(options_.advertising_identifier) {}

bool FakeServicesLib::isGDPRForgetMe() const {
  const std::lock_guard lock(mutex_);
  return is_gdpr_forget_me_;
}

double FakeServicesLib::intervalSinceServerDate() const {
  const std::lock_guard lock(mutex_);
  return interval_since_server_date_;
}

void FakeServicesLib::setIntervalSinceServerDate(double interval_seconds) {
  calls_.add("setIntervalSinceServerDate");
  const std::lock_guard lock(mutex_);
  interval_since_server_date_ = interval_seconds;
}

std::string FakeServicesLib::activityGroupName(int group) const {
  return group == 0 ? services::kFendoActivityGroupSession : "group " + std::to_string(group);
}

void FakeServicesLib::addActivityGroupName(const kit::Value& group_name, const kit::Value& activity_name,
                                           const kit::Value& param, kit::Date created_at) {
  calls_.add("addActivityGroupName " + asText(group_name) + " " + asText(activity_name));
  kit::MutableDictionary record;
  record.set("activityGroupName", group_name);
  record.set("activityName", activity_name);
  record.set("activityParam", param);
  record.set("activityCreatedAt", created_at);
  {
    const std::lock_guard lock(mutex_);
    record.set("activityEventID", "event-" + std::to_string(next_event_number_++));
  }
  store_.append(services::property::fendoActivityInfos, kit::Value(std::move(record)));
  store_.synchronize();
}

kit::MutableDictionary FakeServicesLib::makeCommonParameter(const std::string& sdk_version) {
  kit::MutableDictionary parameters;
  for (const char* name : kCommonParameterNames)
    parameters.set(name, std::string("test ") + name);
  parameters.set("appkey", options_.app_key);
  parameters.set("sdk_version", sdk_version);
  parameters.set("os_type", "ios");
  const std::lock_guard lock(mutex_);
  for (const auto& [name, value] : common_parameters_)
    parameters.set(name, value);
  return parameters;
}

kit::Value FakeServicesLib::makeJsonParameter(const kit::Value& payload, const std::string& encryption_key) {
  calls_.add("makeJsonParameter");
  auto envelope = services::makeEnvelope(sealing_, options_.app_key, payload, encryption_key);
  if (const auto* error = std::get_if<kit::Error>(&envelope)) {
    envelope_errors_.add(error->message);
    return {};
  }
  return std::get<kit::Value>(std::move(envelope));
}

void FakeServicesLib::setConversionResult(bool result) {
  calls_.add(std::string("setConversionResult ") + (result ? "1" : "0"));
  const std::lock_guard lock(mutex_);
  conversion_result_ = result;
}

void FakeServicesLib::setConversionResultCode(int64_t code) {
  calls_.add("setConversionResultCode " + std::to_string(code));
  const std::lock_guard lock(mutex_);
  conversion_result_code_ = code;
}

std::optional<std::string> FakeServicesLib::appleAdvertisingIdentifier() const {
  const std::lock_guard lock(mutex_);
  return advertising_identifier_;
}

void FakeServicesLib::saveConversionInfoForCacheWithConversionArr(const kit::Value& conversion_keys) {
  calls_.add("saveConversionInfoForCacheWithConversionArr");
  conversions_.replace(conversion_keys);
  store_.synchronize();
}

void FakeServicesLib::saveConversionInfoForCache(int64_t conversion_key) {
  calls_.add("saveConversionInfoForCache " + std::to_string(conversion_key));
  conversions_.add(conversion_key);
}

void FakeServicesLib::saveConversionTimeInfoForCache(const std::string& conversion_key, double get_time_milliseconds) {
  calls_.add("saveConversionTimeInfoForCache " + conversion_key + " " +
             services::describe(kit::Value(get_time_milliseconds)));
  conversions_.saveTime(conversion_key, get_time_milliseconds);
}

bool FakeServicesLib::isPremiumPostback() const {
  const std::lock_guard lock(mutex_);
  return is_premium_postback_;
}

void FakeServicesLib::setIsPremiumPostback(bool is_premium_postback) {
  calls_.add(std::string("setIsPremiumPostback ") + (is_premium_postback ? "1" : "0"));
  const std::lock_guard lock(mutex_);
  is_premium_postback_ = is_premium_postback;
}

std::shared_ptr<const kit::ResetRetainedConversionCacheDelegate> FakeServicesLib::resetRetainedConversionCacheDeleate()
    const {
  const std::lock_guard lock(mutex_);
  return reset_delegate_.lock();
}

void FakeServicesLib::setResetRetainedConversionCacheDeleate(
    std::weak_ptr<const kit::ResetRetainedConversionCacheDelegate> delegate) {
  calls_.add("setResetRetainedConversionCacheDeleate");
  const std::lock_guard lock(mutex_);
  reset_delegate_ = std::move(delegate);
}

std::shared_ptr<const kit::SaveRetainedConversionKeyDelegate> FakeServicesLib::saveRetainedConversionKeyDelegate()
    const {
  const std::lock_guard lock(mutex_);
  return retained_delegate_.lock();
}

void FakeServicesLib::setSaveRetainedConversionKeyDelegate(
    std::weak_ptr<const kit::SaveRetainedConversionKeyDelegate> delegate) {
  calls_.add("setSaveRetainedConversionKeyDelegate");
  const std::lock_guard lock(mutex_);
  retained_delegate_ = std::move(delegate);
}

std::shared_ptr<const kit::SaveFendoUserInfoDelegate> FakeServicesLib::saveFendoUserInfoDelegate() const {
  const std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void FakeServicesLib::exchangeDidEnd(const kit::Request& request, const kit::ExchangeResult& result) {
  ended_exchanges_.add({request.url, result});
}

void FakeServicesLib::setIsGDPRForgetMe(bool forget_me) {
  const std::lock_guard lock(mutex_);
  is_gdpr_forget_me_ = forget_me;
}

void FakeServicesLib::setIsGDPRForgetMeServerSynced(bool synced) {
  const std::lock_guard lock(mutex_);
  is_gdpr_forget_me_server_synced_ = synced;
}

bool FakeServicesLib::isGDPRForgetMeServerSynced() const {
  const std::lock_guard lock(mutex_);
  return is_gdpr_forget_me_server_synced_;
}

std::shared_ptr<const kit::GetScheduleDelegate> FakeServicesLib::getScheduleDelegate() const {
  const std::lock_guard lock(mutex_);
  return schedule_delegate_.lock();
}

void FakeServicesLib::setGetScheduleDelegate(std::weak_ptr<const kit::GetScheduleDelegate> delegate) {
  calls_.add("setGetScheduleDelegate");
  const std::lock_guard lock(mutex_);
  schedule_delegate_ = std::move(delegate);
}

void FakeServicesLib::setAppleAdvertisingIdentifier(std::optional<std::string> identifier) {
  const std::lock_guard lock(mutex_);
  advertising_identifier_ = std::move(identifier);
}

void FakeServicesLib::setSaveFendoUserInfoDelegate(std::weak_ptr<const kit::SaveFendoUserInfoDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void FakeServicesLib::setCommonParameter(const kit::Value& name, const kit::Value& value) {
  const std::lock_guard lock(mutex_);
  common_parameters_.emplace_back(name, value);
}

std::optional<bool> FakeServicesLib::conversionResult() const {
  const std::lock_guard lock(mutex_);
  return conversion_result_;
}

std::optional<int64_t> FakeServicesLib::conversionResultCode() const {
  const std::lock_guard lock(mutex_);
  return conversion_result_code_;
}

uint64_t FakeServicesLib::nextEventNumber() const {
  const std::lock_guard lock(mutex_);
  return next_event_number_;
}

}  // namespace morvik::testing
