// The campaign schedule: fetched, passed on, replayed if it did not change.

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "services/endpoints.h"

namespace morvik {
namespace {

using kit::lcl_vDebug;
using kit::lcl_vError;
using kit::lcl_vTrace;
using kit::Value;

/// The module that takes the schedule.
constexpr const char* kScheduleModule = "Fendo";

/// The language of schedules; there is only one.
constexpr const char* kScheduleLanguage = "ko";

/// The answer to a checksum that is still valid.
constexpr int64_t kScheduleUnchanged = 1001;

constexpr const char* kScheduleHandler = "-[MorvikCoreLib getSchedule:]_block_invoke";

}  // namespace

Value MorvikCoreLib::scheduleParameters() const {
  return kit::Dictionary{{"k", services().appKey()}, {"language", kScheduleLanguage}, {"checksum", checkSum_}};
}

void MorvikCoreLib::getSchedule(const Value& parameters) {
  if (isGateClosed())
    return;
  MORVIK_LOG(log(), lcl_vDebug, "-[MorvikCoreLib getSchedule:]", "MRVK_QA-getSchedule_parameterInfo : %@", parameters);
  auto request = services::postRequest(ports_.endpoints, services::Endpoint::kGetSchedule, parameters,
                                       services::AcceptEncoding::kUnset);
  services::run(
      requestTools(), std::move(request),
      [self = shared_from_this()](const Value& json) { self->scheduleDidArrive(json); },
      [logger = log()](const std::optional<kit::Response>& response, const kit::Error& error) {
        MORVIK_LOG(logger, lcl_vError, kScheduleHandler, "MRVK_QA-getSchedule_Recieved an HTTP %ld",
                   services::statusCode(response));
        MORVIK_LOG(logger, lcl_vError, kScheduleHandler, "MRVK_QA-getSchedule_The error was: %@", error);
      },
      {.when_held = kit::WhenHeld::kEnds});
}

/// An answer without success is kept and passed on like any other.
void MorvikCoreLib::scheduleDidArrive(const Value& json) {
  MORVIK_LOG(log(), lcl_vTrace, kScheduleHandler, "MRVK_QA-getSchedule_JSON: %@", json);
  takeServerTime(json);
  if (util().checkNilToNo(json["Result"]) && util().checkIntegerNilToZero(json["ResultCode"]) == kScheduleUnchanged) {
    replaySchedule();
    return;
  }
  checkSum_ = util().checkNilToBlankString(json["Data"]["CheckSum"]).string();
  lastJSON_ = json;
  if (const kit::Module* module = ports_.modules.find(kScheduleModule))
    services().setGetScheduleDelegate(sharedObjectOf(module));
  passSchedule();
}

/// Without a schedule in memory the checksum is reset, so that the next answer contains the schedule.
void MorvikCoreLib::replaySchedule() {
  MORVIK_LOG(log(), lcl_vTrace, kScheduleHandler, "MRVK_QA-getSchedule_offline JSON: %@", lastJSON_);
  if (!lastJSON_.isAbsent()) {
    passSchedule();
    return;
  }
  checkSum_ = kInitialCheckSum;
  getSchedule(scheduleParameters());
}

void MorvikCoreLib::passSchedule() {
  const auto delegate = services().getScheduleDelegate();
  if (delegate != nullptr && delegate->didGetSchedule)
    delegate->didGetSchedule(lastJSON_);
}

}  // namespace morvik
