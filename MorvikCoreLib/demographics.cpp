// Age, gender and user id of the app's user, and the clearing of the impressions.

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "services/endpoints.h"
#include "services/text_codes.h"
#include "services/value_key_pairs.h"

namespace morvik {
namespace {

using kit::lcl_vDebug;
using kit::lcl_vError;
using kit::lcl_vTrace;
using kit::Value;

/// What an age or gender reads as when none is pending.
constexpr int32_t kNonePending = -1;

Value demo(const char* key, const Value& value) {
  return kit::Dictionary{{"demo_key", key}, {"demo_value", value}};
}

}  // namespace

void MorvikCoreLib::setAge(int32_t age) {
  store().setFendoUserDemoInfo_age(age);
  store().setFendoUserDemoInfoForComplete_age(age);
}

void MorvikCoreLib::setGender(int32_t gender) {
  store().setFendoUserDemoInfo_gender(gender);
  store().setFendoUserDemoInfoForComplete_gender(gender);
}

void MorvikCoreLib::setUserId(const std::optional<std::string>& user_id) {
  store().setFendoUserDemoInfo_userId(user_id);
  store().setFendoUserDemoInfoForComplete_userId(user_id);
}

Value MorvikCoreLib::fetchDemos() const {
  kit::MutableArray demos;
  if (const int32_t age = store().fendoUserDemoInfo_age(); age != kNonePending)
    demos.append(demo("age", age));
  if (const int32_t gender = store().fendoUserDemoInfo_gender(); gender != kNonePending)
    demos.append(demo("gender", gender));
  if (const auto user_id = store().fendoUserDemoInfo_userId())
    demos.append(demo("userId", *user_id));
  return Value(std::move(demos));
}

/// Without a hashed identifier the list of pairs ends before it begins, and the payload is an empty object.
Value MorvikCoreLib::makeDemoInfoParameter() const {
  static constexpr const char* kOperation = "-[MorvikCoreLib makeDemoInfoParameter]";
  const std::optional<std::string> puid = kit_.puid.getAESHashedPUID();
  const Value payload(services::untilAbsent({{"puid", puid ? Value(*puid) : Value()},  //
                                             {"user_demo_info", fetchDemos()}}));
  MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-Demo jsonDict : %@", payload);
  const auto json = kit_.json.write(payload);
  if (const auto* error = std::get_if<kit::Error>(&json)) {
    MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-error : %@", *error);
    return {};
  }
  const auto sealed =
      services::morvikAD_AES256EncryptionWithKey(sealingTools(), std::get<std::string>(json), trackingKey());
  if (const auto* error = std::get_if<kit::Error>(&sealed)) {
    MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-error : %@", *error);
    return {};
  }
  return kit::Dictionary{{"j", services::morvikAD_tracerByteToHex(std::get<std::string>(sealed))}};
}

void MorvikCoreLib::sendPendingDemos() {
  if (!services().isSendingOff() && fetchDemos().size() > 0 && !trackingKey().empty())
    sendUserDemoInfos(makeDemoInfoParameter());
}

void MorvikCoreLib::sendUserDemoInfos(const Value& parameters) {
  if (isGateClosed())
    return;
  MORVIK_LOG(log(), lcl_vDebug, "-[MorvikCoreLib sendUserDemoInfos:]", "MRVK_QA-sendUserDemoInfos parameterInfo : %@",
             parameters);
  auto request = services::postRequest(kit_.endpoints.kFendoTrackingBaseLiveUrl, services::kSetDemographicPath,
                                       parameters, services::AcceptEncoding::kUnset);
  static constexpr const char* kHandlerOperation = "-[MorvikCoreLib sendUserDemoInfos:]_block_invoke";
  services::run(
      requestTools(), std::move(request),
      [self = shared_from_this()](const Value& json) {
        MORVIK_LOG(self->log(), lcl_vDebug, kHandlerOperation, "MRVK_QA-JSON: %@", json);
        if (self->util().checkNilToNo(json["Result"]))
          self->deleteDemos();
      },
      [logger = log()](const std::optional<kit::Response>& response, const kit::Error& error) {
        MORVIK_LOG(logger, lcl_vError, kHandlerOperation, "MRVK_QA-Recieved an HTTP %ld",
                   services::statusCode(response));
        MORVIK_LOG(logger, lcl_vError, kHandlerOperation, "MRVK_QA-The error was: %@", error);
      },
      {.when_held = kit::WhenHeld::kEnds});
}

void MorvikCoreLib::deleteDemos() {
  store().setFendoUserDemoInfo_age(kNonePending);
  store().setFendoUserDemoInfo_gender(kNonePending);
  store().setFendoUserDemoInfo_userId(std::nullopt);
}

void MorvikCoreLib::deleteImpressionInfo() {
  store().inOneStep([this] {
    const Value stored = store().fendoImpressionInfos();
    if (!stored.isAbsent())
      store().replace(services::property::fendoImpressionInfos, stored, kit::Array());
  });
  store().synchronize();
}

}  // namespace morvik
