// Start-up, session start and end, background time, launch counter and retention mark.

#include <mutex>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "MorvikCoreLib/failure_counts.h"
#include "services/converters.h"
#include "services/endpoints.h"
#include "services/guard.h"

namespace morvik {
namespace {

using kit::lcl_vDebug;
using kit::lcl_vTrace;

/// A session that becomes active again after 1 to 59,999 milliseconds is the same session.
constexpr int64_t kKeepSessionMinMilliseconds = 1;
constexpr int64_t kKeepSessionMaxMilliseconds = 59'999;

/// The batch at session end leaves half a second after endSession.
constexpr double kSessionEndDelaySeconds = 0.5;

constexpr services::Guard kStartSessionGuard{
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from startSession!"
                    "\n                          exceptionName: %@"
                    "\n                          reason: %@"
                    "\n                          exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from startSession!"
                    "\n                          exception print: %@")};

constexpr services::Guard kEnterBackgroundGuard{
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from enterBackground!"
                    "\n                          exceptionName: %@"
                    "\n                          reason: %@"
                    "\n                          exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from enterBackground!"
                    "\n                          exception print: %@")};

constexpr services::Guard kEndSessionGuard{services::block("MRVK_QA-[MorvikCoreLib error] Exception from endSession!"
                                                           "\n                          exceptionName: %@"
                                                           "\n                          reason: %@"
                                                           "\n                          exceptionInfo: %@"),
                                           services::block("MRVK_QA-[MorvikCoreLib error] Exception from endSession!"
                                                           "\n                          exception print: %@")};

/// The process-wide object and the ports it is made on.
struct SharedInstance {
  std::mutex mutex;
  const kit::Ports* ports = nullptr;
  std::shared_ptr<MorvikCoreLib> object;
};

SharedInstance& sharedInstance() {
  static auto& instance = *new SharedInstance;  // an object may outlive everything that is destroyed at the end
  return instance;
}

/// Field by field, each only with a strict greater-than: a smaller year or month does not stop the comparison. This is
/// the rule of the service's day-retention, not a comparison of dates.
bool isNewDay(const kit::CalendarComponents& now, const kit::CalendarComponents& stored) {
  return now.year > stored.year || now.month > stored.month || now.day > stored.day;
}

std::string launchCounterKey() {
  return services::format("%@.%@", {services::kMorvikNSUserDefaultsDomainName, services::kAppLaunchCountSaveKey});
}

/// Length of a session in whole milliseconds; 0 without a start, or with the clock set back in between.
uint64_t sessionLengthMilliseconds(std::optional<kit::Date> start, kit::Date end) {
  if (!start || end < *start)
    return 0;
  return static_cast<uint64_t>(end.millisecondsSince(*start));
}

}  // namespace

// ------------------------------------------------------------------------------------------------------------ start-up

std::shared_ptr<MorvikCoreLib> MorvikCoreLib::make(const kit::Ports& ports) {
  std::shared_ptr<MorvikCoreLib> object(new MorvikCoreLib(ports));
  object->init();
  return object;
}

std::shared_ptr<MorvikCoreLib> MorvikCoreLib::shared() {
  SharedInstance& instance = sharedInstance();
  const std::scoped_lock hold(instance.mutex);
  if (instance.object == nullptr && instance.ports != nullptr) {
    instance.object = make(*instance.ports);
    instance.object->set_isTrackingCalled(false);
  }
  return instance.object;
}

bool MorvikCoreLib::provideSharedPorts(const kit::Ports& ports) {
  SharedInstance& instance = sharedInstance();
  const std::scoped_lock hold(instance.mutex);
  if (instance.ports != nullptr)
    return instance.ports == &ports;
  instance.ports = &ports;
  return true;
}

void MorvikCoreLib::withdrawSharedPorts(const kit::Ports& ports) {
  SharedInstance& instance = sharedInstance();
  std::shared_ptr<MorvikCoreLib> last;  // destroyed after the lock is released
  const std::scoped_lock hold(instance.mutex);
  if (instance.ports != &ports)
    return;
  instance.ports = nullptr;
  last.swap(instance.object);
}

MorvikCoreLib::MorvikCoreLib(const kit::Ports& ports)
    : ports_(ports),
      log_(ports.shared_state.log_levels, ports.log_sink),
      store_(ports.key_value_store, ports.list_lock),
      _df(ports.calendar),
      batch_size_(ports.batch_limit),
      activity_order_("activityCreatedAt"),
      impression_order_("createdAt"),
      failed_clicks_(conversionKeyOf),
      failed_click_counts_(conversionKeyOf) {}

void MorvikCoreLib::init() {
  MORVIK_LOG(log(), lcl_vDebug, "-[MorvikCoreLib init]",
             "MRVK_QA-%@.framework Version : %@, app key : %@, hash key : %@", ports_.update_log.frameworkName(),
             ports_.update_log.getSDKVersion(), services().appKey(), services().hashKey());
  isFirstLaunchOk_ = false;
  isStartSessionCalled_ = false;
  failedGetReferralCnt_ = 0;
  if (store().fendoUserInfo_referralKey() == -1)
    isFirstLaunchOk_ = true;
  ports_.shared_state.kAESSuperKeyForTracking = ports_.make_config()->getTrackingSuperkey();
  checkSum_ = kInitialCheckSum;
  const bool portrait = ports_.device.statusBarOrientation() == kit::kOrientationPortrait;
  store().setFendoUserInfo_isApplicationPortrait(portrait ? "true" : "false");
  store().synchronize();
  takeInShelvedReports();
  if (store().MorvikCoreUserInfo_isGDPRForgetMe())
    return;
  observeApplicationLife();
}

void MorvikCoreLib::observeApplicationLife() {
  const std::weak_ptr<MorvikCoreLib> self = weak_from_this();
  ports_.notifications.addObserver(kit::Notification::kApplicationDidBecomeActive, [self] {
    if (const auto object = self.lock())
      object->startSession();
  });
  ports_.notifications.addObserver(kit::Notification::kApplicationDidEnterBackground, [self] {
    if (const auto object = self.lock())
      object->enterBackground();
  });
}

// ------------------------------------------------------------------------------------------------------- session start

void MorvikCoreLib::startSession() {
  static constexpr const char* kOperation = "-[MorvikCoreLib startSession]";
  isAppinFocus_ = true;
  services::guarded(log(), kStartSessionGuard, MORVIK_HERE(kOperation), [this] {
    set_isTrackingCalled(false);
    if (isStartSessionCalled_) {
      MORVIK_LOG(
          log(), lcl_vTrace, kOperation,
          "MRVK_QA-[MorvikCoreLib Info] Already startSession be called, this process not be execute til endSession "
          "be called!!!");
      return;
    }
    isStartSessionCalled_ = true;
    ++sessions_;
    clearSentEventKeysAtStart();
    getPremiumPostbackInfoss();
    iAdConversion();
    getSchedule(scheduleParameters());
    updateAppLaunchCount();
    const EndActivities end_activities = keepOrStartSession();
    chkRetentionForDay();
    uploadPendingActivities(end_activities);
    sendPendingDemos();
    startSessoinDate_.set(ports_.clock.now());
    askForAttribution();
    storeAdvertisingIdentifier();
    if (store().MorvikCoreUserInfo_Crash().size() > 0)
      sendCrashInfos();
    saveCommerceEvents();
    replayStoredURL();
  });
}

void MorvikCoreLib::clearSentEventKeysAtStart() {
  const bool cleared = store().inOneStep([this] {
    kit::MutableArray keys(store().fendoActivityInfosSentEventKeys());
    if (keys.empty())
      return false;
    keys.removeAll();
    store().setFendoActivityInfosSentEventKeys(kit::Value(std::move(keys)));
    return true;
  });
  if (!cleared)
    return;
  store().synchronize();
  MORVIK_LOG(log(), lcl_vTrace, "-[MorvikCoreLib startSession]",
             "MRVK_QA-clear fendoActivityInfosSentEventKeys on startSession: %@", kit::Value(kit::Array()));
}

/// Keeps the session that ended a moment ago, or records the start of a new one. The batch of a kept session leaves out
/// its "end".
EndActivities MorvikCoreLib::keepOrStartSession() {
  if (endedWithinTheMinute()) {
    MORVIK_LOG(log(), lcl_vTrace, "-[MorvikCoreLib startSession]",
               "MRVK_QA-[MorvikCoreLib]Keep Session on startSession : skip start activity ");
    return EndActivities::kFilter;
  }
  // The first activation of this process: the stored end is known from now on, but does not count this time.
  if (!endSessoinDate_.get())
    endSessoinDate_.set(store().MorvikCoreUserInfo_endSessoinDate());
  recordSessionActivity("start", "", ports_.clock.now());
  return EndActivities::kSend;
}

bool MorvikCoreLib::endedWithinTheMinute() const {
  const std::optional<kit::Date> ended = endSessoinDate_.get();
  if (!ended)
    return false;
  const int64_t elapsed_milliseconds = ports_.clock.now().millisecondsSince(*ended);
  return elapsed_milliseconds >= kKeepSessionMinMilliseconds && elapsed_milliseconds <= kKeepSessionMaxMilliseconds;
}

void MorvikCoreLib::uploadPendingActivities(EndActivities end_activities) {
  withheld_end_activities_ = services().isSendingOff() ? end_activities : EndActivities::kSend;
  pushes_after_batch_ = false;
  if (store().fendoActivityInfos().size() == 0 || !isTrackingPossible())
    return;
  sendBatch(makeTrackingParameter(end_activities), end_activities);
}

void MorvikCoreLib::askForAttribution() {
  if (services().isSendingOff())
    return;
  if (searchAdsAttributionDetails_.isAbsent()) {
    searchAds();
  } else if (store().fendoUserInfo_referralKey() == -1) {
    conversion(makeConversion());
  }
}

void MorvikCoreLib::storeAdvertisingIdentifier() {
  if (!store().MorvikCoreUserInfo_IDFA().value_or("").empty())
    return;
  store().setMorvikCoreUserInfo_IDFA(util().IDFA());
  store().synchronize();
}

/// Handles a URL that arrived before the kit was ready, once: it is removed before it is opened. Pending while sending
/// is off.
void MorvikCoreLib::replayStoredURL() {
  if (services().isSendingOff())
    return;
  const std::optional<kit::Url> url = store().URLForKey(services::kPassOpenUrlKey);
  if (!url)
    return;
  store().setURL(std::nullopt, services::kPassOpenUrlKey);
  store().synchronize();
  passOpenURL(*url);
}

void MorvikCoreLib::enterBackground() {
  services::guarded(log(), kEnterBackgroundGuard, MORVIK_HERE("-[MorvikCoreLib enterBackground]"), [this] {
    isAppinFocus_ = false;
    failedGetAESKeyCnt_ = 0;
    isFirstLaunchOk_ = false;
    if (!ports_.device.isMultitaskingSupported().value_or(false))
      return;
    const std::weak_ptr<MorvikCoreLib> self = weak_from_this();
    background_task_ = ports_.background_tasks.beginBackgroundTaskWithExpirationHandler([self] {
      const auto object = self.lock();
      if (object == nullptr)
        return;
      object->endBackgroundTaskHeld();
      MORVIK_LOG(object->log(), lcl_vDebug, "-[MorvikCoreLib enterBackground]_block_invoke",
                 "MRVK_QA-UIBackgroundTaskInvalid...");
    });
    ports_.background_queue.async([object = shared_from_this()] { object->endSession(); });
  });
}

void MorvikCoreLib::endSession() {
  services::guarded(log(), kEndSessionGuard, MORVIK_HERE("-[MorvikCoreLib endSession]"), [this] {
    isStartSessionCalled_ = false;
    const kit::Date now = ports_.clock.now();
    endSessoinDate_.set(now);
    const uint64_t session_length_milliseconds = sessionLengthMilliseconds(startSessoinDate_.get(), now);
    store().setMorvikCoreUserInfo_endSessoinDate(now);
    store().synchronize();
    sendPendingDemos();
    if (!store().reEngagementInfos().isAbsent())
      makeFailureReEngagementConversionParameter();
    saveCommerceEvents();
    // A click that is held leaves later; if it fails then, it is stored as others are.
    if (!services().isSendingOff())
      setReEngagement_task(nullptr);
    if (!isTrackingPossible())
      return;
    ports_.main_queue.after(kSessionEndDelaySeconds, [object = shared_from_this(), session_length_milliseconds] {
      object->sendAtSessionEnd(session_length_milliseconds);
    });
  });
}

/// Sends first and records the "end" afterwards, which therefore travels in the next batch.
void MorvikCoreLib::sendAtSessionEnd(uint64_t session_length_milliseconds) {
  tracking(makeTrackingParameter(endActivitiesOfRest()));
  ++sessions_;
  recordSessionActivity("end", std::to_string(session_length_milliseconds), ports_.clock.now());
}

void MorvikCoreLib::applicationEndBackgroundTask() {
  ports_.background_queue.async([object = shared_from_this()] { object->endBackgroundTaskHeld(); });
}

/// Runs on either queue. Forgets only the task that it ends, not one that the other queue begins meanwhile.
void MorvikCoreLib::endBackgroundTaskHeld() {
  kit::BackgroundTaskIdentifier held = background_task_;
  ports_.background_tasks.endBackgroundTask(held);
  background_task_.compare_exchange_strong(held, kit::kBackgroundTaskInvalid);
}

void MorvikCoreLib::recordSessionActivity(const char* name, const std::string& param, kit::Date created_at) {
  services().addActivityGroupName(services().activityGroupName(0), name, param, created_at);
}

// ----------------------------------------------------------------------------------- launch counter and retention mark

void MorvikCoreLib::updateAppLaunchCount() {
  const std::string key = launchCounterKey();
  // Otherwise the count of a store that is recovered in between would be overwritten.
  store().inOneStep([this, &key] {
    const auto launches = static_cast<uint64_t>(store().integerForKey(key));
    store().setInteger(static_cast<int64_t>(launches + 1), key);
  });
  store().synchronize();
}

void MorvikCoreLib::chkRetentionForDay() {
  const kit::Date now = ports_.clock.now();
  const std::optional<kit::Date> last = store().fendoUserInfo_last_app_launched_date();
  if (!last || isNewDay(ports_.calendar.components(now), ports_.calendar.components(*last)))
    markRetention(now);
  store().synchronize();
}

void MorvikCoreLib::markRetention(kit::Date now) {
  store().setFendoUserInfo_last_app_launched_date(now);
  recordSessionActivity("retention", "", now);
  pushTracking();
}

}  // namespace morvik
