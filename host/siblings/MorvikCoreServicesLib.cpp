#include "host/siblings/MorvikCoreServicesLib.h"

#include <utility>
#include <variant>

#include "services/converters.h"
#include "services/endpoints.h"
#include "services/json_writer.h"
#include "services/uuid.h"

namespace morvik::host {
namespace {

constexpr const char* kAddActivity = "-[MorvikCoreServicesLib addActivityGroupName:activityName:param:createdAt:]";
constexpr int kSessionGroup = 0;
constexpr size_t kActivityFields = 5;
// Fields of an activity, in lines of the log: these say where something is amiss, and never what the user did.
constexpr const char* kGroup = "group";
constexpr const char* kName = "name";
constexpr const char* kParam = "param";

}  // namespace

MorvikCoreServicesLib::MorvikCoreServicesLib(ServicesParts parts)
    : parts_(std::move(parts)), conversions_(parts_.store) {
  loadMirrors();
}

void MorvikCoreServicesLib::loadMirrors() {
  is_forget_me_ = parts_.store.MorvikCoreUserInfo_isGDPRForgetMe();
  is_forget_me_synced_ = parts_.store.MorvikCoreUserInfo_isGDPRForgetMeServerSynced();
}

std::string MorvikCoreServicesLib::activityGroupName(int group) const {
  return group == kSessionGroup ? services::kFendoActivityGroupSession : "";
}

void MorvikCoreServicesLib::addActivityGroupName(const kit::Value& group_name, const kit::Value& activity_name,
                                                 const kit::Value& param, kit::Date created_at) {
  record(group_name, activity_name, param, created_at);
}

bool MorvikCoreServicesLib::addActivityOfApp(const kit::Value& group_name, const kit::Value& activity_name,
                                             const kit::Value& param, kit::Date created_at) {
  if (isGDPRForgetMe()) {
    MORVIK_LOG(parts_.logger, kit::lcl_vWarning, kAddActivity,
               "Morvik host: an activity of the app was not recorded: the user asked to be forgotten; ask "
               "isGdprForgetMe() before recording");
    return false;
  }
  return record(group_name, activity_name, param, created_at);
}

bool MorvikCoreServicesLib::record(const kit::Value& group_name, const kit::Value& activity_name,
                                   const kit::Value& param, kit::Date created_at) {
  const kit::Value group = recordable(group_name, kGroup);
  const kit::Value name = recordable(activity_name, kName);
  if (group.isAbsent() || name.isAbsent()) {
    MORVIK_LOG(parts_.logger, kit::lcl_vError, kAddActivity,
               "Morvik host: an activity was not recorded: its %s is no text; it needs a group and a name, both text",
               group.isAbsent() ? kGroup : kName);
    return false;
  }
  kit::MutableDictionary activity(kActivityFields);
  activity.add(kit::Value::literal("activityGroupName"), group);
  activity.add(kit::Value::literal("activityName"), name);
  if (kit::Value text = recordable(param, kParam); !text.isAbsent())
    activity.add(kit::Value::literal("activityParam"), std::move(text));
  activity.add(kit::Value::literal("activityCreatedAt"), created_at);
  activity.add(kit::Value::literal("activityEventID"),
               services::makeTimeOrderedUuid(parts_.clock.now(), parts_.sealing.random));
  store(kit::Value(std::move(activity)));
  return true;
}

// Text that no batch can stumble over; absent when there is none in the value.
kit::Value MorvikCoreServicesLib::recordable(const kit::Value& value, const char* field) const {
  if (value.isNil() || value.isArray() || value.isDictionary())
    return {};
  kit::Value text = services::checkNilToBlankString(value);
  const std::string_view bytes = text.string();
  const size_t well_formed = services::wellFormedBytes(bytes);
  if (well_formed == bytes.size())
    return text;
  std::string mended;
  services::appendMendedUtf8(bytes, mended);
  MORVIK_LOG(parts_.logger, kit::lcl_vWarning, kAddActivity,
             "Morvik host: the %s of an activity is not UTF-8 at byte %lu of %lu and was recorded with U+FFFD in place "
             "of each bad byte; give it as UTF-8",
             field, well_formed, bytes.size());
  return mended;
}

void MorvikCoreServicesLib::store(const kit::Value& activity) {
  parts_.store.inOneStep([this, &activity] {
    kit::MutableArray activities(parts_.store.fendoActivityInfos());
    activities.append(activity);
    if (parts_.ledger != nullptr)
      parts_.ledger->activityIsBeingStored();
    parts_.store.setFendoActivityInfos(kit::Value(std::move(activities)));
  });
  parts_.store.synchronize();
  parts_.size_trigger.activityWasStored();
}

kit::MutableDictionary MorvikCoreServicesLib::makeCommonParameter(const std::string& sdk_version) {
  if (parts_.ledger != nullptr)
    parts_.ledger->payloadIsBeingBuilt();
  return parts_.common.make(sdk_version);
}

kit::Value MorvikCoreServicesLib::makeJsonParameter(const kit::Value& payload, const std::string& encryption_key) {
  auto envelope = services::makeEnvelope(parts_.sealing, parts_.app_key, payload, encryption_key);
  auto* parameters = std::get_if<kit::Value>(&envelope);
  if (parts_.ledger != nullptr)
    parts_.ledger->payloadWasSealed(payload, parameters != nullptr ? *parameters : kit::Value());
  if (parameters != nullptr)
    return std::move(*parameters);
  MORVIK_LOG(parts_.logger, kit::lcl_vError, "-[MorvikCoreServicesLib makeJsonParameter:encryptionKey:]",
             "Morvik host: a payload could not be sealed, and is not sent: %@", std::get<kit::Error>(envelope));
  return {};
}

void MorvikCoreServicesLib::saveConversionInfoForCacheWithConversionArr(const kit::Value& conversion_keys) {
  conversions_.replace(conversion_keys);
}

std::shared_ptr<const kit::SaveFendoUserInfoDelegate> MorvikCoreServicesLib::saveFendoUserInfoDelegate() const {
  return save_delegate_.get().lock();
}

void MorvikCoreServicesLib::setSaveFendoUserInfoDelegate(std::weak_ptr<const kit::SaveFendoUserInfoDelegate> delegate) {
  save_delegate_.set(std::move(delegate));
}

std::shared_ptr<const kit::ResetRetainedConversionCacheDelegate>
MorvikCoreServicesLib::resetRetainedConversionCacheDeleate() const {
  return reset_delegate_.get().lock();
}

void MorvikCoreServicesLib::setResetRetainedConversionCacheDeleate(
    std::weak_ptr<const kit::ResetRetainedConversionCacheDelegate> delegate) {
  reset_delegate_.set(std::move(delegate));
}

std::shared_ptr<const kit::SaveRetainedConversionKeyDelegate> MorvikCoreServicesLib::saveRetainedConversionKeyDelegate()
    const {
  return retained_delegate_.get().lock();
}

void MorvikCoreServicesLib::setSaveRetainedConversionKeyDelegate(
    std::weak_ptr<const kit::SaveRetainedConversionKeyDelegate> delegate) {
  retained_delegate_.set(std::move(delegate));
}

std::shared_ptr<const kit::GetScheduleDelegate> MorvikCoreServicesLib::getScheduleDelegate() const {
  return schedule_delegate_.get().lock();
}

void MorvikCoreServicesLib::setGetScheduleDelegate(std::weak_ptr<const kit::GetScheduleDelegate> delegate) {
  schedule_delegate_.set(std::move(delegate));
}

void MorvikCoreServicesLib::exchangeDidEnd(const kit::Request& request, const kit::ExchangeResult& result) {
  if (parts_.ledger != nullptr)
    parts_.ledger->exchangeDidEnd(result);
  if (request.url != parts_.tracking_url)
    return;
  if (result.succeeded && services::checkNilToNo(result.json["Result"])) {
    parts_.size_trigger.batchWasAccepted();
  } else {
    // The keys still stand: the handler that trims by them, or empties them, comes next.
    parts_.size_trigger.batchWasRefused(parts_.store.fendoActivityInfosSentEventKeys().size());
  }
}

}  // namespace morvik::host
