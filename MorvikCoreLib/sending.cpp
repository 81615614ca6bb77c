// Sending switched off by the app, and on again.

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "services/guard.h"

namespace morvik {
namespace {

constexpr services::Guard kResumeGuard{services::block("MRVK_QA-[MorvikCoreLib error] Exception from sendingDidResume!"
                                                       "\n                          exceptionName: %@"
                                                       "\n                          reason: %@"
                                                       "\n                          exceptionInfo: %@"),
                                       services::block("MRVK_QA-[MorvikCoreLib error] Exception from sendingDidResume!"
                                                       "\n                          exception print: %@")};

}  // namespace

void MorvikCoreLib::sendingDidResume() {
  services::guarded(log(), kResumeGuard, MORVIK_HERE("-[MorvikCoreLib sendingDidResume]"), [this] {
    if (!isStartSessionCalled_ || isGateClosed())
      return;
    // The noted ids belong to the batch under way: if a second one were built now, its answer would trim both. A
    // session start may have freed the slot meanwhile.
    set_isTrackingCalled(isBatchUnderWay());
    getPremiumPostbackInfoss();
    iAdConversion();
    getSchedule(scheduleParameters());
    sendPendingDemos();
    askForAttribution();
    if (store().MorvikCoreUserInfo_Crash().size() > 0)
      sendCrashInfos();
    pushAsAtSessionStart();
    replayStoredURL();
  });
}

/// After a batch under way, whose answer frees the slot. What a kept session leaves out stays out, both of a batch that
/// never left and of what a limit has left.
void MorvikCoreLib::pushAsAtSessionStart() {
  pushes_after_batch_ = isBatchUnderWay();
  if (pushes_after_batch_)
    return;
  const bool filters = withheld_end_activities_ == EndActivities::kFilter;
  uploadPendingActivities(filters ? EndActivities::kFilter : endActivitiesOfRest());
}

}  // namespace morvik
