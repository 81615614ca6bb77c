// Age, gender and user id of the app's user, and the clearing of the impressions.

#include <algorithm>

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

constexpr const char* kAge = "age";
constexpr const char* kGender = "gender";
constexpr const char* kUserId = "userId";

Value demo(const char* key, const Value& value) {
  return kit::Dictionary{{"demo_key", key}, {"demo_value", value}};
}

}  // namespace

/// Age and gender: what waits is what is not kNonePending.
void MorvikCoreLib::tellDemographic(kit::DemographicValue value, bool is_pending) {
  if (is_pending)
    ledger().recorded(value);
  else
    ledger().removed(value, kit::LedgerReason::kTakenBack);
}

void MorvikCoreLib::setAge(int32_t age) {
  tellDemographic(kit::DemographicValue::kAge, age != kNonePending);
  store().setFendoUserDemoInfo_age(age);
  store().setFendoUserDemoInfoForComplete_age(age);
}

void MorvikCoreLib::setGender(int32_t gender) {
  tellDemographic(kit::DemographicValue::kGender, gender != kNonePending);
  store().setFendoUserDemoInfo_gender(gender);
  store().setFendoUserDemoInfoForComplete_gender(gender);
}

void MorvikCoreLib::setUserId(const std::optional<std::string>& user_id) {
  tellDemographic(kit::DemographicValue::kUserId, user_id.has_value());
  store().setFendoUserDemoInfo_userId(user_id);
  store().setFendoUserDemoInfoForComplete_userId(user_id);
}

Value MorvikCoreLib::fetchDemos() const {
  kit::MutableArray demos;
  if (const int32_t age = store().fendoUserDemoInfo_age(); age != kNonePending)
    demos.append(demo(kAge, age));
  if (const int32_t gender = store().fendoUserDemoInfo_gender(); gender != kNonePending)
    demos.append(demo(kGender, gender));
  if (const auto user_id = store().fendoUserDemoInfo_userId())
    demos.append(demo(kUserId, *user_id));
  return Value(std::move(demos));
}

/// Without a hashed identifier the list of pairs ends before it begins, and the payload is an empty object.
Value MorvikCoreLib::makeDemoInfoParameter() const {
  return demoParameterOf(fetchDemos());
}

Value MorvikCoreLib::demoParameterOf(const Value& demos) const {
  static constexpr const char* kOperation = "-[MorvikCoreLib makeDemoInfoParameter]";
  const std::optional<std::string> puid = ports_.puid.getAESHashedPUID();
  const Value payload(services::untilAbsent({{"puid", puid ? Value(*puid) : Value()},  //
                                             {"user_demo_info", demos}}));
  MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-Demo jsonDict : %@", payload);
  const auto json = ports_.json.write(payload);
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

/// Called before the parameters are made: what is recovered in between does not count as sent then.
MorvikCoreLib::SentDemos MorvikCoreLib::demosOfThisMoment() const {
  const uint64_t stores_known = stores_brought_;
  return {stores_known, fetchDemos()};
}

void MorvikCoreLib::sendPendingDemos() {
  if (services().isSendingOff() || trackingKey().empty())
    return;
  const SentDemos sent = demosOfThisMoment();
  if (sent.demos.size() > 0)
    sendDemos(demoParameterOf(sent.demos), sent);
}

void MorvikCoreLib::sendUserDemoInfos(const Value& parameters) {
  sendDemos(parameters, demosOfThisMoment());
}

void MorvikCoreLib::sendDemos(const Value& parameters, const SentDemos& sent) {
  if (isGateClosed())
    return;
  MORVIK_LOG(log(), lcl_vDebug, "-[MorvikCoreLib sendUserDemoInfos:]", "MRVK_QA-sendUserDemoInfos parameterInfo : %@",
             parameters);
  auto request = services::postRequest(ports_.endpoints, services::Endpoint::kSetDemographic, parameters,
                                       services::AcceptEncoding::kUnset);
  static constexpr const char* kHandlerOperation = "-[MorvikCoreLib sendUserDemoInfos:]_block_invoke";
  const bool says_whose = !parameters.isNil() && ports_.puid.getAESHashedPUID().has_value();
  const kit::LedgerAnswer accepted = says_whose ? kit::LedgerAnswer::kAccepted : kit::LedgerAnswer::kAcceptedNameless;
  const kit::LedgerTicket ticket =
      ledger().carries({.kind = kit::LedgerKind::kDemographics, .records = sent.demos.array()});
  services::run(
      requestTools(), std::move(request),
      [self = shared_from_this(), sent, ticket, accepted](const Value& json) {
        MORVIK_LOG(self->log(), lcl_vDebug, kHandlerOperation, "MRVK_QA-JSON: %@", json);
        const bool is_accepted = self->util().checkNilToNo(json["Result"]);
        self->ledger().answered(ticket, is_accepted ? accepted : kit::LedgerAnswer::kNotAccepted);
        if (is_accepted)
          self->demosWereAccepted(sent);
      },
      [logger = log()](const std::optional<kit::Response>& response, const kit::Error& error) {
        MORVIK_LOG(logger, lcl_vError, kHandlerOperation, "MRVK_QA-Recieved an HTTP %ld",
                   services::statusCode(response));
        MORVIK_LOG(logger, lcl_vError, kHandlerOperation, "MRVK_QA-The error was: %@", error);
      },
      {.when_held = kit::WhenHeld::kEnds, .ticket = ticket});
}

/// What was not sent of a store recovered meanwhile stays pending. In one step, so that none is recovered in between.
void MorvikCoreLib::demosWereAccepted(const SentDemos& sent) {
  store().inOneStep([this, &sent] {
    if (sent.stores_known == stores_brought_)
      deleteAllDemos(kit::LedgerReason::kAddedDuringUpload);
    else
      deleteSentDemos(sent);
  });
}

void MorvikCoreLib::deleteSentDemos(const SentDemos& sent) {
  const kit::Array demos = sent.demos.array();
  const auto is_sent = [&demos](const char* key, const Value& value) {
    return std::find(demos.begin(), demos.end(), demo(key, value)) != demos.end();
  };
  if (is_sent(kAge, store().fendoUserDemoInfo_age()))
    deleteDemo(kit::DemographicValue::kAge, kit::LedgerReason::kAddedDuringUpload);
  if (is_sent(kGender, store().fendoUserDemoInfo_gender()))
    deleteDemo(kit::DemographicValue::kGender, kit::LedgerReason::kAddedDuringUpload);
  if (const auto user_id = store().fendoUserDemoInfo_userId(); user_id && is_sent(kUserId, *user_id))
    deleteDemo(kit::DemographicValue::kUserId, kit::LedgerReason::kAddedDuringUpload);
}

void MorvikCoreLib::deleteDemos() {
  deleteAllDemos(kit::LedgerReason::kTakenBack);
}

void MorvikCoreLib::deleteAllDemos(kit::LedgerReason reason) {
  for (const auto value : {kit::DemographicValue::kAge, kit::DemographicValue::kGender, kit::DemographicValue::kUserId})
    deleteDemo(value, reason);
}

void MorvikCoreLib::deleteDemo(kit::DemographicValue value, kit::LedgerReason reason) {
  ledger().removed(value, reason);
  switch (value) {
    case kit::DemographicValue::kAge:
      return store().setFendoUserDemoInfo_age(kNonePending);
    case kit::DemographicValue::kGender:
      return store().setFendoUserDemoInfo_gender(kNonePending);
    case kit::DemographicValue::kUserId:
      return store().setFendoUserDemoInfo_userId(std::nullopt);
  }
}

void MorvikCoreLib::deleteImpressionInfo() {
  clearStored(kit::LedgerKind::kImpressions, stores_brought_, kit::LedgerReason::kAnswered);
}

}  // namespace morvik
