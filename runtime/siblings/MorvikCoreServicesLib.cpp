#include "runtime/siblings/MorvikCoreServicesLib.h"

#include <string>
#include <utility>
#include <variant>

#include "runtime/after_recording.h"
#include "services/converters.h"
#include "services/endpoints.h"
#include "services/guard.h"
#include "services/json_writer.h"
#include "services/uuid.h"

namespace morvik::runtime {
namespace {

constexpr const char* kAddActivity = "-[MorvikCoreServicesLib addActivityGroupName:activityName:param:createdAt:]";
constexpr int kSessionGroup = 0;
constexpr size_t kActivityFields = 5;
// Fields of an activity in log lines, which say where something is wrong but never what the user did.
constexpr const char* kGroup = "group";
constexpr const char* kName = "name";
constexpr const char* kParam = "param";
constexpr const char* kSpaceKey = "space key";

constexpr const char* kAddImpression = "-[MorvikCore addImpression:]";
constexpr const char* kRepairedLine =
    "Morvik host: the %s of an activity is not UTF-8 at byte %lu of %lu and was recorded with U+FFFD in place of each "
    "bad byte; give it as UTF-8";

constexpr services::GuardClause kTellingThrew =
    services::oneLine(kit::lcl_vError, "Morvik host: something was refused, and nobody could be told of it: %@");
constexpr services::Guard kTellingGuard{kTellingThrew, kTellingThrew};

/// Text as it is recorded.
struct Repaired {
  explicit Repaired(std::string_view given) : first_bad_byte(services::wellFormedBytes(given)), bytes(given.size()) {
    if (!isGood())
      services::appendRepairedUtf8(given, text);
  }
  bool isGood() const { return first_bad_byte == bytes; }

  size_t first_bad_byte;
  size_t bytes;
  std::string text;  ///< only if it is not good
};

/// What is wrong, and how to fix it.
const char* adviceOn(Recorded reason) {
  switch (reason) {
    case Recorded::kRefusedForgotten:
      return "the user asked to be forgotten; ask isGdprForgetMe() before recording";
    case Recorded::kRefusedEmpty:
      return "it needs a group and a name, and one of them is empty; give both";
    case Recorded::kRefusedTooLarge:
      return "it is larger than the kit takes; shorten its texts";
    case Recorded::kRefusedTooMany:
      return "too many wait to be handled already; let the main queue run";
    default:
      return "the kit is not running; start it first";
  }
}

}  // namespace

MorvikCoreServicesLib::MorvikCoreServicesLib(ServicesLibParts parts)
    : parts_(std::move(parts)), conversions_(parts_.store) {
  loadMirrors();
}

void MorvikCoreServicesLib::loadMirrors() {
  setIsGDPRForgetMe(parts_.store.MorvikCoreUserInfo_isGDPRForgetMe());
  is_forget_me_synced_ = parts_.store.MorvikCoreUserInfo_isGDPRForgetMeServerSynced();
}

void MorvikCoreServicesLib::closeIfStoredForgotten() {
  if (parts_.store.MorvikCoreUserInfo_isGDPRForgetMe())
    setIsGDPRForgetMe(true);
}

std::string MorvikCoreServicesLib::activityGroupName(int group) const {
  return group == kSessionGroup ? services::kFendoActivityGroupSession : "";
}

bool MorvikCoreServicesLib::isSendingOff() const {
  return background_thread_.load() == std::this_thread::get_id() ? was_sending_off_ : is_sending_off_.load();
}

void MorvikCoreServicesLib::setIsGDPRForgetMe(bool forget_me) {
  parts_.store.atTheDoor([this, forget_me] { is_forget_me_ = forget_me; });
}

void MorvikCoreServicesLib::addActivityGroupName(const kit::Value& group_name, const kit::Value& activity_name,
                                                 const kit::Value& param, kit::Date created_at) {
  kit::Value group = recordable(group_name, kGroup);
  kit::Value name = recordable(activity_name, kName);
  if (group.isAbsent() || name.isAbsent()) {
    MORVIK_LOG(parts_.logger, kit::lcl_vError, kAddActivity,
               "Morvik host: an activity was not recorded: its %s is no text; it needs a group and a name, both text",
               group.isAbsent() ? kGroup : kName);
    return;
  }
  const kit::Value activity = activityOf(std::move(group), std::move(name), recordable(param, kParam), created_at);
  parts_.store.atTheDoor([this, &activity] { letIn(activity); });
  parts_.store.synchronize();
  parts_.size_trigger.activityWasStored();
}

Recorded MorvikCoreServicesLib::addActivityOfApp(std::string_view group, std::string_view name,
                                                 std::optional<std::string_view> param, kit::Date created_at) {
  // Asked first, so that the texts of a forgotten user are not even copied.
  if (isGDPRForgetMe())
    return refuse(Recorded::kRefusedForgotten, kAddActivity, "an activity");
  if (group.empty() || name.empty())
    return refuse(Recorded::kRefusedEmpty, kAddActivity, "an activity");
  const size_t param_bytes = param ? param->size() : 0;
  if (group.size() > kMaxEventBytes || name.size() > kMaxEventBytes || param_bytes > kMaxEventBytes ||
      group.size() + name.size() + param_bytes > kMaxEventBytes)
    return refuse(Recorded::kRefusedTooLarge, kAddActivity, "an activity");
  const kit::Value activity = activityOf(recordableOfApp(group, kGroup), recordableOfApp(name, kName),
                                         param ? recordableOfApp(*param, kParam) : kit::Value(), created_at);
  if (!letInUnlessForgotten(activity))
    return refuse(Recorded::kRefusedForgotten, kAddActivity, "an activity");
  const Recorded recorded = keptBy(parts_.logger, [this] { return parts_.store.synchronize(); });
  afterRecording(parts_.logger, [this] { parts_.size_trigger.activityWasStored(); });
  return recorded;
}

Recorded MorvikCoreServicesLib::addImpressionOfApp(const Impression& impression, kit::Date created_at) {
  if (isGDPRForgetMe())
    return refuse(Recorded::kRefusedForgotten, kAddImpression, "an impression");
  if (impression.space_key.size() > kMaxEventBytes)
    return refuse(Recorded::kRefusedTooLarge, kAddImpression, "an impression");
  const kit::Value record = kit::Dictionary{
      {"campaignKey", impression.campaign_key},  {"spaceKey", recordableOfApp(impression.space_key, kSpaceKey)},
      {"resourceKey", impression.resource_key},  {"conversionKey", impression.conversion_key},
      {"isFirstTime", impression.is_first_time}, {"createdAt", created_at}};
  const bool is_in = parts_.store.atTheDoor([this, &record] {
    if (is_forget_me_)
      return false;
    parts_.store.append(services::property::fendoImpressionInfos, record);
    if (parts_.ledger != nullptr)
      parts_.ledger->recorded(kit::LedgerKind::kImpressions, 1);
    return true;
  });
  if (!is_in)
    return refuse(Recorded::kRefusedForgotten, kAddImpression, "an impression");
  return keptBy(parts_.logger, [this] { return parts_.store.synchronize(); });
}

Recorded MorvikCoreServicesLib::refuse(Recorded reason, const char* operation, const char* what) {
  if (parts_.ledger != nullptr)
    parts_.ledger->wasRefused(reason);
  // It is counted in any case; whether somebody could be told does not change the result.
  services::guarded(parts_.logger, kTellingGuard, MORVIK_HERE(operation), [this, reason] {
    if (parts_.observations != nullptr)
      parts_.observations->refused(reason);
  });
  services::guarded(parts_.logger, kTellingGuard, MORVIK_HERE(operation), [&] {
    MORVIK_LOG(parts_.logger, kit::lcl_vWarning, operation, "Morvik host: %s of the app was not recorded: %s", what,
               adviceOn(reason));
  });
  return reason;
}

kit::Value MorvikCoreServicesLib::activityOf(kit::Value group, kit::Value name, kit::Value param,
                                             kit::Date created_at) const {
  kit::MutableDictionary activity(kActivityFields);
  activity.add(kit::Value::literal("activityGroupName"), std::move(group));
  activity.add(kit::Value::literal("activityName"), std::move(name));
  if (!param.isAbsent())
    activity.add(kit::Value::literal("activityParam"), std::move(param));
  activity.add(kit::Value::literal("activityCreatedAt"), created_at);
  activity.add(kit::Value::literal("activityEventID"),
               services::makeTimeOrderedUuid(parts_.clock.now(), parts_.sealing.random));
  return kit::Value(std::move(activity));
}

// Text that no batch can fail on; absent if there is none in the value.
kit::Value MorvikCoreServicesLib::recordable(const kit::Value& value, const char* field) const {
  if (value.isNil() || value.isArray() || value.isDictionary())
    return {};
  kit::Value text = services::checkNilToBlankString(value);
  const Repaired repaired(text.string());
  if (repaired.isGood())
    return text;
  MORVIK_LOG(parts_.logger, kit::lcl_vWarning, kAddActivity, kRepairedLine, field, repaired.first_bad_byte,
             repaired.bytes);
  return repaired.text;
}

kit::Value MorvikCoreServicesLib::recordableOfApp(std::string_view text, const char* field) const {
  Repaired repaired(text);
  if (repaired.isGood())
    return text;
  MORVIK_LOG(parts_.logger, kit::lcl_vWarning, kAddActivity, kRepairedLine, field, repaired.first_bad_byte,
             repaired.bytes);
  return std::move(repaired.text);
}

/// At the door.
void MorvikCoreServicesLib::letIn(const kit::Value& activity) {
  parts_.store.append(services::property::fendoActivityInfos, activity);
  if (parts_.ledger != nullptr)
    parts_.ledger->recorded(kit::LedgerKind::kActivities, 1);
}

/// The wish is set at the door too: nothing enters after it.
bool MorvikCoreServicesLib::letInUnlessForgotten(const kit::Value& activity) {
  return parts_.store.atTheDoor([this, &activity] {
    if (is_forget_me_)
      return false;
    letIn(activity);
    return true;
  });
}

kit::MutableDictionary MorvikCoreServicesLib::makeCommonParameter(const std::string& sdk_version) {
  return parts_.common.make(sdk_version);
}

kit::Value MorvikCoreServicesLib::makeJsonParameter(const kit::Value& payload, const std::string& encryption_key) {
  auto envelope = services::makeEnvelope(parts_.sealing, parts_.app_key, payload, encryption_key);
  if (parts_.sealing.stop != nullptr && parts_.sealing.stop->isMade() && std::holds_alternative<kit::Error>(envelope))
    return {};  // abandoned, and would never be sent
  auto* parameters = std::get_if<kit::Value>(&envelope);
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
  const CarriedLoad load = parts_.ledger != nullptr ? parts_.ledger->loadOf(request.ledger_ticket) : CarriedLoad();
  if (parts_.observations != nullptr)
    parts_.observations->exchangeDidEnd(request, result, load);
  if (request.url != parts_.tracking_url)
    return;
  if (result.succeeded && services::checkNilToNo(result.json["Result"])) {
    parts_.size_trigger.batchWasAccepted();
  } else {
    // The keys are still there: the handler that trims by them, or empties them, comes next.
    parts_.size_trigger.batchWasRefused(parts_.store.fendoActivityInfosSentEventKeys().size());
  }
}

}  // namespace morvik::runtime
